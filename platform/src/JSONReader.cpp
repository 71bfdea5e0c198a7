// The reading half of JSONSerialization, over simdjson. This is the only source file that
// includes simdjson's header: it is large and slow to compile.
#include <simdjson.h>

#include <string>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::platform {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// One parser per thread: a simdjson parser is not safe to share, and keeping it avoids
// reallocating its buffers on every call.
simdjson::dom::parser& threadParser() {
    thread_local simdjson::dom::parser parser = [] {
        simdjson::dom::parser p;
        if (p.allocate(simdjson::SIMDJSON_PADDING, JSONSerialization::maximumDepth) !=
            simdjson::SUCCESS) {
            // Out of memory: the parser allocates again, with its default limits, when used.
        }
        return p;
    }();
    return parser;
}

Value convert(simdjson::dom::element element) {
    using simdjson::dom::element_type;
    switch (element.type()) {
        case element_type::ARRAY: {
            simdjson::dom::array source = element.get_array().value_unsafe();
            Array array;
            array.reserve(source.size());
            for (simdjson::dom::element item : source) {
                array.push_back(convert(item));
            }
            return Value(std::move(array));
        }
        case element_type::OBJECT: {
            simdjson::dom::object source = element.get_object().value_unsafe();
            Dictionary dictionary;
            dictionary.reserve(source.size());
            for (simdjson::dom::key_value_pair member : source) {
                // Dictionary::set replaces an earlier equal key, so the last duplicate wins.
                dictionary.set(Key(std::string(member.key)), convert(member.value));
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
            return Value(nullptr);
    }
    return Value(nullptr);
}

void setError(std::string* error, std::string text) {
    if (error != nullptr) {
        *error = std::move(text);
    }
}

}  // namespace

std::optional<Value> JSONSerialization::jsonObject(std::string_view text,
                                                   JSONReadingOptions options, std::string* error) {
    try {
        if (text.starts_with(kByteOrderMark)) {
            text.remove_prefix(kByteOrderMark.size());
        }
        if (text.empty()) {
            setError(error, "the text is empty");
            return std::nullopt;
        }
        simdjson::dom::element root;
        auto status = threadParser().parse(text.data(), text.size()).get(root);
        if (status != simdjson::SUCCESS) {
            setError(error, simdjson::error_message(status));
            return std::nullopt;
        }
        const auto type = root.type();
        if (!options.fragmentsAllowed && type != simdjson::dom::element_type::ARRAY &&
            type != simdjson::dom::element_type::OBJECT) {
            setError(error, "the top-level value is not an array or an object");
            return std::nullopt;
        }
        return convert(root);
    } catch (const std::exception& e) {
        setError(error, e.what());
        return std::nullopt;
    }
}

bool isValidUTF8(std::string_view bytes) {
    return simdjson::validate_utf8(bytes.data(), bytes.size());
}

}  // namespace nimborra::platform
