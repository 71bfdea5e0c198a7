// The writing half of JSONSerialization: the platform serialiser's output, byte for byte.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <tmmintrin.h>
#define NIMBORRA_JSON_SHUFFLE 1
#endif

#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::platform {

namespace {

constexpr double kTwoToThe53 = 9007199254740992.0;

// Characters that need an escape: the quotation mark, the reverse solidus, the solidus and
// the control characters.
constexpr bool needsEscape(unsigned char c) {
    return c < 0x20 || c == '"' || c == '\\' || c == '/';
}

// How many bytes each byte's escape adds to the byte itself: 1 for the two-character escapes,
// 5 for the \u00xx form, 0 for a byte written as it is.
constexpr std::array<std::uint8_t, 256> kEscapeExtra = [] {
    std::array<std::uint8_t, 256> extra{};
    for (unsigned c = 0; c < 256; ++c) {
        if (!needsEscape(static_cast<unsigned char>(c))) {
            continue;
        }
        switch (c) {
            case '"':
            case '\\':
            case '/':
            case '\b':
            case '\f':
            case '\n':
            case '\r':
            case '\t':
                extra[c] = 1;
                break;
            default:
                extra[c] = 5;
                break;
        }
    }
    return extra;
}();

// The character after the reverse solidus of a two-character escape, or 0 for a byte escaped
// as \u00xx (or not escaped at all).
constexpr std::array<char, 256> kShortEscape = [] {
    std::array<char, 256> second{};
    second['"'] = '"';
    second['\\'] = '\\';
    second['/'] = '/';
    second['\b'] = 'b';
    second['\f'] = 'f';
    second['\n'] = 'n';
    second['\r'] = 'r';
    second['\t'] = 't';
    return second;
}();

#if defined(__SSE2__)
// The bytes of a 16-byte block that need an escape (0xFF each, 0 for the others): the quotation
// marks and the solidi, and apart from those the control characters.
struct EscapeLanes {
    __m128i special;
    __m128i control;
};

EscapeLanes escapeLanes(__m128i bytes) {
    const __m128i special = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                                      _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))),
                                         _mm_cmpeq_epi8(bytes, _mm_set1_epi8('/')));
    // byte <= 0x1F, unsigned: the smaller of the byte and 0x1F is the byte itself.
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    return {special, control};
}

#endif

// Whether any byte of `text` needs an escape. Sixteen bytes at a time where SSE2 is available and
// the text fills a block, the last block overlapping the one before rather than reading past the
// text (a text with an escape usually shows it in its first block); byte by byte otherwise.
bool hasEscapes(std::string_view text) {
#if defined(__SSE2__)
    if (text.size() >= 16) {
        const char* const data = text.data();
        const std::size_t last = text.size() - 16;
        for (std::size_t i = 0;; i += 16) {
            const std::size_t at = std::min(i, last);
            const EscapeLanes lanes =
                escapeLanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at)));
            if (_mm_movemask_epi8(_mm_or_si128(lanes.special, lanes.control)) != 0) {
                return true;
            }
            if (at == last) {
                return false;
            }
        }
    }
#endif
    unsigned escapes = 0;
    for (const char c : text) {
        escapes |= kEscapeExtra[static_cast<unsigned char>(c)];
    }
    return escapes != 0;
}

// How many bytes escaping adds to `text`. Sixteen bytes at a time where SSE2 is available (every
// x86-64): each byte that needs an escape counts one in a vector of byte counters, which is
// summed before it can overflow; control characters, which are rare, add the rest of their
// longer escapes one by one.
std::size_t escapeExtra(std::string_view text) {
    std::size_t extra = 0;
    std::size_t i = 0;
#if defined(__SSE2__)
    constexpr std::size_t kBlocksPerSum = 255;
    const std::size_t blocksEnd = text.size() - text.size() % 16;
    while (i < blocksEnd) {
        const std::size_t stop = std::min(blocksEnd, i + kBlocksPerSum * 16);
        __m128i counts = _mm_setzero_si128();
        for (; i < stop; i += 16) {
            const EscapeLanes lanes =
                escapeLanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + i)));
            // A lane of 0xFF is -1: subtracting it counts one.
            counts = _mm_sub_epi8(counts, _mm_or_si128(lanes.special, lanes.control));
            unsigned controls = static_cast<unsigned>(_mm_movemask_epi8(lanes.control));
            while (controls != 0) {
                const auto at = static_cast<std::size_t>(std::countr_zero(controls));
                extra += kEscapeExtra[static_cast<unsigned char>(text[i + at])] - 1u;
                controls &= controls - 1;
            }
        }
        const __m128i sums = _mm_sad_epu8(counts, _mm_setzero_si128());
        extra += static_cast<std::size_t>(_mm_cvtsi128_si32(sums)) +
                 static_cast<std::size_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
    }
