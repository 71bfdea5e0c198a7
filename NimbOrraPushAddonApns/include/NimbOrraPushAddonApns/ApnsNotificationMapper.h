// Builds the ApnsNotification record from the two shapes in which the platform hands over a
// notification: the raw remote-notification payload (a dictionary with an "aps" member, as
// received at launch or in the background) and a displayed notification's content (as received
// when a notification is about to be presented or has been opened). It also converts user-info
// dictionaries to and from the JSON text carried in `userInfoJson`.
//
// A namespace of pure functions: no instances, no state, callable from any thread at once. No
// function reports an error or throws: a missing or mistyped value becomes the empty text, 0,
// `unspecified` or 0.0; user-info that cannot be written as JSON becomes "{}"; text that cannot
// be read back becomes nothing. Nothing is logged.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/NotificationContent.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsNotification.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

struct NIMBORRA_APNS_EXPORT ApnsNotificationMapper {
    ApnsNotificationMapper() = delete;

    // Maps a remote-notification payload. Only these members of its "aps" dictionary are read:
    // "alert" (text: the body; dictionary: its "title", "subtitle" and "body"), "sound" (text,
    // or the "name" of the critical-alert sound dictionary), "badge" (any number or boolean,
    // its integer value saturated to the signed 32-bit range; anything else gives 0),
    // "category", "thread-id" and "target-content-id". A payload without an "aps" dictionary
    // still maps, to a record that is empty apart from `userInfoJson`. `launchImageName` is
    // always empty, `interruptionLevel` `unspecified` and `relevanceScore` 0: the payload is
    // not trusted for them. `userInfoJson` is encodeUserInfoJson of the whole payload, "aps"
    // included. Should memory run out, the result is the empty record with `userInfoJson` "{}".
    [[nodiscard]] static ApnsNotification map(const platform::Dictionary& remotePayload) noexcept;

    // Maps a displayed notification's content: its texts as they stand, the badge saturated to
    // the signed 32-bit range (0 when absent), `sound` always empty (the content's sound is not
    // passed on), an absent target content identifier as the empty text, the platform's
    // interruption levels 0 to 3 as `passive`, `active`, `timeSensitive` and `critical` (any
    // other value as `unspecified`), the relevance score unchanged and `userInfoJson` as
    // encodeUserInfoJson of the user info. Should memory run out, the result is the empty
    // record with `userInfoJson` "{}".
    [[nodiscard]] static ApnsNotification map(
        const platform::UNNotificationContent& content) noexcept;

    // The record that stands for "no notification": every text empty (`userInfoJson` too, not
    // "{}"), `badge` 0, `interruptionLevel` `unspecified`, `relevanceScore` 0.
    static ApnsNotification unset() noexcept;

    // The user info as compact JSON text with the members of every object in key order and "/"
    // written as "\/". Keys are taken by their plain description (a number key in decimal);
    // when two keys describe alike (the number 1 and the text "1"), the later entry wins. Gives
    // "{}" when any value at any depth is not JSON (byte data, dates, non-finite numbers,
    // non-text keys below the top level), when the text would not be valid UTF-8, or when
    // memory runs out: one bad value empties the whole text.
    [[nodiscard]] static std::string encodeUserInfoJson(
        const platform::Dictionary& userInfo) noexcept;

    // Reads user info back from JSON text. Gives nothing for the empty text, invalid UTF-8, text
    // that is not strict JSON, a top level that is not an object and an object without members
    // (so the "{}" written on failure reads back as nothing), and when memory runs out.
    [[nodiscard]] static std::optional<platform::Dictionary> decodeUserInfoJson(
        std::string_view text) noexcept;
};

}  // namespace nimborra::apns
