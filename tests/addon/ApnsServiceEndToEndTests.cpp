// The plug-in driven the way a host drives it: register through the exported entry point, find
// "ApnsService" on the bridge, subscribe to its events, program the stand-in platform and call
// methods by name with JSON payloads, from one thread or many at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/PropertyListSerialization.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"
#include "support/SignedProfile.h"
#include "support/TestSupport.h"

namespace nimborra::apns {
namespace {

using platform::LogLevel;
using platform::LogRecord;
using platform::NSError;
using platform::UNUserNotificationCenter;

constexpr auto kTimeout = std::chrono::seconds(30);

using Event = std::pair<std::string, std::string>;  // name and payload

class ApnsServiceEndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        center().reset();
        platform::UIApplication::sharedApplication().reset();
        (void)ApnsColdStartBuffer::shared()->drain();
        registerPlugin();
    }

    // Registers the plug-in on a fresh bridge and records every event it emits.
    void registerPlugin() {
        core::OrraBridgeDispatcher::shared().resetForTesting();
        ::Nimb_Orra_ApnsService_Register();
        plugin_ = core::OrraBridgeDispatcher::shared().plugin("ApnsService");
        ASSERT_NE(plugin_, nullptr);
        core::OrraBridgeDispatcher::shared().subscribe(
            [this](const std::string& name, const std::string& payload) {
                std::lock_guard lock(mutex_);
                events_.emplace_back(name, payload);
            });
    }

    void TearDown() override {
        center().setHoldsAnswers(false);
        // Wait until the plug-in's last work item has let go of it, so that nothing is left
        // running when the test program exits.
        std::weak_ptr<ApnsServiceNativeAdapter> weak;
        if (auto plugin = std::dynamic_pointer_cast<ApnsServicePlugin>(plugin_)) {
            weak = plugin->adapter();
        }
        plugin_.reset();
        core::OrraBridgeDispatcher::shared().resetForTesting();
        for (int i = 0; i < 10000 && !weak.expired(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(weak.expired());
        center().reset();
    }

    static UNUserNotificationCenter& center() {
        return UNUserNotificationCenter::currentNotificationCenter();
    }

    std::future<std::string> callAsync(std::string method, std::string payload) {
        auto reply = std::make_shared<std::promise<std::string>>();
        plugin_->callAsync(std::move(method), std::move(payload),
                           [reply](std::string text) { reply->set_value(std::move(text)); });
        return reply->get_future();
    }

    // The reply, or "no reply" after waiting long enough.
    std::string call(std::string method, std::string payload = "{}") {
        auto future = callAsync(std::move(method), std::move(payload));
        return future.wait_for(kTimeout) == std::future_status::ready ? future.get() : "no reply";
    }

    std::vector<Event> takeEvents() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

    void writeProfile(std::optional<std::string> environment) {
        const auto profile = testing::makeSignedProfile(testing::profilePlist(environment));
        ASSERT_TRUE(profile.has_value()) << "openssl is needed to sign test profiles";
        bundle_.writeProfile(*profile);
    }

    std::shared_ptr<core::OrraPlugin> plugin_;
    const testing::TemporaryBundle bundle_;
    std::mutex mutex_;
    std::vector<Event> events_;
};

constexpr const char* kSuccessEmpty = R"({"success":{}})";

// Names match exactly and are echoed as received; a payload that cannot be decoded is an
// internal error naming where decoding stopped; GetToken fails on the simulator whatever its
// payload, without registering. None of these reaches a platform service.
TEST_F(ApnsServiceEndToEnd, UnknownMethodsUndecodablePayloadsAndSimulatorTokensAreRefused) {
    for (const std::string method : {"gettoken", "GetToken ", "", "GetToken\n", "Cancel"}) {
        EXPECT_EQ(call(method),
                  R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: )" +
                      (method == "GetToken\n" ? "GetToken\\n" : method) + "\"}}");
    }
    const std::tuple<const char*, const char*, std::string> undecodable[] = {
        {"GetToken", "not json", R"(dataCorrupted at the top level: the data is not valid JSON ()"},
        {"SetBadgeCount", "",
         R"x(dataCorrupted at the top level: the data is not valid JSON (the text is empty)"}})x"},
        {"NotifyDidReceiveResponse", R"({"actionIdentifier":"open"})",
         R"(keyNotFound at \"notification\": no value for key \"notification\""}})"}};
    for (const auto& [method, payload, message] : undecodable) {
        const std::string expected = R"({"error":{"code":"INTERNAL","message":")" + message;
        EXPECT_EQ(call(method, payload).substr(0, expected.size()), expected);
    }
    for (const char* payload : {"{}", "[]", "null", "\"x\"", R"({"token":"ab"})"}) {
        EXPECT_EQ(call("GetToken", payload),
                  R"({"error":{"code":"UNAVAILABLE","message":"APNs device tokens are not issued )"
                  R"(on the simulator.","externalCode":"SIMULATOR_NO_APNS"}})")
            << payload;
    }
    EXPECT_EQ(platform::UIApplication::sharedApplication().registrationCount(), 0u);
    EXPECT_EQ(center().badgeRequestCount(), 0u);
    EXPECT_FALSE(center().lastAuthorizationOptions().has_value());
    EXPECT_TRUE(takeEvents().empty());
}

