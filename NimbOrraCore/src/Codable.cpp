#include "NimbOrraCore/Codable.h"

#include <cmath>
#include <limits>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::core {

namespace {

template <class Component>
std::string formatPath(const std::vector<Component>& path) {
    std::string text;
    for (const auto& component : path) {
        if (component.isIndex) {
            text += '[';
            text += std::to_string(component.index);
            text += ']';
        } else {
            if (!text.empty()) {
                text += '.';
            }
            text += component.key;
        }
    }
    return text;
}

std::string describeNumber(double number) {
    std::string text;
    if (!platform::appendJSONNumber(text, number)) {
        text = std::isnan(number) ? "nan" : (number > 0 ? "inf" : "-inf");
    }
    return text;
}

// Reads an integral number of type Int into `out`: integers in range, and reals that are
// integral and in range (3.0, 1e2). Anything else numeric is dataCorrupted.
template <class Int>
bool readInteger(DecodingContext& context, const platform::Value& value, Int& out,
                 std::string_view typeName) {
    constexpr auto lowest = std::numeric_limits<Int>::min();
    constexpr auto highest = std::numeric_limits<Int>::max();
    if (const auto* i = value.integer()) {
        if (*i < lowest || *i > highest) {
            context.fail(
                CodingErrorKind::dataCorrupted,
                "the number " + std::to_string(*i) + " does not fit in " + std::string(typeName));
            return false;
        }
        out = static_cast<Int>(*i);
        return true;
    }
    if (const auto* u = value.unsignedInteger()) {
        context.fail(
            CodingErrorKind::dataCorrupted,
            "the number " + std::to_string(*u) + " does not fit in " + std::string(typeName));
        return false;
    }
    if (const auto* r = value.real()) {
        const double d = *r;
        if (std::trunc(d) != d) {
            context.fail(CodingErrorKind::dataCorrupted,
                         "the number " + describeNumber(d) + " is not an integer");
            return false;
        }
        // Bounds as doubles: lowest is exact (a power of two), highest + 1 likewise.
        if (d < static_cast<double>(lowest) || d >= -static_cast<double>(lowest)) {
            context.fail(
                CodingErrorKind::dataCorrupted,
                "the number " + describeNumber(d) + " does not fit in " + std::string(typeName));
            return false;
        }
        out = static_cast<Int>(d);
        return true;
    }
    return false;
}

}  // namespace

// ---- EncodingContext --------------------------------------------------------------------------

void EncodingContext::pushKey(std::string_view key) {
    path_.push_back({key, 0, false});
}
void EncodingContext::pushIndex(std::size_t index) {
    path_.push_back({{}, index, true});
}
void EncodingContext::pop() {
    path_.pop_back();
}
std::string EncodingContext::codingPath() const {
    return formatPath(path_);
}

void EncodingContext::fail(CodingErrorKind kind, std::string detail) {
    if (!error_) {
        error_.emplace(kind, codingPath(), std::move(detail));
    }
}

void EncodingContext::writeKey(std::string_view key) {
    platform::appendJSONString(out_, key);
    out_ += ':';
}

void EncodingContext::write(bool value) {
    out_ += value ? "true" : "false";
}

void EncodingContext::write(std::int64_t value) {
    platform::appendJSONNumber(out_, value);
}

void EncodingContext::write(double value) {
    if (!platform::appendJSONNumber(out_, value)) {
        fail(CodingErrorKind::invalidValue,
             "the number " + describeNumber(value) + " cannot be written in JSON");
    }
}

void EncodingContext::write(std::string_view value) {
    platform::appendJSONString(out_, value);
}

void EncodingContext::write(const platform::Data& value) {
    out_ += '"';
    out_ += platform::base64EncodedString(value.bytes);
    out_ += '"';
}

// ---- DecodingContext --------------------------------------------------------------------------

void DecodingContext::pushKey(std::string_view key) {
    path_.push_back({key, 0, false});
}
void DecodingContext::pushIndex(std::size_t index) {
    path_.push_back({{}, index, true});
}
void DecodingContext::pop() {
    path_.pop_back();
}
std::string DecodingContext::codingPath() const {
    return formatPath(path_);
}

void DecodingContext::fail(CodingErrorKind kind, std::string detail) {
    if (!error_) {
        error_.emplace(kind, codingPath(), std::move(detail));
    }
}

void DecodingContext::mismatch(std::string_view expected, const platform::Value& found) {
    if (found.isNull()) {
        fail(CodingErrorKind::valueNotFound,
             "expected " + std::string(expected) + " but found null");
    } else {
        fail(CodingErrorKind::typeMismatch, "expected " + std::string(expected) + " but found " +
                                                std::string(platform::describeKind(found.kind())));
    }
}

bool DecodingContext::read(const platform::Value& value, bool& out) {
    if (const auto* b = value.boolean()) {
        out = *b;
        return true;
    }
    mismatch("a boolean", value);
    return false;
}

bool DecodingContext::read(const platform::Value& value, std::int32_t& out) {
    if (readInteger(*this, value, out, "a 32-bit integer")) {
        return true;
    }
    if (!failed()) {
        mismatch("an integer", value);
    }
    return false;
}

bool DecodingContext::read(const platform::Value& value, std::int64_t& out) {
    if (readInteger(*this, value, out, "a 64-bit integer")) {
        return true;
    }
    if (!failed()) {
        mismatch("an integer", value);
    }
    return false;
}

bool DecodingContext::read(const platform::Value& value, double& out) {
    if (const auto* r = value.real()) {
        out = *r;
        return true;
    }
    if (const auto* i = value.integer()) {
        out = static_cast<double>(*i);
        return true;
    }
    if (const auto* u = value.unsignedInteger()) {
        out = static_cast<double>(*u);
        return true;
    }
    mismatch("a number", value);
    return false;
}

bool DecodingContext::read(const platform::Value& value, std::string& out) {
    if (const auto* t = value.text()) {
        out = *t;
        return true;
    }
    mismatch("a string", value);
    return false;
}

bool DecodingContext::read(const platform::Value& value, platform::Data& out) {
    const auto* t = value.text();
    if (t == nullptr) {
        mismatch("a base64 string", value);
        return false;
    }
    auto bytes = platform::base64DecodedData(*t);
    if (!bytes) {
        fail(CodingErrorKind::dataCorrupted, "the string is not valid base64");
        return false;
    }
    out.bytes = std::move(*bytes);
    return true;
}

const platform::Dictionary* DecodingContext::readObject(const platform::Value& value) {
    if (const auto* d = value.dictionary()) {
        return d;
    }
    mismatch("an object", value);
    return nullptr;
}

const platform::Array* DecodingContext::readArray(const platform::Value& value) {
    if (const auto* a = value.array()) {
        return a;
    }
    mismatch("an array", value);
    return nullptr;
}

const platform::Value* DecodingContext::requireMember(const platform::Dictionary& object,
                                                      std::string_view key) {
    const platform::Value* member = object.find(platform::Key(key));
    if (member == nullptr) {
        fail(CodingErrorKind::keyNotFound, "no value for key \"" + std::string(key) + "\"");
    }
    return member;
}

}  // namespace nimborra::core
