// The output lines of the provider API: where it listens, what became of each request, and the
// notifications the system shows. Texts that come from clients are written as valid UTF-8.
#pragma once

#include <optional>
#include <string>

#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "NimbOrraProviderApi/ProviderService.h"

namespace nimborra::host {

// What the start line reports.
struct ProviderApiStart {
    std::string address;
    unsigned port = 0;
    bool tls = false;
    // The certificate's SHA-256 fingerprint; nothing in cleartext.
    std::optional<std::string> fingerprint;
    // "development" or "production" from the profile; nothing when it has no such entitlement.
    std::optional<std::string> environment;
    std::string topic;
    std::string deviceToken;
    std::string authentication;
};

// {"providerApi":{"listening":"HOST:PORT","port":N,"tls":BOOL,"fingerprint":TEXT|null,
// "environment":TEXT|null,"topic":TEXT,"deviceToken":HEX,"authentication":TEXT}}
std::string providerStartLine(const ProviderApiStart& start);

// {"provider":{"apnsId":ID|null,"status":N|null,"reason":TEXT|null,"topic":TEXT|null,
// "pushType":TEXT|null,"priority":N|null,"outcome":TEXT,"explanation":TEXT|null}}: one per
// request. The status is null for a stream the transport reset instead of answering; the
// explanation says, for people, why a request was refused or reset. Appended to `text`.
void appendProviderLine(std::string& text, const provider::ProviderRecord& record);

// {"providerDelivery":{"apnsId":ID,"outcome":TEXT}}: what became of a notification kept while
// the device was offline, once it came back online ("delivered", "replaced" or "discarded").
std::string providerDeliveryLine(std::string_view apnsId, provider::ProviderOutcome outcome);

}  // namespace nimborra::host
