#include "Describe.h"

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Commands.h"
#include "NimbOrraCore/Codable.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsServiceMethods.h"
#include "NimbOrraPushAddonApns/ApnsWireEnumerations.h"

namespace nimborra::host {

namespace {

// The name each record and enumeration is known by: its own type name. A type used on the wire
// without a name here does not compile.
template <class T>
struct WireName;

#define NIMBORRA_WIRE_NAME(Type)                         \
    template <>                                          \
    struct WireName<apns::Type> {                        \
        static constexpr std::string_view value = #Type; \
    }

NIMBORRA_WIRE_NAME(ApnsNotification);
NIMBORRA_WIRE_NAME(ApnsTokenRefreshedEvent);
NIMBORRA_WIRE_NAME(ApnsNotificationOpenedEvent);
NIMBORRA_WIRE_NAME(APNSServiceGetTokenRequest);
NIMBORRA_WIRE_NAME(APNSServiceGetTokenResponse);
NIMBORRA_WIRE_NAME(APNSServiceGetProviderEnvironmentRequest);
NIMBORRA_WIRE_NAME(APNSServiceGetProviderEnvironmentResponse);
NIMBORRA_WIRE_NAME(APNSServiceGetColdStartNotificationRequest);
NIMBORRA_WIRE_NAME(APNSServiceGetColdStartNotificationResponse);
NIMBORRA_WIRE_NAME(APNSServiceRequestAuthorizationRequest);
NIMBORRA_WIRE_NAME(APNSServiceRequestAuthorizationResponse);
NIMBORRA_WIRE_NAME(APNSServiceSetBadgeCountRequest);
NIMBORRA_WIRE_NAME(APNSServiceSetBadgeCountResponse);
NIMBORRA_WIRE_NAME(APNSServiceGetNotificationSettingsRequest);
NIMBORRA_WIRE_NAME(APNSServiceGetNotificationSettingsResponse);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidRegisterForRemoteNotificationsRequest);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidRegisterForRemoteNotificationsResponse);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidFailToRegisterRequest);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidFailToRegisterResponse);
NIMBORRA_WIRE_NAME(APNSServiceNotifyWillPresentNotificationRequest);
NIMBORRA_WIRE_NAME(APNSServiceNotifyWillPresentNotificationResponse);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidReceiveResponseRequest);
NIMBORRA_WIRE_NAME(APNSServiceNotifyDidReceiveResponseResponse);
NIMBORRA_WIRE_NAME(APNSServiceNotifyColdStartNotificationRequest);
NIMBORRA_WIRE_NAME(APNSServiceNotifyColdStartNotificationResponse);
NIMBORRA_WIRE_NAME(ProviderEnvironment);
NIMBORRA_WIRE_NAME(UNAuthorizationOption);
NIMBORRA_WIRE_NAME(UNAuthorizationStatus);
NIMBORRA_WIRE_NAME(UNNotificationInterruptionLevel);
NIMBORRA_WIRE_NAME(UNNotificationPresentationOption);

#undef NIMBORRA_WIRE_NAME

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {
    using Element = T;
};

// Collects the records and enumerations that the methods and events reach, each once, in the
// order first reached.
class Catalogue {
  public:
    template <class T>
    std::string type() {
        if constexpr (std::is_same_v<T, bool>) {
            return R"({"type":"boolean"})";
        } else if constexpr (std::is_same_v<T, std::int32_t>) {
            return R"({"type":"integer","bits":32})";
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
            return R"({"type":"integer","bits":64})";
        } else if constexpr (std::is_same_v<T, double>) {
            return R"({"type":"number"})";
        } else if constexpr (std::is_same_v<T, std::string>) {
            return R"({"type":"string"})";
        } else if constexpr (std::is_same_v<T, platform::Data>) {
            return R"({"type":"bytes"})";
        } else if constexpr (IsVector<T>::value) {
            return R"({"type":"array","items":)" + type<typename IsVector<T>::Element>() + "}";
        } else if constexpr (core::WireEnum<T>) {
            enumeration<T>();
            return R"({"enumeration":)" + quoted(WireName<T>::value) + "}";
        } else {
            static_assert(core::CodableRecord<T>, "a field type the description does not know");
            return R"({"record":)" + quoted(record<T>()) + "}";
        }
    }

    // Adds the record (and what its fields reach); its name.
    template <class R>
    std::string_view record() {
        constexpr std::string_view name = WireName<R>::value;
        if (!seen(name)) {
            records_.emplace_back(std::string(name), std::string());
            const std::size_t at = records_.size() - 1;
            std::string fields = "[";
            std::apply(
                [&](const auto&... field) {
                    (
                        [&] {
                            using Member =
                                std::remove_cvref_t<decltype(std::declval<R>().*(field.member))>;
                            if (fields.size() > 1) {
                                fields.push_back(',');
                            }
                            fields += R"({"name":)" + quoted(field.key) + R"(,"type":)" +
                                      type<Member>() + "}";
                        }(),
                        ...);
                },
                R::codingFields());
            fields.push_back(']');
            records_[at].second = R"({"fields":)" + fields + "}";
        }
        return name;
    }

    template <class E>
    void enumeration() {
        constexpr std::string_view name = WireName<E>::value;
        if (seen(name)) {
            return;
        }
        std::string cases = "[";
        const auto& names = core::WireEnumTraits<E>::caseNames;
        for (std::size_t value = 0; value < names.size(); ++value) {
            if (value > 0) {
                cases.push_back(',');
            }
            cases +=
                R"({"name":)" + quoted(names[value]) + R"(,"value":)" + std::to_string(value) + "}";
        }
        cases.push_back(']');
        enumerations_.emplace_back(std::string(name), R"({"cases":)" + cases + "}");
    }

