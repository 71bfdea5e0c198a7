// The production adapter of the "ApnsService" plug-in, built for the simulator: device tokens
// are never issued, everything else (authorization, settings, badge, the provider environment
// from the provisioning profile, notification events, the launch notification) works against
// the platform.
//
// Threads: the plug-in calls the operations one at a time from its serial queue. The
// authorization, settings and badge operations block that queue until the notification center
// answers on its own thread (no time limit). onCancel and the registration callback may be
// called from any thread.
//
// Failures: no operation throws. These operations can answer with a `failure` result:
// - getToken, always: the simulator is issued no device token (unavailable, external code
//   "SIMULATOR_NO_APNS");
// - getProviderEnvironment, when the profile has no usable "aps-environment" (failedPrecondition,
//   "ENTITLEMENT_MISSING") or one that is neither "production" nor "development" (internal);
// - requestAuthorization, when the center answers with an error other than "notifications not
//   allowed" (which answers granted = false), and setBadgeCount, when the center answers with an
//   error: both as makePlatformError below.
// Every other operation always succeeds.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "NimbOrraPlatform/NSError.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapter.h"
#include "NimbOrraPushAddonApns/Export.h"
#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

namespace nimborra::apns {

class NIMBORRA_APNS_EXPORT ApnsServiceNativeAdapterDefault final : public ApnsServiceNativeAdapter {
  public:
    // Builds every collaborator with its production default: a new entitlement reader, a new
    // bridge event emitter, the process-wide shared cold-start buffer, isSimulator = true, the
    // default registration callback and a new system notification center wrapper.
    ApnsServiceNativeAdapterDefault();
    ~ApnsServiceNativeAdapterDefault() override;

    ApnsServiceGetTokenResult getToken(APNSServiceGetTokenRequest request) override;
    ApnsServiceGetProviderEnvironmentResult getProviderEnvironment(
        APNSServiceGetProviderEnvironmentRequest request) override;
    ApnsServiceGetColdStartNotificationResult getColdStartNotification(
        APNSServiceGetColdStartNotificationRequest request) override;
    ApnsServiceRequestAuthorizationResult requestAuthorization(
        APNSServiceRequestAuthorizationRequest request) override;
    ApnsServiceSetBadgeCountResult setBadgeCount(APNSServiceSetBadgeCountRequest request) override;
    ApnsServiceGetNotificationSettingsResult getNotificationSettings(
        APNSServiceGetNotificationSettingsRequest request) override;
    ApnsServiceNotifyDidRegisterForRemoteNotificationsResult
    notifyDidRegisterForRemoteNotifications(
        APNSServiceNotifyDidRegisterForRemoteNotificationsRequest request) override;
    ApnsServiceNotifyDidFailToRegisterResult notifyDidFailToRegister(
        APNSServiceNotifyDidFailToRegisterRequest request) override;
    ApnsServiceNotifyWillPresentNotificationResult notifyWillPresentNotification(
        APNSServiceNotifyWillPresentNotificationRequest request) override;
    ApnsServiceNotifyDidReceiveResponseResult notifyDidReceiveResponse(
        APNSServiceNotifyDidReceiveResponseRequest request) override;
    ApnsServiceNotifyColdStartNotificationResult notifyColdStartNotification(
        APNSServiceNotifyColdStartNotificationRequest request) override;

    // Operations cannot be cancelled once started; this does nothing.
    void onCancel(std::int64_t callbackId) override;

    // Asks the platform to register for remote notifications: hops to the main queue and
    // registers there (should the main queue not take it, an error is logged and nothing is
    // registered). Returns at once; any thread. No operation calls it on the simulator. The
    // callable belongs to the adapter and lives as long as it does.
    const std::function<void()>& registerForRemoteNotifications() const {
        return registerForRemoteNotifications_;
    }
    bool isSimulator() const { return isSimulator_; }

    // The common failure for a platform error: code internal, message "<operation> failed.",
    // external code "<domain>:<code>".
    static core::NimbError makePlatformError(std::string_view operation,
                                             const platform::NSError& error);

  private:
    const std::unique_ptr<ApnsEntitlementReading> entitlementReader_;
    const std::unique_ptr<ApnsEventEmitting> eventEmitter_;
    const std::shared_ptr<ApnsColdStartBuffering> coldStartBuffer_;
    const bool isSimulator_;
    const std::function<void()> registerForRemoteNotifications_;
    const std::unique_ptr<ApnsNotificationCentering> center_;
};

}  // namespace nimborra::apns

// Installs the "ApnsService" plug-in with the production adapter into the shared bridge
// dispatcher. Call it once, early in the application's life, before any system callback is
// forwarded through the bridge; a second call installs a fresh plug-in in place of the first.
// Any thread; never throws.
extern "C" NIMBORRA_APNS_EXPORT void Nimb_Orra_ApnsService_Register(void);

namespace nimborra::apns {
// The same operation as an ordinary C++ function.
NIMBORRA_APNS_EXPORT void Nimb_Orra_ApnsService_Register();
}  // namespace nimborra::apns
