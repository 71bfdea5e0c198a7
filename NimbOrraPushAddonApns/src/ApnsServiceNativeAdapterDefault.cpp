#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"

#include <utility>

#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsCompletionBox.h"
#include "NimbOrraPushAddonApns/ApnsLogger.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

namespace nimborra::apns {

namespace {

using core::NimbError;
using core::NimbErrorCode;

// Where the registration callback's main-thread check is declared, for the runtime's report.
constexpr std::string_view kRegistrationSourceFile =
    "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault";
constexpr unsigned kRegistrationSourceLine = 370;

NimbError simulatorHasNoTokens() {
    NimbError error(NimbErrorCode::unavailable,
                    "APNs device tokens are not issued on the simulator.");
    error.externalCode = "SIMULATOR_NO_APNS";
    return error;
}

NimbError entitlementMissing() {
    NimbError error(NimbErrorCode::failedPrecondition,
                    "The aps-environment entitlement is missing.");
    error.externalCode = "ENTITLEMENT_MISSING";
    return error;
}

NimbError entitlementUnrecognised() {
    return NimbError(NimbErrorCode::internal, "Unrecognised aps-environment entitlement value.");
}

// The platform's authorization option bit for one wire option.
platform::UNAuthorizationOptions optionBit(UNAuthorizationOption option) {
    switch (option) {
        case UNAuthorizationOption::unspecified:
            return 0;
        case UNAuthorizationOption::badge:
            return platform::UNAuthorizationOptionBadge;
        case UNAuthorizationOption::sound:
            return platform::UNAuthorizationOptionSound;
        case UNAuthorizationOption::alert:
            return platform::UNAuthorizationOptionAlert;
        case UNAuthorizationOption::carPlay:
            return platform::UNAuthorizationOptionCarPlay;
        case UNAuthorizationOption::criticalAlert:
            return platform::UNAuthorizationOptionCriticalAlert;
        case UNAuthorizationOption::providesAppNotificationSettings:
            return platform::UNAuthorizationOptionProvidesAppNotificationSettings;
        case UNAuthorizationOption::provisional:
            return platform::UNAuthorizationOptionProvisional;
    }
    return 0;
}

// Schedules the platform registration on the main queue and returns at once. Should the main
// queue not take it (memory ran out), the registration is not made and an error is logged: it
// belongs on the main thread, so it is not made here instead.
void registerOnMainQueue() {
    try {
        const bool scheduled = platform::DispatchQueue::main().async([] {
            if (!platform::isMainThread()) {
                platform::reportMainActorIsolationViolation(kRegistrationSourceFile,
                                                            kRegistrationSourceLine);
            }
            platform::UIApplication::sharedApplication().registerForRemoteNotifications();
        });
        if (scheduled) {
            return;
        }
    } catch (...) {
    }
    apnsLogger().error("registerForRemoteNotifications: could not reach the main queue");
}

}  // namespace

ApnsServiceNativeAdapterDefault::ApnsServiceNativeAdapterDefault()
    : entitlementReader_(std::make_unique<ApnsEntitlementReader>()),
      eventEmitter_(std::make_unique<ApnsBridgeEventEmitter>()),
      coldStartBuffer_(ApnsColdStartBuffer::shared()),
      isSimulator_(true),
      registerForRemoteNotifications_(registerOnMainQueue),
      center_(std::make_unique<SystemNotificationCenter>()) {}

ApnsServiceNativeAdapterDefault::~ApnsServiceNativeAdapterDefault() = default;

NimbError ApnsServiceNativeAdapterDefault::makePlatformError(std::string_view operation,
                                                             const platform::NSError& error) {
    NimbError problem(NimbErrorCode::internal, std::string(operation) + " failed.");
    problem.externalCode = error.domain + ":" + std::to_string(error.code);
    return problem;
}

void ApnsServiceNativeAdapterDefault::onCancel(std::int64_t) {}

// ---- Token, registration and environment ------------------------------------------------------

ApnsServiceGetTokenResult ApnsServiceNativeAdapterDefault::getToken(APNSServiceGetTokenRequest) {
    // Simulator build: no device token is ever issued, so there is nothing to wait for.
    return ApnsServiceGetTokenResult::failure(simulatorHasNoTokens());
}

ApnsServiceGetProviderEnvironmentResult ApnsServiceNativeAdapterDefault::getProviderEnvironment(
    APNSServiceGetProviderEnvironmentRequest) {
    const std::optional<std::string> value = entitlementReader_->readApsEnvironment();
    if (!value) {
        return ApnsServiceGetProviderEnvironmentResult::failure(entitlementMissing());
    }
    if (*value == "production") {
        return ApnsServiceGetProviderEnvironmentResult::success({ProviderEnvironment::apns});
    }
    if (*value == "development") {
        return ApnsServiceGetProviderEnvironmentResult::success({ProviderEnvironment::apnsSandbox});
    }
    return ApnsServiceGetProviderEnvironmentResult::failure(entitlementUnrecognised());
}

ApnsServiceNotifyDidRegisterForRemoteNotificationsResult
ApnsServiceNativeAdapterDefault::notifyDidRegisterForRemoteNotifications(
    APNSServiceNotifyDidRegisterForRemoteNotificationsRequest request) {
    emitTokenRefreshed(*eventEmitter_, platform::hexEncodedString(request.deviceToken.bytes));
    return ApnsServiceNotifyDidRegisterForRemoteNotificationsResult::success({});
}

ApnsServiceNotifyDidFailToRegisterResult ApnsServiceNativeAdapterDefault::notifyDidFailToRegister(
    APNSServiceNotifyDidFailToRegisterRequest request) {
    apnsLogger().debug(
        [&] { return "APNs remote registration failed: " + request.errorDescription; });
    return ApnsServiceNotifyDidFailToRegisterResult::success({});
}

// ---- Authorization, settings and badge --------------------------------------------------------

ApnsServiceRequestAuthorizationResult ApnsServiceNativeAdapterDefault::requestAuthorization(
    APNSServiceRequestAuthorizationRequest request) {
    platform::UNAuthorizationOptions mask = 0;
    for (const UNAuthorizationOption option : request.options) {
        mask |= optionBit(option);
    }
    using Result = ApnsServiceRequestAuthorizationResult;
    return waitForCompletion<Result>(Result::success({false}), [mask](ApnsCompletion<Result>
                                                                          complete) {
        platform::UNUserNotificationCenter::currentNotificationCenter()
            .requestAuthorizationWithOptions(mask, [complete](
                                                       bool granted,
                                                       std::optional<platform::NSError> error) {
                if (!error) {
                    complete(Result::success({granted}));
                } else if (error->domain == platform::UNErrorDomain &&
                           error->code == platform::UNErrorCodeNotificationsNotAllowed) {
                    apnsLogger().debug(
                        "requestAuthorization: notifications not allowed for this app; reporting "
                        "granted = false");
                    complete(Result::success({false}));
                } else {
                    complete(Result::failure(makePlatformError("requestAuthorization", *error)));
                }
            });
    });
}

ApnsServiceSetBadgeCountResult ApnsServiceNativeAdapterDefault::setBadgeCount(
    APNSServiceSetBadgeCountRequest request) {
    using Result = ApnsServiceSetBadgeCountResult;
    const std::int64_t count = request.count;
    return waitForCompletion<Result>(Result::success({}), [count](ApnsCompletion<Result> complete) {
        platform::UNUserNotificationCenter::currentNotificationCenter().setBadgeCount(
            count, [complete](std::optional<platform::NSError> error) {
                if (!error) {
                    complete(Result::success({}));
                } else {
                    complete(Result::failure(makePlatformError("setBadgeCount", *error)));
                }
            });
    });
}

ApnsServiceGetNotificationSettingsResult ApnsServiceNativeAdapterDefault::getNotificationSettings(
    APNSServiceGetNotificationSettingsRequest) {
    const UNAuthorizationStatus status = waitForCompletion<UNAuthorizationStatus>(
        UNAuthorizationStatus::unspecified, [](ApnsCompletion<UNAuthorizationStatus> complete) {
            platform::UNUserNotificationCenter::currentNotificationCenter()
                .getNotificationSettingsWithCompletionHandler(
                    [complete](platform::UNNotificationSettings settings) {
                        complete(authorizationStatusFromPlatform(settings.authorizationStatus));
                    });
        });
    return ApnsServiceGetNotificationSettingsResult::success({status});
}

// ---- Presentation, response and cold start ----------------------------------------------------

ApnsServiceNotifyWillPresentNotificationResult
ApnsServiceNativeAdapterDefault::notifyWillPresentNotification(
    APNSServiceNotifyWillPresentNotificationRequest request) {
    emitNotificationEvent(*eventEmitter_, apnsNotificationPresentedEventName, request.notification,
                          std::nullopt);
    // The host decides how the notification is shown; nothing is asked of the platform.
    return ApnsServiceNotifyWillPresentNotificationResult::success({{}});
}

ApnsServiceNotifyDidReceiveResponseResult ApnsServiceNativeAdapterDefault::notifyDidReceiveResponse(
    APNSServiceNotifyDidReceiveResponseRequest request) {
    emitNotificationEvent(*eventEmitter_, apnsNotificationOpenedEventName, request.notification,
                          request.actionIdentifier);
    return ApnsServiceNotifyDidReceiveResponseResult::success({});
}

ApnsServiceNotifyColdStartNotificationResult
ApnsServiceNativeAdapterDefault::notifyColdStartNotification(
    APNSServiceNotifyColdStartNotificationRequest request) {
    // A payload that is not a non-empty JSON object is ignored silently.
    if (auto userInfo = ApnsNotificationMapper::decodeUserInfoJson(request.userInfoJson)) {
        coldStartBuffer_->capture(*userInfo);
    }
    return ApnsServiceNotifyColdStartNotificationResult::success({});
}

ApnsServiceGetColdStartNotificationResult ApnsServiceNativeAdapterDefault::getColdStartNotification(
    APNSServiceGetColdStartNotificationRequest) {
    if (auto pending = coldStartBuffer_->drain()) {
        return ApnsServiceGetColdStartNotificationResult::success({std::move(*pending)});
    }
    return ApnsServiceGetColdStartNotificationResult::success({ApnsNotificationMapper::unset()});
}

void Nimb_Orra_ApnsService_Register() {
    try {
        ApnsServicePlugin::registerPlugin(std::make_shared<ApnsServiceNativeAdapterDefault>());
    } catch (...) {
        apnsLogger().error("Nimb_Orra_ApnsService_Register: could not build the adapter");
    }
}

}  // namespace nimborra::apns

extern "C" void Nimb_Orra_ApnsService_Register(void) {
    nimborra::apns::Nimb_Orra_ApnsService_Register();
}
