#include "NimbOrraProviderApi/ProviderService.h"

#include <openssl/rand.h>

#include <chrono>
#include <utility>

namespace nimborra::provider {

namespace {

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

platform::IncomingRemoteNotification incomingFor(const PushNotificationRequest& request) {
    return {request.apnsId, request.collapseId, std::string(pushTypeName(request.pushType)),
            request.payload};
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
    }
    return "refused";
}

ProviderService::ProviderService(std::string bundleIdentifier,
                                 std::optional<platform::Data> deviceToken,
                                 platform::RemoteNotificationReceiver& receiver,
                                 ProviderObserver& observer)
    : bundleIdentifier_(std::move(bundleIdentifier)),
      receiver_(receiver),
      observer_(observer),
      token_(deviceToken ? std::move(*deviceToken) : randomToken()) {
    thread_ = std::thread([this] { deliveryLoop(); });
}

ProviderService::~ProviderService() {
    stop();
}

std::string ProviderService::hex(const platform::Data& token) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(token.bytes.size() * 2);
    for (const auto byte : token.bytes) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0f]);
    }
    return text;
}

std::optional<platform::Data> ProviderService::deviceToken() const {
    const std::lock_guard lock(mutex_);
    if (unregisteredAt_) {
        return std::nullopt;
    }
    return token_;
}

ProviderDestination ProviderService::destination() const {
    const std::lock_guard lock(mutex_);
    return {bundleIdentifier_, hex(token_), unregisteredAt_};
}

void ProviderService::setDeviceRegistered(bool registered) {
    const std::lock_guard lock(mutex_);
    if (!registered) {
        if (!unregisteredAt_) {
            unregisteredAt_ = nowMilliseconds();
        }
        return;
    }
    if (unregisteredAt_) {
        unregisteredAt_.reset();
        token_ = randomToken();
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
    if (kept) {
        deliver({std::move(*kept), std::nullopt});
    }
}

void ProviderService::handle(ProviderRequest request,
                             const ConnectionAuthentication& authentication,
                             ProviderResponder respond) {
    auto verdict =
        checkProviderRequest(request, destination(), authentication, nowSeconds(), &makeUuid);
    if (auto* refusal = std::get_if<ProviderRefusal>(&verdict)) {
        ProviderRecord record;
        record.apnsId = refusal->apnsId;
        record.status = refusal->status;
        record.reason = refusal->reason;
        record.topic = refusal->topic;
        record.pushType = refusal->pushType;
        record.priority = refusal->priority;
        record.outcome = ProviderOutcome::refused;
        record.detail = refusal->detail;
        observer_.requestHandled(record);
        respond({refusal->status, refusal->apnsId, refusalBody(*refusal)});
        return;
    }
    auto& accepted = std::get<PushNotificationRequest>(verdict);
    if (accepted.pushType != PushType::alert && accepted.pushType != PushType::background) {
        observer_.requestHandled(recordFor(accepted, ProviderOutcome::notHandled));
        respond({200, accepted.apnsId, {}});
        return;
    }
    const std::lock_guard lock(mutex_);
    if (stopping_) {
        // Only reachable when the server outlives stop(): the service is no longer taking
        // notifications.
        respond({503, accepted.apnsId, R"({"reason":"Shutdown"})"});
        return;
    }
    queue_.push_back({std::move(accepted), std::move(respond)});
    wake_.notify_one();
}

void ProviderService::deliveryLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) {
            return;
        }
        Delivery delivery = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        deliver(std::move(delivery));
        lock.lock();
    }
}

void ProviderService::deliver(Delivery delivery) {
    const auto& request = delivery.request;
    const auto answer = [&delivery] {
        if (delivery.respond) {
            (*delivery.respond)({200, delivery.request.apnsId, {}});
        }
    };
    std::unique_lock lock(mutex_);
    if (!online_) {
        // The service keeps only the newest notification that may still wait.
        const bool canWait = request.expiration != 0 && request.expiration > nowSeconds();
        if (canWait) {
            kept_ = request;
        }
        lock.unlock();
        observer_.requestHandled(
            recordFor(request, canWait ? ProviderOutcome::kept : ProviderOutcome::discarded));
        answer();
        return;
    }
    lock.unlock();
    if (!delivery.respond && request.expiration != 0 && request.expiration <= nowSeconds()) {
        // Kept while offline, and expired before the device came back.
        observer_.requestHandled(recordFor(request, ProviderOutcome::discarded));
        return;
    }
    const auto incoming = incomingFor(request);
    const auto taken = receiver_.take(incoming);
    observer_.requestHandled(
        recordFor(request, taken == platform::RemoteNotificationReceiver::Taken::replaced
                               ? ProviderOutcome::replaced
                               : ProviderOutcome::delivered));
    answer();
    receiver_.present(incoming);
}

void ProviderService::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        wake_.notify_one();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace nimborra::provider
