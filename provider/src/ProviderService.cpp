#include "NimbOrraProviderApi/ProviderService.h"

#include <openssl/rand.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"
#include "RepeatedLine.h"

namespace nimborra::provider {

namespace {

const platform::Logger& serviceLogger() {
    static const platform::Logger* instance =
        new platform::Logger("com.nimborra.provider", "service");
    return *instance;
}

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::int64_t nowMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

platform::Data randomToken() {
    platform::Data token;
    token.bytes.resize(32);
    if (RAND_bytes(token.bytes.data(), static_cast<int>(token.bytes.size())) != 1) {
        // The generator only fails without entropy; a token that differs per run is still
        // needed, so fall back to the clock.
        std::uint64_t seed = static_cast<std::uint64_t>(nowMilliseconds());
        for (auto& byte : token.bytes) {
            seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
            byte = static_cast<std::uint8_t>(seed >> 56);
        }
    }
    return token;
}

ProviderRecord recordFor(const PushNotificationRequest& request, ProviderOutcome outcome) {
    ProviderRecord record;
    record.apnsId = request.apnsId;
    record.topic = request.topic;
    record.pushType = request.pushType;
    record.priority = request.priority;
    record.outcome = outcome;
    return record;
}

// The notification the device takes, its payload read from the request's text here (on the
// queue's thread, not the server's). The rules have checked that the text holds a JSON object.
platform::IncomingRemoteNotification incomingFor(const PushNotificationRequest& request) {
    auto parsed = platform::JSONSerialization::jsonObject(request.payload);
    auto* object = parsed ? parsed->dictionary() : nullptr;
    return {request.apnsId, request.collapseId, std::string(pushTypeName(request.pushType)),
            object != nullptr ? std::move(*object) : platform::Dictionary(), nullptr};
}

// A refusal of the service's own (not the rules'), for an accepted request it cannot deliver.
ProviderRefusal serviceRefusal(const PushNotificationRequest& request, int status,
                               std::string_view reason, std::string detail) {
    ProviderRefusal refusal;
    refusal.apnsId = request.apnsId;
    refusal.status = status;
    refusal.reason = reason;
    refusal.topic = request.topic;
    refusal.pushType = request.pushType;
    refusal.priority = request.priority;
    refusal.detail = std::move(detail);
    return refusal;
}

}  // namespace

std::string_view providerOutcomeName(ProviderOutcome outcome) {
    switch (outcome) {
        case ProviderOutcome::delivered:
            return "delivered";
        case ProviderOutcome::kept:
            return "kept while offline";
        case ProviderOutcome::replaced:
            return "replaced";
        case ProviderOutcome::discarded:
            return "discarded";
        case ProviderOutcome::notHandled:
            return "not handled by this add-on";
        case ProviderOutcome::refused:
            return "refused";
        case ProviderOutcome::reset:
            return "reset";
    }
    return "refused";
}

// Shared by the service and the tokens of the notifications the device holds, which may outlive
// it: a token let go reports to the service while there is one.
struct ProviderService::Presence {
    std::mutex mutex;
    ProviderService* service = nullptr;
};

ProviderService::ProviderService(std::string bundleIdentifier,
                                 std::optional<platform::Data> deviceToken,
                                 std::optional<ApnsEnvironment> environment,
                                 platform::RemoteNotificationReceiver& receiver,
                                 ProviderObserver& observer,
                                 std::shared_ptr<platform::DispatchQueue> queue)
    : bundleIdentifier_(std::move(bundleIdentifier)),
      environment_(environment),
      receiver_(receiver),
      observer_(observer),
      token_(deviceToken ? std::move(*deviceToken) : randomToken()),
      queue_(queue ? std::move(queue)
                   : std::make_shared<platform::DispatchQueue>(
                         "com.nimborra.provider.delivery", platform::DispatchQoS::userInitiated)) {
    updateDestination();
    presence_ = std::make_shared<Presence>();
    presence_->service = this;
}

ProviderService::~ProviderService() {
    stop();
    // Tokens the device still holds outlive the service: let go, they find it gone.
    const std::lock_guard lock(presence_->mutex);
    presence_->service = nullptr;
}

std::string ProviderService::hex(const platform::Data& token) {
    return platform::hexEncodedString(token.bytes);
}

std::optional<platform::Data> ProviderService::deviceToken() const {
    const std::lock_guard lock(mutex_);
    if (unregisteredAt_) {
        return std::nullopt;
    }
    return token_;
}

std::shared_ptr<const ProviderDestination> ProviderService::destination() const {
    const std::lock_guard lock(mutex_);
    return destination_;
}

void ProviderService::updateDestination() {
    destination_ = std::make_shared<const ProviderDestination>(
        ProviderDestination{bundleIdentifier_, hex(token_), unregisteredAt_, environment_});
}

void ProviderService::setDeviceRegistered(bool registered) {
    const std::lock_guard lock(mutex_);
    if (!registered) {
        if (!unregisteredAt_) {
            unregisteredAt_ = nowMilliseconds();
            updateDestination();
        }
        return;
    }
    if (unregisteredAt_) {
        unregisteredAt_.reset();
        token_ = randomToken();
        updateDestination();
    }
}

void ProviderService::setDeviceOnline(bool online) {
    std::optional<PushNotificationRequest> kept;
    {
        const std::lock_guard lock(mutex_);
        online_ = online;
        if (online && kept_) {
            kept = std::move(kept_);
            kept_.reset();
        }
    }
    if (!kept) {
        return;
    }
    if (kept->expiration <= nowSeconds()) {
        // Kept while offline, and expired before the device came back.
        observer_.keptNotificationDelivered(kept->apnsId, ProviderOutcome::discarded);
        return;
    }
    auto incoming = incomingFor(*kept);
    const auto taken = receiver_.take(incoming);
    observer_.keptNotificationDelivered(
        kept->apnsId, taken == platform::RemoteNotificationReceiver::Taken::replaced
                          ? ProviderOutcome::replaced
                          : ProviderOutcome::delivered);
    receiver_.present(std::move(incoming));
}

void ProviderService::record(const ProviderRefusal& refusal) {
    static detail::RepeatedLine line(serviceLogger(), platform::LogLevel::debug);
    line.write([&] {
        return "refused " + refusal.apnsId + " with " + std::to_string(refusal.status) + " " +
               std::string(refusal.reason) + ": " + refusal.detail;
    });
    ProviderRecord record;
    record.apnsId = refusal.apnsId;
    record.status = refusal.status;
    record.reason = refusal.reason;
    record.topic = refusal.topic;
    record.pushType = refusal.pushType;
    record.priority = refusal.priority;
    record.outcome = ProviderOutcome::refused;
    record.detail = refusal.detail;
    observer_.requestHandled(record);
}

void ProviderService::handle(ProviderRequest request,
                             const ConnectionAuthentication& authentication,
                             ProviderResponder respond) {
    auto verdict =
        checkProviderRequest(std::move(request), *destination(), authentication, nowSeconds());
    if (auto* refusal = std::get_if<ProviderRefusal>(&verdict)) {
        record(*refusal);
        respond({refusal->status, refusal->apnsId, refusalBody(*refusal)});
        return;
    }
    auto& accepted = std::get<PushNotificationRequest>(verdict);
    if (accepted.pushType != PushType::alert && accepted.pushType != PushType::background) {
        observer_.requestHandled(recordFor(accepted, ProviderOutcome::notHandled));
        respond({200, accepted.apnsId, {}});
        return;
    }
    // Accepted notifications wait in the inbox, in order; the first of a batch posts the work
    // item that hands the whole batch to the device, so that the server's thread and the queue
    // meet once per batch rather than once per notification.
    bool stopped = false;
    {
        const std::lock_guard lock(mutex_);
        stopped = stopped_;
        if (!stopped) {
            const bool first = inbox_.empty();
            inbox_.push_back(Delivery{std::move(accepted), std::move(respond)});
            if (!first) {
                return;
            }
            // Counted under the lock the work item takes first, so it cannot finish uncounted.
            if (queue_->async([this] { deliverInbox(); })) {
                ++deliveriesQueued_;
                return;
            }
            // The queue did not take the work item: the notification is refused here.
            accepted = std::move(inbox_.back().request);
            respond = std::move(inbox_.back().respond);
            inbox_.pop_back();
        }
    }
    const auto refusal =
        stopped
            ? serviceRefusal(accepted, 503, "Shutdown", "the push service is shutting down")
            : serviceRefusal(accepted, 500, "InternalServerError",
                             "the push service could not queue the notification for the device");
    record(refusal);
    respond({refusal.status, refusal.apnsId, refusalBody(refusal)});
}

void ProviderService::refuseAtShutdown(Delivery& delivery) {
    try {
        const auto refusal =
            serviceRefusal(delivery.request, 503, "Shutdown", "the push service is shutting down");
        record(refusal);
        delivery.respond({refusal.status, refusal.apnsId, refusalBody(refusal)});
    } catch (const std::exception&) {
        // Out of memory: its responder answers 500 as it goes.
    }
}

void ProviderService::deliverInbox() {
    std::vector<Delivery> batch = std::move(spareBatch_);
    std::size_t count = 0;  // of held_ and then the batch, how many go to the device now
    bool stopped = false;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(inbox_);
        const std::size_t total = held_.size() + batch.size();
        for (; count < total; ++count) {
            const Delivery& next =
                count < held_.size() ? held_[count] : batch[count - held_.size()];
            const std::size_t bytes = next.request.payload.size();
            // One at least, however large.
            const bool room =
                presenting_ == 0 || (presenting_ < maximumPresenting &&
                                     presentingBytes_ + bytes <= maximumPresentingBytes);
            if (!room) {
                break;
            }
            ++presenting_;
            presentingBytes_ += bytes;
        }
        // Once stopping, what has no room is refused instead: the device may hold it no more.
        stopped = stopped_;
        waitingForRoom_ = count < total && !stopped;
    }
    const auto deliverOne = [this](Delivery& delivery) {
        // One delivery that runs out of memory does not keep the rest of the batch from the
        // device; its request is still answered once (500 when its responder goes, if not yet).
        try {
            deliver(delivery.request, delivery.respond);
        } catch (const std::exception& error) {
            serviceLogger().error(
                [&] { return std::string("a delivery failed: ") + error.what(); });
        }
    };
    {
        // The batch's answers reach the server together once it is delivered.
        const ProviderAnswerBatch answers;
        std::size_t next = 0;
        for (; count > 0 && !held_.empty(); --count) {
            deliverOne(held_.front());
            held_.pop_front();
        }
        for (; count > 0; --count) {
            deliverOne(batch[next++]);
        }
        if (stopped) {
            for (; !held_.empty(); held_.pop_front()) {
                refuseAtShutdown(held_.front());
            }
            for (; next < batch.size(); ++next) {
                refuseAtShutdown(batch[next]);
            }
        }
        try {
            for (; next < batch.size(); ++next) {
                held_.push_back(std::move(batch[next]));
            }
        } catch (const std::bad_alloc&) {
            serviceLogger().error("out of memory: notifications waiting for the device dropped");
        }
        // The batch's responders go before stop() may return: one not called answers as it
        // goes.
        batch.clear();
    }
    spareBatch_ = std::move(batch);
    const std::lock_guard lock(mutex_);
    --deliveriesQueued_;
    delivered_.notify_all();
}

