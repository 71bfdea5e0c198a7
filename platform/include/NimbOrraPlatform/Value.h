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
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
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

    // The value stored under `key`, or nullptr. The text overloads look a text key up without
    // building a Key (no allocation).
    const Value* find(const Key& key) const;
    Value* find(const Key& key);
    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);
    const Value* find(const char* key) const { return find(std::string_view(key)); }
    Value* find(const char* key) { return find(std::string_view(key)); }
    const Value* find(const std::string& key) const { return find(std::string_view(key)); }
    Value* find(const std::string& key) { return find(std::string_view(key)); }
    bool contains(const Key& key) const { return find(key) != nullptr; }
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    bool contains(const char* key) const { return find(key) != nullptr; }
    bool contains(const std::string& key) const { return find(key) != nullptr; }

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
    std::ptrdiff_t indexOf(std::string_view key) const;

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
    const Value* find(std::string_view key) const;
    const Value* find(const char* key) const { return find(std::string_view(key)); }
    const Value* find(const std::string& key) const { return find(std::string_view(key)); }

    // Numbers compare by value across integer, unsigned and real; booleans are not numbers here.
    friend bool operator==(const Value& a, const Value& b);

  private:
    std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, std::string, Data, Date,
                 Array, Dictionary>
        storage_;
};

// Defined here, where Value is complete, so that the entry type can be instantiated.
inline std::size_t Dictionary::size() const {
    return entries_.size();
}
inline bool Dictionary::empty() const {
    return entries_.empty();
}
inline void Dictionary::reserve(std::size_t count) {
    entries_.reserve(count);
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
    return entries_.begin();
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
    return entries_.end();
}

// A short name of the kind, for descriptions ("a string", "an integer", ...).
NIMBORRA_PLATFORM_EXPORT std::string_view describeKind(Value::Kind kind);

// ---- Reading JSON without building a Value ---------------------------------------------------
//
// For readers that take a few known members out of a JSON text (the bridge's decoders): the text
// is parsed exactly as JSONSerialization::jsonObject parses it, and the reader looks at the
// parsed document through JSONElement views instead of a Value tree, which saves building and
// destroying one.
//
// Threads and lifetime: a view is valid only inside the visit that handed it out (see visitJSON)
// and only on the visiting thread. Views are small values; copy them freely within the visit.

namespace detail {

// One value of a parsed JSON document as the reader lays the document out: a flat tape in which
// a container's entry is followed by its elements (an object's by a text entry for each key,
// then that key's value). Public only so that views read it without a call; nothing but the
// reader writes it.
struct JSONTextSpan {
    std::uint32_t offset;
    std::uint32_t length;
};

struct JSONTapeEntry {
    // A Value::Kind.
    std::uint8_t kind;
    // Text: the unescaped bytes are in the document's own buffer, not in the input.
    bool unescaped;
    // The index just past this value and everything under it (its next sibling's).
    std::uint32_t next;
    union {
        bool boolean;
        std::int64_t integer;
        std::uint64_t unsignedInteger;  // also a container's number of elements (members)
        double real;
        JSONTextSpan text;
    };

    Value::Kind valueKind() const { return static_cast<Value::Kind>(kind); }
};

}  // namespace detail

// A read-only view of one value of a parsed JSON document. Its kinds and typed accessors match
// the Value that jsonObject would build for the same part of the text (numbers as integer,
// unsignedInteger or real; never data or date). A default-made view is null.
class NIMBORRA_PLATFORM_EXPORT JSONElement {
  public:
    // Forward iteration over the elements of an array (an empty range for any other kind).
    class Iterator {
      public:
        JSONElement operator*() const {
            return JSONElement(document_, tape_, index_, tape_[index_].valueKind());
        }
        Iterator& operator++() {
            // Past the last element is the entry after the array, or the tape's closing null
            // entry, so `next` can always be followed.
            index_ = tape_[index_].next;
            return *this;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) {
            return a.tape_ == b.tape_ && a.index_ == b.index_;
        }

      private:
        friend class JSONElement;
        const void* document_ = nullptr;
        const detail::JSONTapeEntry* tape_ = nullptr;
        std::uint32_t index_ = 0;
    };

    JSONElement() = default;

    Value::Kind kind() const { return kind_; }
    bool isNull() const { return kind_ == Value::Kind::null; }

