#include "NimbOrraCore/Codable.h"

#include <cmath>
#include <limits>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::core {

namespace {

std::string describeNumber(double number) {
    std::string text;
    if (!platform::appendJSONNumber(text, number)) {
        text = std::isnan(number) ? "nan" : (number > 0 ? "inf" : "-inf");
    }
    return text;
}

}  // namespace

// ---- CodingState ------------------------------------------------------------------------------

CodingError CodingState::error() const {
    // Dotted keys and bracketed indices from the outermost level in: "options[0]",
    // "notification.badge".
    std::string path;
    for (auto component = path_.rbegin(); component != path_.rend(); ++component) {
        if (component->isIndex) {
            path += '[';
            path += std::to_string(component->index);
            path += ']';
        } else {
            if (!path.empty()) {
                path += '.';
            }
            path += component->key;
        }
    }
    return CodingError(kind_, std::move(path), detail_);
}

void CodingState::fail(CodingErrorKind kind, std::string detail) {
    if (!failed_) {
        failed_ = true;
        kind_ = kind;
        detail_ = std::move(detail);
    }
}

// ---- EncodingContext --------------------------------------------------------------------------

void EncodingContext::writeKey(std::string_view key) {
    platform::appendJSONString(*out_, key);
    *out_ += ':';
}

void EncodingContext::write(std::int64_t value) {
    platform::appendJSONNumber(*out_, value);
}

void EncodingContext::write(double value) {
    if (!platform::appendJSONNumber(*out_, value)) {
        fail(CodingErrorKind::invalidValue,
             "the number " + describeNumber(value) + " cannot be written in JSON");
    }
}

void EncodingContext::write(std::string_view value) {
    platform::appendJSONString(*out_, value);
}

void EncodingContext::write(const platform::Data& value) {
    *out_ += '"';
    *out_ += platform::base64EncodedString(value.bytes);
    *out_ += '"';
}

// ---- DecodingContext --------------------------------------------------------------------------

void DecodingContext::mismatch(std::string_view expected, const platform::JSONElement& found) {
    if (found.isNull()) {
        fail(CodingErrorKind::valueNotFound,
             "expected " + std::string(expected) + " but found null");
    } else {
        fail(CodingErrorKind::typeMismatch, "expected " + std::string(expected) + " but found " +
                                                std::string(platform::describeKind(found.kind())));
    }
}

// What the inline integer reads leave over, for type Int: an integer that does not fit (those
// that fit were read inline), an unsigned one beyond 64 bits, and reals, which are read when
// integral and in range (3.0, 1e2). Anything else numeric is dataCorrupted; anything else a
// mismatch.
template <class Int>
bool DecodingContext::readInteger(const platform::JSONElement& value, Int& out,
                                  std::string_view typeName) {
    constexpr auto lowest = std::numeric_limits<Int>::min();
    if (const auto i = value.integer()) {
        fail(CodingErrorKind::dataCorrupted,
             "the number " + std::to_string(*i) + " does not fit in " + std::string(typeName));
        return false;
    }
    if (const auto u = value.unsignedInteger()) {
        fail(CodingErrorKind::dataCorrupted,
             "the number " + std::to_string(*u) + " does not fit in " + std::string(typeName));
        return false;
    }
    if (const auto r = value.real()) {
        const double d = *r;
        if (std::trunc(d) != d) {
            fail(CodingErrorKind::dataCorrupted,
                 "the number " + describeNumber(d) + " is not an integer");
            return false;
        }
        // Bounds as doubles: lowest is exact (a power of two), highest + 1 likewise.
        if (d < static_cast<double>(lowest) || d >= -static_cast<double>(lowest)) {
            fail(CodingErrorKind::dataCorrupted,
                 "the number " + describeNumber(d) + " does not fit in " + std::string(typeName));
            return false;
        }
        out = static_cast<Int>(d);
        return true;
    }
    mismatch("an integer", value);
    return false;
}

template bool DecodingContext::readInteger(const platform::JSONElement&, std::int32_t&,
                                           std::string_view);
template bool DecodingContext::readInteger(const platform::JSONElement&, std::int64_t&,
                                           std::string_view);

bool DecodingContext::read(const platform::JSONElement& value, double& out) {
    if (const auto r = value.real()) {
        out = *r;
        return true;
    }
    if (const auto i = value.integer()) {
        out = static_cast<double>(*i);
        return true;
    }
    if (const auto u = value.unsignedInteger()) {
        out = static_cast<double>(*u);
        return true;
    }
    mismatch("a number", value);
    return false;
}

bool DecodingContext::read(const platform::JSONElement& value, std::string& out) {
    if (const auto t = value.text()) {
        out.assign(t->data(), t->size());
        return true;
    }
    mismatch("a string", value);
    return false;
}

bool DecodingContext::read(const platform::JSONElement& value, platform::Data& out) {
    const auto t = value.text();
    if (!t) {
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

const platform::JSONElement* DecodingContext::requireMember(
    const std::optional<platform::JSONElement>& member, std::string_view key) {
    if (!member) {
        fail(CodingErrorKind::keyNotFound, "no value for key \"" + std::string(key) + "\"");
        return nullptr;
    }
    return &*member;
}

}  // namespace nimborra::core
