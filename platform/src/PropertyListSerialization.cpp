#include "NimbOrraPlatform/PropertyListSerialization.h"

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/JSONSerialization.h"

#include <plist/plist.h>

#include <locale.h>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace nimborra::platform {

namespace {

// ---------------------------------------------------------------------------------------------
// Preparing the text for libplist.
//
// libplist is lenient where the platform's reader is strict (it reads "010" as 8 and "abc" as 0
// in an <integer>, garbage in a <date> as 1970), strict where the platform is lenient (it yields
// empty data for base64 text it does not like), and it crashes on very deep nesting (its tree
// code recurses). One pass over the text, before libplist sees it, bounds the nesting, checks
// the contents of <integer>, <real> and <date> the way the platform does, and rewrites the
// contents of <data>, <integer> and <real> into a canonical form that libplist reads exactly as
// the platform reads the original.
//
// The pass follows libplist's own lexical rules (comments, CDATA sections, processing
// instructions, DOCTYPE declarations with an internal subset, quoted attribute values) so that
// it sees the same elements libplist sees; where the two could disagree, the pass errs towards
// counting more nesting, never less.
// ---------------------------------------------------------------------------------------------

constexpr std::size_t npos = std::string_view::npos;

bool isXMLSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Like C's isspace in the "C" locale.
bool isCSpace(char c) {
    return isXMLSpace(c) || c == '\v' || c == '\f';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// True when `text` holds `prefix` at `position` (which may lie past the end).
bool hasAt(std::string_view text, std::size_t position, std::string_view prefix) {
    return position <= text.size() && text.substr(position).starts_with(prefix);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isCSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isCSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The first of `targets` at or after `from` that is not inside a "..." quote, or npos (also when
// a quote is not closed).
std::size_t findOutsideQuotes(std::string_view text, std::size_t from, std::string_view targets) {
    for (std::size_t i = from; i < text.size(); ++i) {
        if (text[i] == '"') {
            i = text.find('"', i + 1);
            if (i == npos) {
                return npos;
            }
        } else if (targets.find(text[i]) != npos) {
            return i;
        }
    }
    return npos;
}

// The first occurrence of `marker` at or after `from` that is not inside a "..." quote, or npos.
std::size_t findMarkerOutsideQuotes(std::string_view text, std::size_t from,
                                    std::string_view marker) {
    for (std::size_t i = from; i < text.size(); ++i) {
        if (hasAt(text, i, marker)) {
            return i;
        }
        if (text[i] == '"') {
            i = text.find('"', i + 1);
            if (i == npos) {
                return npos;
            }
        }
    }
    return npos;
}

// The platform's base64 decoding of <data> contents: characters outside the alphabet are
// skipped, '=' counts as a zero digit and, when it ends a group of four, limits the bytes that
// group yields; an incomplete final group yields nothing.
std::vector<std::uint8_t> decodeLenientBase64(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t accumulator = 0;
    std::size_t digits = 0;
    std::size_t trailingEquals = 0;
    for (const char c : text) {
        if (c == '=') {
            ++trailingEquals;
        } else if (!isCSpace(c)) {
            trailingEquals = 0;
        }
        int value = -1;
        if (c >= 'A' && c <= 'Z') {
            value = c - 'A';
        } else if (c >= 'a' && c <= 'z') {
            value = c - 'a' + 26;
        } else if (isDigit(c)) {
            value = c - '0' + 52;
        } else if (c == '+') {
            value = 62;
        } else if (c == '/') {
            value = 63;
        } else if (c == '=') {
            value = 0;
        }
        if (value < 0) {
            continue;
        }
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
        if (++digits % 4 == 0) {
            bytes.push_back(static_cast<std::uint8_t>(accumulator >> 16));
            if (trailingEquals < 2) {
                bytes.push_back(static_cast<std::uint8_t>(accumulator >> 8));
            }
            if (trailingEquals < 1) {
                bytes.push_back(static_cast<std::uint8_t>(accumulator));
            }
            accumulator = 0;
        }
    }
    return bytes;
}

// The contents of an <integer> in the platform's syntax: an optional sign, then decimal digits
// or "0x" and hexadecimal digits (leading zeros do not make it octal). Values must fit in a
// signed 64-bit integer, or in an unsigned one when positive. Returns the value in plain decimal,
// which libplist reads back exactly.
std::optional<std::string> canonicalInteger(std::string_view text) {
    text = trimmed(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t magnitude = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    std::string canonical;
    if (negative && magnitude != 0) {
        if (magnitude > std::uint64_t{1} << 63) {
            return std::nullopt;
        }
        canonical = "-";
    }
    return canonical + std::to_string(magnitude);
}

// A "C" locale for number conversions, whatever locale the process has chosen.
locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

// The contents of a <real>: a decimal (or hexadecimal) floating-point number, "nan" or an
// infinity. Returns the value in the shortest form that reads back to the same double.
std::optional<std::string> canonicalReal(std::string_view raw) {
    const std::string text(trimmed(raw));
    if (text.empty() || cLocale() == static_cast<locale_t>(nullptr)) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double value = strtod_l(text.c_str(), &end, cLocale());
    if (end != text.c_str() + text.size()) {
        return std::nullopt;
    }
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value > 0 ? "inf" : "-inf";
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

struct DateFields {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// Reads 1 to `maxDigits` decimal digits.
bool readNumber(std::string_view& text, int maxDigits, int& value) {
    std::size_t count = 0;
    value = 0;
    while (count < text.size() && isDigit(text[count])) {
        if (static_cast<int>(++count) > maxDigits) {
            return false;
        }
        value = value * 10 + (text[count - 1] - '0');
    }
    text.remove_prefix(count);
    return count > 0;
}

bool readSeparator(std::string_view& text, char separator) {
    if (text.empty() || text.front() != separator) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// A date in the property-list form "YYYY-MM-DDTHH:MM:SSZ" (years 0 to 9999, fields in range).
std::optional<DateFields> parseDate(std::string_view text) {
    text = trimmed(text);
    DateFields f;
    if (!readNumber(text, 4, f.year) || !readSeparator(text, '-') ||
        !readNumber(text, 2, f.month) || !readSeparator(text, '-') || !readNumber(text, 2, f.day) ||
        !readSeparator(text, 'T') || !readNumber(text, 2, f.hour) || !readSeparator(text, ':') ||
        !readNumber(text, 2, f.minute) || !readSeparator(text, ':') ||
        !readNumber(text, 2, f.second) || !readSeparator(text, 'Z') || !text.empty()) {
        return std::nullopt;
    }
    if (f.month < 1 || f.month > 12 || f.day < 1 || f.day > 31 || f.hour > 23 || f.minute > 59 ||
        f.second > 60) {
        return std::nullopt;
    }
    return f;
}

// Seconds since 1970 of a UTC calendar date (proleptic Gregorian calendar).
double secondsSince1970(const DateFields& f) {
    // Days from civil, after H. Hinnant.
    const std::int64_t y = f.year - (f.month <= 2 ? 1 : 0);
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yearOfEra = y - era * 400;
    const std::int64_t dayOfYear = (153 * (f.month + (f.month > 2 ? -3 : 9)) + 2) / 5 + f.day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    const std::int64_t days = era * 146097 + dayOfEra - 719468;
    return static_cast<double>(days * 86400 + f.hour * 3600 + f.minute * 60 + f.second);
}

// Bounds the nesting and canonicalises element contents (see above). Yields nothing when the
// text must not be handed to libplist.
std::optional<std::string> prepareForParser(std::string_view in) {
    std::string out;
    out.reserve(in.size());
    std::size_t copied = 0;  // `in` is copied to `out` up to here
    std::size_t depth = 0;
    std::size_t i = 0;
    while (true) {
        const std::size_t open = in.find('<', i);
        if (open == npos) {
            break;
        }
        const std::size_t p = open + 1;
        std::size_t resume = npos;
        if (hasAt(in, p, "!--")) {
            if (const std::size_t end = in.find("-->", p + 3); end != npos) {
                resume = end + 3;
            }
        } else if (hasAt(in, p, "![CDATA[")) {
            if (const std::size_t end = in.find("]]>", p + 8); end != npos) {
                resume = end + 3;
            }
        } else if (hasAt(in, p, "?")) {
            if (const std::size_t end = findMarkerOutsideQuotes(in, p + 1, "?>"); end != npos) {
                resume = end + 2;
            }
        } else if (hasAt(in, p, "!")) {
            // A DOCTYPE, possibly with an internal subset; libplist refuses any other <!...>.
            const std::size_t end = findOutsideQuotes(in, p + 1, "[>");
            if (end != npos && in[end] == '[') {
                if (const std::size_t close = findMarkerOutsideQuotes(in, end, "]>");
                    close != npos) {
                    resume = close + 2;
                }
            } else if (end != npos) {
                resume = end + 1;
            }
        } else {
            const std::size_t nameEnd = in.find_first_of(" \r\n\t<>", p);
            if (nameEnd == npos) {
                break;
            }
            const std::size_t close =
                in[nameEnd] == '>' ? nameEnd : findOutsideQuotes(in, nameEnd, "<>");
            if (close == npos) {
                break;
            }
            if (in[close] == '<') {
                // libplist stops at a tag without its '>'; carry on from the next tag regardless.
                i = close;
                continue;
            }
            std::string_view name = in.substr(p, nameEnd - p);
            const bool empty = in[close - 1] == '/';
            if (empty && !name.empty() && name.back() == '/') {
                name.remove_suffix(1);
            }
            resume = close + 1;
            if (name == "array" || name == "dict") {
                // An empty container adds a level of its own but leaves nothing open.
                if (depth + 1 > PropertyListSerialization::maximumDepth) {
                    return std::nullopt;
                }
                if (!empty) {
                    ++depth;
                }
            } else if (name == "/array" || name == "/dict") {
                if (depth > 0) {
                    --depth;
                }
            } else if (name == "data" || name == "integer" || name == "real" || name == "date") {
                if (empty) {
                    if (name != "data") {
                        return std::nullopt;  // the platform has no empty number or date
                    }
                } else {
                    // The contents must be plain text directly followed by the closing tag.
                    const std::size_t contentEnd = in.find('<', resume);
                    if (contentEnd == npos || !hasAt(in, contentEnd + 1, "/") ||
                        !hasAt(in, contentEnd + 2, name)) {
                        return std::nullopt;
                    }
                    std::size_t after = contentEnd + 2 + name.size();
                    while (after < in.size() && isXMLSpace(in[after])) {
                        ++after;
                    }
                    if (after >= in.size() || in[after] != '>') {
                        return std::nullopt;
                    }
                    const std::string_view content = in.substr(resume, contentEnd - resume);
                    std::optional<std::string> replacement;
                    if (name == "data") {
                        replacement = base64EncodedString(decodeLenientBase64(content));
                    } else if (name == "integer") {
                        replacement = canonicalInteger(content);
                    } else if (name == "real") {
                        replacement = canonicalReal(content);
                    } else if (parseDate(content)) {
                        replacement = std::string(trimmed(content));
                    }
                    if (!replacement) {
                        return std::nullopt;
                    }
                    out.append(in.substr(copied, resume - copied));
                    out.append(*replacement);
                    copied = contentEnd;
                    resume = contentEnd;
                }
            }
        }
        if (resume == npos) {
            break;  // an unterminated construct, which libplist refuses as well
        }
        i = resume;
    }
    out.append(in.substr(copied));
    return out;
}

// ---------------------------------------------------------------------------------------------
// Converting libplist's tree into a Value.
// ---------------------------------------------------------------------------------------------

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistHolder = std::unique_ptr<void, PlistDeleter>;

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

// Switches the calling thread to the "C" locale while alive: libplist converts numbers with the
// C library, which follows the process's locale (a decimal comma would cut "1.5" to 1).
class CLocaleScope {
  public:
    CLocaleScope() : previous_(cLocale() ? uselocale(cLocale()) : static_cast<locale_t>(nullptr)) {}
    ~CLocaleScope() {
        if (previous_) {
            uselocale(previous_);
        }
    }
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;

  private:
    locale_t previous_;
};

// libplist's own XML text for one node, used where its accessors lose information.
std::optional<std::string> nodeXML(plist_t node) {
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    if (xml == nullptr) {
        return std::nullopt;
    }
    const std::unique_ptr<char, FreeDeleter> owner(xml);
    return std::string(xml, length);
}

// The text between <tag> and </tag> in libplist's XML for a node.
std::optional<std::string> elementText(plist_t node, std::string_view tag) {
    const auto xml = nodeXML(node);
    if (!xml) {
        return std::nullopt;
    }
    std::string open;
    open.reserve(tag.size() + 2);
    open.append("<").append(tag).append(">");
    const std::size_t start = xml->find(open);
    if (start == npos) {
        return std::nullopt;
    }
    const std::size_t end = xml->find('<', start + open.size());
    if (end == npos) {
        return std::nullopt;
    }
    return xml->substr(start + open.size(), end - start - open.size());
}

// libplist keeps every integer as 64 unsigned bits and remembers elsewhere whether a value with
// the top bit set was written as a negative number or as a large positive one; only its XML
// output tells the two apart.
std::optional<Value> integerValue(plist_t node) {
    std::uint64_t bits = 0;
    plist_get_uint_val(node, &bits);
    if (bits <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Value(static_cast<std::int64_t>(bits));
    }
    const auto text = elementText(node, "integer");
    if (!text) {
        return std::nullopt;
    }
    if (!text->empty() && text->front() == '-') {
        return Value(static_cast<std::int64_t>(bits));
    }
    return Value(bits);
}

// libplist keeps dates as seconds since 2001 but hands them out as 32 bits, which covers only
// 1932 to 2069; beyond that the conversion saturates and its XML output has the exact value.
std::optional<Value> dateValue(plist_t node) {
    constexpr double secondsFrom1970To2001 = 978307200;
    std::int32_t seconds = 0;
    std::int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    if (seconds != std::numeric_limits<std::int32_t>::min() &&
        seconds != std::numeric_limits<std::int32_t>::max()) {
        return Value(Date{secondsFrom1970To2001 + seconds + microseconds / 1e6});
    }
    const auto text = elementText(node, "date");
    const auto fields = text ? parseDate(*text) : std::nullopt;
    if (!fields) {
        return std::nullopt;
    }
    return Value(Date{secondsSince1970(*fields)});
}

bool isContainer(plist_t node) {
    const plist_type type = plist_get_node_type(node);
    return type == PLIST_ARRAY || type == PLIST_DICT;
}

std::optional<Value> scalarValue(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return Value(flag != 0);
        }
        case PLIST_UINT:
            return integerValue(node);
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return Value(number);
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            std::string string;
            if (text != nullptr) {
                string.assign(text, static_cast<std::size_t>(length));
            }
            if (!isValidUTF8(string)) {
                return std::nullopt;
            }
            return Value(std::move(string));
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            Data data;
            if (bytes != nullptr) {
                const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
                data.bytes.assign(begin, begin + length);
            }
            return Value(std::move(data));
        }
        case PLIST_DATE:
            return dateValue(node);
        case PLIST_UID: {
            std::uint64_t uid = 0;
            plist_get_uid_val(node, &uid);
            return Value(uid);
        }
        default:
            return std::nullopt;
    }
}

// One array or dictionary being converted: its libplist node, the position reached in it and
// the entries converted so far.
struct ContainerFrame {
    plist_t node = nullptr;
    bool isArray = true;
    std::unique_ptr<void, FreeDeleter> iterator;
    Array array;
    Dictionary dictionary;
    std::string key;  // of the dictionary entry being converted

    // Opens `container`; nothing when libplist cannot iterate it.
    static std::optional<ContainerFrame> open(plist_t container) {
        ContainerFrame frame;
        frame.node = container;
        frame.isArray = plist_get_node_type(container) == PLIST_ARRAY;
        void* iterator = nullptr;
        if (frame.isArray) {
            frame.array.reserve(plist_array_get_size(container));
            plist_array_new_iter(container, &iterator);
        } else {
            frame.dictionary.reserve(plist_dict_get_size(container));
            plist_dict_new_iter(container, &iterator);
        }
        if (iterator == nullptr) {
            return std::nullopt;
        }
        frame.iterator.reset(iterator);
        return frame;
    }

    // The next item (nullptr at the end); for a dictionary, its key is left in `key`. Fails
    // (returns false) on a key that is not valid UTF-8.
    bool next(plist_t& item) {
        item = nullptr;
        if (isArray) {
            plist_array_next_item(node, iterator.get(), &item);
            return true;
        }
        char* rawKey = nullptr;
        plist_dict_next_item(node, iterator.get(), &rawKey, &item);
        const std::unique_ptr<char, FreeDeleter> keyOwner(rawKey);
        if (item == nullptr) {
            return true;
        }
        key = rawKey != nullptr ? rawKey : "";
        return isValidUTF8(key);
    }

    void add(Value value) {
        if (isArray) {
            array.push_back(std::move(value));
        } else {
            dictionary.set(Key(std::move(key)), std::move(value));
        }
    }

    Value finish() { return isArray ? Value(std::move(array)) : Value(std::move(dictionary)); }
};

// Converts the tree with an explicit stack rather than recursion, so that the deepest accepted
// document needs little of the calling thread's stack.
std::optional<Value> convert(plist_t root) {
    if (!isContainer(root)) {
        return scalarValue(root);
    }
    std::vector<ContainerFrame> stack;
    stack.reserve(16);
    auto rootFrame = ContainerFrame::open(root);
    if (!rootFrame) {
        return std::nullopt;
    }
    stack.push_back(std::move(*rootFrame));
    while (true) {
        plist_t item = nullptr;
        if (!stack.back().next(item)) {
            return std::nullopt;
        }
        if (item == nullptr) {
            Value finished = stack.back().finish();
            stack.pop_back();
            if (stack.empty()) {
                return finished;
            }
            stack.back().add(std::move(finished));
        } else if (isContainer(item)) {
            if (stack.size() >= PropertyListSerialization::maximumDepth) {
                return std::nullopt;
            }
            auto frame = ContainerFrame::open(item);
            if (!frame) {
                return std::nullopt;
            }
            stack.push_back(std::move(*frame));
        } else {
            auto value = scalarValue(item);
            if (!value) {
                return std::nullopt;
            }
            stack.back().add(std::move(*value));
        }
    }
}

}  // namespace

std::optional<Value> PropertyListSerialization::propertyList(std::string_view bytes) noexcept {
    try {
        if (bytes.empty() || bytes.size() > maximumLength) {
            return std::nullopt;
        }
        const auto prepared = prepareForParser(bytes);
        if (!prepared) {
            return std::nullopt;
        }
        plist_t root = nullptr;
        {
            const CLocaleScope locale;
            // The prepared text is NUL-terminated, which libplist's number parsing relies on.
            plist_from_xml(prepared->c_str(), static_cast<std::uint32_t>(prepared->size()), &root);
        }
        if (root == nullptr) {
            return std::nullopt;
        }
        const PlistHolder holder(root);
        return convert(root);
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<Value> PropertyListSerialization::propertyList(
    std::span<const std::uint8_t> bytes) noexcept {
    return propertyList(
        std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace nimborra::platform
