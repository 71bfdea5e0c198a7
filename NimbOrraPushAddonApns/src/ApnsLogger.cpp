// The module-wide logger.
#include "NimbOrraPushAddonApns/ApnsLogger.h"

namespace nimborra::apns {

const platform::Logger& apnsLogger() {
    // Deliberately leaked: objects destroyed at exit may still log through it.
    static const platform::Logger* const logger =
        new platform::Logger("com.nimborra.push.addon.apns", "apns");
    return *logger;
}

}  // namespace nimborra::apns