TEST_F(ApnsServiceEndToEnd, ProviderEnvironmentComesFromTheProfile) {
    const std::string missing =
        R"({"error":{"code":"FAILED_PRECONDITION","message":"The aps-environment entitlement is )"
        R"(missing.","externalCode":"ENTITLEMENT_MISSING"}})";
    const std::string unrecognised =
        R"({"error":{"code":"INTERNAL","message":"Unrecognised aps-environment entitlement value."}})";
    EXPECT_EQ(call("GetProviderEnvironment"), R"({"success":{"environment":1}})") << "no profile";
    const std::pair<std::optional<std::string>, std::string> cases[] = {
        {"development", R"({"success":{"environment":2}})"},
        {"production", R"({"success":{"environment":1}})"},
        {std::nullopt, missing},
        {"Production", unrecognised},
        {"production ", unrecognised},
    };
    for (const auto& [environment, reply] : cases) {
        writeProfile(environment);
        EXPECT_EQ(call("GetProviderEnvironment"), reply) << environment.value_or("<none>");
    }
}

// A registered token is emitted as lower-case hex; a failed registration emits nothing and is
// logged at debug level.
TEST_F(ApnsServiceEndToEnd, TokensAreEmittedAndRegistrationFailuresLogged) {
    const std::pair<const char*, const char*> cases[] = {
        {"Chss", R"({"newToken":"0a1b2c"})"},
        {"AP8Q", R"({"newToken":"00ff10"})"},
        {"", R"({"newToken":""})"},
    };
    for (const auto& [base64, payload] : cases) {
        EXPECT_EQ(call("NotifyDidRegisterForRemoteNotifications",
                       std::string(R"({"deviceToken":")") + base64 + "\"}"),
                  kSuccessEmpty);
        EXPECT_EQ(takeEvents(), (std::vector<Event>{{"APNSService.OnTokenRefreshed", payload}}));
    }
    std::optional<platform::LogCapture> capture(std::in_place);
    EXPECT_EQ(call("NotifyDidFailToRegister", R"({"errorDescription":"no network"})"),
              kSuccessEmpty);
    EXPECT_EQ(call("NotifyDidFailToRegister", R"({"errorDescription":""})"), kSuccessEmpty);
    const auto records = capture->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], (LogRecord{LogLevel::debug, "com.nimborra.push.addon.apns", "apns",
                                     "APNs remote registration failed: no network"}));
    EXPECT_EQ(records[1].message, "APNs remote registration failed: ");
    capture.reset();
    EXPECT_EQ(platform::logLevel(), LogLevel::info) << "the capture gives the level back";
    EXPECT_TRUE(takeEvents().empty());
}

