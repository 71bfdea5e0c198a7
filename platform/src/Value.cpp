#include "NimbOrraPlatform/Value.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <unordered_map>

namespace nimborra::platform {

namespace {

// Compares two numbers held in different representations by their mathematical value.
bool sameNumber(std::int64_t a, double b) {
    // Every int64 is exactly representable as long double on x86-64; elsewhere the comparison
    // is still exact for the values that round-trip through double.
    return static_cast<long double>(a) == static_cast<long double>(b);
}

bool sameNumber(std::uint64_t a, double b) {
    return static_cast<long double>(a) == static_cast<long double>(b);
}

constexpr std::size_t kIndexThreshold = 16;

}  // namespace

// ---- Key --------------------------------------------------------------------------------------

std::string Key::description() const {
    if (const auto* t = std::get_if<std::string>(&storage_)) {
        return *t;
    }
    if (const auto* i = std::get_if<std::int64_t>(&storage_)) {
        return std::to_string(*i);
    }
    const double d = std::get<double>(storage_);
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, d);
    if (ec != std::errc{}) {
        return {};
    }
    return std::string(buffer, end);
}

std::size_t Key::hash() const {
    if (const auto* t = std::get_if<std::string>(&storage_)) {
        return std::hash<std::string>{}(*t);
    }
    if (const auto* i = std::get_if<std::int64_t>(&storage_)) {
        return std::hash<std::int64_t>{}(*i);
    }
    const double d = std::get<double>(storage_);
    // Integral reals hash like the equal integer, so that 1 and 1.0 land together.
    if (std::isfinite(d) && std::trunc(d) == d && d >= -9.2233720368547758e18 &&
        d < 9.2233720368547758e18) {
        return std::hash<std::int64_t>{}(static_cast<std::int64_t>(d));
    }
    return std::hash<double>{}(d);
}

bool operator==(const Key& a, const Key& b) {
    if (a.storage_.index() == b.storage_.index()) {
        return a.storage_ == b.storage_;
    }
    const auto* ai = std::get_if<std::int64_t>(&a.storage_);
    const auto* bi = std::get_if<std::int64_t>(&b.storage_);
    const auto* ad = std::get_if<double>(&a.storage_);
    const auto* bd = std::get_if<double>(&b.storage_);
    if (ai && bd) {
        return sameNumber(*ai, *bd);
    }
    if (ad && bi) {
        return sameNumber(*bi, *ad);
    }
    return false;
}

// ---- Dictionary -------------------------------------------------------------------------------

struct Dictionary::Index {
    // Text keys hash like the std::string they hold (Key::hash), and std::hash gives equal
    // results for a std::string and a std::string_view of the same characters, so a text can be
    // looked up without building a Key.
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const Key& key) const { return key.hash(); }
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Key& a, const Key& b) const { return a == b; }
        bool operator()(const Key& a, std::string_view b) const {
            const std::string* text = a.text();
            return text != nullptr && *text == b;
        }
        bool operator()(std::string_view a, const Key& b) const { return (*this)(b, a); }
    };
    std::unordered_map<Key, std::size_t, Hash, Equal> positions;
};

Dictionary::Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    entries_.reserve(entries.size());
    for (const auto& entry : entries) {
        set(entry.first, entry.second);
    }
}

Dictionary::Dictionary(const Dictionary& other) : entries_(other.entries_) {
    if (other.index_) {
        index_ = std::make_unique<Index>(*other.index_);
    }
}

Dictionary::Dictionary(Dictionary&& other) noexcept = default;

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        Dictionary copy(other);
        *this = std::move(copy);
    }
    return *this;
}

Dictionary& Dictionary::operator=(Dictionary&& other) noexcept = default;

Dictionary::~Dictionary() = default;

namespace {

// The position of `key` (a Key or a text) among `entries`, or -1: looked up in the index when
// there is one, else by a walk, with the same equality either way.
template <class Positions, class K>
std::ptrdiff_t positionOf(const std::vector<Dictionary::Entry>& entries, const Positions* positions,
                          const K& key) {
    if (positions != nullptr) {
        auto found = positions->find(key);
        return found == positions->end() ? -1 : static_cast<std::ptrdiff_t>(found->second);
    }
    const typename Positions::key_equal equal;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (equal(entries[i].first, key)) {
            return static_cast<std::ptrdiff_t>(i);
        }
    }
    return -1;
}

}  // namespace

