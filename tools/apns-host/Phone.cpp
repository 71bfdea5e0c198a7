#include "Phone.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Text.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "ProviderLines.h"

namespace nimborra::host {

using platform::ApplicationState;
using platform::RemoteNotificationCallback;

// A road is owned by running_ until finish() writes its line, which only its last continuation
// calls: the continuations hold it by pointer (small enough for std::function to keep without an
// allocation) and take a shared pointer back when they run.
struct Phone::Road : std::enable_shared_from_this<Road> {
    std::uint64_t order = 0;
    PushNotification notification;
    ApplicationState app = ApplicationState::foreground;
    std::optional<std::string> tap;
    // A tap on a notification already shown: only what the tap causes runs.
    bool tapOnly = false;
    // Whether the road's next call may wait for room on the bridge: not once it runs on the
    // plug-in's queue.
    bool mayWait = true;

    bool visible = false;
    bool shown = false;
    bool listed = false;
    std::optional<PresentationOptions> presentation;
    std::optional<std::string_view> reason;
    std::optional<std::int64_t> badge;
    // At most one of each, in the order they ran.
    std::array<RemoteNotificationCallback, 3> callbacks{};
    std::size_t callbackCount = 0;
    void ran(RemoteNotificationCallback callback) {
        if (callbackCount < callbacks.size()) {
            callbacks[callbackCount++] = callback;
        }
    }

    // Set once the road is over; written in start order.
    bool finished = false;
    std::string line;
    // The push service's token for the notification, let go with the road.
    std::shared_ptr<const void> presence;
};

namespace {

bool sameIdentifier(std::string_view a, std::string_view b) {
    // apns-ids are UUIDs: compared without regard to case, as servers write either.
    return platform::equalsIgnoringASCIICase(a, b);
}

void appendTextOrNull(std::string& line, const std::optional<std::string_view>& text) {
    if (text) {
        platform::appendJSONString(line, *text);
    } else {
        line.append("null");
    }
}

void appendNumberOrNull(std::string& line, const std::optional<std::int64_t>& number) {
    if (number) {
        platform::appendJSONNumber(line, *number);
    } else {
        line.append("null");
    }
}

platform::UNUserNotificationCenter& center() {
    return platform::UNUserNotificationCenter::currentNotificationCenter();
}

}  // namespace

Phone::Phone(OutputWriter& output, Application& application)
    : output_(output), application_(application) {}

Phone::~Phone() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return resumesQueued_ == 0; });
}

std::optional<std::string> Phone::openBundle(const std::optional<std::filesystem::path>& bundle) {
    if (bundle) {
        const std::filesystem::path& directory = *bundle;
        std::error_code error;
        const auto status = std::filesystem::status(directory, error);
        if (!std::filesystem::exists(status)) {
            return "the bundle " + directory.string() + " does not exist";
        }
        if (!std::filesystem::is_directory(status)) {
            return "the bundle " + directory.string() + " is not a directory";
        }
        const std::filesystem::directory_iterator listing(directory, error);
        if (error) {
            return "the bundle " + directory.string() + " cannot be read: " + error.message();
        }
        const auto absolute = std::filesystem::absolute(directory, error);
        platform::Bundle::mainBundle().setResourceDirectory(error ? directory : absolute);
    }

    // One reading of the profile, by the add-on's own reader, for everything the phone says.
    const auto embedded = apns::readEmbeddedProfile();
    ProfileFacts facts;
    facts.environment = apns::apsEnvironmentOf(embedded);
    const platform::Value* identifier =
        embedded.entitlements ? embedded.entitlements->find("application-identifier") : nullptr;
    if (identifier != nullptr && identifier->text() != nullptr) {
        // "TEAMID.com.example.app": the team prefix ends at the first dot.
        const std::string& text = *identifier->text();
        const auto dot = text.find('.');
        facts.bundleIdentifier = dot == std::string::npos ? text : text.substr(dot + 1);
    }
    const std::lock_guard lock(mutex_);
    profile_ = std::move(facts);
    return std::nullopt;
}

ProfileFacts Phone::profile() const {
    const std::lock_guard lock(mutex_);
    return profile_;
}

