// The writing half of JSONSerialization: the platform serialiser's output, byte for byte.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::platform {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr double kTwoToThe53 = 9007199254740992.0;

// Characters that need an escape: the quotation mark, the reverse solidus, the solidus and
// the control characters.
constexpr bool needsEscape(unsigned char c) {
    return c < 0x20 || c == '"' || c == '\\' || c == '/';
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
            std::vector<const Dictionary::Entry*> order;
            order.reserve(dictionary.size());
            for (const auto& entry : dictionary) {
                if (!entry.first.isText()) {
                    error = "invalid key (not a string) in JSON write";
                    return false;
                }
                order.push_back(&entry);
            }
            // Byte order of the keys (std::string compares as unsigned char).
            std::sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
                return *a->first.text() < *b->first.text();
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
    out += '"';
    std::size_t runStart = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (!needsEscape(c)) {
            continue;
        }
        out.append(text.data() + runStart, i - runStart);
        runStart = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '/':
                out += "\\/";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default: {
                const char escape[] = {
                    '\\', 'u', '0', '0', kHexDigits[c >> 4], kHexDigits[c & 0xF]};
                out.append(escape, sizeof escape);
                break;
            }
        }
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out += '"';
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

std::optional<std::string> JSONSerialization::data(const Value& value, JSONWritingOptions options,
                                                   std::string* error) {
    try {
        if (!options.fragmentsAllowed && !isContainer(value)) {
            if (error != nullptr) {
                *error = "invalid top-level type in JSON write";
            }
            return std::nullopt;
        }
        std::string out;
        Writer writer{out, options.sortedKeys, {}};
        if (!writer.write(value, 0)) {
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

bool JSONSerialization::isValidJSONObject(const Value& value) {
    return isContainer(value) && isValid(value, 0);
}

}  // namespace nimborra::platform
