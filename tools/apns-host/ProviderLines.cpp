#include "ProviderLines.h"
#include "NimbOrraPlatform/Text.h"

#include <utility>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "Output.h"

namespace nimborra::host {

namespace {

using platform::Dictionary;
using platform::Value;

Value textOrNull(const std::optional<std::string_view>& text) {
    return text ? Value(platform::validUTF8(*text)) : Value(nullptr);
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
    fields.set("topic", platform::validUTF8(start.topic));
    fields.set("deviceToken", start.deviceToken);
    fields.set("authentication", start.authentication);
    return line("providerApi", std::move(fields));
}

std::string providerLine(const provider::ProviderRecord& record) {
    Dictionary fields;
    fields.set("apnsId",
               record.apnsId.empty() ? Value(nullptr) : Value(platform::validUTF8(record.apnsId)));
    fields.set("status", record.status != 0 ? Value(record.status) : Value(nullptr));
    fields.set("reason", textOrNull(record.reason));
    fields.set("topic",
               record.topic.empty() ? Value(nullptr) : Value(platform::validUTF8(record.topic)));
    fields.set("pushType",
               record.pushType ? Value(provider::pushTypeName(*record.pushType)) : Value(nullptr));
    fields.set("priority", record.priority ? Value(*record.priority) : Value(nullptr));
    fields.set("outcome", provider::providerOutcomeName(record.outcome));
    fields.set("explanation",
               record.detail.empty() ? Value(nullptr) : Value(platform::validUTF8(record.detail)));
    return line("provider", std::move(fields));
}

std::string providerDeliveryLine(std::string_view apnsId, provider::ProviderOutcome outcome) {
    Dictionary fields;
    fields.set("apnsId", platform::validUTF8(apnsId));
    fields.set("outcome", provider::providerOutcomeName(outcome));
    return line("providerDelivery", std::move(fields));
}

}  // namespace nimborra::host
