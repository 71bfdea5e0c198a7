// The reading half of JSONSerialization, over simdjson, and the JSONElement views of a parsed
// document. This is the only source file that includes simdjson's header: it is large and slow
// to compile.
#include <simdjson.h>

#include <bit>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <type_traits>

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

// The parser of this thread: a simdjson parser is not safe to share, and keeping it avoids
// reallocating its buffers on every call. While a visit (visitJSON) looks at the document it
// holds, the parser is taken; a parse on the same thread meanwhile (from inside the visit) gets a
// parser of its own, so that the visited document stays intact.
class ParserLease {
  public:
    ParserLease() {
        if (!threadParserTaken) {
            parser_ = &threadParser();
            threadParserTaken = true;
            taken_ = true;
        } else {
            own_.emplace();
            prepare(*own_);
            parser_ = &*own_;
        }
    }
    ~ParserLease() {
        if (taken_) {
            threadParserTaken = false;
        }
    }
    ParserLease(const ParserLease&) = delete;
    ParserLease& operator=(const ParserLease&) = delete;

    simdjson::dom::parser& parser() { return *parser_; }

  private:
    // Every parser accepts nesting up to maximumDepth, the thread's and the occasional own one,
    // and has its parser implementation from our kernel (see kernel()).
    static void prepare(simdjson::dom::parser& parser) {
        if (!equip(parser, simdjson::SIMDJSON_PADDING)) {
            throw std::bad_alloc();
        }
    }

    static simdjson::dom::parser& threadParser() {
        thread_local simdjson::dom::parser parser = [] {
            simdjson::dom::parser p;
            prepare(p);
            return p;
        }();
        return parser;
    }

    static thread_local bool threadParserTaken;

    simdjson::dom::parser* parser_ = nullptr;
    std::optional<simdjson::dom::parser> own_;
    bool taken_ = false;
};

thread_local bool ParserLease::threadParserTaken = false;

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

// Parses `text` with the reading rules of jsonObject; on success `root` is the top-level value.
bool parseText(simdjson::dom::parser& parser, std::string_view text, bool fragmentsAllowed,
               std::string* error, simdjson::dom::element& root) {
    auto setError = [error](std::string_view description) {
        if (error != nullptr) {
            *error = description;
        }
    };
    try {
        if (text.starts_with(kByteOrderMark)) {
            text.remove_prefix(kByteOrderMark.size());
        }
        if (text.empty()) {
            setError("the text is empty");
            return false;
        }
        auto status = parser.parse(text.data(), text.size()).get(root);
        if (status != simdjson::SUCCESS) {
            // Every valid JSON number is read: one that no 64-bit integer holds as a double.
            // (simdjson's error code for those integers differs between versions; a text
            // without them costs one more scan on its way to being refused.)
            if (const auto rewritten = withBigIntegersAsReals(text)) {
                if (parser.parse(rewritten->data(), rewritten->size()).get(root) ==
                    simdjson::SUCCESS) {
                    status = simdjson::SUCCESS;
                }
            }
        }
        if (status != simdjson::SUCCESS) {
            setError(simdjson::error_message(status));
            return false;
        }
        const auto type = root.type();
        if (!fragmentsAllowed && type != simdjson::dom::element_type::ARRAY &&
            type != simdjson::dom::element_type::OBJECT) {
            setError("the top-level value is not an array or an object");
            return false;
        }
        return true;
    } catch (const std::exception& e) {
        setError(e.what());
        return false;
    }
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

// A view and simdjson's own handles all reference one spot of a document's tape: the document
// and the index on its tape. simdjson keeps the handles' constructors to itself, so a handle is
// made from those two words bit for bit.
struct TapeSpot {
    const simdjson::dom::document* document;
    std::size_t index;
};

static_assert(std::is_trivially_copyable_v<simdjson::internal::tape_ref>);
static_assert(std::is_trivially_copyable_v<simdjson::dom::element>);
static_assert(std::is_trivially_copyable_v<simdjson::dom::array::iterator>);
static_assert(sizeof(TapeSpot) == sizeof(simdjson::dom::element));
static_assert(sizeof(TapeSpot) == sizeof(simdjson::dom::array::iterator));

// The kind of Value that jsonObject makes of an element: integers signed when they fit,
// unsigned only beyond the signed range (simdjson makes the same split; the check is a
// safeguard). Anything else on the tape (the end of an array) reads as null.
Value::Kind kindOf(simdjson::dom::element element) {
    using simdjson::dom::element_type;
    switch (element.type()) {
        case element_type::ARRAY:
            return Value::Kind::array;
        case element_type::OBJECT:
            return Value::Kind::dictionary;
        case element_type::INT64:
            return Value::Kind::integer;
        case element_type::UINT64:
            return element.get_uint64().value_unsafe() <= static_cast<std::uint64_t>(INT64_MAX)
                       ? Value::Kind::integer
                       : Value::Kind::unsignedInteger;
        case element_type::DOUBLE:
            return Value::Kind::real;
        case element_type::STRING:
            return Value::Kind::text;
        case element_type::BOOL:
            return Value::Kind::boolean;
        case element_type::NULL_VALUE:
            return Value::Kind::null;
    }
    return Value::Kind::null;
}

}  // namespace

