// The platform's error record, as the system services report their failures: a domain text naming
// the service and a code whose meaning the domain defines. Plain value type.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nimborra::platform {

struct NSError {
    std::string domain;
    std::int64_t code = 0;
    friend bool operator==(const NSError&, const NSError&) = default;
};

// The domain of the user-notification center's errors, and its code for "notifications are not
// allowed for this application".
inline constexpr std::string_view UNErrorDomain = "UNErrorDomain";
inline constexpr std::int64_t UNErrorCodeNotificationsNotAllowed = 1;

}  // namespace nimborra::platform