    // Typed access: the value, or nothing when the element is of another kind.
    std::optional<bool> boolean() const {
        return kind_ == Value::Kind::boolean ? std::optional<bool>(entry().boolean) : std::nullopt;
    }
    std::optional<std::int64_t> integer() const {
        return kind_ == Value::Kind::integer ? std::optional<std::int64_t>(entry().integer)
                                             : std::nullopt;
    }
    std::optional<std::uint64_t> unsignedInteger() const {
        return kind_ == Value::Kind::unsignedInteger
                   ? std::optional<std::uint64_t>(entry().unsignedInteger)
                   : std::nullopt;
    }
    std::optional<double> real() const {
        return kind_ == Value::Kind::real ? std::optional<double>(entry().real) : std::nullopt;
    }
    // Valid as long as the view is.
    std::optional<std::string_view> text() const {
        return kind_ == Value::Kind::text ? std::optional<std::string_view>(textValue())
                                          : std::nullopt;
    }

    // Number of elements of an array or members of an object (duplicates counted); 0 otherwise.
    std::size_t size() const {
        return kind_ == Value::Kind::array || kind_ == Value::Kind::dictionary
                   ? static_cast<std::size_t>(entry().unsignedInteger)
                   : 0;
    }
    Iterator begin() const {
        Iterator position;
        if (kind_ == Value::Kind::array) {
            position.document_ = document_;
            position.tape_ = tape_;
            position.index_ = index_ + 1;
        }
        return position;
    }
    Iterator end() const {
        Iterator position;
        if (kind_ == Value::Kind::array) {
            position.document_ = document_;
            position.tape_ = tape_;
            position.index_ = entry().next;
        }
        return position;
    }

    // The member of an object stored under `key`; of duplicate keys the last one counts, as in
    // the Dictionary that jsonObject builds. Nothing when absent or when this is not an object.
    std::optional<JSONElement> member(std::string_view key) const;
    // The members stored under each of `keys` at once, in one pass over the object: `found[i]`
    // is what member(keys[i]) would give. `keys` holds no key twice, and `found` is as long as
    // `keys`. Nothing is found when this is not an object.
    void members(const std::string_view* keys, std::optional<JSONElement>* found,
                 std::size_t count) const;

    // This part of the document as a Value, exactly as jsonObject would have built it.
    Value toValue() const;

  private:
    friend struct JSONElementAccess;
    JSONElement(const void* document, const detail::JSONTapeEntry* tape, std::uint32_t index,
                Value::Kind kind)
        : document_(document), tape_(tape), index_(index), kind_(kind) {}

    // Only for a view of a document (not the null view).
    const detail::JSONTapeEntry& entry() const { return tape_[index_]; }
    std::string_view textValue() const;

    const void* document_ = nullptr;  // no document: the null view
    const detail::JSONTapeEntry* tape_ = nullptr;
    std::uint32_t index_ = 0;
    Value::Kind kind_ = Value::Kind::null;
};

namespace detail {
using JSONVisitFunction = void (*)(void* context, const JSONElement& root);
[[nodiscard]] NIMBORRA_PLATFORM_EXPORT bool visitJSON(std::string_view text, bool fragmentsAllowed,
                                                      std::string* error, JSONVisitFunction visit,
                                                      void* context);
}  // namespace detail

// Parses `text` as JSONSerialization::jsonObject does with the same `fragmentsAllowed` option
// (the same checks, the same error descriptions in `error`) and, when it is JSON, calls
// `visit(root)` once on this thread, with a view of the top-level value that is valid until
// `visit` returns. Returns false, without calling `visit`, when the text is not accepted.
// Whatever `visit` throws propagates to the caller; the parse itself throws nothing. `visit` may
// parse other texts (the views it holds stay valid).
template <class Visit>
[[nodiscard]] bool visitJSON(std::string_view text, bool fragmentsAllowed, std::string* error,
                             Visit&& visit) {
    using Function = std::remove_reference_t<Visit>;
    return detail::visitJSON(
        text, fragmentsAllowed, error,
        [](void* context, const JSONElement& root) { (*static_cast<Function*>(context))(root); },
        const_cast<void*>(static_cast<const void*>(&visit)));
}

}  // namespace nimborra::platform