std::ptrdiff_t Dictionary::indexOf(const Key& key) const {
    return positionOf(entries_, index_ ? &index_->positions : nullptr, key);
}

std::ptrdiff_t Dictionary::indexOf(std::string_view key) const {
    return positionOf(entries_, index_ ? &index_->positions : nullptr, key);
}

const Value* Dictionary::find(std::string_view key) const {
    const auto position = indexOf(key);
    return position < 0 ? nullptr : &entries_[static_cast<std::size_t>(position)].second;
}

Value* Dictionary::find(std::string_view key) {
    const auto position = indexOf(key);
    return position < 0 ? nullptr : &entries_[static_cast<std::size_t>(position)].second;
}

const Value* Dictionary::find(const Key& key) const {
    const auto position = indexOf(key);
    return position < 0 ? nullptr : &entries_[static_cast<std::size_t>(position)].second;
}

Value* Dictionary::find(const Key& key) {
    const auto position = indexOf(key);
    return position < 0 ? nullptr : &entries_[static_cast<std::size_t>(position)].second;
}

void Dictionary::set(Key key, Value value) {
    const auto position = indexOf(key);
    if (position >= 0) {
        entries_[static_cast<std::size_t>(position)].second = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (index_) {
        index_->positions.emplace(entries_.back().first, entries_.size() - 1);
    } else if (entries_.size() > kIndexThreshold) {
        index_ = std::make_unique<Index>();
        index_->positions.reserve(entries_.size() * 2);
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            index_->positions.emplace(entries_[i].first, i);
        }
    }
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (const auto& [key, value] : a) {
        const Value* other = b.find(key);
        if (other == nullptr || !(*other == value)) {
            return false;
        }
    }
    return true;
}

// ---- Value ------------------------------------------------------------------------------------

bool Value::isNumber() const {
    switch (kind()) {
        case Kind::boolean:
        case Kind::integer:
        case Kind::unsignedInteger:
        case Kind::real:
            return true;
        default:
            return false;
    }
}

const Value* Value::find(const Key& key) const {
    const auto* d = dictionary();
    return d ? d->find(key) : nullptr;
}

const Value* Value::find(std::string_view key) const {
    const auto* d = dictionary();
    return d ? d->find(key) : nullptr;
}

bool operator==(const Value& a, const Value& b) {
    if (a.storage_.index() == b.storage_.index()) {
        return a.storage_ == b.storage_;
    }
    // Different kinds are equal only as the same number in two representations. An int64 and a
    // uint64 never are (the constructors keep uint64 for values beyond int64), so only a real
    // against an integer of either kind remains; every other pair of kinds is unequal.
    if (const auto* ar = a.real()) {
        if (const auto* bi = b.integer())
            return sameNumber(*bi, *ar);
        if (const auto* bu = b.unsignedInteger())
            return sameNumber(*bu, *ar);
        return false;
    }
    if (const auto* br = b.real()) {
        if (const auto* ai = a.integer())
            return sameNumber(*ai, *br);
        if (const auto* au = a.unsignedInteger())
            return sameNumber(*au, *br);
    }
    return false;
}

std::string_view describeKind(Value::Kind kind) {
    switch (kind) {
        case Value::Kind::null:
            return "null";
        case Value::Kind::boolean:
            return "a boolean";
        case Value::Kind::integer:
        case Value::Kind::unsignedInteger:
            return "an integer";
        case Value::Kind::real:
            return "a number";
        case Value::Kind::text:
            return "a string";
        case Value::Kind::data:
            return "byte data";
        case Value::Kind::date:
            return "a date";
        case Value::Kind::array:
            return "an array";
        case Value::Kind::dictionary:
            return "an object";
    }
    return "a value";
}

}  // namespace nimborra::platform
