// The remote-payload mapping on arbitrary JSON objects, and the user-info coding on arbitrary
// text. The input is read as JSON; when it is an object, it is mapped. Independently, the raw
// input is decoded as user info. Checked beyond the sanitizers:
// - a mapped payload's userInfoJson reads back (decodeUserInfoJson) to the payload itself, or is
//   "{}" for the empty payload;
// - user info that decodes writes back (encodeUserInfoJson) to a text that decodes to the same
//   dictionary;
// - the mapped texts are the payload's own when they are text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace {

using nimborra::apns::ApnsNotificationMapper;
using nimborra::platform::Dictionary;
using nimborra::platform::JSONSerialization;
using nimborra::platform::Value;

[[noreturn]] void fail(const char* what, std::string_view text) {
    std::fprintf(stderr, "notification_mapper: %s: %.*s\n", what, static_cast<int>(text.size()),
                 text.data());
    std::abort();
}

// The text member of the "aps" dictionary under `key`, or the empty text.
std::string apsText(const Dictionary& payload, const char* key) {
    const Value* aps = payload.find("aps");
    const Value* member = aps != nullptr ? aps->find(key) : nullptr;
    const std::string* text = member != nullptr ? member->text() : nullptr;
    return text != nullptr ? *text : std::string();
}

void checkMapping(const Dictionary& payload, std::string_view input) {
    const auto notification = ApnsNotificationMapper::map(payload);
    if (payload.empty()) {
        if (notification.userInfoJson != "{}") {
            fail("the empty payload's user info is not {}", input);
        }
    } else {
        const auto userInfo = ApnsNotificationMapper::decodeUserInfoJson(notification.userInfoJson);
        if (!userInfo || !(*userInfo == payload)) {
            fail("the user info does not read back to the payload", input);
        }
    }
    if (notification.categoryIdentifier != apsText(payload, "category") ||
        notification.threadIdentifier != apsText(payload, "thread-id") ||
        notification.targetContentIdentifier != apsText(payload, "target-content-id")) {
        fail("an aps text member was not taken as it is", input);
    }
    if (!notification.launchImageName.empty() || notification.relevanceScore != 0) {
        fail("a member that is never taken from a payload was set", input);
    }
}

void checkUserInfo(std::string_view input) {
    const auto userInfo = ApnsNotificationMapper::decodeUserInfoJson(input);
    if (!userInfo) {
        return;
    }
    const std::string encoded = ApnsNotificationMapper::encodeUserInfoJson(*userInfo);
    const auto decoded = ApnsNotificationMapper::decodeUserInfoJson(encoded);
    if (!decoded || !(*decoded == *userInfo)) {
        fail("decoded user info does not survive encoding", input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (const auto parsed = JSONSerialization::jsonObject(input)) {
        if (const Dictionary* payload = parsed->dictionary()) {
            checkMapping(*payload, input);
        }
    }
    checkUserInfo(input);
    return 0;
}