std::optional<std::string> Phone::wrongTargetBundle(const std::string& target) const {
    const auto identifier = profile().bundleIdentifier;
    if (!identifier || *identifier == target) {
        return std::nullopt;
    }
    return "\"Simulator Target Bundle\" is \"" + target + "\" but the application is \"" +
           *identifier + "\"";
}

ApplicationState Phone::applicationState() const {
    const std::lock_guard lock(mutex_);
    return app_;
}

void Phone::setApplicationState(ApplicationState app) {
    const std::lock_guard lock(mutex_);
    app_ = app;
}

void Phone::attachProviderService(provider::ProviderService& service) {
    const std::lock_guard lock(mutex_);
    service_ = &service;
}

provider::ProviderService* Phone::providerService() const {
    const std::lock_guard lock(mutex_);
    return service_;
}

Phone::Exclusive::Exclusive(Phone& phone) : phone_(phone) {
    std::unique_lock lock(phone_.mutex_);
    // Notifications kept while the phone was held start before the next holder takes it.
    phone_.changed_.wait(lock, [this] { return !phone_.exclusive_ && phone_.deferred_.empty(); });
    phone_.exclusive_ = true;
    phone_.exclusiveOwner_ = std::this_thread::get_id();
    phone_.changed_.wait(lock, [this] { return phone_.running_.empty(); });
}

Phone::Exclusive::~Exclusive() {
    std::shared_ptr<platform::DispatchQueue> queue;
    {
        const std::lock_guard lock(phone_.mutex_);
        phone_.exclusive_ = false;
        phone_.exclusiveOwner_ = {};
        phone_.changed_.notify_all();
        if (phone_.deferred_.empty() || phone_.service_ == nullptr) {
            return;
        }
        queue = phone_.service_->queue();
        ++phone_.resumesQueued_;
    }
    // The kept notifications start on the push service's queue, as they would have. Should the
    // queue not take the work item, they start here.
    std::function<void()> resume = [phone = &phone_] { phone->startDeferred(); };
    if (!queue->async(std::move(resume))) {
        phone_.startDeferred();
    }
}

void Phone::waitForRoads() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return running_.empty(); });
}

void Phone::push(PushNotification notification, std::optional<ApplicationState> app,
                 const std::optional<std::string>& tap) {
    const auto road = start(std::move(notification), app, tap, false);
    waitFinished(road);
}

