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

// Text from clients, made valid UTF-8 (copied only when it is not), as a JSON string; null when
// there is none.
void appendTextOrNull(std::string& out, const std::optional<std::string_view>& text) {
    if (!text) {
        out.append("null");
    } else if (platform::isValidUTF8(*text)) {
        platform::appendJSONString(out, *text);
    } else {
        platform::appendJSONString(out, platform::validUTF8(*text));
    }
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

void appendProviderLine(std::string& text, const provider::ProviderRecord& record) {
    // Written member by member, in the order above: one line per request, on the push's road.
    text.reserve(text.size() + 256 + record.detail.size());
    text.append("{\"provider\":{\"apnsId\":");
    appendTextOrNull(text, record.apnsId.empty() ? std::nullopt
                                                 : std::optional<std::string_view>(record.apnsId));
    text.append(",\"status\":");
    if (record.status != 0) {
        platform::appendJSONNumber(text, static_cast<std::int64_t>(record.status));
    } else {
        text.append("null");
    }
    text.append(",\"reason\":");
    appendTextOrNull(text, record.reason);
    text.append(",\"topic\":");
    appendTextOrNull(
        text, record.topic.empty() ? std::nullopt : std::optional<std::string_view>(record.topic));
    text.append(",\"pushType\":");
    if (record.pushType) {
        platform::appendJSONString(text, provider::pushTypeName(*record.pushType));
    } else {
        text.append("null");
    }
    text.append(",\"priority\":");
    if (record.priority) {
        platform::appendJSONNumber(text, static_cast<std::int64_t>(*record.priority));
    } else {
        text.append("null");
    }
    text.append(",\"outcome\":");
    platform::appendJSONString(text, provider::providerOutcomeName(record.outcome));
    text.append(",\"explanation\":");
    appendTextOrNull(text, record.detail.empty() ? std::nullopt
                                                 : std::optional<std::string_view>(record.detail));
    text.append("}}");
}

std::string providerDeliveryLine(std::string_view apnsId, provider::ProviderOutcome outcome) {
    std::string text = "{\"providerDelivery\":{\"apnsId\":";
    appendTextOrNull(text, apnsId);
    text.append(",\"outcome\":");
    platform::appendJSONString(text, provider::providerOutcomeName(outcome));
    text.append("}}");
    return text;
}

}  // namespace nimborra::host
