// The push service behind the provider API: it checks each request by APNs's rules for the one
// application and device it serves, and sends what it accepts to the device, the way APNs does:
// to a registered device that is online at once; to an offline one by keeping only the most
// recent notification that may still expire later; to an unregistered one not at all (410).
//
// Threads: handle() and refused() run on the server's thread. Accepted notifications go through
// one serial dispatch queue (the service's own, or one it is given to share, such as the queue of
// the plug-in the device hands notifications to), in batches (whatever has been accepted by the
// time the queue comes to them), which hands them to the device in the order they were accepted,
// answers each request 200 once the device has taken it (not once the application has seen it),
// and then asks the device to present it. The service never waits for one notification's trip
// through the application before handing over the next: that trip is the device's, and a device
// whose present() returns at once lets the notifications flow through the application side by
// side. The device's work for a notification takes far more memory than its request, and an
// answered request no longer holds the server back, so the service hands the device at most
// maximumPresenting notifications, with maximumPresentingBytes of payload, that it still holds
// (see IncomingRemoteNotification::presence); the rest wait in the inbox, unanswered, which
// stops the server reading once enough wait. The inbox holds at most the server's limit of
// unanswered requests, plus what present() keeps the queue from; present() must not wait for
// work queued behind it on a shared queue. The device controls (setDeviceRegistered,
// setDeviceOnline) and the token may be used from any thread. The observer is called on the
// server's thread (refusals, answers that need no device), on the queue's thread (the rest) and
// on the thread that brings the device online (the kept notification), possibly at once: it
// guards what it shares. Nothing here throws except std::bad_alloc.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "NimbOrraPlatform/DispatchQueue.h"
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
    // Answered with an error status: by the rules, or because the service was stopping.
    refused,
    // Never answered: the transport reset the stream (its header list was too large to read).
    reset,
};

// "delivered", "kept while offline", "replaced", "discarded", "not handled by this add-on",
// "refused", "reset".
std::string_view providerOutcomeName(ProviderOutcome outcome);

// One request: how it was answered and what became of it, for the host's output. The texts are
// views of the request's own, valid for the observer's call only.
struct ProviderRecord {
    // As the request sent it, or the one made for the answer; empty when there is none (a reset
    // stream whose apns-id was not read).
    std::string_view apnsId;
    // The answer's status; 0 for a stream that was reset instead of answered.
    int status = 200;
    std::optional<std::string_view> reason;
    std::string_view topic;
    std::optional<PushType> pushType;
    std::optional<int> priority;
    ProviderOutcome outcome = ProviderOutcome::delivered;
    // Why a request was refused or reset, in words for people; empty when it was accepted.
    std::string_view detail;
};

class ProviderObserver {
  public:
    virtual ~ProviderObserver() = default;
    // Once per request, refusals by the transport included. For an accepted notification it is
    // called before the device presents it, so that the record comes before what the system and
    // the application do with it.
    virtual void requestHandled(const ProviderRecord& record) = 0;
    // A notification kept while the device was offline (its request already recorded as kept),
    // once the device comes back online: delivered, replaced, or discarded because it expired
    // meanwhile. Called before the device presents it.
    virtual void keptNotificationDelivered(std::string_view apnsId, ProviderOutcome outcome) = 0;
};

class ProviderService final : public ProviderRequestHandler {
  public:
    // `queue`: the serial queue deliveries run on, shared with whoever else owns it (a device
    // that presents on a queue of its own gives that one, and a notification then takes no thread
    // hop between the service and the device); a queue of the service's own when null.
    // `deviceToken`: the device's token; nothing for 32 random bytes. `environment`: the one
    // the device's token belongs to (the profile's "aps-environment"); nothing when unknown,
    // and then a request reaches the device whatever host it names. The receiver and the
    // observer must outlive the service.
    ProviderService(std::string bundleIdentifier, std::optional<platform::Data> deviceToken,
                    std::optional<ApnsEnvironment> environment,
                    platform::RemoteNotificationReceiver& receiver, ProviderObserver& observer,
                    std::shared_ptr<platform::DispatchQueue> queue = nullptr);
    ~ProviderService() override;
    ProviderService(const ProviderService&) = delete;
    ProviderService& operator=(const ProviderService&) = delete;

