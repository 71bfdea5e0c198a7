#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/ApnsLogger.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServiceMethods.h"

namespace nimborra::apns {

namespace {

constexpr std::string_view kNoSyncMethods = "Plugin ApnsService has no SYNC methods";
constexpr std::string_view kUnknownMethodPrefix = "Unknown ASYNC method: ";

// Decodes the request, runs the operation and builds the reply for one method.
template <class Request, class Result>
std::string runOperation(ApnsServiceNativeAdapter& adapter,
                         Result (ApnsServiceNativeAdapter::*operation)(Request),
                         std::string_view payload) {
    // A fresh decoder per call.
    const core::JSONDecoder decoder = core::OrraJSONCoding::makeDecoder();
    auto request = decoder.decode<Request>(payload);
    if (!request.ok()) {
        return ApnsOutcomeEnvelope::errorReply("INTERNAL", request.error().description());
    }
    const Result result = (adapter.*operation)(std::move(request).value());
    auto reply = ApnsOutcomeEnvelope::reply(result);
    if (!reply.ok()) {
        return ApnsOutcomeEnvelope::errorReply("INTERNAL", reply.error().description());
    }
    return std::move(reply).value();
}

}  // namespace

ApnsServicePlugin::ApnsServicePlugin(std::shared_ptr<ApnsServiceNativeAdapter> adapter,
                                     std::shared_ptr<platform::DispatchQueue> queue)
    : adapter_(std::move(adapter)), queue_(std::move(queue)) {}

ApnsServicePlugin::~ApnsServicePlugin() = default;

void ApnsServicePlugin::registerPlugin(std::shared_ptr<ApnsServiceNativeAdapter> adapter) {
    if (!adapter) {
        apnsLogger().error("ApnsService registration refused: no adapter");
        return;
    }
    try {
        auto& dispatcher = core::OrraBridgeDispatcher::shared();
        auto queue = std::make_shared<platform::DispatchQueue>(
            std::string(queueLabel), platform::DispatchQoS::userInitiated);
        auto plugin = std::make_shared<ApnsServicePlugin>(std::move(adapter), std::move(queue));
        dispatcher.registerPlugin(std::string(name), std::move(plugin));
    } catch (const std::exception& e) {
        apnsLogger().error(
            [&] { return std::string("ApnsService registration failed: ") + e.what(); });
    } catch (...) {
        apnsLogger().error("ApnsService registration failed");
    }
}

std::string ApnsServicePlugin::callSync(std::string_view, std::string_view) {
    return ApnsOutcomeEnvelope::errorReply("INTERNAL", kNoSyncMethods);
}

void ApnsServicePlugin::cancel(std::int64_t callbackId) {
    try {
        if (adapter_) {
            adapter_->onCancel(callbackId);
        }
    } catch (...) {
        apnsLogger().error("ApnsService cancel: the adapter threw");
    }
}

std::string ApnsServicePlugin::handle(std::string_view method, std::string_view payload) {
    if (!adapter_) {
        return ApnsOutcomeEnvelope::errorReply("INTERNAL", "ApnsService has no adapter");
    }
    ApnsServiceNativeAdapter& adapter = *adapter_;
    try {
        // The method table, tested in its order; the first equal name wins.
        std::optional<std::string> reply;
        std::apply(
            [&](const auto&... entry) {
                (void)((entry.name == method &&
                        (reply = runOperation(adapter, entry.operation, payload), true)) ||
                       ...);
            },
            apnsServiceMethods());
        if (reply) {
            return std::move(*reply);
        }
        std::string message(kUnknownMethodPrefix);
        message += method;
        return ApnsOutcomeEnvelope::errorReply("UNIMPLEMENTED", message);
    } catch (const std::exception& e) {
        // An adapter that throws breaks its contract; the call is still answered.
        return ApnsOutcomeEnvelope::errorReply(
            "INTERNAL", std::string("ApnsService ") + std::string(method) + " failed: " + e.what());
    } catch (...) {
        return std::string(ApnsOutcomeEnvelope::serialisationFallback);
    }
}

namespace {

// One call on its way through the queue.
struct PendingCall {
    std::string method;
    std::string payload;
    core::OrraCompletion onComplete;
};

// Hands `reply` to the caller's callback; a callback that throws is logged, never propagated.
void answer(core::OrraCompletion& onComplete, std::string reply) noexcept {
    try {
        if (onComplete) {
            onComplete(std::move(reply));
        }
    } catch (...) {
        apnsLogger().error("ApnsService: a completion callback threw");
    }
}

}  // namespace

void ApnsServicePlugin::callAsync(std::string method, std::string payload,
                                  core::OrraCompletion onComplete) {
    // Everything that can fail is made before the callback moves into the work item, so that on
    // any failure the callback is still here to answer with.
    PendingCall* pending = nullptr;
    std::function<void()> work;
    try {
        auto self = shared_from_this();
        auto call = std::make_shared<PendingCall>();
        pending = call.get();
        work = [self = std::move(self), call = std::move(call)]() {
            std::string reply;
            try {
                reply = self->handle(call->method, call->payload);
            } catch (...) {
                reply = std::string(ApnsOutcomeEnvelope::serialisationFallback);
            }
            // The reply first; the callback, the texts and the plug-in are released when the
            // work item ends, after it.
            answer(call->onComplete, std::move(reply));
        };
    } catch (...) {
        // Out of memory, or the plug-in is not owned by a shared_ptr.
        apnsLogger().error("ApnsService: could not prepare a call; answered with the fall-back");
        answer(onComplete, std::string(ApnsOutcomeEnvelope::serialisationFallback));
        return;
    }
    // `work` owns the call from here on; `pending` stays valid while `work` is ours.
    pending->method = std::move(method);
    pending->payload = std::move(payload);
    pending->onComplete = std::move(onComplete);
    if (!queue_ || !queue_->async(std::move(work))) {
        // The queue cannot run it (its thread could not start, memory ran out): answer here
        // rather than never. The queue left `work`, and with it the call, untouched.
        apnsLogger().error("ApnsService: the queue refused a call; answered with the fall-back");
        answer(pending->onComplete, std::string(ApnsOutcomeEnvelope::serialisationFallback));
    }
}

}  // namespace nimborra::apns