    static std::string object(const std::vector<std::pair<std::string, std::string>>& members) {
        std::string text = "{";
        for (const auto& [name, value] : members) {
            if (text.size() > 1) {
                text.push_back(',');
            }
            text += quoted(name) + ":" + value;
        }
        text.push_back('}');
        return text;
    }

    static std::string quoted(std::string_view text) {
        std::string out;
        platform::appendJSONString(out, text);
        return out;
    }

    const auto& records() const { return records_; }
    const auto& enumerations() const { return enumerations_; }

  private:
    bool seen(std::string_view name) const {
        for (const auto& list : {&records_, &enumerations_}) {
            for (const auto& entry : *list) {
                if (entry.first == name) {
                    return true;
                }
            }
        }
        return false;
    }

    std::vector<std::pair<std::string, std::string>> records_;
    std::vector<std::pair<std::string, std::string>> enumerations_;
};

std::string nameList(std::span<const std::string_view> names) {
    std::string text = "[";
    for (const auto name : names) {
        if (text.size() > 1) {
            text.push_back(',');
        }
        text += Catalogue::quoted(name);
    }
    text.push_back(']');
    return text;
}

// The output lines: each line's name (its first member) and its members in order.
struct LineShape {
    std::string_view name;
    std::vector<std::string_view> members;
    std::string_view meaning;
};

const std::vector<LineShape>& lineShapes() {
    static const std::vector<LineShape> shapes{
        {"reply", {"id", "reply"}, "the reply to a far-side call; the id is the call's"},
        {"app", {"app", "reply"}, "the reply to one of the host application's own calls"},
        {"event", {"event", "payload"}, "an event the plug-in emitted"},
        {"error", {"error", "line", "id"}, "a refused line; id when the line carried a valid one"},
        {"done",
         {"id", "done"},
         "a command with an id that is neither a call nor an inspection "
         "has finished"},
        {"system",
         {"system"},
         "what the system did with one push: apnsId, app, visible, shown, listed, presentation, "
         "reason, badge, tap, callbacks"},
        {"platform",
         {"platform", "id"},
         "the answer to {\"inspect\":\"platform\"}: authorizationOptions, badgeCount, "
         "registrations, authorizationStatus, app, present"},
        {"notificationCenter",
         {"notificationCenter", "id"},
         "the answer to {\"inspect\":\"notificationCenter\"}: apnsId, collapseId, payload of each "
         "listed notification, oldest first"},
        {"providerApi", {"providerApi"}, "where the provider API listens (--provider-api)"},
        {"provider", {"provider"}, "one request to the provider API and its answer"},
        {"providerDelivery",
         {"providerDelivery"},
         "a notification kept while the device was offline, delivered once it is back online"},
        {"command", {"command"}, "an echoed command (--echo)"},
        {"comment", {"comment"}, "an echoed comment (--echo)"},
    };
    return shapes;
}

}  // namespace

std::string describeProtocol() {
    Catalogue catalogue;
    std::string methods = "[";
    std::apply(
        [&](const auto&... method) {
            (
                [&] {
                    using M = std::remove_cvref_t<decltype(method)>;
                    if (methods.size() > 1) {
                        methods.push_back(',');
                    }
                    const auto request = catalogue.record<typename M::RequestRecord>();
                    const auto response = catalogue.record<typename M::ResponseRecord>();
                    methods += Catalogue::object({{"name", Catalogue::quoted(method.name)},
                                                  {"request", Catalogue::quoted(request)},
                                                  {"response", Catalogue::quoted(response)}});
                }(),
                ...);
        },
        apns::apnsServiceMethods());
    methods.push_back(']');

    const auto event = [&](std::string_view name, std::string_view payload) {
        return Catalogue::object(
            {{"name", Catalogue::quoted(name)}, {"payload", Catalogue::quoted(payload)}});
    };
    const std::string events = "[" +
                               event(apns::apnsTokenRefreshedEventName,
                                     catalogue.record<apns::ApnsTokenRefreshedEvent>()) +
                               "," +
                               event(apns::apnsNotificationPresentedEventName,
                                     catalogue.record<apns::ApnsNotification>()) +
                               "," +
                               event(apns::apnsNotificationOpenedEventName,
                                     catalogue.record<apns::ApnsNotificationOpenedEvent>()) +
                               "]";
    // Every enumeration, also one no record uses yet.
    catalogue.enumeration<apns::ProviderEnvironment>();
    catalogue.enumeration<apns::UNAuthorizationOption>();
    catalogue.enumeration<apns::UNAuthorizationStatus>();
    catalogue.enumeration<apns::UNNotificationInterruptionLevel>();
    catalogue.enumeration<apns::UNNotificationPresentationOption>();

    std::string commands = "[";
    for (const auto& shape : commandShapes()) {
        if (commands.size() > 1) {
            commands.push_back(',');
        }
        commands += Catalogue::object(
            {{"name", Catalogue::quoted(shape.name)}, {"members", nameList(shape.members)}});
    }
    commands.push_back(']');

    std::string lines = "[";
    for (const auto& shape : lineShapes()) {
        if (lines.size() > 1) {
            lines.push_back(',');
        }
        lines += Catalogue::object({{"name", Catalogue::quoted(shape.name)},
                                    {"members", nameList(shape.members)},
                                    {"meaning", Catalogue::quoted(shape.meaning)}});
    }
    lines.push_back(']');

    return Catalogue::object({{"plugin", Catalogue::quoted("ApnsService")},
                              {"methods", methods},
                              {"records", Catalogue::object(catalogue.records())},
                              {"enumerations", Catalogue::object(catalogue.enumerations())},
                              {"events", events},
                              {"commands", commands},
                              {"lines", lines}});
}

}  // namespace nimborra::host
