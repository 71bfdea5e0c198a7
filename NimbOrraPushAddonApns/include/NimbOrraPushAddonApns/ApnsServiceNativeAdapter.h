// The one interface through which the "ApnsService" plug-in reaches the platform: one
// operation per bridge method, plus a cancellation hook. ApnsServiceNativeAdapterDefault is the
// production implementation; tests and other builds supply their own.
//
// Threads: the plug-in calls operations 1-11 one at a time from its own serial queue; an
// operation may block, and no time limit is applied. onCancel is called at once on whatever
// thread the bridge uses, so it must be safe to call from any thread, concurrently with a
// running operation. Operations report failures as `failure` results, never by throwing.
#pragma once

#include <cstdint>

#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsServiceResults.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

class NIMBORRA_APNS_EXPORT ApnsServiceNativeAdapter {
  public:
    virtual ~ApnsServiceNativeAdapter();

    virtual ApnsServiceGetTokenResult getToken(APNSServiceGetTokenRequest request) = 0;
    virtual ApnsServiceGetProviderEnvironmentResult getProviderEnvironment(
        APNSServiceGetProviderEnvironmentRequest request) = 0;
    virtual ApnsServiceGetColdStartNotificationResult getColdStartNotification(
        APNSServiceGetColdStartNotificationRequest request) = 0;
    virtual ApnsServiceRequestAuthorizationResult requestAuthorization(
        APNSServiceRequestAuthorizationRequest request) = 0;
    virtual ApnsServiceSetBadgeCountResult setBadgeCount(
        APNSServiceSetBadgeCountRequest request) = 0;
    virtual ApnsServiceGetNotificationSettingsResult getNotificationSettings(
        APNSServiceGetNotificationSettingsRequest request) = 0;
    virtual ApnsServiceNotifyDidRegisterForRemoteNotificationsResult
    notifyDidRegisterForRemoteNotifications(
        APNSServiceNotifyDidRegisterForRemoteNotificationsRequest request) = 0;
    virtual ApnsServiceNotifyDidFailToRegisterResult notifyDidFailToRegister(
        APNSServiceNotifyDidFailToRegisterRequest request) = 0;
    virtual ApnsServiceNotifyWillPresentNotificationResult notifyWillPresentNotification(
        APNSServiceNotifyWillPresentNotificationRequest request) = 0;
    virtual ApnsServiceNotifyDidReceiveResponseResult notifyDidReceiveResponse(
        APNSServiceNotifyDidReceiveResponseRequest request) = 0;
    virtual ApnsServiceNotifyColdStartNotificationResult notifyColdStartNotification(
        APNSServiceNotifyColdStartNotificationRequest request) = 0;

    // The bridge no longer wants the reply of call `callbackId`. Any thread.
    virtual void onCancel(std::int64_t callbackId) = 0;

  protected:
    ApnsServiceNativeAdapter() = default;
    ApnsServiceNativeAdapter(const ApnsServiceNativeAdapter&) = default;
    ApnsServiceNativeAdapter& operator=(const ApnsServiceNativeAdapter&) = default;
};

}  // namespace nimborra::apns