#endif
    for (; i < text.size(); ++i) {
        extra += kEscapeExtra[static_cast<unsigned char>(text[i])];
    }
    return extra;
}

// Each byte as it is written inside a string literal: up to six bytes, padded to eight so that
// one unaligned 8-byte store writes any of them, and how many of those bytes count.
struct EscapedByte {
    char bytes[8];
    std::uint8_t length;
};

constexpr std::array<EscapedByte, 256> kEscapedBytes = [] {
    std::array<EscapedByte, 256> table{};
    for (unsigned c = 0; c < 256; ++c) {
        EscapedByte& entry = table[c];
        if (kEscapeExtra[c] == 0) {
            entry.bytes[0] = static_cast<char>(c);
            entry.length = 1;
        } else if (kShortEscape[c] != 0) {
            entry.bytes[0] = '\\';
            entry.bytes[1] = kShortEscape[c];
            entry.length = 2;
        } else {
            entry.bytes[0] = '\\';
            entry.bytes[1] = 'u';
            entry.bytes[2] = '0';
            entry.bytes[3] = '0';
            entry.bytes[4] = hexDigit(c >> 4);
            entry.bytes[5] = hexDigit(c);
            entry.length = 6;
        }
    }
    return table;
}();

// The room writeEscaped may write beyond the end of its output (never counted in it).
constexpr std::size_t kEscapeSlack = 48;

#if defined(__SSE2__)
// Writes the escaped form of the 16 bytes at `in` at `p`, reading up to 16 bytes after them, and
// returns the end of what it wrote. A block without escapes is copied whole; in one with escapes,
// each clean stretch is copied with one 16-byte store (the bytes after it are overwritten next)
// and each escape with one small store, walking the block's escape mask, so that densely escaped
// text (quotation marks and solidi in nested JSON) costs one step per escape. Stores reach at
// most 16 bytes past what is written.
char* escapeBlock(const char* in, char* p) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const EscapeLanes lanes = escapeLanes(bytes);
    auto mask =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(lanes.special, lanes.control)));
    if (mask == 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), bytes);
        return p + 16;
    }
    unsigned done = 0;
    if (_mm_movemask_epi8(lanes.control) == 0) {
        // Only quotation marks and solidi: each becomes a reverse solidus and itself, so the
        // k-th escape of the block lands k bytes further on and its place is known without
        // waiting for the ones before it.
        unsigned added = 0;
        while (mask != 0) {
            const auto at = static_cast<unsigned>(std::countr_zero(mask));
            std::memcpy(p + done + added, in + done, 16);
            // Both bytes in one store (this path is x86's: little-endian).
            const auto pair = static_cast<std::uint16_t>(
                '\\' | static_cast<unsigned>(static_cast<unsigned char>(in[at])) << 8);
            std::memcpy(p + at + added, &pair, 2);
            ++added;
            done = at + 1;
            mask &= mask - 1;
        }
        std::memcpy(p + done + added, in + done, 16);
        return p + 16 + added;
    }
    while (mask != 0) {
        const auto at = static_cast<unsigned>(std::countr_zero(mask));
        std::memcpy(p, in + done, 16);
        p += at - done;
        const EscapedByte& escaped = kEscapedBytes[static_cast<unsigned char>(in[at])];
        std::memcpy(p, escaped.bytes, 8);
        p += escaped.length;
        done = at + 1;
        mask &= mask - 1;
    }
    // The rest of the block (reading ahead into the next one, which is there).
    std::memcpy(p, in + done, 16);
    return p + 16 - done;
}
#endif

#if defined(NIMBORRA_JSON_SHUFFLE)
// For each pattern of escapes among 8 bytes, where each output byte comes from: lane i (0-7) is
// input byte i, lane 8 a reverse solidus. An escaped byte becomes a reverse solidus and itself,
// so 8 bytes with k escapes come out as 8 + k.
constexpr std::array<std::array<std::uint8_t, 16>, 256> kExpandShuffles = [] {
    std::array<std::array<std::uint8_t, 16>, 256> table{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        unsigned out = 0;
        for (std::uint8_t in = 0; in < 8; ++in) {
            if ((mask >> in) & 1u) {
                table[mask][out++] = 8;
            }
            table[mask][out++] = in;
        }
        for (; out < 16; ++out) {
            table[mask][out] = 0x80;  // a zero byte, beyond what is counted
        }
    }
    return table;
}();

