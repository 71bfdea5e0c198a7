#include "ProviderLines.h"

#include <utility>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "Output.h"

namespace nimborra::host {

namespace {

using platform::Dictionary;
using platform::Value;

Value textOrNull(const std::optional<std::string_view>& text) {
    return text ? Value(validUTF8(*text)) : Value(nullptr);
}

std::string line(std::string_view name, Value value) {
    Dictionary object;
    object.set(name, std::move(value));
    // Everything here is text made valid, numbers and payloads that were read as JSON, so the
    // writer cannot fail; should it, the line still says what it is.
    auto text = platform::JSONSerialization::data(Value(std::move(object)));
    return text ? std::move(*text) : "{\"" + std::string(name) + "\":null}";
}

}  // namespace

std::string providerStartLine(const ProviderApiStart& start) {
    Dictionary fields;
    fields.set("listening", start.address + ":" + std::to_string(start.port));
    fields.set("port", start.port);
    fields.set("tls", start.tls);
    fields.set("fingerprint", textOrNull(start.fingerprint));
    fields.set("environment", textOrNull(start.environment));
    fields.set("topic", validUTF8(start.topic));
    fields.set("deviceToken", start.deviceToken);
    fields.set("authentication", start.authentication);
    return line("providerApi", std::move(fields));
}

std::string providerLine(const provider::ProviderRecord& record) {
    Dictionary fields;
    fields.set("apnsId", record.apnsId.empty() ? Value(nullptr) : Value(validUTF8(record.apnsId)));
    fields.set("status", record.status != 0 ? Value(record.status) : Value(nullptr));
    fields.set("reason", textOrNull(record.reason));
    fields.set("topic", record.topic.empty() ? Value(nullptr) : Value(validUTF8(record.topic)));
    fields.set("pushType",
               record.pushType ? Value(provider::pushTypeName(*record.pushType)) : Value(nullptr));
    fields.set("priority", record.priority ? Value(*record.priority) : Value(nullptr));
    fields.set("outcome", provider::providerOutcomeName(record.outcome));
    fields.set("explanation",
               record.detail.empty() ? Value(nullptr) : Value(validUTF8(record.detail)));
    return line("provider", std::move(fields));
}

std::string providerDeliveryLine(std::string_view apnsId, provider::ProviderOutcome outcome) {
    Dictionary fields;
    fields.set("apnsId", validUTF8(apnsId));
    fields.set("outcome", provider::providerOutcomeName(outcome));
    return line("providerDelivery", std::move(fields));
}

std::string notificationCenterLine(const std::deque<platform::IncomingRemoteNotification>& shown) {
    platform::Array list;
    for (const auto& notification : shown) {
        Dictionary entry;
        entry.set("apnsId", validUTF8(notification.identifier));
        entry.set("collapseId", notification.collapseIdentifier
                                    ? Value(validUTF8(*notification.collapseIdentifier))
                                    : Value(nullptr));
        entry.set("payload", notification.payload);
        list.push_back(std::move(entry));
    }
    return line("notificationCenter", std::move(list));
}

std::string notificationRefusalLine(std::string_view reason, std::string_view apnsId) {
    Dictionary fields;
    fields.set("error", validUTF8(reason));
    fields.set("apnsId", validUTF8(apnsId));
    auto text = platform::JSONSerialization::data(Value(std::move(fields)));
    return text ? std::move(*text) : std::string("{\"error\":null}");
}

}  // namespace nimborra::host
