#include "NimbOrraPlatform/RemoteNotification.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace nimborra::platform {
namespace {

// Each state has one name, which reads back as that state; no other text (the empty one, another
// case) names a state.
TEST(ApplicationStateNames, RoundTripAndNothingElse) {
    for (const auto state : {ApplicationState::foreground, ApplicationState::background,
                             ApplicationState::notRunning}) {
        EXPECT_EQ(applicationStateNamed(applicationStateName(state)), state);
    }
    EXPECT_EQ(applicationStateName(ApplicationState::notRunning), "notRunning");
    for (const std::string_view other : {"", "Foreground", "not running", "background "}) {
        EXPECT_EQ(applicationStateNamed(other), std::nullopt) << other;
    }
}

// Only the four documented names set the interruption level; anything else, the empty text
// included, leaves the default (active). The sound is its name: a text, or a critical sound's
// "name"; anything else is no sound.
TEST(RemoteNotificationContent, InterruptionLevelsByNameOnlyAndSoundsByTheirName) {
    const auto content = [](const char* key, const Value& value) {
        return remoteNotificationContent(
            Dictionary{{"aps", Value(Dictionary{{"alert", Value("hi")}, {key, value}})}});
    };
    const std::pair<Value, std::int64_t> levels[] = {
        {Value("passive"), UNNotificationInterruptionLevelPassive},
        {Value("critical"), UNNotificationInterruptionLevelCritical},
        {Value(""), UNNotificationInterruptionLevelActive},
        {Value("Passive"), UNNotificationInterruptionLevelActive},
        {Value(0), UNNotificationInterruptionLevelActive},
    };
    for (const auto& [level, expected] : levels) {
        EXPECT_EQ(content("interruption-level", level).interruptionLevel, expected)
            << (level.text() ? *level.text() : "a number");
    }
    const std::pair<Value, std::optional<std::string>> sounds[] = {
        {Value("ping.caf"), "ping.caf"},
        {Value(Dictionary{{"critical", 1}, {"name", "siren.caf"}, {"volume", 0.5}}), "siren.caf"},
        {Value(Dictionary{{"critical", 1}, {"volume", 0.5}}), std::nullopt},
        {Value(Dictionary{{"name", 7}}), std::nullopt},
        {Value(true), std::nullopt},
    };
    for (const auto& [sound, expected] : sounds) {
        EXPECT_EQ(content("sound", sound).sound, expected) << expected.value_or("none");
    }
}

// A notification shows itself when its aps carries an alert, a badge or a sound, each alone;
// content-available alone, or keys outside aps, show nothing.
TEST(RemoteNotificationContent, VisibleByAlertBadgeOrSound) {
    for (const char* key : {"alert", "badge", "sound"}) {
        EXPECT_TRUE(isVisibleRemoteNotification(Dictionary{{"aps", Dictionary{{key, 1}}}})) << key;
        EXPECT_FALSE(isVisibleRemoteNotification(
            Dictionary{{key, 1}, {"aps", Dictionary{{"content-available", 1}}}}))
            << key;
    }
}

// A positional placeholder is read within the format alone, even when the text around the view
// goes on with more digits.
TEST(LocalizedFormat, PlaceholdersStayWithinTheFormat) {
    const Array arguments{Value("a"), Value("b")};
    EXPECT_EQ(localizedFormat("%2$@ %1$@ %@ %3$@ 100%%", &arguments), "b a a  100%");
    // Every digit counts in a position, 9 and 0 included, each worth ten times the next.
    Array twelve;
    for (int i = 1; i <= 12; ++i) {
        twelve.emplace_back(std::to_string(i));
    }
    EXPECT_EQ(localizedFormat("%9$@ %09$@ %12$@", &twelve), "9 9 12");
    const std::string_view longer = "%12$@";
    EXPECT_EQ(localizedFormat(longer.substr(0, 2), &arguments), "%1");
    EXPECT_EQ(localizedFormat(longer.substr(0, 3), &arguments), "%12");
}

}  // namespace
}  // namespace nimborra::platform
