// How values travel through the bridge's JSON coders (JSONEncoder, JSONDecoder).
//
// A record declares its fields once, in coding order, and gets its JSON coding from that:
//
//     struct Point {
//         std::int32_t x = 0;
//         std::string label;
//         static constexpr auto codingFields() {
//             return std::tuple{nimborra::core::CodingField{"x", &Point::x},
//                               nimborra::core::CodingField{"label", &Point::label}};
//         }
//     };
//
// A record is written as a JSON object with its fields in that order (every field, always) and
// read back requiring every field; unknown keys are ignored. A record without fields is written
// as {} and is read from any JSON value without looking at it.
//
// Supported field types: bool, std::int32_t, std::int64_t, double, std::string,
// platform::Data (as base64 text), std::vector<T>, nested records, and wire enumerations
// (enumerations that specialise WireEnumTraits; see below).
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "NimbOrraCore/CodingError.h"
#include "NimbOrraCore/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::core {

// One field of a record: its JSON key and the member that holds it.
template <class Record, class Member>
struct CodingField {
    std::string_view key;
    Member Record::*member;
};

template <class Record, class Member>
CodingField(std::string_view, Member Record::*) -> CodingField<Record, Member>;

template <class T>
concept CodableRecord = requires {
    {T::codingFields()};
};

// Wire enumerations travel as their integer raw value. Decoding is lenient: any integer that
// names no case decodes as the case whose raw value is 0 ("unspecified"). Specialise with
//     template <> struct WireEnumTraits<E> { static constexpr std::int64_t caseCount = N; };
// for an enumeration whose cases are 0 ... N-1.
template <class E>
struct WireEnumTraits;

template <class E>
concept WireEnum = std::is_enum_v<E> && requires {
    { WireEnumTraits<E>::caseCount } -> std::convertible_to<std::int64_t>;
};

template <WireEnum E>
constexpr std::int64_t rawValue(E value) {
    return static_cast<std::int64_t>(value);
}

// Strict construction from a raw value: nothing for an integer that names no case.
template <WireEnum E>
constexpr std::optional<E> fromRawValue(std::int64_t raw) {
    if (raw < 0 || raw >= WireEnumTraits<E>::caseCount) {
        return std::nullopt;
    }
    return static_cast<E>(raw);
}

// Lenient decoding from a raw value: an integer that names no case, negative ones included,
// becomes the case 0.
template <WireEnum E>
constexpr E fromWireValue(std::int64_t raw) {
    if (static_cast<std::uint64_t>(raw) <
        static_cast<std::uint64_t>(WireEnumTraits<E>::caseCount)) {
        return static_cast<E>(raw);
    }
    return static_cast<E>(0);
}

namespace detail {

// The text that introduces a member: the record's opening brace (first member) or a comma, then
// its key in quotation marks and the colon. Made when the record's coding is compiled.
template <std::size_t Length>
struct MemberOpening {
    char text[Length];

    constexpr MemberOpening(std::string_view key, bool first) : text{} {
        std::size_t at = 0;
        text[at++] = first ? '{' : ',';
        text[at++] = '"';
        for (const char c : key) {
            text[at++] = c;
        }
        text[at++] = '"';
        text[at] = ':';
    }
    constexpr std::string_view view() const { return {text, Length}; }
};

// Whether a key is written as it stands between quotation marks: no character of it needs an
// escape. Record keys are constants, so this is settled when the record's coding is compiled.
constexpr bool isPlainKey(std::string_view key) {
    for (const char c : key) {
        if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\' || c == '/') {
            return false;
        }
    }
    return true;
}

}  // namespace detail

// What encoding and decoding keep track of alike: the first failure, which stops the work, and
// where it happened. The coding path is gathered while the failure travels back out of the
// nested values, each level adding the key or index it was working on, so that work that
// succeeds never pays for keeping it.
class NIMBORRA_CORE_EXPORT CodingState {
  public:
    bool failed() const { return failed_; }
    // The failure, with its coding path; only once failed().
    CodingError error() const;

    // Records a failure at the value being worked on, unless one was recorded already.
    void fail(CodingErrorKind kind, std::string detail);
    // After a failure: the value that failed was found under `key` (at `index`) of the one being
    // left. The keys must outlive the state (record keys are constants).
    void leaveKey(std::string_view key) { path_.push_back({key, 0, false}); }
    void leaveIndex(std::size_t index) { path_.push_back({{}, index, true}); }

