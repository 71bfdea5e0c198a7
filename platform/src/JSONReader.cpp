// The reading half of JSONSerialization: our own strict JSON reader, which parses a text into a
// tape (one entry per value, in document order) that the JSONElement views look at and from
// which jsonObject builds its Value tree. simdjson supplies what is worth having from it: the
// processor-specific UTF-8 validator, and the words in which a refused text is described. This
// is the only source file that includes simdjson's header: it is large and slow to compile.
//
// Why a reader of our own: the bridge's requests are mostly a few dozen bytes, where a general
// parser's set-up for each text costs more than the reading itself; this reader has no set-up
// beyond a thread's reusable tape, and it reads the usual texts in one pass without copying
// strings that hold no escapes.
#include <simdjson.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::platform {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// simdjson's kernel for this processor (the code specialised for its instruction set), made here
// and never destroyed.
//
// simdjson's own kernel objects, behind get_active_implementation() and the functions that use
// it (simdjson::validate_utf8, a parser's first allocation), are function-local statics, which
// static destruction destroys: a thread still reading or writing JSON while the process exits
// (a plug-in call running when the host returns from main) would then call a pure virtual
// function and abort. Nothing in this file reaches those objects. The kernel below lives in
// static storage that has no destructor, every parser gets its parser implementation from it,
// and UTF-8 is validated by it, so JSON work stays valid in any order of static destruction.
// It is chosen the way simdjson chooses: the first one, most capable first, that the
// processor runs.
template <class Kernel>
const simdjson::implementation* makeKernel() {
    alignas(Kernel) static unsigned char storage[sizeof(Kernel)];
    return new (storage) Kernel();
}

const simdjson::implementation& kernel() {
    static const simdjson::implementation* const chosen = [] {
        using Make = const simdjson::implementation* (*)();
        constexpr Make candidates[] = {
#if SIMDJSON_IMPLEMENTATION_ICELAKE
            &makeKernel<simdjson::icelake::implementation>,
#endif
#if SIMDJSON_IMPLEMENTATION_HASWELL
            &makeKernel<simdjson::haswell::implementation>,
#endif
#if SIMDJSON_IMPLEMENTATION_WESTMERE
            &makeKernel<simdjson::westmere::implementation>,
#endif
#if SIMDJSON_IMPLEMENTATION_ARM64
            &makeKernel<simdjson::arm64::implementation>,
#endif
#if SIMDJSON_IMPLEMENTATION_PPC64
            &makeKernel<simdjson::ppc64::implementation>,
#endif
        };
        for (const Make make : candidates) {
            const simdjson::implementation* candidate = make();
            if (candidate->supported_by_runtime_system()) {
                return candidate;
            }
        }
        return makeKernel<simdjson::fallback::implementation>();
    }();
    return *chosen;
}

// Gives `parser` its parser implementation from our kernel, able to take `capacity` bytes, so
// that the parser never asks simdjson's own kernel for one. Later growth goes through that
// parser implementation. False when memory runs out.
bool equip(simdjson::dom::parser& parser, std::size_t capacity) {
    return kernel().create_dom_parser_implementation(capacity, JSONSerialization::maximumDepth,
                                                     parser.implementation) == simdjson::SUCCESS;
}

