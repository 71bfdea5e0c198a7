#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

#include <exception>
#include <utility>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/ApnsLogger.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"

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
        adapter_->onCancel(callbackId);
    } catch (...) {
        apnsLogger().error("ApnsService cancel: the adapter threw");
    }
}

std::string ApnsServicePlugin::handle(std::string_view method, std::string_view payload) {
    using A = ApnsServiceNativeAdapter;
    A& adapter = *adapter_;
    try {
        // The method table, tested in this order; the first equal name wins.
        if (method == "GetToken")
            return runOperation(adapter, &A::getToken, payload);
        if (method == "GetProviderEnvironment")
            return runOperation(adapter, &A::getProviderEnvironment, payload);
        if (method == "GetColdStartNotification")
            return runOperation(adapter, &A::getColdStartNotification, payload);
        if (method == "RequestAuthorization")
            return runOperation(adapter, &A::requestAuthorization, payload);
        if (method == "SetBadgeCount")
            return runOperation(adapter, &A::setBadgeCount, payload);
        if (method == "GetNotificationSettings")
            return runOperation(adapter, &A::getNotificationSettings, payload);
        if (method == "NotifyDidRegisterForRemoteNotifications")
            return runOperation(adapter, &A::notifyDidRegisterForRemoteNotifications, payload);
        if (method == "NotifyDidFailToRegister")
            return runOperation(adapter, &A::notifyDidFailToRegister, payload);
        if (method == "NotifyWillPresentNotification")
            return runOperation(adapter, &A::notifyWillPresentNotification, payload);
        if (method == "NotifyDidReceiveResponse")
            return runOperation(adapter, &A::notifyDidReceiveResponse, payload);
        if (method == "NotifyColdStartNotification")
            return runOperation(adapter, &A::notifyColdStartNotification, payload);
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

void ApnsServicePlugin::callAsync(std::string method, std::string payload,
                                  core::OrraCompletion onComplete) {
    try {
        queue_->async([self = shared_from_this(), method = std::move(method),
                       payload = std::move(payload), onComplete = std::move(onComplete)]() mutable {
            std::string reply;
            try {
                reply = self->handle(method, payload);
            } catch (...) {
                reply = std::string(ApnsOutcomeEnvelope::serialisationFallback);
            }
            // The reply first; the callback, the texts and the plug-in are released when the
            // work item ends, after it.
            try {
                if (onComplete) {
                    onComplete(std::move(reply));
                }
            } catch (...) {
                apnsLogger().error("ApnsService: a completion callback threw");
            }
        });
    } catch (...) {
        // Submitting failed (out of memory, or the plug-in is not owned by a shared_ptr):
        // answer here rather than never.
        try {
            if (onComplete) {
                onComplete(std::string(ApnsOutcomeEnvelope::serialisationFallback));
            }
        } catch (...) {
        }
    }
}

}  // namespace nimborra::apns
