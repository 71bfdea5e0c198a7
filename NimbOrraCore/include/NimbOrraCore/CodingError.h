// Failures of the bridge's JSON coders, as values. A CodingError says what went wrong, where
// (the coding path, e.g. "options[0]" or "notification.badge") and carries a one-line
// description that is fit to be shown to the far side of the bridge as an error message.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "NimbOrraCore/Export.h"

namespace nimborra::core {

enum class CodingErrorKind {
    keyNotFound,    // a required key is absent
    valueNotFound,  // a required value is null
    typeMismatch,   // a value of another JSON type than the one required
    dataCorrupted,  // not JSON, bad base64, a number not representable in the target type
    invalidValue,   // encoding: a value that JSON cannot express (NaN, infinity)
};

NIMBORRA_CORE_EXPORT std::string_view codingErrorKindName(CodingErrorKind kind);

class NIMBORRA_CORE_EXPORT CodingError {
  public:
    CodingError(CodingErrorKind kind, std::string codingPath, std::string detail)
        : kind_(kind), codingPath_(std::move(codingPath)), detail_(std::move(detail)) {}

    CodingErrorKind kind() const { return kind_; }
    // Dotted keys and bracketed indices from the top level; empty for the top level itself.
    const std::string& codingPath() const { return codingPath_; }
    const std::string& detail() const { return detail_; }

    // One line: the kind, the path and what was found, e.g.
    //   keyNotFound at "count": no value for key "count"
    //   typeMismatch at "options[0]": expected an integer but found a string
    std::string description() const;

    friend bool operator==(const CodingError&, const CodingError&) = default;

  private:
    CodingErrorKind kind_;
    std::string codingPath_;
    std::string detail_;
};

// Either a value or the CodingError that prevented it; look at it (ok()) before using it.
template <class T>
class [[nodiscard]] CodingResult {
  public:
    CodingResult(const T& value) : storage_(std::in_place_index<0>, value) {}
    CodingResult(T&& value) : storage_(std::in_place_index<0>, std::move(value)) {}
    CodingResult(CodingError error) : storage_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return storage_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(storage_); }
    const T& value() const& { return std::get<0>(storage_); }
    T&& value() && { return std::get<0>(std::move(storage_)); }
    const CodingError& error() const { return std::get<1>(storage_); }

  private:
    std::variant<T, CodingError> storage_;
};

}  // namespace nimborra::core