// Whether `token` is an integer in JSON's grammar that no 64-bit integer holds: above the
// unsigned maximum, or below the signed minimum.
bool isBigInteger(std::string_view token) {
    const bool negative = token.starts_with('-');
    const std::string_view digits = token.substr(negative ? 1 : 0);
    if (digits.empty() || (digits[0] == '0' && digits.size() > 1) ||
        digits.find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    const std::string_view largest = negative ? "9223372036854775808" : "18446744073709551615";
    return digits.size() > largest.size() || (digits.size() == largest.size() && digits > largest);
}

// `text` with an exponent ("e0") after every integer that no 64-bit integer holds, so that
// simdjson, which refuses such integers, reads them as floating-point numbers (the nearest
// double); nothing when there is no such integer. The scan skips strings and takes each run of
// number characters outside them as one token; only a run that is an integer by JSON's grammar
// changes, into a number that is just as valid in the same place. So a valid text stays valid,
// and one that is not valid stays so.
std::optional<std::string> withBigIntegersAsReals(std::string_view text) {
    constexpr std::string_view numberCharacters = "0123456789+-.eE";
    std::string rewritten;
    bool changed = false;
    std::size_t copied = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\') {
                    ++i;
                }
            }
            ++i;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            const std::size_t start = i;
            while (i < text.size() && numberCharacters.find(text[i]) != std::string_view::npos) {
                ++i;
            }
            if (isBigInteger(text.substr(start, i - start))) {
                rewritten.append(text.substr(copied, i - copied));
                rewritten.append("e0");
                copied = i;
                changed = true;
            }
        } else {
            ++i;
        }
    }
    if (!changed) {
        return std::nullopt;
    }
    rewritten.append(text.substr(copied));
    return rewritten;
}

// Why simdjson refuses `text` (without its byte-order mark; not empty): its own error message,
// after integers that no 64-bit integer holds have been given an exponent, as the reader takes
// them (so that such an integer is not what gets blamed). Our reader and simdjson accept the same
// texts (fuzz/json_reader checks that they do), so a refusal is described in simdjson's words;
// should simdjson accept the text all the same, a plain description stands in.
std::string refusalReason(std::string_view text) {
    try {
        thread_local simdjson::dom::parser parser = [] {
            simdjson::dom::parser p;
            if (!equip(p, simdjson::SIMDJSON_PADDING)) {
                throw std::bad_alloc();
            }
            return p;
        }();
        simdjson::dom::element root;
        auto status = parser.parse(text.data(), text.size()).get(root);
        if (status != simdjson::SUCCESS) {
            // The same text with its big integers read as reals, as the reader reads them:
            // its error is the text's own.
            if (const auto rewritten = withBigIntegersAsReals(text)) {
                status = parser.parse(rewritten->data(), rewritten->size()).get(root);
            }
        }
        if (status != simdjson::SUCCESS) {
            return simdjson::error_message(status);
        }
        return "the text is not valid JSON";
    } catch (const std::exception& e) {
        return e.what();
    }
}

// ---- The tape ----------------------------------------------------------------------------------

// One value of a parsed document, laid out as Value.h's detail::JSONTapeEntry says: `next` is
// the index just past the value and everything under it, so siblings are found by following it,
// and a container's own `unsignedInteger` holds how many elements (members) it has.
using TapeEntry = detail::JSONTapeEntry;

static_assert(sizeof(TapeEntry) == 16);

// The largest text the tape can address (its offsets are 32 bits), as simdjson's limit.
constexpr std::size_t kLargestText = 0xFFFFFFFF;

}  // namespace

// A parsed document: the tape, ended by a null entry that no value owns (so that following
// `next` from the last value still lands on an entry), and the unescaped strings. Views point
// into it, and into the input text, which outlives the visit.
struct JSONDocument {
    std::string_view input;
    // Its size is the room made so far; the entries up to the root's `next`, and the closing
    // null entry there, are this text's.
    std::vector<TapeEntry> tape;
    std::string strings;

    std::string_view text(const TapeEntry& entry) const {
        const char* base = entry.unescaped ? strings.data() : input.data();
        return {base + entry.text.offset, entry.text.length};
    }
};