// Each wire option alone sets its own platform bit, so two options that swapped bits would show;
// 0 and numbers that name no option set none, and repeats add nothing.
TEST_F(ApnsServiceEndToEnd, AuthorizationOptionsAndAnswers) {
    const std::pair<const char*, std::uint64_t> cases[] = {
        {"[1]", 1},  {"[2]", 2}, {"[3]", 4}, {"[4]", 8}, {"[5]", 16},          {"[6]", 32},
        {"[7]", 64}, {"[0]", 0}, {"[8]", 0}, {"[]", 0},  {"[3,1,1,99,7]", 69},
    };
    for (const auto& [options, mask] : cases) {
        EXPECT_EQ(call("RequestAuthorization", std::string(R"({"options":)") + options + "}"),
                  R"({"success":{"granted":true}})");
        EXPECT_EQ(center().lastAuthorizationOptions(), mask) << options;
    }
    center().setAuthorizationAnswer(false);
    EXPECT_EQ(call("RequestAuthorization", R"({"options":[1]})"),
              R"({"success":{"granted":false}})");
    // Not allowed is an answer, logged; any other error fails the call.
    platform::LogCapture capture;
    center().setAuthorizationAnswer(true, NSError{"UNErrorDomain", 1});
    EXPECT_EQ(call("RequestAuthorization", R"({"options":[1]})"),
              R"({"success":{"granted":false}})");
    EXPECT_EQ(capture.records(),
              (std::vector<LogRecord>{{LogLevel::debug, "com.nimborra.push.addon.apns", "apns",
                                       "requestAuthorization: notifications not allowed for this "
                                       "app; reporting granted = false"}}));

    center().setAuthorizationAnswer(true, NSError{"X", -42});
    EXPECT_EQ(call("RequestAuthorization", R"({"options":[]})"),
              R"({"error":{"code":"INTERNAL","message":"requestAuthorization failed.",)"
              R"("externalCode":"X:-42"}})");
}

// Badge counts reach the platform unchanged; the platform's authorization status is mapped to
// the wire's, unknown ones to 0.
TEST_F(ApnsServiceEndToEnd, BadgeCountsAndSettingsPassThroughThePlatform) {
    for (const int count : {0, -5, 2147483647}) {
        EXPECT_EQ(call("SetBadgeCount", "{\"count\":" + std::to_string(count) + "}"),
                  kSuccessEmpty);
        EXPECT_EQ(center().lastBadgeCount(), count);
    }
    const std::pair<std::int64_t, int> cases[] = {{0, 1}, {1, 2}, {2, 3}, {3, 4},
                                                  {4, 5}, {5, 0}, {7, 0}, {-1, 0}};
    for (const auto& [platformStatus, wire] : cases) {
        center().setAuthorizationStatus(platformStatus);
        EXPECT_EQ(call("GetNotificationSettings"),
                  "{\"success\":{\"authorizationStatus\":" + std::to_string(wire) + "}}")
            << platformStatus;
    }
}

constexpr const char* kNotification =
    R"({"title":"Hi","subtitle":"","body":"a/b","badge":3,"sound":"default",)"
    R"("categoryIdentifier":"cat","threadIdentifier":"t","launchImageName":"",)"
    R"("targetContentIdentifier":"","interruptionLevel":2,"relevanceScore":0.5,)"
    R"("userInfoJson":"{\"k\":1}"})";
constexpr const char* kSortedNotification =
    R"({"badge":3,"body":"a\/b","categoryIdentifier":"cat","interruptionLevel":2,)"
    R"("launchImageName":"","relevanceScore":0.5,"sound":"default","subtitle":"",)"
    R"("targetContentIdentifier":"","threadIdentifier":"t","title":"Hi","userInfoJson":"{\"k\":1}"})";

const std::string kNotificationRequest = std::string(R"({"notification":)") + kNotification;

TEST_F(ApnsServiceEndToEnd, PresentedAndOpenedEvents) {
    EXPECT_EQ(call("NotifyWillPresentNotification", kNotificationRequest + "}"),
              R"({"success":{"presentationOptions":[]}})");
    std::vector<Event> expected{{"APNSService.OnNotificationPresented", kSortedNotification}};
    for (const std::string action : {"open", ""}) {
        EXPECT_EQ(call("NotifyDidReceiveResponse",
                       kNotificationRequest + R"(,"actionIdentifier":")" + action + "\"}"),
                  kSuccessEmpty);
        expected.emplace_back("APNSService.OnNotificationOpened",
                              R"({"actionIdentifier":")" + action + R"(","notification":)" +
                                  kSortedNotification + "}");
    }
    EXPECT_EQ(takeEvents(), expected);
}

