// The push service behind the provider API: it checks each request by APNs's rules for the one
// application and device it serves, and sends what it accepts to the device, the way APNs does:
// to a registered device that is online at once; to an offline one by keeping only the most
// recent notification that may still expire later; to an unregistered one not at all (410).
//
// Threads: handle() runs on the server's thread. Accepted notifications wait in a queue for the
// service's own delivery thread, which hands them to the device one at a time, in the order they
// were accepted, and answers each request 200 once the device has taken it (not once the
// application has seen it). The queue is bounded by the server's limit on unanswered requests,
// plus the one notification kept while offline. The device controls (setDeviceRegistered,
// setDeviceOnline) and the token may be used from any thread. The observer is called on the
// server's thread (refusals, answers that need no device), on the delivery thread (the rest) and
// on the thread that brings the device online (the kept notification), possibly at once: it
// guards what it shares. Nothing here throws except std::bad_alloc.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraProviderApi/ProviderRequest.h"
#include "NimbOrraProviderApi/ProviderServer.h"

namespace nimborra::provider {

// What became of one request.
enum class ProviderOutcome {
    delivered,
    // The device was offline; the notification waits for it.
    kept,
    // It replaced the notification shown with the same collapse identifier.
    replaced,
    // The device was offline and the notification could not wait (expiration 0 or passed), or a
    // newer one took its place.
    discarded,
    // Accepted, but its push type is not one the application handles through this add-on.
    notHandled,
    refused,
};

// "delivered", "kept while offline", "replaced", "discarded", "not handled by this add-on",
// "refused".
std::string_view providerOutcomeName(ProviderOutcome outcome);

// One answered request, or a kept notification delivered later, for the host's output.
struct ProviderRecord {
    std::string apnsId;
    int status = 200;
    std::optional<std::string_view> reason;
    std::string topic;
    std::optional<PushType> pushType;
    std::optional<int> priority;
    ProviderOutcome outcome = ProviderOutcome::delivered;
    // Why a request was refused, in words.
    std::string detail;
};

class ProviderObserver {
  public:
    virtual ~ProviderObserver() = default;
    // Called before the device presents the notification, so that the record comes before what
    // the system and the application do with it.
    virtual void requestHandled(const ProviderRecord& record) = 0;
};

class ProviderService final : public ProviderRequestHandler {
  public:
    // `deviceToken`: the device's token; nothing for 32 random bytes. The receiver and the
    // observer must outlive the service.
    ProviderService(std::string bundleIdentifier, std::optional<platform::Data> deviceToken,
                    platform::RemoteNotificationReceiver& receiver, ProviderObserver& observer);
    ~ProviderService() override;
    ProviderService(const ProviderService&) = delete;
    ProviderService& operator=(const ProviderService&) = delete;

    void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                ProviderResponder respond) override;

    const std::string& bundleIdentifier() const { return bundleIdentifier_; }
    // The device's current token; nothing while it is unregistered.
    std::optional<platform::Data> deviceToken() const;
    // Lower-case hex, as a push server stores it.
    static std::string hex(const platform::Data& token);

    // Unregistering remembers when, for the 410 answers; registering again issues a new token.
    void setDeviceRegistered(bool registered);
    // Coming online delivers the kept notification, if it has not expired meanwhile, on the
    // calling thread before returning, so that what the caller does next comes after it.
    void setDeviceOnline(bool online);

    // Delivers what is queued, then stops the delivery thread. Call once the server has stopped;
    // the destructor calls it too.
    void stop();

  private:
    struct Delivery {
        PushNotificationRequest request;
        // Empty for a kept notification delivered later: its request has been answered.
        std::optional<ProviderResponder> respond;
    };

    void deliveryLoop();
    void deliver(Delivery delivery);
    ProviderDestination destination() const;

    const std::string bundleIdentifier_;
    platform::RemoteNotificationReceiver& receiver_;
    ProviderObserver& observer_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    platform::Data token_;
    std::optional<std::int64_t> unregisteredAt_;
    bool online_ = true;
    std::optional<PushNotificationRequest> kept_;
    std::deque<Delivery> queue_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace nimborra::provider
