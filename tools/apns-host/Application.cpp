#include "Application.h"

#include <chrono>
#include <utility>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"

namespace nimborra::host {

namespace {

// Room for a request's whole text at once, as a rule: the keys and numbers, and the
// notification's texts, which escaping seldom doubles (the user info's quotes, mostly).
std::size_t sizeHint(const apns::ApnsNotification& n) {
    return 512 +
           2 * (n.title.size() + n.subtitle.size() + n.body.size() + n.sound.size() +
                n.categoryIdentifier.size() + n.threadIdentifier.size() + n.launchImageName.size() +
                n.targetContentIdentifier.size() + n.userInfoJson.size());
}

template <class Request>
std::string payloadFor(const Request& request) {
    std::string payload;
    if constexpr (requires { request.notification; }) {
        payload.reserve(sizeHint(request.notification));
    }
    // The records hold only text and numbers the mapper made finite, so encoding cannot fail;
    // should it, the plug-in answers the empty payload with its own error.
    if (core::OrraJSONCoding::makeEncoder().encodeAppending(request, payload)) {
        return "{}";
    }
    return payload;
}

}  // namespace

std::optional<PresentationOptions> PresentationOptions::named(
    const std::vector<std::string>& names) {
    PresentationOptions options;
    for (const auto& name : names) {
        if (name == "badge") {
            options.badge = true;
        } else if (name == "sound") {
            options.sound = true;
        } else if (name == "list") {
            options.list = true;
        } else if (name == "banner") {
            options.banner = true;
        } else {
            return std::nullopt;
        }
    }
    return options;
}

PresentationOptions PresentationOptions::fromReply(std::string_view reply) {
    PresentationOptions options;
    // The add-on's usual answer, which asks for nothing, is known without parsing it.
    if (reply == R"({"success":{"presentationOptions":[]}})") {
        return options;
    }
    const auto json = platform::JSONSerialization::jsonObject(reply);
    const platform::Dictionary* root = json ? json->dictionary() : nullptr;
    const platform::Value* success = root ? root->find("success") : nullptr;
    const platform::Dictionary* response = success ? success->dictionary() : nullptr;
    const platform::Value* list = response ? response->find("presentationOptions") : nullptr;
    if (list == nullptr || list->array() == nullptr) {
        return options;
    }
    using Option = apns::UNNotificationPresentationOption;
    for (const auto& element : *list->array()) {
        const std::int64_t* raw = element.integer();
        if (raw == nullptr) {
            continue;
        }
        switch (core::fromWireValue<Option>(*raw)) {
            case Option::badge:
                options.badge = true;
                break;
            case Option::sound:
                options.sound = true;
                break;
            case Option::list:
                options.list = true;
                break;
            case Option::banner:
                options.banner = true;
                break;
            case Option::unspecified:
                break;
        }
    }
    return options;
}

std::string PresentationOptions::json() const {
    std::string text = "[";
    for (const auto& [chosen, name] :
         {std::pair{badge, "\"badge\""}, std::pair{sound, "\"sound\""}, std::pair{list, "\"list\""},
          std::pair{banner, "\"banner\""}}) {
        if (chosen) {
            if (text.size() > 1) {
                text.push_back(',');
            }
            text.append(name);
        }
    }
    text.push_back(']');
    return text;
}

Application::Application(Bridge& bridge) : bridge_(bridge) {}

void Application::setPresentation(std::optional<PresentationOptions> options) {
    const std::lock_guard lock(mutex_);
    presentation_ = options;
}

std::optional<PresentationOptions> Application::presentation() const {
    const std::lock_guard lock(mutex_);
    return presentation_;
}

void Application::willPresent(const platform::UNNotificationContent& content,
                              std::function<void(PresentationOptions)> decided, bool mayWait) {
    auto payload = payloadFor(apns::APNSServiceNotifyWillPresentNotificationRequest{
        apns::ApnsNotificationMapper::map(content)});
    bridge_.appCall(
        "NotifyWillPresentNotification", std::move(payload),
        [this, decided = std::move(decided)](std::string_view reply) {
            // The delegate asks the add-on first, as the application would, and then hands the
            // system the user's choice when there is one.
            const auto chosen = presentation();
            decided(chosen ? *chosen : PresentationOptions::fromReply(reply));
        },
        mayWait);
}

void Application::didReceiveResponse(const platform::UNNotificationContent& content,
                                     const std::string& actionIdentifier,
                                     std::function<void()> done, bool mayWait) {
    auto payload = payloadFor(apns::APNSServiceNotifyDidReceiveResponseRequest{
        apns::ApnsNotificationMapper::map(content), actionIdentifier});
    bridge_.appCall(
        "NotifyDidReceiveResponse", std::move(payload),
        [done = std::move(done)](std::string_view) {
            if (done) {
                done();
            }
        },
        mayWait);
}

void Application::didFinishLaunching(const platform::Dictionary& remoteNotification) {
    apns::ApnsColdStartBuffer::shared()->capture(remoteNotification);
}

bool Application::registerForRemoteNotifications() {
    std::size_t before = 0;
    {
        const std::lock_guard lock(mutex_);
        before = tokensForwarded_;
    }
    // As an application does at launch: the add-on's own registration callback, which hops to
    // the main queue.
    const auto registerCallback =
        apns::ApnsServiceNativeAdapterDefault().registerForRemoteNotifications();
    registerCallback();
    std::unique_lock lock(mutex_);
    return forwarded_.wait_for(lock, std::chrono::seconds(10),
                               [&] { return tokensForwarded_ > before; });
}

void Application::didRegisterForRemoteNotifications(const platform::Data& deviceToken) {
    auto payload =
        payloadFor(apns::APNSServiceNotifyDidRegisterForRemoteNotificationsRequest{deviceToken});
    bridge_.appCall(
        "NotifyDidRegisterForRemoteNotifications", std::move(payload),
        [this](std::string_view) {
            const std::lock_guard lock(mutex_);
            ++tokensForwarded_;
            forwarded_.notify_all();
        },
        false);
}

}  // namespace nimborra::host