// escapeBlock for blocks without control characters, with SSSE3's byte shuffle: a block of
// quotation marks and solidi costs the same few steps however many it holds (nested JSON carries
// one every few bytes). Returns null, having written nothing counted, for a block with a control
// character. Stores reach at most 16 bytes past what is written.
[[gnu::target("ssse3,popcnt")]] inline char* escapeBlockShuffled(const char* in, char* p) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const EscapeLanes lanes = escapeLanes(bytes);
    if (_mm_movemask_epi8(lanes.control) != 0) {
        return nullptr;
    }
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(lanes.special));
    if (mask == 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), bytes);
        return p + 16;
    }
    const __m128i reverseSolidi = _mm_set1_epi8('\\');
    const unsigned low = mask & 0xFFu;
    const unsigned high = mask >> 8;
    const __m128i lowOut = _mm_shuffle_epi8(
        _mm_unpacklo_epi64(bytes, reverseSolidi),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(kExpandShuffles[low].data())));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), lowOut);
    p += 8 + std::popcount(low);
    const __m128i highOut = _mm_shuffle_epi8(
        _mm_unpackhi_epi64(bytes, reverseSolidi),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(kExpandShuffles[high].data())));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), highOut);
    return p + 8 + std::popcount(high);
}
#endif

#if defined(__SSE2__)
// Writes the escaped bytes of `text` at `p` block by block with `Block` (escapeBlock or
// escapeBlockShuffled) and returns the end of what it wrote, or null as soon as a block does.
template <char* (*Block)(const char*, char*)>
[[gnu::always_inline]] inline char* writeEscapedBlocks(char* p, std::string_view text) {
    const char* in = text.data();
    const char* const end = in + text.size();
    // Sixteen bytes at a time while the text itself holds the bytes a block reads ahead.
    while (end - in >= 32) {
        p = Block(in, p);
        if (p == nullptr) {
            return nullptr;
        }
        in += 16;
    }
    // The last bytes (fewer than 32) from a copy padded with plain letters, which need no escape
    // and so come out one for one at the end, where they are taken back.
    const auto rest = static_cast<std::size_t>(end - in);
    if (rest > 0) {
        char padded[64];
        std::memcpy(padded, in, rest);
        std::memset(padded + rest, 'a', sizeof padded - rest);
        const std::size_t blocks = (rest + 15) / 16;
        for (std::size_t block = 0; block < blocks; ++block) {
            p = Block(padded + block * 16, p);
            if (p == nullptr) {
                return nullptr;
            }
        }
        p -= blocks * 16 - rest;
    }
    return p;
}
#endif

#if defined(NIMBORRA_JSON_SHUFFLE)
// Writes the escaped bytes of `text`, which may double, at `p`, where 2 * text.size() bytes plus
// kEscapeSlack more are available, and returns the end of what it wrote; or null when the text
// holds a control character (whose escape may take six bytes).
[[gnu::target("ssse3,popcnt")]] char* writeEscapedWithoutControls(char* p, std::string_view text) {
    return writeEscapedBlocks<escapeBlockShuffled>(p, text);
}

// Whether this processor has SSSE3 (asked once; every x86-64 made since about 2008 has it).
// The processor model is read first: this runs among the static initialisers, which may come
// before the compiler runtime's own.
const bool kHasShuffle = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt");
}();
#endif

// Writes the escaped bytes of `text` at `p`, where escapeExtra(text) + text.size() bytes plus
// kEscapeSlack more are available, and returns the end of what it wrote.
char* writeEscaped(char* p, std::string_view text) {
#if defined(__SSE2__)
    return writeEscapedBlocks<escapeBlock>(p, text);
#else
    const char* in = text.data();
    const char* const end = in + text.size();
    for (; in != end; ++in) {
        const EscapedByte& escaped = kEscapedBytes[static_cast<unsigned char>(*in)];
        std::memcpy(p, escaped.bytes, 8);
        p += escaped.length;
    }
    return p;
#endif
}

struct Writer {
    std::string& out;
    bool sortedKeys;
    std::string error;