namespace {

constexpr bool isWhitespace(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Writes a code point as UTF-8 at `w`; answers the end of what it wrote.
char* writeUTF8(char* w, std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        *w++ = static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        *w++ = static_cast<char>(0xC0 | (codePoint >> 6));
        *w++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        *w++ = static_cast<char>(0xE0 | (codePoint >> 12));
        *w++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *w++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        *w++ = static_cast<char>(0xF0 | (codePoint >> 18));
        *w++ = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        *w++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *w++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return w;
}

#if defined(__SSE2__)
// The bytes of a block that end a string's plain stretch: quotation marks, reverse solidi and
// control characters (0xFF each, 0 for the others).
__m128i specialBytes(__m128i bytes) {
    return _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                     _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))),
                        _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes));
}
#endif

// Reads one text into a document's tape by JSON's grammar (RFC 8259), with the rules of
// jsonObject: nesting up to maximumDepth, integers as signed 64-bit when they fit, unsigned
// 64-bit beyond that, the nearest double beyond 64 bits; reals as the nearest double (refused
// when that is infinite); strings valid UTF-8 without unescaped control characters and without
// lone surrogates in escapes. It only decides whether the text is JSON; why not is asked of
// simdjson (refusalReason).
//
// The position in the text is kept in local variables and handed from step to step, so that the
// compiler need not assume that writing the tape moves it.
class Reader {
  public:
    explicit Reader(JSONDocument& document) : doc_(document) {}

    bool read(std::string_view text) {
        begin_ = text.data();
        end_ = text.data() + text.size();
        tape_ = doc_.tape.data();
        capacity_ = doc_.tape.size();
        used_ = 0;
        stringsUsed_ = 0;

        // The innermost open container. While a container is open, its entry's `next` holds the
        // container around it (kNoContainer at the top), so no stack is kept besides the tape.
        std::uint32_t open = kNoContainer;
        std::size_t depth = 0;

        const char* p = skipWhitespace(begin_);
    value:
        if (p == end_) {
            return false;
        }
        switch (*p) {
            case '{':
            case '[': {
                if (depth == JSONSerialization::maximumDepth) {
                    return false;
                }
                const bool object = *p == '{';
                const auto index = static_cast<std::uint32_t>(used_);
                push(object ? Value::Kind::dictionary : Value::Kind::array).next = open;
                open = index;
                ++depth;
                p = skipWhitespace(p + 1);
                if (p != end_ && *p == (object ? '}' : ']')) {
                    ++p;
                    open = close(open);
                    --depth;
                    goto afterValue;
                }
                if (object) {
                    goto key;
                }
                goto value;
            }
            case '"':
                p = readString(p);
                break;
            case 't':
                p = readAtom(p, "true");
                if (p != nullptr) {
                    push(Value::Kind::boolean).boolean = true;
                }
                break;
            case 'f':
                p = readAtom(p, "false");
                if (p != nullptr) {
                    push(Value::Kind::boolean).boolean = false;
                }
                break;
            case 'n':
                p = readAtom(p, "null");
                if (p != nullptr) {
                    push(Value::Kind::null);
                }
                break;
            default:
                p = readNumber(p);
                break;
        }
        if (p == nullptr) {
            return false;
        }
    afterValue:
        if (depth == 0) {
            p = skipWhitespace(p);
            if (p != end_ ||
                (sawHighBit_ &&
                 !kernel().validate_utf8(begin_, static_cast<std::size_t>(end_ - begin_)))) {
                return false;
            }
            // The closing entry that no value owns.
            push(Value::Kind::null);
            return true;
        }
        {
            // One more element (member) of the innermost container: counted as it is read, so
            // that a view answers its size without walking the elements.
            ++tape_[open].unsignedInteger;
            const bool object =
                tape_[open].kind == static_cast<std::uint8_t>(Value::Kind::dictionary);
            p = skipWhitespace(p);
            if (p == end_) {
                return false;
            }
            if (*p == ',') {
                p = skipWhitespace(p + 1);
                if (object) {
                    goto key;
                }
                goto value;
            }
            if (*p != (object ? '}' : ']')) {
                return false;
            }
            ++p;
            open = close(open);
            --depth;
            goto afterValue;
        }
    key:
        if (p == end_ || *p != '"') {
            return false;
        }
        p = readString(p);
        if (p == nullptr) {
            return false;
        }
        p = skipWhitespace(p);
        if (p == end_ || *p != ':') {
            return false;
        }
        p = skipWhitespace(p + 1);
        goto value;
    }