void ProviderService::refused(const TransportRefusal& refusal) {
    static detail::RepeatedLine line(serviceLogger(), platform::LogLevel::debug);
    line.write([&] { return "the transport reset a request: " + refusal.detail; });
    ProviderRecord record;
    record.apnsId = refusal.apnsId;
    record.status = 0;
    record.outcome = ProviderOutcome::reset;
    record.detail = refusal.detail;
    observer_.requestHandled(record);
}

std::shared_ptr<const void> ProviderService::presenceToken(std::size_t bytes) {
    // The token points at the presence it reports to; should making it run out of memory, the
    // deleter runs at once, so the count stays true.
    auto presence = presence_;
    const Presence* tag = presence.get();
    return std::shared_ptr<const void>(tag, [presence = std::move(presence), bytes](const void*) {
        const std::lock_guard lock(presence->mutex);
        if (presence->service != nullptr) {
            presence->service->presented(bytes);
        }
    });
}

void ProviderService::presented(std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    --presenting_;
    presentingBytes_ -= bytes;
    if (waitingForRoom_) {
        // Whether the next one fits is for the work item to decide: it takes as many as do.
        waitingForRoom_ = false;
        queueDeliveryLocked();
    }
}

void ProviderService::queueDeliveryLocked() {
    // Counted under the lock the work item takes first, so it cannot finish uncounted.
    if (queue_->async([this] { deliverInbox(); })) {
        ++deliveriesQueued_;
    } else {
        // Tried again when the next notification is let go.
        waitingForRoom_ = true;
    }
}