    bool write(const Value& value, std::size_t depth) {
        switch (value.kind()) {
            case Value::Kind::null:
                out += "null";
                return true;
            case Value::Kind::boolean:
                out += *value.boolean() ? "true" : "false";
                return true;
            case Value::Kind::integer:
                appendJSONNumber(out, *value.integer());
                return true;
            case Value::Kind::unsignedInteger:
                appendJSONNumber(out, *value.unsignedInteger());
                return true;
            case Value::Kind::real:
                if (!appendJSONNumber(out, *value.real())) {
                    error = "invalid number (NaN or infinity) in JSON write";
                    return false;
                }
                return true;
            case Value::Kind::text:
                appendJSONString(out, *value.text());
                return true;
            case Value::Kind::data:
                error = "invalid type (byte data) in JSON write";
                return false;
            case Value::Kind::date:
                error = "invalid type (date) in JSON write";
                return false;
            case Value::Kind::array:
                return writeArray(*value.array(), depth + 1);
            case Value::Kind::dictionary:
                return writeDictionary(*value.dictionary(), depth + 1);
        }
        error = "invalid value in JSON write";
        return false;
    }

    bool checkDepth(std::size_t depth) {
        if (depth > JSONSerialization::maximumDepth) {
            error = "nesting too deep in JSON write";
            return false;
        }
        return true;
    }

    bool writeArray(const Array& array, std::size_t depth) {
        if (!checkDepth(depth)) {
            return false;
        }
        out += '[';
        bool first = true;
        for (const Value& item : array) {
            if (!first) {
                out += ',';
            }
            first = false;
            if (!write(item, depth)) {
                return false;
            }
        }
        out += ']';
        return true;
    }

    bool writeMember(const Dictionary::Entry& entry, std::size_t depth) {
        const std::string* key = entry.first.text();
        if (key == nullptr) {
            error = "invalid key (not a string) in JSON write";
            return false;
        }
        appendJSONString(out, *key);
        out += ':';
        return write(entry.second, depth);
    }

    bool writeDictionary(const Dictionary& dictionary, std::size_t depth) {
        if (!checkDepth(depth)) {
            return false;
        }
        out += '{';
        if (sortedKeys && dictionary.size() > 1) {
            // The usual small objects are ordered in place; larger ones on the heap.
            constexpr std::size_t kInlineMembers = 16;
            std::array<const Dictionary::Entry*, kInlineMembers> inlineOrder;
            std::vector<const Dictionary::Entry*> heapOrder;
            if (dictionary.size() > kInlineMembers) {
                heapOrder.resize(dictionary.size());
            }
            const std::span<const Dictionary::Entry*> order =
                heapOrder.empty() ? std::span(inlineOrder.data(), dictionary.size())
                                  : std::span(heapOrder);
            std::size_t filled = 0;
            for (const auto& entry : dictionary) {
                if (!entry.first.isText()) {
                    error = "invalid key (not a string) in JSON write";
                    return false;
                }
                order[filled++] = &entry;
            }
            // Byte order of the keys (std::string compares as unsigned char). Keys mostly differ
            // in their first byte, which settles the comparison without a call.
            std::sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
                const std::string& x = *a->first.text();
                const std::string& y = *b->first.text();
                if (!x.empty() && !y.empty() && x[0] != y[0]) {
                    return static_cast<unsigned char>(x[0]) < static_cast<unsigned char>(y[0]);
                }
                return x < y;
            });
            for (std::size_t i = 0; i < order.size(); ++i) {
                if (i > 0) {
                    out += ',';
                }
                if (!writeMember(*order[i], depth)) {
                    return false;
                }
            }
        } else {
            bool first = true;
            for (const auto& entry : dictionary) {
                if (!first) {
                    out += ',';
                }
                first = false;
                if (!writeMember(entry, depth)) {
                    return false;
                }
            }
        }
        out += '}';
        return true;
    }
};

bool isValid(const Value& value, std::size_t depth) {
    switch (value.kind()) {
        case Value::Kind::null:
        case Value::Kind::boolean:
        case Value::Kind::integer:
        case Value::Kind::unsignedInteger:
        case Value::Kind::text:
            return true;
        case Value::Kind::real:
            return std::isfinite(*value.real());
        case Value::Kind::data:
        case Value::Kind::date:
            return false;
        case Value::Kind::array:
            if (depth + 1 > JSONSerialization::maximumDepth) {
                return false;
            }
            for (const Value& item : *value.array()) {
                if (!isValid(item, depth + 1)) {
                    return false;
                }
            }
            return true;
        case Value::Kind::dictionary:
            if (depth + 1 > JSONSerialization::maximumDepth) {
                return false;
            }
            for (const auto& [key, item] : *value.dictionary()) {
                if (!key.isText() || !isValid(item, depth + 1)) {
                    return false;
                }
            }
            return true;
    }
    return false;
}

