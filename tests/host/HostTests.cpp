// apns-host run as a person would: commands on standard input (or a script), JSON Lines on
// standard output, log lines on standard error, and the exit status.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "HostProcess.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::testing {
namespace {

using platform::Value;

// A notification record as the far side sends it.
constexpr std::string_view kNotification =
    R"({"title":"Hi","subtitle":"","body":"Lunch?","badge":2,"sound":"","categoryIdentifier":"",)"
    R"("threadIdentifier":"t-1","launchImageName":"","targetContentIdentifier":"",)"
    R"("interruptionLevel":1,"relevanceScore":0,"userInfoJson":"{}"})";

Value parse(std::string_view text) {
    auto value = platform::JSONSerialization::jsonObject(text);
    EXPECT_TRUE(value.has_value()) << "not a JSON object: " << text;
    return value ? *value : Value();
}

// The text at `path` inside `object`; "<none>" when there is none.
std::string member(const Value& object, std::initializer_list<std::string_view> path) {
    const Value* inner = &object;
    for (const auto name : path) {
        inner = inner != nullptr ? inner->find(std::string(name)) : nullptr;
    }
    return inner != nullptr && inner->text() != nullptr ? *inner->text() : "<none>";
}

std::string callLine(std::string_view method, std::string_view payloadMember = {}) {
    return "{\"call\":\"" + std::string(method) + "\"" + std::string(payloadMember) + "}";
}

// The reply with `id`, parsed; null when there is none. Every line must be a JSON object.
Value reply(const HostRun& result, std::int64_t id) {
    for (const auto& line : result.lines) {
        const Value parsed = parse(line);
        if (parsed.find("reply") != nullptr && parsed.find("id") != nullptr &&
            *parsed.find("id") == Value(id)) {
            return *parsed.find("reply");
        }
    }
    ADD_FAILURE() << "no reply with id " << id;
    return Value();
}

// The committed sample bundle: a development provisioning profile.
std::string sampleBundle() {
    return (std::filesystem::path(NIMBORRA_SOURCE_DIR) / "examples" / "bundle").string();
}

class HostTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(scratch_.data()), nullptr); }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(scratch_, ignored);
    }

    // A directory of the test's own, empty at first.
    std::string scratch_ = std::filesystem::temp_directory_path() / "apns-host-test-XXXXXX";
};

TEST_F(HostTest, CallsPassTheirPayloadAndAreAnsweredUnderTheirId) {
    const struct {
        std::string line;
        std::int64_t id;    // 0: refused
        std::string reply;  // the reply, or just the error code
    } rows[] = {
        {R"({"call":"SetBadgeCount","payload":{"count":1},"id":42})", 42, R"({"success":{}})"},
        {callLine("GetNotificationSettings"), 2, R"({"success":{"authorizationStatus":1}})"},
        {R"({"call":5})", 0, ""},
        {R"({"callSync":"GetToken"})", 3,
         R"({"error":{"code":"INTERNAL","message":"Plugin ApnsService has no SYNC methods"}})"},
        // A string payload is passed as it stands, any other JSON value as its compact text,
        // and a missing one as {}, which lacks the count.
        {callLine("RequestAuthorization", R"(,"payload":"{\"options\":[1,2]}")"), 4,
         R"({"success":{"granted":true}})"},
        {callLine("SetBadgeCount", R"(,"payload":7)"), 5, "INTERNAL"},
        {callLine("SetBadgeCount"), 6, "INTERNAL"},
        // The method name is passed unchanged.
        {R"({"call":"getToken","id":-7})", -7,
         R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: getToken"}})"},
    };
    std::string input;
    for (const auto& row : rows) {
        input += row.line + "\n";
    }
    const HostRun result = runHost(input);
    EXPECT_EQ(result.status, 1);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        if (row.reply.starts_with("{")) {
            EXPECT_EQ(reply(result, row.id), parse(row.reply));
        } else if (row.id != 0) {
            EXPECT_EQ(member(reply(result, row.id), {"error", "code"}), row.reply);
        }
    }
}

