#include "BenchFixtures.h"

#include <cstdio>
#include <cstdlib>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::bench {

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench fixtures: %s\n", what);
    std::abort();
}

}  // namespace

const std::string& remotePayloadText() {
    static const std::string text = R"({
  "aps": {
    "alert": {
      "title": "Your order has shipped",
      "subtitle": "Order #A-20240311-7781",
      "body": "Good news! Your package with 3 items left our warehouse in Rotterdam and is on its way. Expected delivery: Thursday between 09:00 and 13:00."
    },
    "sound": "chime.caf",
    "badge": 3,
    "category": "ORDER_SHIPPED",
    "thread-id": "orders/A-20240311-7781",
    "target-content-id": "order-detail/A-20240311-7781",
    "mutable-content": 1
  },
  "deep_link": "https://shop.example.com/orders/A-20240311-7781?utm_source=push&utm_medium=apns&utm_campaign=shipping",
  "image_url": "https://cdn.example.com/img/orders/A-20240311-7781/parcel@3x.png",
  "tracking": {
    "carrier": "PostNL",
    "number": "3SABCD0123456789",
    "url": "https://jouw.postnl.nl/track-and-trace/3SABCD0123456789-NL-1012AB",
    "events": [
      {"at": "2024-03-11T08:02:11Z", "status": "label_created"},
      {"at": "2024-03-11T14:47:53Z", "status": "handed_over"}
    ]
  },
  "message": {
    "id": "b6f1c0de-4a8e-4f43-9c1d-7d0c7e1f2a90",
    "sent_at": 1710168473,
    "priority": 10,
    "ttl": 86400.5,
    "experiment": {"name": "shipping_copy_v2", "variant": "B", "holdout": false}
  },
  "items": ["SKU-100234", "SKU-100871", "SKU-204450"],
  "locale": "nl-NL"
})";
    return text;
}

const platform::Dictionary& remotePayload() {
    static const platform::Dictionary payload = [] {
        auto parsed = platform::JSONSerialization::jsonObject(remotePayloadText());
        if (!parsed || parsed->dictionary() == nullptr) {
            fail("the remote payload does not parse");
        }
        return *parsed->dictionary();
    }();
    return payload;
}

const apns::ApnsNotification& fullNotification() {
    static const apns::ApnsNotification notification = [] {
        apns::ApnsNotification mapped = apns::ApnsNotificationMapper::map(remotePayload());
        if (mapped.title.empty() || mapped.userInfoJson.size() < 800) {
            fail("the remote payload did not map to a full notification");
        }
        mapped.launchImageName = "LaunchOrderShipped";
        mapped.interruptionLevel = apns::UNNotificationInterruptionLevel::timeSensitive;
        mapped.relevanceScore = 0.75;
        return mapped;
    }();
    return notification;
}

}  // namespace nimborra::bench