void ProviderService::deliver(PushNotificationRequest& request, ProviderResponder& respond) {
    // Counted for the device when the batch was taken; the count goes down when the device lets
    // go of it, or here, when it is not handed to the device.
    auto presence = presenceToken(request.payload.size());
    std::unique_lock lock(mutex_, std::defer_lock);
    bool online = online_.load();
    if (!online) {
        // Decided again under the lock, together with the notification kept.
        lock.lock();
        online = online_.load();
    }
    if (!online) {
        // The service keeps only the newest notification that may still wait.
        const bool canWait = request.expiration != 0 && request.expiration > nowSeconds();
        if (canWait) {
            kept_ = request;
        }
        lock.unlock();
        observer_.requestHandled(
            recordFor(request, canWait ? ProviderOutcome::kept : ProviderOutcome::discarded));
        respond({200, request.apnsId, {}});
        return;
    }
    if (lock.owns_lock()) {
        lock.unlock();
    }
    auto incoming = incomingFor(request);
    incoming.presence = std::move(presence);
    const auto taken = receiver_.take(incoming);
    observer_.requestHandled(
        recordFor(request, taken == platform::RemoteNotificationReceiver::Taken::replaced
                               ? ProviderOutcome::replaced
                               : ProviderOutcome::delivered));
    // The request's apns-id goes with the answer (the device has its own copy).
    respond({200, std::move(request.apnsId), {}});
    receiver_.present(std::move(incoming));
}

void ProviderService::stop() {
    std::unique_lock lock(mutex_);
    stopped_ = true;
    if (waitingForRoom_) {
        // What waits for room is refused on the queue, which holds it.
        waitingForRoom_ = false;
        queueDeliveryLocked();
    }
    // A delivery that stops the service cannot wait for itself; the rest of the queue's batches
    // still run after it.
    if (!queue_->isCurrent()) {
        delivered_.wait(lock, [this] { return deliveriesQueued_ == 0; });
    }
}

}  // namespace nimborra::provider