  private:
    struct Component {
        std::string_view key;
        std::size_t index;
        bool isIndex;
    };

    bool failed_ = false;
    CodingErrorKind kind_ = CodingErrorKind::dataCorrupted;
    std::string detail_;
    // Innermost first.
    std::vector<Component> path_;
};

// ---- Encoding ---------------------------------------------------------------------------------

// The writing state of one encoding: the text written so far and the first failure. Writes
// after a failure are ignored.
class NIMBORRA_CORE_EXPORT EncodingContext : public CodingState {
  public:
    // Writes into a text of its own.
    EncodingContext() = default;
    // Writes after what `buffer` already holds, into `buffer` itself, which must outlive the
    // context.
    explicit EncodingContext(std::string& buffer) : out_(&buffer) {}
    EncodingContext(const EncodingContext&) = delete;
    EncodingContext& operator=(const EncodingContext&) = delete;

    std::string& out() { return *out_; }

    void writeKey(std::string_view key);
    void write(bool value) {
        *out_ += value ? std::string_view("true") : std::string_view("false");
    }
    void write(std::int64_t value);
    void write(double value);
    void write(std::string_view value);
    void write(const platform::Data& value);

  private:
    std::string own_;
    std::string* out_ = &own_;
};

template <class T>
void encodeValue(EncodingContext& context, const T& value);

template <CodableRecord R>
void encodeRecord(EncodingContext& context, const R& record) {
    // Unused by a record without fields.
    [[maybe_unused]] static constexpr auto fields = R::codingFields();
    auto& out = context.out();
    constexpr std::size_t fieldCount = std::tuple_size_v<decltype(R::codingFields())>;
    if constexpr (fieldCount == 0) {
        out += std::string_view("{}");
        return;
    }
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (
            [&] {
                if (context.failed()) {
                    return;
                }
                constexpr auto& field = std::get<I>(fields);
                if constexpr (detail::isPlainKey(field.key)) {
                    static constexpr detail::MemberOpening<field.key.size() + 4> opening(field.key,
                                                                                         I == 0);
                    out += opening.view();
                } else {
                    out += I == 0 ? '{' : ',';
                    context.writeKey(field.key);
                }
                encodeValue(context, record.*(field.member));
                if (context.failed()) {
                    context.leaveKey(field.key);
                }
            }(),
            ...);
    }
    (std::make_index_sequence<std::tuple_size_v<decltype(R::codingFields())>>());
    out += '}';
}

template <class T>
void encodeValue(EncodingContext& context, const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        context.write(value);
    } else if constexpr (WireEnum<T>) {
        context.write(rawValue(value));
    } else if constexpr (std::is_integral_v<T>) {
        context.write(static_cast<std::int64_t>(value));
    } else if constexpr (std::is_floating_point_v<T>) {
        context.write(static_cast<double>(value));
    } else if constexpr (std::is_same_v<T, std::string>) {
        context.write(std::string_view(value));
    } else if constexpr (std::is_same_v<T, platform::Data>) {
        context.write(value);
    } else if constexpr (CodableRecord<T>) {
        encodeRecord(context, value);
    } else {
        // std::vector<E>
        auto& out = context.out();
        out += '[';
        std::size_t index = 0;
        for (const auto& element : value) {
            if (index > 0) {
                out += ',';
            }
            encodeValue(context, element);
            if (context.failed()) {
                context.leaveIndex(index);
                return;
            }
            ++index;
        }
        out += ']';
    }
}

// ---- Decoding ---------------------------------------------------------------------------------