std::string coldStart(std::string_view userInfoJson) {
    std::string payload = R"({"userInfoJson":)";
    platform::appendJSONString(payload, userInfoJson);
    return payload + "}";
}

TEST_F(ApnsServiceEndToEnd, ColdStartIsCapturedOnceAndDrainedOnce) {
    const std::string empty = call("GetColdStartNotification");
    EXPECT_EQ(empty,
              R"({"success":{"notification":{"title":"","subtitle":"","body":"","badge":0,)"
              R"("sound":"","categoryIdentifier":"","threadIdentifier":"","launchImageName":"",)"
              R"("targetContentIdentifier":"","interruptionLevel":0,"relevanceScore":0,)"
              R"("userInfoJson":""}}})");

    EXPECT_EQ(call("NotifyColdStartNotification",
                   coldStart(R"({"aps":{"alert":{"title":"A","body":"B"},"badge":2},"z":1})")),
              kSuccessEmpty);
    EXPECT_EQ(call("GetColdStartNotification"),
              R"({"success":{"notification":{"title":"A","subtitle":"","body":"B","badge":2,)"
              R"("sound":"","categoryIdentifier":"","threadIdentifier":"","launchImageName":"",)"
              R"("targetContentIdentifier":"","interruptionLevel":0,"relevanceScore":0,)"
              R"("userInfoJson":"{\"aps\":{\"alert\":{\"body\":\"B\",\"title\":\"A\"},)"
              R"(\"badge\":2},\"z\":1}"}}})");
    EXPECT_EQ(call("GetColdStartNotification"), empty) << "drained once";

    call("NotifyColdStartNotification", coldStart(R"({"aps":{"alert":"first"}})"));
    call("NotifyColdStartNotification", coldStart(R"({"aps":{"alert":"second"}})"));
    EXPECT_NE(call("GetColdStartNotification").find(R"("body":"second")"), std::string::npos);

    for (const char* unparsable :
         {"[1]", "3", "{}", " { } ", "", "not json", "\"{}\"", "{\"a\":1,}"}) {
        EXPECT_EQ(call("NotifyColdStartNotification", coldStart(unparsable)), kSuccessEmpty);
        EXPECT_EQ(call("GetColdStartNotification"), empty) << unparsable;
    }
    EXPECT_TRUE(takeEvents().empty());
}