TEST_F(HostTest, EventsAreWrittenBeforeTheReplyOfTheCallThatEmitsThem) {
    const std::string notification(kNotification);
    const HostRun result = runHost(
        callLine("NotifyWillPresentNotification",
                 R"(,"payload":{"notification":)" + notification + "}") +
        "\n" +
        callLine("NotifyDidRegisterForRemoteNotifications",
                 R"(,"payload":{"deviceToken":"Chss"})") +
        "\n" +
        callLine("NotifyDidReceiveResponse", R"(,"payload":{"notification":)" + notification +
                                                 R"(,"actionIdentifier":"open"})"));
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.lines.size(), 6u);
    EXPECT_EQ(member(parse(result.lines[0]), {"event"}), "APNSService.OnNotificationPresented");
    EXPECT_EQ(result.lines[1], R"({"id":1,"reply":{"success":{"presentationOptions":[]}}})");
    // The payload text is spliced in as the plug-in emitted it.
    EXPECT_EQ(result.lines[2],
              R"({"event":"APNSService.OnTokenRefreshed","payload":{"newToken":"0a1b2c"}})");
    EXPECT_EQ(result.lines[3], R"({"id":2,"reply":{"success":{}}})");
    EXPECT_EQ(member(parse(result.lines[4]), {"event"}), "APNSService.OnNotificationOpened");
    EXPECT_EQ(result.lines[5], R"({"id":3,"reply":{"success":{}}})");
}

// Earlier calls are queued in front, so a launch that did not wait for them would be drained by
// the first GetColdStartNotification. Byte data and dates are not JSON, so the user info of a
// payload holding one is written as {}; an object that only resembles the special forms stays.
TEST_F(HostTest, LaunchWaitsForEveryEarlierCallAndIsDrainedOnce) {
    const std::string drain = callLine("GetColdStartNotification") + "\n";
    std::string input;
    for (int i = 0; i < 20; ++i) {
        input += callLine("GetNotificationSettings") + "\n";
    }
    const std::pair<std::string, std::string> launches[] = {
        {R"({"aps":{"alert":{"title":"Shipped"},"badge":3},"order":"A-1"})",
         R"({"aps":{"alert":{"title":"Shipped"},"badge":3},"order":"A-1"})"},
        {R"({"aps":{"alert":{"title":"a"}},"blob":{"$data":"AAE="}})", "{}"},
        {R"({"aps":{"alert":{"title":"b"}},"list":[1,{"$date":1700000000.5}]})", "{}"},
        {R"({"aps":{"alert":{"title":"c"}},"blob":{"$data":"AAE=","size":2}})",
         R"({"aps":{"alert":{"title":"c"}},"blob":{"$data":"AAE=","size":2}})"},
    };
    input += drain;
    for (const auto& [launch, userInfoJson] : launches) {
        input += "{\"launch\":" + launch + "}\n" + drain + drain;
    }
    const HostRun result = runHost(input);
    EXPECT_EQ(result.status, 0);
    const auto notification = [&](std::int64_t id, std::string_view name) {
        return member(reply(result, id), {"success", "notification", name});
    };
    EXPECT_EQ(notification(21, "title"), "");
    for (std::size_t index = 0; index < std::size(launches); ++index) {
        SCOPED_TRACE(launches[index].first);
        const auto id = static_cast<std::int64_t>(22 + 2 * index);
        EXPECT_EQ(parse(notification(id, "userInfoJson")), parse(launches[index].second));
        EXPECT_EQ(notification(id, "title"),
                  member(parse(launches[index].first), {"aps", "alert", "title"}));
        EXPECT_EQ(notification(id + 1, "title"), "") << "drained once";
    }
}