  private:
    TapeEntry& push(Value::Kind kind) {
        if (used_ == capacity_) {
            grow();
        }
        TapeEntry& entry = tape_[used_];
        entry.kind = static_cast<std::uint8_t>(kind);
        entry.unescaped = false;
        entry.next = static_cast<std::uint32_t>(++used_);
        entry.integer = 0;
        return entry;
    }

    void grow() {
        capacity_ = std::max<std::size_t>(64, capacity_ * 2);
        doc_.tape.resize(capacity_);
        tape_ = doc_.tape.data();
    }

    // Closes the innermost open container and answers the one around it.
    std::uint32_t close(std::uint32_t container) {
        const std::uint32_t around = tape_[container].next;
        tape_[container].next = static_cast<std::uint32_t>(used_);
        return around;
    }

    static constexpr std::uint32_t kNoContainer = 0xFFFFFFFF;

    const char* skipWhitespace(const char* p) const {
        while (p != end_ && isWhitespace(*p)) {
            ++p;
        }
        return p;
    }

    const char* readAtom(const char* p, std::string_view atom) const {
        if (static_cast<std::size_t>(end_ - p) < atom.size() ||
            std::memcmp(p, atom.data(), atom.size()) != 0) {
            return nullptr;
        }
        return p + atom.size();
    }

    // The next quotation mark, reverse solidus or control character from `from`, or the end of
    // the text; notes any byte above 0x7F on the way.
    const char* findSpecial(const char* q) {
#if defined(__SSE2__)
        while (end_ - q >= 16) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
            const auto mask = static_cast<unsigned>(_mm_movemask_epi8(specialBytes(bytes)));
            const auto high = static_cast<unsigned>(_mm_movemask_epi8(bytes));
            if (mask != 0) {
                const auto at = static_cast<unsigned>(std::countr_zero(mask));
                sawHighBit_ |= (high & ((1u << at) - 1)) != 0;
                return q + at;
            }
            sawHighBit_ |= high != 0;
            q += 16;
        }
#endif
        for (; q != end_; ++q) {
            const auto c = static_cast<unsigned char>(*q);
            if (c == '"' || c == '\\' || c < 0x20) {
                return q;
            }
            sawHighBit_ |= c >= 0x80;
        }
        return q;
    }

    // A string from its opening quotation mark, as a text entry; the position after it, or
    // nullptr. Strings without escapes stay in the input; the others are unescaped into the
    // document's buffer.
    const char* readString(const char* p) {
        const char* run = p + 1;
        const char* q = findSpecial(run);
        if (q == end_) {
            return nullptr;
        }
        if (*q == '"') {
            TapeEntry& entry = push(Value::Kind::text);
            entry.text = {static_cast<std::uint32_t>(run - begin_),
                          static_cast<std::uint32_t>(q - run)};
            return q + 1;
        }
        // Unescaped text is never longer than its escaped form, so the whole input (and 16
        // bytes for the block copies below) bounds what all strings of a document need: the
        // buffer is made that large once and written through a pointer.
        std::string& buffer = doc_.strings;
        const std::size_t room = static_cast<std::size_t>(end_ - begin_) + 16;
        if (buffer.size() < room) {
            buffer.resize(room);
        }
        char* const start = buffer.data() + stringsUsed_;
        char* w = start;
        const auto copyRun = [&](const char* from, const char* to) {
            std::memcpy(w, from, static_cast<std::size_t>(to - from));
            w += to - from;
        };
        copyRun(run, q);
        for (;;) {
            // Here q is at a quotation mark, a reverse solidus or a control character.
            if (*q != '\\') {
                if (*q != '"') {
                    return nullptr;  // a control character
                }
                break;
            }
            ++q;
            if (q == end_) {
                return nullptr;
            }
            switch (*q) {
                case '"':
                case '\\':
                case '/':
                    *w++ = *q;
                    break;
                case 'b':
                    *w++ = '\b';
                    break;
                case 'f':
                    *w++ = '\f';
                    break;
                case 'n':
                    *w++ = '\n';
                    break;
                case 'r':
                    *w++ = '\r';
                    break;
                case 't':
                    *w++ = '\t';
                    break;
                case 'u': {
                    std::uint32_t codePoint = 0;
                    if (!readHex4(q + 1, codePoint)) {
                        return nullptr;
                    }
                    q += 4;
                    if (codePoint >= 0xDC00 && codePoint <= 0xDFFF) {
                        return nullptr;  // a low surrogate without a high one
                    }
                    if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
                        std::uint32_t low = 0;
                        if (end_ - q < 7 || q[1] != '\\' || q[2] != 'u' || !readHex4(q + 3, low) ||
                            low < 0xDC00 || low > 0xDFFF) {
                            return nullptr;
                        }
                        q += 6;
                        codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
                    }
                    w = writeUTF8(w, codePoint);
                    break;
                }
                default:
                    return nullptr;
            }
            ++q;
#if defined(__SSE2__)
            // The next stretch sixteen bytes at a time: each block is copied whole, and the
            // position moves up to its first special byte (or past it).
            for (;;) {
                if (end_ - q < 16) {
                    const char* const special = findSpecial(q);
                    copyRun(q, special);
                    q = special;
                    break;
                }
                const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(w), bytes);
                const auto mask = static_cast<unsigned>(_mm_movemask_epi8(specialBytes(bytes)));
                const auto high = static_cast<unsigned>(_mm_movemask_epi8(bytes));
                if (mask != 0) {
                    const auto at = static_cast<unsigned>(std::countr_zero(mask));
                    sawHighBit_ |= (high & ((1u << at) - 1)) != 0;
                    q += at;
                    w += at;
                    break;
                }
                sawHighBit_ |= high != 0;
                q += 16;
                w += 16;
            }