// A call blocked in the platform holds up every call behind it. Resetting the platform answers
// the held call with what was programmed when it was asked (the badge error), and later calls
// get the defaults again (status 0, answered as 1), in order.
TEST_F(ApnsServiceEndToEnd, BlockedPlatformCallHoldsUpLaterCalls) {
    center().setHoldsAnswers(true);
    center().setBadgeError(NSError{"UNErrorDomain", 7});
    center().setAuthorizationAnswer(false, NSError{"UNErrorDomain", 3});
    center().setAuthorizationStatus(3);
    std::future<std::string> replies[] = {callAsync("SetBadgeCount", R"({"count":9})"),
                                          callAsync("GetToken", "{}"),
                                          callAsync("GetNotificationSettings", "{}")};
    // The badge request reaches the center; nothing is answered while it holds its answer.
    for (int i = 0; i < 3000 && center().heldAnswerCount() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(center().heldAnswerCount(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (auto& reply : replies) {
        EXPECT_EQ(reply.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    }
    center().reset();
    EXPECT_EQ(replies[0].get(), R"({"error":{"code":"INTERNAL","message":"setBadgeCount failed.",)"
                                R"("externalCode":"UNErrorDomain:7"}})");
    EXPECT_TRUE(replies[1].get().starts_with(R"({"error":{"code":"UNAVAILABLE")"));
    EXPECT_EQ(replies[2].get(), R"({"success":{"authorizationStatus":1}})");
    EXPECT_EQ(call("RequestAuthorization", R"({"options":[]})"), R"({"success":{"granted":true}})");
    EXPECT_FALSE(center().holdsAnswers());
}

// Every method, an unknown one and an undecodable payload: what each reply starts with, and how
// many events the call emits.
constexpr int kThreads = 8;
constexpr int kCallsPerThread = 5000;
const struct {
    const char* method;
    std::string payload;
    const char* replyPrefix;
    int events;
} kCalls[] = {
    {"GetToken", "{}", R"({"error":{"code":"UNAVAILABLE")", 0},
    {"GetProviderEnvironment", "{}", R"({"success":{"environment":1}})", 0},
    {"GetColdStartNotification", "{}", R"({"success":{"notification":)", 0},
    // Provisional: the status the center remembers stays the one the test sets.
    {"RequestAuthorization", R"({"options":[1,2,3,7]})", R"({"success":{"granted":true}})", 0},
    {"SetBadgeCount", R"({"count":3})", R"({"success":{}})", 0},
    {"GetNotificationSettings", "{}", R"({"success":{"authorizationStatus":4}})", 0},
    {"NotifyDidRegisterForRemoteNotifications", R"({"deviceToken":"AP8Q"})", R"({"success":{}})",
     1},
    {"NotifyDidFailToRegister", R"({"errorDescription":"x"})", R"({"success":{}})", 0},
    {"NotifyWillPresentNotification", kNotificationRequest + "}",
     R"({"success":{"presentationOptions":[]}})", 1},
    {"NotifyDidReceiveResponse", kNotificationRequest + R"(,"actionIdentifier":"a"})",
     R"({"success":{}})", 1},
    {"NoSuchMethod", "{}", R"({"error":{"code":"UNIMPLEMENTED")", 0},
    {"SetBadgeCount", "{", R"({"error":{"code":"INTERNAL")", 0},
};

// Many threads call every method at once, the stand-in center answering from its own thread; a
// launch notification captured before the plug-in was registered is drained afterwards, once.
TEST_F(ApnsServiceEndToEnd, ConcurrentCallersLoseAndDuplicateNothing) {
    plugin_.reset();
    core::OrraBridgeDispatcher::shared().resetForTesting();  // no plug-in exists
    ApnsColdStartBuffer::shared()->capture(
        platform::Dictionary{{"aps", platform::Value(platform::Dictionary{{"alert", "launch"}})}});
    registerPlugin();
    center().setAuthorizationStatus(3);
    constexpr long kTotal = long{kThreads} * kCallsPerThread;
    std::atomic<long> answered{0}, wrongReplies{0}, outOfOrder{0}, launchDrains{0};
    std::vector<std::atomic<int>> lastAnswered(kThreads);
    long expectedEvents = 0;
    std::promise<void> allAnswered;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        lastAnswered[t] = -1;
        for (int i = 0; i < kCallsPerThread; ++i) {
            expectedEvents += kCalls[(i + t) % std::size(kCalls)].events;
        }
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCallsPerThread; ++i) {
                const auto& row = kCalls[(i + t) % std::size(kCalls)];  // each starts elsewhere
                plugin_->callAsync(row.method, row.payload, [&, t, i](std::string reply) {
                    outOfOrder += lastAnswered[t].exchange(i) != i - 1;
                    wrongReplies += !reply.starts_with(row.replyPrefix);
                    launchDrains += reply.find(R"("body":"launch")") != std::string::npos;
                    if (++answered == kTotal) {
                        allAnswered.set_value();
                    }
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(allAnswered.get_future().wait_for(std::chrono::minutes(5)),
              std::future_status::ready);
    // Each thread's answers come one by one in submission order, so none is lost or repeated.
    EXPECT_EQ(outOfOrder.load(), 0) << "each thread's calls are answered once, in order";
    EXPECT_EQ(wrongReplies.load(), 0);
    EXPECT_EQ(launchDrains.load(), 1) << "the launch notification is drained once";
    EXPECT_EQ(takeEvents().size(), static_cast<std::size_t>(expectedEvents));
}

// Capturers and drainers race on one buffer; each capture carries a distinct id in its category
// and a body derived from it, so a torn or invented record shows. "Last capture wins" lets
// undrained captures vanish; what must hold is:
// - every drained record is one that was captured, whole, and no record is delivered twice;
// - a drainer sees each capturer's records in capture order;
// - the very last capture (the last one of some capturer) is delivered, by a drainer or to the
//   drain after everybody has finished, and after that the buffer is empty.
TEST(ApnsColdStartBuffer, ConcurrentCaptureAndDrainDeliverEachRecordAtMostOnce) {
    constexpr int kCapturers = 4;
    constexpr int kEach = 2000;
    ApnsColdStartBuffer buffer;
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::atomic<int> capturersRunning{kCapturers};
    std::vector<std::vector<ApnsNotification>> drainedBy(4);
    std::vector<std::thread> threads;
    for (auto& drained : drainedBy) {
        threads.emplace_back([&] {
            while (capturersRunning.load() > 0) {
                if (auto notification = buffer.drain()) {
                    drained.push_back(std::move(*notification));
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int c = 0; c < kCapturers; ++c) {
        threads.emplace_back([&, c] {
            for (int id = c * kEach; id < (c + 1) * kEach; ++id) {
                buffer.capture(platform::Dictionary{
                    {"aps", platform::Dictionary{{"category", std::to_string(id)},
                                                 {"alert", "body " + std::to_string(id)}}}});
            }
            --capturersRunning;
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    if (auto leftOver = buffer.drain()) {
        EXPECT_EQ(std::stoi(leftOver->categoryIdentifier) % kEach, kEach - 1)
            << "what stays pending must be a capturer's final capture";
        drainedBy.push_back({*leftOver});
    }
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::set<int> delivered;
    for (const auto& records : drainedBy) {
        std::vector<int> last(kCapturers, -1);
        for (const ApnsNotification& n : records) {
            EXPECT_EQ(n.body, "body " + n.categoryIdentifier) << "torn record";
            const int id = std::stoi(n.categoryIdentifier);
            EXPECT_TRUE(delivered.insert(id).second) << "record " << id << " delivered twice";
            EXPECT_GT(id, last[id / kEach]) << "out of capture order";
            last[id / kEach] = id;
        }
    }
    int finalCaptures = 0;
    for (int c = 1; c <= kCapturers; ++c) {
        finalCaptures += static_cast<int>(delivered.count(c * kEach - 1));
    }
    EXPECT_GE(finalCaptures, 1) << "the last capture made was lost";
}

TEST_F(ApnsServiceEndToEnd, RegistrationCallbackHopsToTheMainThread) {
    ASSERT_TRUE(platform::isMainThread()) << "tests run on the process's main thread";
    ApnsServiceNativeAdapterDefault adapter;
    EXPECT_TRUE(adapter.isSimulator());
    auto& application = platform::UIApplication::sharedApplication();
    platform::LogCapture capture;  // no report of a registration off the main thread
    std::thread([&] { adapter.registerForRemoteNotifications()(); }).join();
    EXPECT_EQ(application.registrationCount(), 0u) << "not before the main queue runs";
    EXPECT_TRUE(platform::DispatchQueue::runMainUntil(
        [&] { return application.registrationCount() == 1; }, kTimeout));
    EXPECT_EQ(application.mainThreadRegistrationCount(), 1u);
    EXPECT_TRUE(capture.records().empty());
    auto plugin = std::dynamic_pointer_cast<ApnsServicePlugin>(plugin_);
    EXPECT_EQ(plugin->queue().label(), "com.nimborra.apns_service.plugin");
    EXPECT_EQ(plugin->queue().qos(), platform::DispatchQoS::userInitiated);
}

namespace fs = std::filesystem;

class ApnsEntitlementReaderTest : public ::testing::Test {
  protected:
    std::optional<std::string> read() { return ApnsEntitlementReader().readApsEnvironment(); }

    const testing::TemporaryBundle bundle_;
    const fs::path& directory_ = bundle_.directory();
};

std::string plistWithEntitlements(std::string_view entitlementsBody) {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>Name</key><string>x</string><key>Entitlements</key><dict>)") +
           std::string(entitlementsBody) + "</dict></dict></plist>";
}

// No profile, or one that cannot be read, means production; a profile that is read but holds no
// usable entitlement answers nothing. The property list is found by a byte search.
TEST_F(ApnsEntitlementReaderTest, ProfilesAnswerTheStoredTextOrNothing) {
    EXPECT_EQ(read(), "production");
    fs::create_directory(directory_ / "embedded.mobileprovision");
    EXPECT_EQ(read(), "production") << "a directory cannot be read";
    fs::remove(directory_ / "embedded.mobileprovision");

    const std::string good =
        plistWithEntitlements("<key>aps-environment</key><string>development</string>");
    const std::pair<const char*, std::string> cases[] = {
        {"empty file", ""},
        {"no <plist", "binary garbage without the tag </plist>"},
        {"no </plist>", "<plist version=\"1.0\"><dict></dict>"},
        {"close before open", "</plist> junk " + good.substr(0, good.size() - 8)},
        {"array root", "<plist version=\"1.0\"><array><string>x</string></array></plist>"},
        {"no Entitlements", "<plist version=\"1.0\"><dict><key>a</key><true/></dict></plist>"},
        {"Entitlements not a dictionary",
         "<plist version=\"1.0\"><dict><key>Entitlements</key><string>x</string></dict></plist>"},
        {"no aps-environment", plistWithEntitlements("<key>get-task-allow</key><true/>")},
        {"number", plistWithEntitlements("<key>aps-environment</key><integer>1</integer>")},
        {"empty text", plistWithEntitlements("<key>aps-environment</key><string></string>")},
        {"malformed XML", good.substr(0, good.size() - 20) + "</plist>"},
    };
    for (const auto& [name, bytes] : cases) {
        bundle_.writeProfile(bytes);
        EXPECT_EQ(read(), std::nullopt) << name;
    }
    bundle_.writeProfile("\x01\x02 prefix bytes " + good + " trailing bytes");
    EXPECT_EQ(read(), "development");
}

// The profile is read no further than the property-list size limit.
TEST_F(ApnsEntitlementReaderTest, LargerProfilesAnswerNothingAfterReadingAtMostTheLimit) {
    constexpr std::size_t limit = platform::PropertyListSerialization::maximumLength;
    const std::string plist =
        plistWithEntitlements("<key>aps-environment</key><string>development</string>");
    const fs::path profile = directory_ / "embedded.mobileprovision";
    // The file's size (the property list first, then zero bytes), the answer and the bytes read.
    const std::tuple<std::uintmax_t, std::optional<std::string>, std::size_t> cases[] = {
        {plist.size(), "development", plist.size()},
        {limit, "development", limit},
        {limit + 1, std::nullopt, limit + 1},
        {std::uintmax_t{512} << 20, std::nullopt, limit + 1},  // sparse: costs no disk
    };
    for (const auto& [fileSize, answer, bytesRead] : cases) {
        SCOPED_TRACE(fileSize);
        bundle_.writeProfile(plist);
        fs::resize_file(profile, fileSize);
        EXPECT_EQ(read(), answer);
        const auto bytes = platform::Bundle::contentsOfFile(profile, limit);
        ASSERT_TRUE(bytes.has_value());
        EXPECT_EQ(bytes->size(), bytesRead);
    }
}

// Real profiles, signed (BER and DER), unsigned, binary and with odd base64: the expected
// answers come from the corpus's index.
TEST_F(ApnsEntitlementReaderTest, RealProfilesAnswerAsIndexed) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    const std::pair<const char*, std::optional<std::string>> expected[] = {
        {"ios-development-ber.mobileprovision", "development"},
        {"ios-development-der.mobileprovision", "development"},
        {"ios-adhoc.mobileprovision", "production"},
        {"ios-appstore.mobileprovision", "production"},
        {"ios-appstore-no-push.mobileprovision", std::nullopt},
        {"macos-development.provisionprofile", std::nullopt},
        {"unsigned-xml-doctype.mobileprovision", "production"},
        {"unsigned-binary-plist.mobileprovision", std::nullopt},
        {"enterprise-ber-odd-data.mobileprovision", "production"},
        {"unsigned-leading-byte-odd-data.mobileprovision", "production"},
    };
    for (const auto& [file, answer] : expected) {
        bundle_.writeProfile(testing::readFile(corpora / "provisioning-profiles" / file));
        EXPECT_EQ(read(), answer) << file;
    }
}

}  // namespace
}  // namespace nimborra::apns