TEST_F(HostTest, PlatformChangesApplyToLaterCallsOnly) {
    const std::string authorize = callLine("RequestAuthorization", R"(,"payload":{"options":[3]})");
    const std::string badge = callLine("SetBadgeCount", R"(,"payload":{"count":1})");
    const std::string environment = callLine("GetProviderEnvironment");
    // Each line with the reply it gets; none for the platform changes.
    const std::pair<std::string, std::string> rows[] = {
        {callLine("GetNotificationSettings"), R"({"success":{"authorizationStatus":1}})"},
        {R"({"platform":{"authorizationStatus":2}})", ""},
        {callLine("GetNotificationSettings"), R"({"success":{"authorizationStatus":3}})"},
        {authorize, R"({"success":{"granted":true}})"},
        {R"({"platform":{"authorization":{"error":{"domain":"NSCocoaErrorDomain","code":3}}}})",
         ""},
        {authorize, R"({"error":{"code":"INTERNAL","message":"requestAuthorization failed.",)"
                    R"("externalCode":"NSCocoaErrorDomain:3"}})"},
        {R"({"platform":{"authorization":{"granted":false}}})", ""},
        {authorize, R"({"success":{"granted":false}})"},
        {R"({"platform":{"badgeError":{"domain":"UNErrorDomain","code":4}}})", ""},
        {badge, R"({"error":{"code":"INTERNAL","message":"setBadgeCount failed.",)"
                R"("externalCode":"UNErrorDomain:4"}})"},
        {R"({"platform":{"badgeError":null}})", ""},
        {badge, R"({"success":{}})"},
        // No profile: production; the sample bundle's profile: the sandbox.
        {environment, R"({"success":{"environment":1}})"},
        {"{\"platform\":{\"bundle\":\"" + sampleBundle() + "\"}}", ""},
        {environment, R"({"success":{"environment":2}})"},
        {R"({"inspect":"platform"})", ""},
    };
    std::string input;
    for (const auto& row : rows) {
        input += row.first + "\n";
    }
    const HostRun result = runHost(input, {"--bundle", scratch_});
    EXPECT_EQ(result.status, 0);
    std::int64_t id = 0;
    for (const auto& [line, expected] : rows) {
        if (!expected.empty()) {
            EXPECT_EQ(reply(result, ++id), parse(expected)) << line;
        }
    }
    // Inspect waits for every earlier call, so it comes last. Alert (4) and the badge.
    ASSERT_FALSE(result.lines.empty());
    EXPECT_EQ(result.lines.back(),
              R"({"platform":{"authorizationOptions":4,"badgeCount":1,"registrations":0}})");
}

TEST_F(HostTest, RefusedLinesAreReportedWithTheirNumberAndTheSessionGoesOn) {
    // Every line that is neither blank nor a comment is refused.
    const std::string refused = R"(# a comment and a blank line come first

not json
[1,2]
{}
{"callSync":null}
{"call":"GetToken","id":1.5}
{"call":"GetToken","paylod":{}}
{"launch":[]}
{"launch":{"aps":{"alert":"x"},"b":{"$data":"***"}}}
{"launch":{"a":{"$date":"yesterday"}}}
{"platform":{"authorization":{"granted":true,"error":{"domain":"d","code":1}}}}
{"platform":{"badgeError":{"domain":"d"}}}
{"platform":{"volume":11}}
# refused as a whole: the valid status is not applied either
{"platform":{"authorizationStatus":2,"bundle":3}}
{"inspect":"platform","extra":true}
)";
    const HostRun result = runHost(refused + callLine("GetNotificationSettings"));
    EXPECT_EQ(result.status, 1);
    std::size_t refusal = 0;
    std::size_t lineNumber = 0;
    std::istringstream lines(refused);
    for (std::string line; std::getline(lines, line);) {
        ++lineNumber;
        if (line.empty() || line.starts_with("#")) {
            continue;
        }
        SCOPED_TRACE(line);
        ASSERT_LT(refusal, result.lines.size());
        const Value refusalLine = parse(result.lines[refusal++]);
        EXPECT_EQ(refusalLine.find("line") ? *refusalLine.find("line") : Value(),
                  Value(lineNumber));
        EXPECT_NE(member(refusalLine, {"error"}), "<none>");
    }
    // Refused lines changed nothing and are not counted as calls.
    EXPECT_EQ(result.lines.size(), refusal + 1);
    EXPECT_EQ(result.lines.back(), R"({"id":1,"reply":{"success":{"authorizationStatus":1}}})");
}

TEST_F(HostTest, ExitStatusSaysWhetherEveryLineWasAccepted) {
    const std::string scriptFile = scratch_ + "/session.jsonl";
    std::ofstream(scriptFile) << "# settings\n" << callLine("GetNotificationSettings") << "\n";
    const std::string missing = scratch_ + "/no-such-script.jsonl";
    const struct {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::size_t lines;
    } rows[] = {
        {{}, "", 0, 0},
        {{}, "# only a comment\n\n   \n", 0, 0},
        // An error reply is an answer, not a refused line; cancelling writes nothing.
        {{}, callLine("GetToken") + "\n{\"cancel\":1}\n", 0, 1},
        // The last line needs no line break. Its debug line is not written at the default level.
        {{}, callLine("NotifyDidFailToRegister", R"(,"payload":{"errorDescription":"x"})"), 0, 1},
        {{}, "not json\n", 1, 1},
        // A script replaces standard input.
        {{"--script", scriptFile}, "not json\n", 0, 1},
        {{"--bogus"}, "", 2, 0},
        {{"extra-argument"}, "", 2, 0},
        {{"--log-level", "loud"}, "", 2, 0},
        {{"--script"}, "", 2, 0},
        {{"--script", missing}, "", 2, 0},
        {{"--script", scratch_}, "", 2, 0},
        {{"--demo", "--script", missing}, "", 2, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.arguments) + " <<< " + row.input);
        const HostRun result = runHost(row.input, row.arguments);
        EXPECT_EQ(result.status, row.status) << result.standardError;
        EXPECT_EQ(result.lines.size(), row.lines);
        EXPECT_EQ(result.standardError.find("debug ["), std::string::npos);
        if (row.status == 2) {
            EXPECT_NE(result.standardError.find("apns-host: "), std::string::npos);
        }
    }
}