#else
            const char* const special = findSpecial(q);
            copyRun(q, special);
            q = special;
#endif
            if (q == end_) {
                return nullptr;
            }
        }
        TapeEntry& entry = push(Value::Kind::text);
        entry.unescaped = true;
        entry.text = {static_cast<std::uint32_t>(stringsUsed_),
                      static_cast<std::uint32_t>(w - start)};
        stringsUsed_ += static_cast<std::size_t>(w - start);
        return q + 1;
    }

    bool readHex4(const char* at, std::uint32_t& value) const {
        if (end_ - at < 4) {
            return false;
        }
        value = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hexDigitValue(at[i]);
            if (digit < 0) {
                return false;
            }
            value = value << 4 | static_cast<std::uint32_t>(digit);
        }
        return true;
    }

    bool isDigit(const char* at) const {
        return at != end_ && *at >= '0' && *at <= '9';
    }

    // A number by JSON's grammar, -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?, from `start`;
    // the position after it, or nullptr.
    const char* readNumber(const char* const start) {
        const char* p = start;
        const bool negative = *p == '-';
        if (negative) {
            ++p;
        }
        if (!isDigit(p)) {
            return nullptr;
        }
        std::uint64_t magnitude = 0;
        bool overflow = false;
        if (*p == '0') {
            ++p;
        } else {
            while (isDigit(p)) {
                const auto digit = static_cast<std::uint64_t>(*p - '0');
                overflow |= __builtin_mul_overflow(magnitude, 10u, &magnitude);
                overflow |= __builtin_add_overflow(magnitude, digit, &magnitude);
                ++p;
            }
        }
        bool integral = true;
        if (p != end_ && *p == '.') {
            ++p;
            if (!isDigit(p)) {
                return nullptr;
            }
            while (isDigit(p)) {
                ++p;
            }
            integral = false;
        }
        if (p != end_ && (*p == 'e' || *p == 'E')) {
            ++p;
            if (p != end_ && (*p == '+' || *p == '-')) {
                ++p;
            }
            if (!isDigit(p)) {
                return nullptr;
            }
            while (isDigit(p)) {
                ++p;
            }
            integral = false;
        }
        if (integral && !overflow) {
            if (!negative) {
                if (magnitude <= static_cast<std::uint64_t>(INT64_MAX)) {
                    push(Value::Kind::integer).integer = static_cast<std::int64_t>(magnitude);
                } else {
                    push(Value::Kind::unsignedInteger).unsignedInteger = magnitude;
                }
                return p;
            }
            if (magnitude <= static_cast<std::uint64_t>(INT64_MAX) + 1) {
                // -0 is the integer 0.
                push(Value::Kind::integer).integer = static_cast<std::int64_t>(0 - magnitude);
                return p;
            }
        }
        double real = 0;
        const auto [end, status] = std::from_chars(start, p, real);
        if (end != p) {
            return nullptr;
        }
        if (status == std::errc::result_out_of_range) {
            // Beyond the largest double is refused; below the smallest is a zero of its sign.
            if (!tendsToZero(start, p)) {
                return nullptr;
            }
            real = negative ? -0.0 : 0.0;
        } else if (status != std::errc()) {
            return nullptr;
        }
        push(Value::Kind::real).real = real;
        return p;
    }

    // For a number token that is out of a double's range: whether it is too small rather than
    // too large. Such a number's decimal exponent is beyond 300 either way, so its sign settles
    // it: the exponent is the digits before the point from the first significant one (or minus
    // the zeros after the point before it), plus the written exponent.
    static bool tendsToZero(const char* q, const char* const end) {
        q += *q == '-' ? 1 : 0;
        const auto digit = [&] { return q != end && *q >= '0' && *q <= '9'; };
        std::int64_t leading = 0;
        bool significant = false;
        for (; digit(); ++q) {
            significant |= *q != '0';
            leading += significant ? 1 : 0;
        }
        if (q != end && *q == '.') {
            for (++q; digit() && !significant; ++q) {
                significant = *q != '0';
                leading -= significant ? 0 : 1;
            }
            while (digit()) {
                ++q;
            }
        }
        std::int64_t exponent = 0;
        if (q != end) {
            ++q;  // e or E
            const bool negativeExponent = *q == '-';
            if (*q == '+' || *q == '-') {
                ++q;
            }
            for (; q != end; ++q) {
                if (exponent < 1'000'000'000) {
                    exponent = exponent * 10 + (*q - '0');
                }
            }
            if (negativeExponent) {
                exponent = -exponent;
            }
        }
        return leading + exponent <= 0;
    }

    JSONDocument& doc_;
    const char* begin_ = nullptr;
    const char* end_ = nullptr;
    TapeEntry* tape_ = nullptr;
    // Of another type than the tape's fields, so that writing an entry is not taken to change
    // them.
    std::size_t capacity_ = 0;
    std::size_t used_ = 0;
    // Bytes of the document's string buffer taken by this text's unescaped strings.
    std::size_t stringsUsed_ = 0;
    bool sawHighBit_ = false;
};

