#include "SimulatedDevice.h"

#include <algorithm>
#include <utility>

#include "NimbOrraPlatform/Text.h"
#include "ProviderLines.h"
#include "Session.h"

namespace nimborra::host {

SimulatedDevice::SimulatedDevice(Session& session, OutputWriter& output,
                                 platform::ApplicationState app)
    : session_(session), output_(output), app_(app) {}

platform::RemoteNotificationReceiver::Taken SimulatedDevice::take(
    const platform::IncomingRemoteNotification& notification) {
    if (!notification.collapseIdentifier) {
        return Taken::delivered;
    }
    const std::lock_guard lock(mutex_);
    const auto same = std::find_if(shown_.begin(), shown_.end(), [&](const auto& shown) {
        return shown.collapseIdentifier == notification.collapseIdentifier;
    });
    if (same == shown_.end()) {
        return Taken::delivered;
    }
    // The new notification takes the old one's place once the system shows it.
    shown_.erase(same);
    return Taken::replaced;
}

void SimulatedDevice::present(const platform::IncomingRemoteNotification& notification) {
    // Under the command lock: a command runs before or after the whole presentation, never
    // during it.
    const auto commandLock = session_.commandLock();
    const auto shown = session_.presentRemoteNotification(notification, applicationState());
    if (!shown) {
        return;
    }
    const std::lock_guard lock(mutex_);
    if (shown_.size() == maximumShownNotifications) {
        shown_.pop_front();
    }
    shown_.push_back(notification);
}

void SimulatedDevice::requestHandled(const provider::ProviderRecord& record) {
    output_.writeLine(providerLine(record));
}

void SimulatedDevice::keptNotificationDelivered(std::string_view apnsId,
                                                provider::ProviderOutcome outcome) {
    output_.writeLine(providerDeliveryLine(apnsId, outcome));
}

platform::ApplicationState SimulatedDevice::applicationState() const {
    const std::lock_guard lock(mutex_);
    return app_;
}

void SimulatedDevice::setApplicationState(platform::ApplicationState app) {
    const std::lock_guard lock(mutex_);
    app_ = app;
}

std::optional<platform::IncomingRemoteNotification> SimulatedDevice::takeShown(
    std::string_view identifier) {
    const std::lock_guard lock(mutex_);
    auto found = shown_.end();
    if (identifier == "latest") {
        found = shown_.empty() ? shown_.end() : std::prev(shown_.end());
    } else {
        // apns-ids are UUIDs: compared without regard to case, as servers write either.
        found = std::find_if(shown_.begin(), shown_.end(), [&](const auto& shown) {
            return platform::equalsIgnoringASCIICase(shown.identifier, identifier);
        });
    }
    if (found == shown_.end()) {
        return std::nullopt;
    }
    auto notification = std::move(*found);
    shown_.erase(found);
    return notification;
}

std::string SimulatedDevice::notificationCenterLine() const {
    const std::lock_guard lock(mutex_);
    return host::notificationCenterLine(shown_);
}

}  // namespace nimborra::host