TEST_F(HostTest, RepliesAndEventsAreWrittenAsTheyArriveNotAtTheEndOfInput) {
    HostProcess host({});
    ASSERT_TRUE(host.started());
    host.write(callLine("NotifyDidRegisterForRemoteNotifications",
                        R"(,"payload":{"deviceToken":"AP8Q"})") +
               "\n");
    EXPECT_EQ(host.readLine(),
              R"({"event":"APNSService.OnTokenRefreshed","payload":{"newToken":"00ff10"}})");
    EXPECT_EQ(host.readLine(), R"({"id":1,"reply":{"success":{}}})");
    host.write("{\"inspect\":\"platform\"}\n");
    EXPECT_EQ(host.readLine(),
              R"({"platform":{"authorizationOptions":null,"badgeCount":null,"registrations":0}})");
    EXPECT_EQ(host.finish(), 0);
    EXPECT_TRUE(host.remainingLines().empty());
}

TEST_F(HostTest, DemoCallsEveryMethodOnceAndExitsZero) {
    const HostRun result = runHost("", {"--demo", "--log-level=debug"});
    EXPECT_EQ(result.status, 0) << result.standardError;
    // One log line per record: the level, where it comes from, the message unchanged.
    EXPECT_NE(result.standardError.find("debug [com.nimborra.push.addon.apns:apns] APNs remote "
                                        "registration failed: no network\n"),
              std::string::npos)
        << result.standardError;

    // Follow the echoed commands to learn which id each method's call was given. Each command is
    // echoed only once the call before it has been answered.
    std::map<std::string, std::int64_t> idOfMethod;
    std::int64_t calls = 0;
    std::int64_t unanswered = 0;  // the call whose reply is still to come; 0: none
    std::vector<std::string> events;
    for (const auto& line : result.lines) {
        const Value parsed = parse(line);
        if (parsed.find("command") != nullptr || parsed.find("comment") != nullptr) {
            EXPECT_EQ(unanswered, 0) << "echoed before the reply: " << line;
        }
        if (const std::string method = member(parsed, {"command", "call"}); method != "<none>") {
            EXPECT_TRUE(idOfMethod.emplace(method, ++calls).second) << method << " called twice";
            unanswered = calls;
        } else if (member(parsed, {"command", "callSync"}) != "<none>") {
            ++calls;
        } else if (const std::string event = member(parsed, {"event"}); event != "<none>") {
            events.push_back(event);
        } else if (parsed.find("reply") && *parsed.find("id") == Value(unanswered)) {
            unanswered = 0;
        }
    }
    for (const char* method :
         {"GetToken", "GetProviderEnvironment", "GetColdStartNotification", "RequestAuthorization",
          "SetBadgeCount", "GetNotificationSettings", "NotifyDidRegisterForRemoteNotifications",
          "NotifyDidFailToRegister", "NotifyWillPresentNotification", "NotifyDidReceiveResponse",
          "NotifyColdStartNotification"}) {
        SCOPED_TRACE(method);
        ASSERT_EQ(idOfMethod.count(method), 1u);
        const Value answer = reply(result, idOfMethod[method]);
        EXPECT_TRUE(answer.find("success") != nullptr || answer.find("error") != nullptr);
    }
    // The sample bundle's profile is found: the sandbox environment.
    EXPECT_EQ(reply(result, idOfMethod["GetProviderEnvironment"]),
              parse(R"({"success":{"environment":2}})"));
    EXPECT_EQ(events, (std::vector<std::string>{"APNSService.OnTokenRefreshed",
                                                "APNSService.OnNotificationPresented",
                                                "APNSService.OnNotificationOpened"}));
}

}  // namespace
}  // namespace nimborra::testing
