// The platform's JSON reader against simdjson, the reference for what a strict JSON text is. For
// any input, jsonObject (fragments allowed) must accept exactly what simdjson accepts, once the
// integers that no 64-bit integer holds have been given an exponent (the reader takes them as the
// nearest double; simdjson refuses them), and must read the same Value: numbers of the same kind
// and value (a double's sign included), the same texts, and of duplicate keys the last.
#include <simdjson.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace {

using namespace nimborra::platform;

Value fromSimdjson(simdjson::dom::element element) {
    using simdjson::dom::element_type;
    switch (element.type()) {
        case element_type::ARRAY: {
            Array array;
            const simdjson::dom::array items = element.get_array().value_unsafe();
            for (simdjson::dom::element item : items) {
                array.push_back(fromSimdjson(item));
            }
            return Value(std::move(array));
        }
        case element_type::OBJECT: {
            Dictionary dictionary;
            const simdjson::dom::object members = element.get_object().value_unsafe();
            for (simdjson::dom::key_value_pair member : members) {
                dictionary.set(Key(std::string(member.key)), fromSimdjson(member.value));
            }
            return Value(std::move(dictionary));
        }
        case element_type::INT64:
            return Value(element.get_int64().value_unsafe());
        case element_type::UINT64:
            return Value(element.get_uint64().value_unsafe());
        case element_type::DOUBLE:
            return Value(element.get_double().value_unsafe());
        case element_type::STRING:
            return Value(std::string(element.get_string().value_unsafe()));
        case element_type::BOOL:
            return Value(element.get_bool().value_unsafe());
        case element_type::NULL_VALUE:
            break;
    }
    return Value(nullptr);
}

// Values equal in kind as well as value (Value's == takes 1 and 1.0 as equal, and 0.0 as -0.0).
bool same(const Value& a, const Value& b) {
    if (a.kind() != b.kind()) {
        return false;
    }
    if (const double* x = a.real()) {
        return std::signbit(*x) == std::signbit(*b.real()) && *x == *b.real();
    }
    if (const Array* items = a.array()) {
        const Array& others = *b.array();
        if (items->size() != others.size()) {
            return false;
        }
        for (std::size_t i = 0; i < items->size(); ++i) {
            if (!same((*items)[i], others[i])) {
                return false;
            }
        }
        return true;
    }
    if (const Dictionary* members = a.dictionary()) {
        const Dictionary& others = *b.dictionary();
        if (members->size() != others.size()) {
            return false;
        }
        for (std::size_t i = 0; i < members->size(); ++i) {
            const auto& [key, value] = members->entries()[i];
            const auto& [otherKey, otherValue] = others.entries()[i];
            if (!(key == otherKey) || !same(value, otherValue)) {
                return false;
            }
        }
        return true;
    }
    return a == b;
}

// What the reader should make of `text`: simdjson's reading, with integers beyond 64 bits
// turned into reals by an exponent (the same rewrite the reader's refusals are described with).
std::optional<Value> reference(std::string_view text) {
    if (text.starts_with("\xEF\xBB\xBF")) {
        text.remove_prefix(3);
    }
    static simdjson::dom::parser parser = [] {
        simdjson::dom::parser made;
        if (made.allocate(64 * 1024, JSONSerialization::maximumDepth) != simdjson::SUCCESS) {
            std::abort();
        }
        return made;
    }();
    simdjson::dom::element root;
    if (!text.empty() && parser.parse(text.data(), text.size()).get(root) == simdjson::SUCCESS) {
        return fromSimdjson(root);
    }
    // Every run of number characters outside strings that is an integer too large for 64 bits
    // gets "e0"; a text that is valid only then is read as such.
    std::string rewritten;
    bool changed = false;
    std::size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '"') {
            rewritten += c;
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                rewritten += text[i];
                if (text[i] == '\\' && i + 1 < text.size()) {
                    rewritten += text[++i];
                }
            }
            if (i < text.size()) {
                rewritten += text[i++];
            }
            continue;
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            const std::size_t start = i;
            while (i < text.size() &&
                   std::string_view("0123456789+-.eE").find(text[i]) != std::string_view::npos) {
                ++i;
            }
            const std::string_view token = text.substr(start, i - start);
            rewritten += token;
            const bool negative = token.starts_with('-');
            const std::string_view digits = token.substr(negative ? 1 : 0);
            const std::string_view largest =
                negative ? "9223372036854775808" : "18446744073709551615";
            if (!digits.empty() && digits[0] != '0' &&
                digits.find_first_not_of("0123456789") == std::string_view::npos &&
                (digits.size() > largest.size() ||
                 (digits.size() == largest.size() && digits > largest))) {
                rewritten += "e0";
                changed = true;
            }
            continue;
        }
        rewritten += c;
        ++i;
    }
    if (changed && parser.parse(rewritten).get(root) == simdjson::SUCCESS) {
        return fromSimdjson(root);
    }
    return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string reason;
    const std::optional<Value> ours =
        JSONSerialization::jsonObject(text, JSONReadingOptions{.fragmentsAllowed = true}, &reason);
    const std::optional<Value> expected = reference(text);
    if (ours.has_value() != expected.has_value() || (ours && !same(*ours, *expected))) {
        std::fprintf(stderr, "json_reader: %s where simdjson %s\n",
                     ours ? "accepted" : ("refused (" + reason + ")").c_str(),
                     expected ? "accepts" : "refuses");
        std::abort();
    }
    if (!ours && reason.empty()) {
        std::fprintf(stderr, "json_reader: a refusal without a reason\n");
        std::abort();
    }
    return 0;
}