std::string Phone::newApnsId() {
    std::uint64_t count = 0;
    {
        const std::lock_guard lock(mutex_);
        count = ++apnsIdsIssued_;
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string id = "00000000-0000-4000-8000-000000000000";
    for (std::size_t index = id.size(); count != 0 && index-- > 24;) {
        id[index] = kDigits[count % 16];
        count /= 16;
    }
    return id;
}

bool Phone::tap(std::string_view identifier, const std::string& action) {
    std::optional<Listed> found;
    {
        const std::lock_guard lock(mutex_);
        // The newest tappable notification, or the one with that apns-id: in the list or on
        // the banner.
        const Listed* best = nullptr;
        for (const auto& listed : listed_) {
            if (identifier == "latest" ? (best == nullptr || listed.order > best->order)
                                       : sameIdentifier(listed.notification.apnsId, identifier)) {
                best = &listed;
            }
        }
        if (banner_ &&
            (identifier == "latest" ? (best == nullptr || banner_->order > best->order)
                                    : sameIdentifier(banner_->notification.apnsId, identifier))) {
            best = &*banner_;
        }
        if (best == nullptr) {
            return false;
        }
        found = *best;
        removeLocked(found->notification.apnsId);
    }
    const auto road = start(std::move(found->notification), std::nullopt, action, true);
    waitFinished(road);
    return true;
}

std::shared_ptr<Phone::Road> Phone::start(PushNotification notification,
                                          std::optional<ApplicationState> app,
                                          std::optional<std::string> tap, bool tapOnly) {
    std::shared_ptr<Road> road;
    {
        const std::lock_guard lock(mutex_);
        road = admitLocked(std::move(notification), app, std::move(tap), tapOnly);
    }
    run(road);
    return road;
}

std::shared_ptr<Phone::Road> Phone::admitLocked(PushNotification notification,
                                                std::optional<ApplicationState> app,
                                                std::optional<std::string> tap, bool tapOnly,
                                                std::shared_ptr<const void> presence) {
    auto road = std::make_shared<Road>();
    road->presence = std::move(presence);
    road->notification = std::move(notification);
    road->tap = std::move(tap);
    road->tapOnly = tapOnly;
    road->app = app.value_or(app_);
    road->order = nextOrder_++;
    running_.push_back(road);
    return road;
}

void Phone::startDeferred() {
    // However this ends (a road may run out of memory), the work item is no longer queued.
    struct Finished {
        Phone& phone;
        ~Finished() {
            const std::lock_guard lock(phone.mutex_);
            --phone.resumesQueued_;
            phone.changed_.notify_all();
        }
    } finished{*this};
    const auto self = std::this_thread::get_id();
    for (;;) {
        std::shared_ptr<Road> road;
        {
            const std::lock_guard lock(mutex_);
            // Held again: the next release queues another start.
            if (deferred_.empty() || (exclusive_ && exclusiveOwner_ != self)) {
                return;
            }
            road = admitLocked(std::move(deferred_.front().notification), std::nullopt,
                               std::nullopt, false, std::move(deferred_.front().presence));
            deferred_.pop_front();
            if (deferred_.empty()) {
                changed_.notify_all();
            }
        }
        // Started for the push service: its calls never wait for room on the bridge.
        road->mayWait = false;
        run(road);
    }
}

void Phone::run(const std::shared_ptr<Road>& road) {
    const platform::Dictionary& payload = *road->notification.payload;
    if (!road->notification.content) {
        road->notification.content = std::make_shared<const platform::UNNotificationContent>(
            platform::remoteNotificationContent(payload));
    }
    const platform::UNNotificationContent& content = *road->notification.content;
    if (road->tapOnly) {
        road->visible = true;
        road->shown = true;
        respond(road);
        return;
    }
    road->visible = platform::isVisibleRemoteNotification(payload);
    if (!road->visible) {
        // Silent notifications wake the application in the background for a fetch, which is
        // not the business of the notification delegate: nothing is shown and nothing tapped.
        road->reason = "silent";
        road->tap.reset();
        finish(road);
        return;
    }
    if (!platform::authorizationStatusShowsNotifications(center().authorizationStatus())) {
        road->reason = "not authorized";
        road->tap.reset();
        finish(road);
        return;
    }
    if (road->notification.collapseId) {
        const std::lock_guard lock(mutex_);
        const auto& collapseId = road->notification.collapseId;
        std::erase_if(listed_, [&](const Listed& listed) {
            return listed.notification.collapseId == collapseId;
        });
        if (banner_ && banner_->notification.collapseId == collapseId) {
            banner_.reset();
        }
    }
    if (road->app == ApplicationState::foreground) {
        road->ran(RemoteNotificationCallback::willPresent);
        application_.willPresent(
            content,
            [this, running = road.get()](PresentationOptions options) {
                presented(running->shared_from_this(), options);
            },
            road->mayWait);
        return;
    }
    // In the background or not running, the system shows it in the list and sets the badge.
    road->shown = true;
    road->listed = true;
    road->badge = content.badge;
    if (road->badge) {
        center().setBadgeCountFromNotification(*road->badge);
    }
    {
        const std::lock_guard lock(mutex_);
        listLocked(road->notification, road->order);
    }
    if (road->tap) {
        respond(road);
        return;
    }
    road->reason = road->app == ApplicationState::background ? "not tapped" : "not running";
    finish(road);
}

void Phone::presented(const std::shared_ptr<Road>& road, PresentationOptions options) {
    // On the plug-in's queue, right after the delegate's reply: nothing more may wait here.
    road->mayWait = false;
    road->presentation = options;
    if (options.badge && road->notification.content->badge) {
        road->badge = road->notification.content->badge;
        center().setBadgeCountFromNotification(*road->badge);
    }
    road->shown = options.list || options.banner;
    road->listed = options.list;
    if (road->shown) {
        const std::lock_guard lock(mutex_);
        if (options.list) {
            listLocked(road->notification, road->order);
        } else if (options.banner) {
            banner_ = Listed{road->notification, road->order};
        }
    }
    if (!road->tap) {
        finish(road);
    } else if (road->shown) {
        respond(road);
    } else {
        // Nothing on screen and nothing in the list: the user has nothing to tap.
        road->reason = "not presented";
        road->tap.reset();
        finish(road);
    }
}

void Phone::respond(const std::shared_ptr<Road>& road) {
    {
        const std::lock_guard lock(mutex_);
        removeLocked(road->notification.apnsId);
    }
    road->listed = false;
    if (road->app == ApplicationState::notRunning) {
        // The tap launches the application, whose launch options carry the notification.
        road->ran(RemoteNotificationCallback::didFinishLaunching);
        application_.didFinishLaunching(*road->notification.payload);
    }
    road->ran(RemoteNotificationCallback::didReceiveResponse);
    application_.didReceiveResponse(
        *road->notification.content, *road->tap,
        [this, running = road.get()] { finish(running->shared_from_this()); }, road->mayWait);
}

void Phone::finish(const std::shared_ptr<Road>& road) {
    // Built in a text the thread keeps from line to line: a road that is the oldest running (the
    // usual case) writes it from there, and only one that waits for older roads keeps a copy.
    thread_local std::string line;
    line.clear();
    line.append("{\"system\":{\"apnsId\":");
    platform::appendJSONString(line, road->notification.apnsId);
    line.append(",\"app\":");
    platform::appendJSONString(line, platform::applicationStateName(road->app));
    line.append(road->visible ? ",\"visible\":true" : ",\"visible\":false");
    line.append(road->shown ? ",\"shown\":true" : ",\"shown\":false");
    line.append(road->listed ? ",\"listed\":true" : ",\"listed\":false");
    line.append(",\"presentation\":");
    line.append(road->presentation ? road->presentation->json() : std::string("null"));
    line.append(",\"reason\":");
    appendTextOrNull(line, road->reason);
    line.append(",\"badge\":");
    appendNumberOrNull(line, road->badge);
    line.append(",\"tap\":");
    appendTextOrNull(line, road->tap);
    line.append(",\"callbacks\":[");
    for (std::size_t index = 0; index < road->callbackCount; ++index) {
        if (index > 0) {
            line.push_back(',');
        }
        platform::appendJSONString(
            line, platform::remoteNotificationCallbackName(road->callbacks[index]));
    }
    line.append("]}}");

    // The system lines come in the order the roads started, each after its own callbacks' lines.
    const std::lock_guard lock(mutex_);
    road->finished = true;
    if (running_.front() != road) {
        road->line = line;
        return;
    }
    output_.writeLine(line);
    running_.pop_front();
    while (!running_.empty() && running_.front()->finished) {
        output_.writeLine(running_.front()->line);
        running_.pop_front();
    }
    changed_.notify_all();
}

void Phone::waitFinished(const std::shared_ptr<Road>& road) {
    std::unique_lock lock(mutex_);
    // Roads leave oldest first: this one has left once the oldest still running is younger.
    changed_.wait(lock, [&] { return running_.empty() || running_.front()->order > road->order; });
}

void Phone::listLocked(const PushNotification& notification, std::uint64_t order) {
    if (listed_.size() == maximumListedNotifications) {
        listed_.pop_front();
    }
    listed_.push_back(Listed{notification, order});
}

void Phone::removeLocked(const std::string& apnsId) {
    std::erase_if(listed_,
                  [&](const Listed& listed) { return listed.notification.apnsId == apnsId; });
    if (banner_ && banner_->notification.apnsId == apnsId) {
        banner_.reset();
    }
}

std::string Phone::notificationCenterLine() const {
    std::string line = "{\"notificationCenter\":[";
    const std::lock_guard lock(mutex_);
    bool first = true;
    for (const auto& listed : listed_) {
        if (!first) {
            line.push_back(',');
        }
        first = false;
        line.append("{\"apnsId\":");
        platform::appendJSONString(line, platform::validUTF8(listed.notification.apnsId));
        line.append(",\"collapseId\":");
        if (listed.notification.collapseId) {
            platform::appendJSONString(line, platform::validUTF8(*listed.notification.collapseId));
        } else {
            line.append("null");
        }
        line.append(",\"payload\":");
        const auto payload = platform::JSONSerialization::data(
            platform::Value(*listed.notification.payload), platform::JSONWritingOptions{});
        line.append(payload ? *payload : std::string("null"));
        line.push_back('}');
    }
    line.append("]}");
    return line;
}

std::string Phone::platformLine() const {
    const auto& notifications = center();
    std::string line = "{\"platform\":{\"authorizationOptions\":";
    const auto options = notifications.lastAuthorizationOptions();
    if (options) {
        platform::appendJSONNumber(line, static_cast<std::uint64_t>(*options));
    } else {
        line.append("null");
    }
    line.append(",\"badgeCount\":");
    appendNumberOrNull(line, notifications.lastBadgeCount());
    line.append(",\"registrations\":");
    platform::appendJSONNumber(
        line, static_cast<std::uint64_t>(
                  platform::UIApplication::sharedApplication().mainThreadRegistrationCount()));
    line.append(",\"authorizationStatus\":");
    platform::appendJSONNumber(line, notifications.authorizationStatus());
    line.append(",\"app\":");
    platform::appendJSONString(line, platform::applicationStateName(applicationState()));
    line.append(",\"present\":");
    const auto presentation = application_.presentation();
    line.append(presentation ? presentation->json() : std::string("null"));
    line.append("}}");
    return line;
}

platform::RemoteNotificationReceiver::Taken Phone::take(
    const platform::IncomingRemoteNotification& notification) {
    if (!notification.collapseIdentifier) {
        return Taken::delivered;
    }
    const std::lock_guard lock(mutex_);
    const auto& collapseId = notification.collapseIdentifier;
    const bool listed = std::any_of(listed_.begin(), listed_.end(), [&](const Listed& listed) {
        return listed.notification.collapseId == collapseId;
    });
    const bool onBanner = banner_ && banner_->notification.collapseId == collapseId;
    return listed || onBanner ? Taken::replaced : Taken::delivered;
}

void Phone::present(platform::IncomingRemoteNotification&& notification) {
    // The payload is delivered as the provider API accepted it. Its road goes on without this
    // thread: the next notification can start while the plug-in still handles this one.
    // The content takes the payload over, and the payload is its user info: made once, for the
    // system and the application alike.
    auto content = std::make_shared<const platform::UNNotificationContent>(
        platform::remoteNotificationContent(std::move(notification.payload)));
    std::shared_ptr<const platform::Dictionary> payload(content, &content->userInfo);
    PushNotification push{std::move(notification.identifier),
                          std::move(notification.collapseIdentifier), std::move(payload),
                          std::move(content)};
    std::vector<std::shared_ptr<Road>> earlier;
    std::shared_ptr<Road> road;
    {
        const std::lock_guard lock(mutex_);
        // While a session command has the phone, or earlier notifications wait for it, this one
        // waits after them, without holding up the queue it came on. The holder itself (a device
        // coming online delivers what was kept) starts the waiting ones first, then this one.
        const bool holder = exclusive_ && exclusiveOwner_ == std::this_thread::get_id();
        if (!holder && (exclusive_ || !deferred_.empty())) {
            deferred_.push_back(Deferred{std::move(push), std::move(notification.presence)});
            return;
        }
        for (auto& waiting : deferred_) {
            earlier.push_back(admitLocked(std::move(waiting.notification), std::nullopt,
                                          std::nullopt, false, std::move(waiting.presence)));
        }
        deferred_.clear();
        road = admitLocked(std::move(push), std::nullopt, std::nullopt, false,
                           std::move(notification.presence));
    }
    // On the plug-in's queue (or the thread bringing the device online): the roads' calls never
    // wait for room on the bridge.
    for (const auto& started : earlier) {
        started->mayWait = false;
        run(started);
    }
    road->mayWait = false;
    run(road);
}

void Phone::requestHandled(const provider::ProviderRecord& record) {
    output_.writeBuiltLine([&](std::string& line) { appendProviderLine(line, record); });
}

void Phone::keptNotificationDelivered(std::string_view apnsId, provider::ProviderOutcome outcome) {
    output_.writeLine(providerDeliveryLine(apnsId, outcome));
}

}  // namespace nimborra::host
