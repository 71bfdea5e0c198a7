// Inputs shared by the benchmarks: a realistic remote-notification payload of about 1 KiB and the
// fully populated notification record made from it, built once per process.
#pragma once

#include <string>

#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsNotification.h"

namespace nimborra::bench {

// The remote payload as JSON text: an "aps" dictionary with an alert dictionary, sound, badge,
// category, thread and target-content identifiers, plus the custom keys an app typically sends
// (deep-link URLs, tracking identifiers, a nested message object and a small array).
const std::string& remotePayloadText();

// The same payload as the platform hands it over.
const platform::Dictionary& remotePayload();

// The notification mapped from that payload with every remaining field set as well (launch
// image, interruption level, a relevance score with a fraction), so that every member of the
// record carries a value.
const apns::ApnsNotification& fullNotification();

// The action identifier of an opened notification.
inline constexpr char kActionIdentifier[] = "com.nimborra.sample.action.reply";

}  // namespace nimborra::bench
