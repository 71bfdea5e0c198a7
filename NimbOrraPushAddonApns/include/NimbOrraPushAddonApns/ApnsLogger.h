// The library's one logger: every line the add-on writes (dropped events, expected platform
// refusals) goes through it, under subsystem "com.nimborra.push.addon.apns" and category "apns".
// Messages are single public texts; callers build a message only when its level is enabled (use
// the Logger overloads that take a callable).
#pragma once

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

// The module-wide logger, created once on first use (thread-safe) and never destroyed, so it may
// also be used during static destruction. Safe to use from any thread. Only the first call
// allocates; it can fail only for lack of memory (std::bad_alloc), which is why the library's own
// callers reach it inside their catch-all handlers. Logging through it never throws.
NIMBORRA_APNS_EXPORT const platform::Logger& apnsLogger();

}  // namespace nimborra::apns