// Records are read straight from the views of a parsed JSON document (platform::JSONElement),
// without building a Value tree. The reading state of one decoding: the coding path and the
// first failure.
class NIMBORRA_CORE_EXPORT DecodingContext : public CodingState {
  public:
    // Each reads `value` into `out`, or records the failure and returns false. The common case
    // (the JSON kind the field wants) is settled here, inline; the rest in Codable.cpp.
    bool read(const platform::JSONElement& value, bool& out) {
        if (value.kind() == platform::Value::Kind::boolean) {
            out = *value.boolean();
            return true;
        }
        mismatch("a boolean", value);
        return false;
    }
    bool read(const platform::JSONElement& value, std::int32_t& out) {
        if (const auto i = value.integer(); i && *i >= INT32_MIN && *i <= INT32_MAX) {
            out = static_cast<std::int32_t>(*i);
            return true;
        }
        return readInteger(value, out, "a 32-bit integer");
    }
    bool read(const platform::JSONElement& value, std::int64_t& out) {
        if (const auto i = value.integer()) {
            out = *i;
            return true;
        }
        return readInteger(value, out, "a 64-bit integer");
    }
    bool read(const platform::JSONElement& value, double& out);
    bool read(const platform::JSONElement& value, std::string& out);
    bool read(const platform::JSONElement& value, platform::Data& out);
    // Checks that `value` is an object (an array); reports null and other types as failures.
    std::optional<platform::JSONElement> readObject(const platform::JSONElement& value) {
        if (value.kind() == platform::Value::Kind::dictionary) {
            return value;
        }
        mismatch("an object", value);
        return std::nullopt;
    }
    std::optional<platform::JSONElement> readArray(const platform::JSONElement& value) {
        if (value.kind() == platform::Value::Kind::array) {
            return value;
        }
        mismatch("an array", value);
        return std::nullopt;
    }
    // The member found for required key `key`; reports it absent, and gives null, when not.
    const platform::JSONElement* requireMember(const std::optional<platform::JSONElement>& member,
                                               std::string_view key);

  private:
    // Records a typeMismatch (valueNotFound for null) for a value that is not `expected`.
    void mismatch(std::string_view expected, const platform::JSONElement& found);
    // The integer reads' other cases: out of range, unsigned, integral reals, mismatches.
    template <class Int>
    bool readInteger(const platform::JSONElement& value, Int& out, std::string_view typeName);
};

template <class T>
bool decodeValue(DecodingContext& context, const platform::JSONElement& value, T& out);

// Whether no key is given twice: a record's members are looked up all at once, each key taking
// the one member stored under it.
template <std::size_t N>
constexpr bool keysDistinct(const std::array<std::string_view, N>& keys) {
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t j = i + 1; j < N; ++j) {
            if (keys[i] == keys[j]) {
                return false;
            }
        }
    }
    return true;
}

template <CodableRecord R>
bool decodeRecord(DecodingContext& context, const platform::JSONElement& value, R& record) {
    constexpr std::size_t fieldCount = std::tuple_size_v<decltype(R::codingFields())>;
    if constexpr (fieldCount == 0) {
        // A record without fields does not look at the value at all.
        (void)context;
        (void)value;
        (void)record;
        return true;
    } else {
        const auto object = context.readObject(value);
        if (!object) {
            return false;
        }
        // Every field's member found in one pass over the object, then read in field order.
        static constexpr auto keys = std::apply(
            [](const auto&... field) {
                return std::array<std::string_view, fieldCount>{field.key...};
            },
            R::codingFields());
        static_assert(keysDistinct(keys), "a record gives each coding key to one field only");
        std::array<std::optional<platform::JSONElement>, fieldCount> found;
        object->members(keys.data(), found.data(), fieldCount);
        bool ok = true;
        std::size_t index = 0;
        std::apply(
            [&](const auto&... field) {
                (
                    [&] {
                        if (!ok) {
                            return;
                        }
                        const auto* member = context.requireMember(found[index++], field.key);
                        ok = member != nullptr &&
                             decodeValue(context, *member, record.*(field.member));
                        if (!ok) {
                            context.leaveKey(field.key);
                        }
                    }(),
                    ...);
            },
            R::codingFields());
        return ok;
    }
}

template <class T>
bool decodeValue(DecodingContext& context, const platform::JSONElement& value, T& out) {
    if constexpr (WireEnum<T>) {
        std::int64_t raw = 0;
        if (!context.read(value, raw)) {
            return false;
        }
        out = fromWireValue<T>(raw);
        return true;
    } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::int32_t> ||
                         std::is_same_v<T, std::int64_t> || std::is_same_v<T, double> ||
                         std::is_same_v<T, std::string> || std::is_same_v<T, platform::Data>) {
        return context.read(value, out);
    } else if constexpr (CodableRecord<T>) {
        return decodeRecord(context, value, out);
    } else {
        // std::vector<E>, read in place: on a failure the whole decoding fails, so a vector
        // left half read is never handed out.
        const auto array = context.readArray(value);
        if (!array) {
            return false;
        }
        out.clear();
        out.reserve(array->size());
        std::size_t index = 0;
        for (const auto& item : *array) {
            if (!decodeValue(context, item, out.emplace_back())) {
                context.leaveIndex(index);
                return false;
            }
            ++index;
        }
        return true;
    }
}

}  // namespace nimborra::core