// Converts between the views and simdjson's handles; the views' private members are its own.
struct JSONElementAccess {
    static simdjson::dom::element element(const JSONElement& view) {
        return std::bit_cast<simdjson::dom::element>(
            TapeSpot{static_cast<const simdjson::dom::document*>(view.document_), view.index_});
    }
    static JSONElement view(simdjson::dom::element element) {
        const auto spot = std::bit_cast<TapeSpot>(element);
        return JSONElement(spot.document, spot.index, kindOf(element));
    }
    static simdjson::dom::array::iterator iterator(const JSONElement::Iterator& position) {
        return std::bit_cast<simdjson::dom::array::iterator>(TapeSpot{
            static_cast<const simdjson::dom::document*>(position.document_), position.index_});
    }
    static JSONElement::Iterator position(simdjson::dom::array::iterator iterator, bool atEnd) {
        const auto spot = std::bit_cast<TapeSpot>(iterator);
        JSONElement::Iterator position;
        position.document_ = spot.document;
        position.index_ = spot.index;
        position.kind_ = atEnd ? Value::Kind::null : kindOf(*iterator);
        return position;
    }
    static bool isNullView(const JSONElement& view) { return view.document_ == nullptr; }
};

// ---- JSONSerialization ------------------------------------------------------------------------

std::optional<Value> JSONSerialization::jsonObject(std::string_view text,
                                                   JSONReadingOptions options, std::string* error) {
    try {
        ParserLease lease;
        simdjson::dom::element root;
        if (!parseText(lease.parser(), text, options.fragmentsAllowed, error, root)) {
            return std::nullopt;
        }
        return convert(root);
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = e.what();
        }
        return std::nullopt;
    }
}

bool isValidUTF8(std::string_view bytes) {
    // Short ASCII texts (most keys, numbers and replies) are settled without the validator's
    // dispatch; anything else goes to simdjson's validator (our kernel's, see kernel()).
    constexpr std::size_t kShort = 64;
    if (bytes.size() <= kShort) {
        unsigned char any = 0;
        for (const char c : bytes) {
            any |= static_cast<unsigned char>(c);
        }
        if (any < 0x80) {
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
    std::optional<ParserLease> lease;
    simdjson::dom::element root;
    try {
        lease.emplace();
    } catch (const std::exception& e) {
        if (error != nullptr) {
            *error = e.what();
        }
        return false;
    }
    if (!parseText(lease->parser(), text, fragmentsAllowed, error, root)) {
        return false;
    }
    visit(context, JSONElementAccess::view(root));
    return true;
}

bool JSONElement::booleanValue() const {
    return JSONElementAccess::element(*this).get_bool().value_unsafe();
}

std::int64_t JSONElement::integerValue() const {
    const auto element = JSONElementAccess::element(*this);
    if (element.type() == simdjson::dom::element_type::UINT64) {
        return static_cast<std::int64_t>(element.get_uint64().value_unsafe());
    }
    return element.get_int64().value_unsafe();
}

std::uint64_t JSONElement::unsignedIntegerValue() const {
    return JSONElementAccess::element(*this).get_uint64().value_unsafe();
}

double JSONElement::realValue() const {
    return JSONElementAccess::element(*this).get_double().value_unsafe();
}

std::string_view JSONElement::textValue() const {
    return JSONElementAccess::element(*this).get_string().value_unsafe();
}

std::size_t JSONElement::size() const {
    if (kind_ != Value::Kind::array && kind_ != Value::Kind::dictionary) {
        return 0;
    }
    const auto element = JSONElementAccess::element(*this);
    simdjson::dom::array array;
    if (element.get_array().get(array) == simdjson::SUCCESS) {
        const std::size_t saturated = array.size();
        if (saturated < 0xFFFFFF) {
            return saturated;
        }
        std::size_t count = 0;
        for (auto it = array.begin(); it != array.end(); ++it) {
            ++count;
        }
        return count;
    }
    simdjson::dom::object object;
    if (element.get_object().get(object) == simdjson::SUCCESS) {
        const std::size_t saturated = object.size();
        if (saturated < 0xFFFFFF) {
            return saturated;
        }
        std::size_t count = 0;
        for (auto it = object.begin(); it != object.end(); ++it) {
            ++count;
        }
        return count;
    }
    return 0;
}

JSONElement::Iterator JSONElement::begin() const {
    if (kind_ != Value::Kind::array) {
        return {};
    }
    const auto array = JSONElementAccess::element(*this).get_array().value_unsafe();
    return JSONElementAccess::position(array.begin(), array.begin() == array.end());
}

JSONElement::Iterator JSONElement::end() const {
    if (kind_ != Value::Kind::array) {
        return {};
    }
    return JSONElementAccess::position(
        JSONElementAccess::element(*this).get_array().value_unsafe().end(), true);
}

JSONElement::Iterator& JSONElement::Iterator::operator++() {
    auto iterator = JSONElementAccess::iterator(*this);
    ++iterator;
    // The closing bracket follows the last element; its tape entry reads as null.
    *this = JSONElementAccess::position(iterator, false);
    return *this;
}

std::optional<JSONElement> JSONElement::member(std::string_view key) const {
    if (kind_ != Value::Kind::dictionary) {
        return std::nullopt;
    }
    const auto object = JSONElementAccess::element(*this).get_object().value_unsafe();
    std::optional<simdjson::dom::element> found;
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key_equals(key)) {
            found = it.value();  // a later duplicate replaces it
        }
    }
    if (!found) {
        return std::nullopt;
    }
    return JSONElementAccess::view(*found);
}

Value JSONElement::toValue() const {
    if (JSONElementAccess::isNullView(*this)) {
        return Value(nullptr);
    }
    return convert(JSONElementAccess::element(*this));
}

}  // namespace nimborra::platform