    void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                ProviderResponder respond) override;
    void refused(const TransportRefusal& refusal) override;

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

    // The most notifications, and payload bytes, handed to the device and still held by it.
    static constexpr std::size_t maximumPresenting = 512;
    static constexpr std::size_t maximumPresentingBytes = 128 * 1024;

    // The queue deliveries run on (never null).
    const std::shared_ptr<platform::DispatchQueue>& queue() const { return queue_; }

    // Hands what is queued to the device, as far as it has room, and answers the rest 503
    // "Shutdown" (returning once it has, unless called on the queue itself); later requests are
    // answered 503 "Shutdown" too. Call once the server has stopped; the destructor calls it too.
    void stop();

  private:
    // An accepted notification and its answer, on their way to the device.
    struct Delivery {
        PushNotificationRequest request;
        ProviderResponder respond;
    };

    // What a notification's presence token refers to: the service while it lives.
    struct Presence;

    // On the queue: hands what the inbox holds to the device, in order, as far as there is room.
    void deliverInbox();
    void deliver(PushNotificationRequest& request, ProviderResponder& respond);
    // A token for a notification handed to the device with `bytes` of payload, counted already.
    std::shared_ptr<const void> presenceToken(std::size_t bytes);
    // A token let go: the device is done with a notification.
    void presented(std::size_t bytes);
    // Queues a work item that takes the inbox; under mutex_.
    void queueDeliveryLocked();
    // Answers 503 "Shutdown" for a delivery the device had no room for when the service stopped.
    void refuseAtShutdown(Delivery& delivery);
    void present(const PushNotificationRequest& request, ProviderOutcome outcome);
    void record(const ProviderRefusal& refusal);
    // What the rules compare requests with; replaced, never changed, when the device changes,
    // so that a request's check shares it without copying.
    std::shared_ptr<const ProviderDestination> destination() const;
    void updateDestination();

    const std::string bundleIdentifier_;
    const std::optional<ApnsEnvironment> environment_;
    platform::RemoteNotificationReceiver& receiver_;
    ProviderObserver& observer_;

    mutable std::mutex mutex_;
    platform::Data token_;
    std::optional<std::int64_t> unregisteredAt_;
    // Written under mutex_; read without it by a delivery while the device is online, so that
    // the queue and the server's thread do not meet at the lock for every notification.
    std::atomic<bool> online_{true};
    std::optional<PushNotificationRequest> kept_;
    std::shared_ptr<const ProviderDestination> destination_;
    // Accepted notifications the queue has not taken yet; a work item to take them is queued
    // whenever it is not empty.
    std::vector<Delivery> inbox_;
    // The room of the last batch the queue took, handed back to the inbox with the next one, so
    // that batches do not grow a fresh vector each time. Touched only on the queue.
    std::vector<Delivery> spareBatch_;
    // Taken from the inbox but waiting for room, oldest first: they go before the inbox's next.
    // Touched only on the queue (and counted under mutex_ when deciding what has room).
    std::deque<Delivery> held_;
    // Work items that take the inbox, queued and not yet finished; stop() waits for them.
    std::size_t deliveriesQueued_ = 0;
    // Notifications handed to the device that it still holds, and their payloads' bytes; while
    // there is no room for the inbox's next one, it waits, and the next token let go queues the
    // work item that takes it.
    std::size_t presenting_ = 0;
    std::size_t presentingBytes_ = 0;
    bool waitingForRoom_ = false;
    std::shared_ptr<Presence> presence_;
    std::condition_variable delivered_;
    bool stopped_ = false;
    const std::shared_ptr<platform::DispatchQueue> queue_;
};

}  // namespace nimborra::provider
