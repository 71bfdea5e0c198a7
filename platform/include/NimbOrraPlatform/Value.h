// The platform's generic value: what a property list or a JSON document holds, and what the
// dictionaries handed to the library (remote-notification payloads, user-info) are made of.
//
// A Value is a plain value type: copies are deep, and distinct objects may be used from different
// threads without synchronisation. Nothing here throws except std::bad_alloc.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

// Raw bytes (the platform's byte buffer). JSON cannot express it.
struct Data {
    std::vector<std::uint8_t> bytes;
    friend bool operator==(const Data&, const Data&) = default;
};

// A point in time, in seconds since 1970-01-01 00:00:00 UTC. JSON cannot express it.
struct Date {
    double secondsSince1970 = 0;
    friend bool operator==(const Date&, const Date&) = default;
};

// A dictionary key: text or a number ("hashable keys"). Numeric keys compare by value, so the
// integer 1 and the real 1.0 are the same key; text never equals a number.
class NIMBORRA_PLATFORM_EXPORT Key {
  public:
    Key(std::string text) : storage_(std::move(text)) {}
    Key(std::string_view text) : storage_(std::string(text)) {}
    Key(const char* text) : storage_(std::string(text)) {}
    template <std::integral T>
    requires(!std::same_as<T, bool> && sizeof(T) <= sizeof(std::int64_t)) Key(T number)
        : storage_(static_cast<std::int64_t>(number)) {}
    Key(double number) : storage_(number) {}

    bool isText() const { return std::holds_alternative<std::string>(storage_); }
    // The key's text, or nullptr for a number key.
    const std::string* text() const { return std::get_if<std::string>(&storage_); }
    // The key's plain description: the text itself, or the number in decimal form.
    std::string description() const;
    std::size_t hash() const;

    friend bool operator==(const Key& a, const Key& b);

  private:
    std::variant<std::string, std::int64_t, double> storage_;
};

class Value;

using Array = std::vector<Value>;

// A dictionary that keeps its entries in insertion order. Setting an existing key replaces the
// value in place (the entry keeps its position).
class NIMBORRA_PLATFORM_EXPORT Dictionary {
  public:
    using Entry = std::pair<Key, Value>;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept;
    Dictionary& operator=(const Dictionary& other);
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    std::size_t size() const;
    bool empty() const;

    // The value stored under `key`, or nullptr.
    const Value* find(const Key& key) const;
    Value* find(const Key& key);
    bool contains(const Key& key) const { return find(key) != nullptr; }

    // Stores `value` under `key`, replacing an earlier value of an equal key.
    void set(Key key, Value value);
    void reserve(std::size_t count);

    std::vector<Entry>::const_iterator begin() const;
    std::vector<Entry>::const_iterator end() const;
    const std::vector<Entry>& entries() const { return entries_; }

    // Same keys mapped to equal values, whatever the order.
    friend bool operator==(const Dictionary& a, const Dictionary& b);

  private:
    struct Index;
    std::ptrdiff_t indexOf(const Key& key) const;

    std::vector<Entry> entries_;
    std::unique_ptr<Index> index_;  // built once the dictionary grows past a few entries
};

class NIMBORRA_PLATFORM_EXPORT Value {
  public:
    enum class Kind {
        null,
        boolean,
        integer,          // signed 64-bit
        unsignedInteger,  // unsigned 64-bit beyond the signed range
        real,             // double
        text,
        data,
        date,
        array,
        dictionary,
    };

    Value() = default;
    Value(std::nullptr_t) {}
    Value(bool boolean) : storage_(boolean) {}
    template <std::signed_integral T>
    requires(!std::same_as<T, bool>) Value(T number)
        : storage_(static_cast<std::int64_t>(number)) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) Value(T number) {
        if (static_cast<std::uint64_t>(number) <= static_cast<std::uint64_t>(INT64_MAX)) {
            storage_ = static_cast<std::int64_t>(number);
        } else {
            storage_ = static_cast<std::uint64_t>(number);
        }
    }
    Value(double number) : storage_(number) {}
    Value(std::string text) : storage_(std::move(text)) {}
    Value(std::string_view text) : storage_(std::string(text)) {}
    Value(const char* text) : storage_(std::string(text)) {}
    Value(Data data) : storage_(std::move(data)) {}
    Value(Date date) : storage_(date) {}
    Value(Array array) : storage_(std::move(array)) {}
    Value(Dictionary dictionary) : storage_(std::move(dictionary)) {}

    Kind kind() const { return static_cast<Kind>(storage_.index()); }
    bool isNull() const { return kind() == Kind::null; }
    // A number in the platform's sense: integers, reals and booleans (which the platform's
    // number object also represents).
    bool isNumber() const;

    // Typed access: a pointer to the stored value, or nullptr when the value is of another kind.
    const bool* boolean() const { return std::get_if<bool>(&storage_); }
    const std::int64_t* integer() const { return std::get_if<std::int64_t>(&storage_); }
    const std::uint64_t* unsignedInteger() const { return std::get_if<std::uint64_t>(&storage_); }
    const double* real() const { return std::get_if<double>(&storage_); }
    const std::string* text() const { return std::get_if<std::string>(&storage_); }
    const Data* data() const { return std::get_if<Data>(&storage_); }
    const Date* date() const { return std::get_if<Date>(&storage_); }
    const Array* array() const { return std::get_if<Array>(&storage_); }
    Array* array() { return std::get_if<Array>(&storage_); }
    const Dictionary* dictionary() const { return std::get_if<Dictionary>(&storage_); }
    Dictionary* dictionary() { return std::get_if<Dictionary>(&storage_); }

    // Member lookup for dictionaries; nullptr when this is not a dictionary or has no such key.
    const Value* find(const Key& key) const;

    // Numbers compare by value across integer, unsigned and real; booleans are not numbers here.
    friend bool operator==(const Value& a, const Value& b);

  private:
    std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, std::string, Data, Date,
                 Array, Dictionary>
        storage_;
};

// Defined here, where Value is complete, so that the entry type can be instantiated.
inline std::size_t Dictionary::size() const { return entries_.size(); }
inline bool Dictionary::empty() const { return entries_.empty(); }
inline void Dictionary::reserve(std::size_t count) { entries_.reserve(count); }
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
    return entries_.begin();
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
    return entries_.end();
}

// A short name of the kind, for descriptions ("a string", "an integer", ...).
NIMBORRA_PLATFORM_EXPORT std::string_view describeKind(Value::Kind kind);

}  // namespace nimborra::platform