// Parses `text` (its byte-order mark removed) into `document`; false when it is not JSON.
bool readDocument(std::string_view text, JSONDocument& document) {
    document.input = text;
    if (text.size() > kLargestText) {
        return false;
    }
    return Reader(document).read(text);
}

// Above this many entries (or bytes of unescaped text) a thread's document lets go of its
// memory after use, so that one huge text does not keep a thread's memory up for good.
constexpr std::size_t kKeptTapeEntries = 1 << 16;
constexpr std::size_t kKeptStringBytes = 1 << 20;

// The document of this thread: kept between texts, so that its buffers are reused. While a visit
// looks at it, it is taken; a parse on the same thread meanwhile (from inside the visit) gets a
// document of its own, so that the visited one stays intact.
class DocumentLease {
  public:
    DocumentLease() : thread_(threadDocument()) {
        if (!thread_.taken) {
            thread_.taken = true;
            document_ = &thread_.document;
        } else {
            own_.emplace();
            document_ = &*own_;
        }
    }
    ~DocumentLease() {
        if (document_ == &thread_.document) {
            if (document_->tape.size() > kKeptTapeEntries) {
                std::vector<TapeEntry>().swap(document_->tape);
            }
            if (document_->strings.capacity() > kKeptStringBytes) {
                std::string().swap(document_->strings);
            }
            thread_.taken = false;
        }
    }
    DocumentLease(const DocumentLease&) = delete;
    DocumentLease& operator=(const DocumentLease&) = delete;