bool isContainer(const Value& value) {
    return value.kind() == Value::Kind::array || value.kind() == Value::Kind::dictionary;
}

}  // namespace

void appendJSONString(std::string& out, std::string_view text) {
    // Most texts (keys and values alike) need no escape and are appended as they stand, without
    // making room for an escaped form.
    if (!hasEscapes(text)) {
        out += '"';
        out += text;
        out += '"';
        return;
    }
#if defined(NIMBORRA_JSON_SHUFFLE)
    if (kHasShuffle) {
        // One pass: room for every byte doubled, written in place and cut to what was written. A
        // text with a control character takes the two passes below instead.
        const std::size_t start = out.size();
        out.resize(start + 2 * text.size() + 2 + kEscapeSlack);
        char* p = out.data() + start;
        *p++ = '"';
        if (char* const end = writeEscapedWithoutControls(p, text); end != nullptr) {
            *end = '"';
            out.resize(static_cast<std::size_t>(end + 1 - out.data()));
            return;
        }
        out.resize(start);
    }
#endif
    // Two passes: the first sizes the literal exactly, the second writes it in place, so that a
    // long text costs at most one reallocation and no per-character appends.
    const std::size_t extra = escapeExtra(text);
    const std::size_t start = out.size();
    const std::size_t length = text.size() + extra + 2;
    out.resize(start + length + kEscapeSlack);
    char* p = out.data() + start;
    *p++ = '"';
    p = writeEscaped(p, text);
    *p = '"';
    out.resize(start + length);
}

bool appendJSONNumber(std::string& out, double number) {
    if (!std::isfinite(number)) {
        return false;
    }
    char buffer[64];
    if (number == 0) {
        out += std::signbit(number) ? "-0" : "0";
        return true;
    }
    const bool integral = std::trunc(number) == number;
    if (integral && std::fabs(number) <= kTwoToThe53) {
        appendJSONNumber(out, static_cast<std::int64_t>(number));
        return true;
    }
    // Shortest round-trip digits in exponent form; the exponent comes out signed and with at
    // least two digits ("1e-05", "1e+20").
    auto [end, ec] =
        std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::scientific);
    if (ec != std::errc{}) {
        return false;
    }
    if (!integral) {
        const char* e = std::find(buffer, end, 'e');
        int exponent = 0;
        std::from_chars(e + 1 + (e[1] == '+' ? 1 : 0), end, exponent);
        if (exponent >= -4) {
            auto [fixedEnd, fixedEc] =
                std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::fixed);
            if (fixedEc != std::errc{}) {
                return false;
            }
            end = fixedEnd;
        }
    }
    out.append(buffer, end);
    return true;
}

void appendJSONNumber(std::string& out, std::int64_t number) {
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, number);
    out.append(buffer, end);
}

void appendJSONNumber(std::string& out, std::uint64_t number) {
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, number);
    out.append(buffer, end);
}

namespace {

// Runs one write into a fresh text: the text, or nothing with the writer's reason (or the
// exception's, when memory runs out) in `error`.
template <class Write>
std::optional<std::string> writeText(JSONWritingOptions options, std::string* error, Write write) {
    try {
        std::string out;
        Writer writer{out, options.sortedKeys, {}};
        if (!write(writer)) {
            if (error != nullptr) {
                *error = std::move(writer.error);
            }
            return std::nullopt;
        }
        return out;
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = e.what();
        }
        return std::nullopt;
    }
}

}  // namespace

std::optional<std::string> JSONSerialization::data(const Value& value, JSONWritingOptions options,
                                                   std::string* error) {
    return writeText(options, error, [&](Writer& writer) {
        if (!options.fragmentsAllowed && !isContainer(value)) {
            writer.error = "invalid top-level type in JSON write";
            return false;
        }
        return writer.write(value, 0);
    });
}

std::optional<std::string> JSONSerialization::data(const Dictionary& object,
                                                   JSONWritingOptions options, std::string* error) {
    // At the depth that data(Value) gives a top-level dictionary.
    return writeText(options, error,
                     [&](Writer& writer) { return writer.writeDictionary(object, 1); });
}

bool JSONSerialization::isValidJSONObject(const Value& value) {
    return isContainer(value) && isValid(value, 0);
}

}  // namespace nimborra::platform