    JSONDocument& document() { return *document_; }

  private:
    struct ThreadDocument {
        JSONDocument document;
        bool taken = false;
    };
    static ThreadDocument& threadDocument() {
        thread_local ThreadDocument document;
        return document;
    }

    ThreadDocument& thread_;
    JSONDocument* document_ = nullptr;
    std::optional<JSONDocument> own_;
};

// Parses `text` by the reading rules of jsonObject into `document`; on success the root is the
// tape's first entry. On failure, `error` (when given) says why.
bool parseText(JSONDocument& document, std::string_view text, bool fragmentsAllowed,
               std::string* error) {
    auto setError = [error](std::string_view description) {
        if (error != nullptr) {
            *error = description;
        }
    };
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    if (text.empty()) {
        setError("the text is empty");
        return false;
    }
    if (!readDocument(text, document)) {
        if (error != nullptr) {
            *error = refusalReason(text);
        }
        return false;
    }
    const Value::Kind root = document.tape.front().valueKind();
    if (!fragmentsAllowed && root != Value::Kind::array && root != Value::Kind::dictionary) {
        setError("the top-level value is not an array or an object");
        return false;
    }
    return true;
}

// The elements of the array, or members of the object, at `index` (counted by the reader).
std::size_t childCount(const JSONDocument& document, std::uint32_t index) {
    return static_cast<std::size_t>(document.tape[index].unsignedInteger);
}

// The Value of the tape entry at `index` and everything under it.
Value convert(const JSONDocument& document, std::uint32_t index) {
    const TapeEntry& entry = document.tape[index];
    switch (entry.valueKind()) {
        case Value::Kind::array: {
            Array array;
            array.reserve(childCount(document, index));
            for (std::uint32_t i = index + 1; i < entry.next; i = document.tape[i].next) {
                array.push_back(convert(document, i));
            }
            return Value(std::move(array));
        }
        case Value::Kind::dictionary: {
            Dictionary dictionary;
            dictionary.reserve(childCount(document, index));
            for (std::uint32_t i = index + 1; i < entry.next; i = document.tape[i + 1].next) {
                // Dictionary::set replaces an earlier equal key, so the last duplicate wins.
                dictionary.set(Key(document.text(document.tape[i])), convert(document, i + 1));
            }
            return Value(std::move(dictionary));
        }
        case Value::Kind::integer:
            return Value(entry.integer);
        case Value::Kind::unsignedInteger:
            return Value(entry.unsignedInteger);
        case Value::Kind::real:
            return Value(entry.real);
        case Value::Kind::text:
            return Value(document.text(entry));
        case Value::Kind::boolean:
            return Value(entry.boolean);
        default:
            return Value(nullptr);
    }
}

const JSONDocument& documentOf(const void* document) {
    return *static_cast<const JSONDocument*>(document);
}

}  // namespace

// Makes views; their constructor is private to the reader.
struct JSONElementAccess {
    static JSONElement view(const JSONDocument& document, std::uint32_t index) {
        return JSONElement(&document, document.tape.data(), index,
                           document.tape[index].valueKind());
    }
};

// ---- JSONSerialization ------------------------------------------------------------------------

std::optional<Value> JSONSerialization::jsonObject(std::string_view text,
                                                   JSONReadingOptions options, std::string* error) {
    try {
        DocumentLease lease;
        if (!parseText(lease.document(), text, options.fragmentsAllowed, error)) {
            return std::nullopt;
        }
        return convert(lease.document(), 0);
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = e.what();
        }
        return std::nullopt;
    }
}

bool isValidUTF8(std::string_view bytes) {
    // Short ASCII texts (keys, numbers, tokens and most replies) are settled without the
    // validator's dispatch; anything else goes to simdjson's validator (our kernel's, see
    // kernel()).
    constexpr std::size_t kShort = 256;
    if (bytes.size() <= kShort) {
        std::uint64_t any = 0;
        std::size_t i = 0;
#if defined(__SSE2__)
        if (bytes.size() >= 16) {
            __m128i high = _mm_setzero_si128();
            for (; i + 16 <= bytes.size(); i += 16) {
                high = _mm_or_si128(
                    high, _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + i)));
            }
            // The last block overlaps the one before: no byte-by-byte tail.
            high = _mm_or_si128(high, _mm_loadu_si128(reinterpret_cast<const __m128i*>(
                                          bytes.data() + bytes.size() - 16)));
            any = static_cast<unsigned>(_mm_movemask_epi8(high));
            i = bytes.size();
        }
#endif
        for (; i + 8 <= bytes.size(); i += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes.data() + i, 8);
            any |= word & 0x8080808080808080u;
        }
        for (; i < bytes.size(); ++i) {
            any |= static_cast<unsigned char>(bytes[i]) & 0x80u;
        }
        if (any == 0) {
            return true;
        }
    }
    try {
        return kernel().validate_utf8(bytes.data(), bytes.size());
    } catch (...) {
        return false;  // no memory to set the kernel up: nothing can be vouched for
    }
}

// ---- JSONElement ------------------------------------------------------------------------------

bool detail::visitJSON(std::string_view text, bool fragmentsAllowed, std::string* error,
                       JSONVisitFunction visit, void* context) {
    std::optional<DocumentLease> lease;
    try {
        lease.emplace();
        if (!parseText(lease->document(), text, fragmentsAllowed, error)) {
            return false;
        }
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = e.what();
        }
        return false;
    }
    const JSONDocument& document = lease->document();
    visit(context, JSONElementAccess::view(document, 0));
    return true;
}

std::string_view JSONElement::textValue() const {
    return documentOf(document_).text(entry());
}

std::optional<JSONElement> JSONElement::member(std::string_view key) const {
    std::optional<JSONElement> found;
    members(&key, &found, 1);
    return found;
}

void JSONElement::members(const std::string_view* keys, std::optional<JSONElement>* found,
                          std::size_t count) const {
    for (std::size_t k = 0; k != count; ++k) {
        found[k].reset();
    }
    if (kind_ != Value::Kind::dictionary) {
        return;
    }
    const JSONDocument& document = documentOf(document_);
    const std::uint32_t end = document.tape[index_].next;
    for (std::uint32_t i = index_ + 1; i < end; i = document.tape[i + 1].next) {
        const TapeEntry& name = document.tape[i];
        const std::string_view text = document.text(name);
        for (std::size_t k = 0; k != count; ++k) {
            if (keys[k] == text) {
                // A later duplicate replaces it.
                found[k] = JSONElementAccess::view(document, i + 1);
                break;
            }
        }
    }
}

Value JSONElement::toValue() const {
    if (document_ == nullptr) {
        return Value(nullptr);
    }
    return convert(documentOf(document_), index_);
}

}  // namespace nimborra::platform
