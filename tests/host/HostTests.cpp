// apns-host run as a person would: commands on standard input (or a script), JSON Lines on
// standard output, log lines on standard error, and the exit status.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <optional>
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

constexpr std::string_view kEmptyNotificationReply =
    R"({"success":{"notification":{"title":"","subtitle":"","body":"","badge":0,"sound":"",)"
    R"("categoryIdentifier":"","threadIdentifier":"","launchImageName":"",)"
    R"("targetContentIdentifier":"","interruptionLevel":0,"relevanceScore":0,"userInfoJson":""}}})";

Value parse(std::string_view text) {
    auto value = platform::JSONSerialization::jsonObject(text);
    EXPECT_TRUE(value.has_value()) << "not a JSON object: " << text;
    return value ? *value : Value();
}

std::string text(const Value* value) {
    return value != nullptr && value->text() != nullptr ? *value->text() : std::string("<none>");
}

// The lines of a script, each followed by a line break.
std::string script(std::initializer_list<std::string_view> lines) {
    std::string joined;
    for (const auto line : lines) {
        joined.append(line);
        joined.push_back('\n');
    }
    return joined;
}

std::string callLine(std::string_view method, std::string_view payloadMember = {}) {
    return "{\"call\":\"" + std::string(method) + "\"" + std::string(payloadMember) + "}";
}

// Runs the host and checks that everything on standard output is a JSON object per line.
HostRun run(std::string_view input, const std::vector<std::string>& arguments = {}) {
    HostRun result = runHost(input, arguments);
    for (const auto& line : result.lines) {
        EXPECT_NE(platform::JSONSerialization::jsonObject(line), std::nullopt)
            << "not a JSON line: " << line;
    }
    return result;
}

// The position of the reply line with `id`, or nothing.
std::optional<std::size_t> replyIndex(const HostRun& result, std::int64_t id) {
    for (std::size_t index = 0; index < result.lines.size(); ++index) {
        const Value line = parse(result.lines[index]);
        const Value* lineId = line.find("id");
        if (line.find("reply") != nullptr && lineId != nullptr && lineId->integer() != nullptr &&
            *lineId->integer() == id) {
            return index;
        }
    }
    return std::nullopt;
}

// The reply with `id`, parsed; null when there is none.
Value reply(const HostRun& result, std::int64_t id) {
    const auto index = replyIndex(result, id);
    EXPECT_TRUE(index.has_value()) << "no reply with id " << id;
    if (!index) {
        return Value();
    }
    return *parse(result.lines[*index]).find("reply");
}

// The notification inside a GetColdStartNotification reply.
Value coldStartNotification(const HostRun& result, std::int64_t id) {
    const Value answer = reply(result, id);
    const Value* notification =
        answer.find("success") ? answer.find("success")->find("notification") : nullptr;
    EXPECT_NE(notification, nullptr) << "no notification in reply " << id;
    return notification ? *notification : Value();
}

std::string member(const Value& object, std::string_view path1, std::string_view path2 = {}) {
    const Value* inner = object.find(std::string(path1));
    if (inner != nullptr && !path2.empty()) {
        inner = inner->find(std::string(path2));
    }
    return text(inner);
}

class HostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "apns-host-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        scratch_ = pattern;
        emptyBundle_ = scratch_ / "empty-bundle";
        std::filesystem::create_directory(emptyBundle_);
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(scratch_, ignored);
    }

    // The committed sample bundle: a development provisioning profile.
    static std::string sampleBundle() {
        return (std::filesystem::path(NIMBORRA_SOURCE_DIR) / "examples" / "bundle").string();
    }

    std::filesystem::path scratch_;
    std::filesystem::path emptyBundle_;
};

TEST_F(HostTest, EveryMethodIsCalledWithItsPayloadAndAnsweredUnderItsId) {
    enum class Check { exactText, sameJSON, errorCode };
    struct Row {
        std::string method;
        std::string payloadMember;  // appended to the call object; empty: no "payload"
        std::string expected;       // the reply text, or just the error code
        Check check;
    };
    const std::string notification(kNotification);
    const std::vector<Row> rows = {
        {"GetToken", "",
         R"({"error":{"code":"UNAVAILABLE","message":"APNs device tokens are not issued on the )"
         R"(simulator.","externalCode":"SIMULATOR_NO_APNS"}})",
         Check::sameJSON},
        {"GetProviderEnvironment", "", R"({"success":{"environment":2}})", Check::exactText},
        {"GetColdStartNotification", "", std::string(kEmptyNotificationReply), Check::exactText},
        // A string payload is passed as it stands.
        {"RequestAuthorization", R"(,"payload":"{\"options\":[1,2]}")",
         R"({"success":{"granted":true}})", Check::exactText},
        {"SetBadgeCount", R"(,"payload":{"count":2})", R"({"success":{}})", Check::exactText},
        {"GetNotificationSettings", "", R"({"success":{"authorizationStatus":1}})",
         Check::exactText},
        {"NotifyDidRegisterForRemoteNotifications", R"(,"payload":{"deviceToken":"ABA="})",
         R"({"success":{}})", Check::exactText},
        {"NotifyDidFailToRegister", R"(,"payload":{"errorDescription":"offline"})",
         R"({"success":{}})", Check::exactText},
        {"NotifyWillPresentNotification", R"(,"payload":{"notification":)" + notification + "}",
         R"({"success":{"presentationOptions":[]}})", Check::exactText},
        {"NotifyDidReceiveResponse",
         R"(,"payload":{"notification":)" + notification + R"(,"actionIdentifier":"open"})",
         R"({"success":{}})", Check::exactText},
        {"NotifyColdStartNotification", R"(,"payload":{"userInfoJson":"{\"aps\":{}}"})",
         R"({"success":{}})", Check::exactText},
        // The method name is passed unchanged.
        {"getToken", "",
         R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: getToken"}})",
         Check::sameJSON},
        // Without "payload" the plug-in receives {}, which lacks the count.
        {"SetBadgeCount", "", "INTERNAL", Check::errorCode},
        // Any other JSON value is passed as its compact JSON text.
        {"SetBadgeCount", R"(,"payload":7)", "INTERNAL", Check::errorCode},
        {"RequestAuthorization", R"(,"payload":"not json")", "INTERNAL", Check::errorCode},
    };
    std::string input;
    for (const auto& row : rows) {
        input += callLine(row.method, row.payloadMember) + "\n";
    }

    const HostRun result = run(input, {"--bundle", sampleBundle()});
    EXPECT_EQ(result.status, 0) << result.standardError;
    for (std::size_t index = 0; index < rows.size(); ++index) {
        const Row& row = rows[index];
        const auto id = static_cast<std::int64_t>(index + 1);
        SCOPED_TRACE(row.method + row.payloadMember);
        const auto line = replyIndex(result, id);
        ASSERT_TRUE(line.has_value());
        switch (row.check) {
            case Check::exactText:
                // The reply text is spliced into the line byte for byte.
                EXPECT_EQ(result.lines[*line],
                          "{\"id\":" + std::to_string(id) + ",\"reply\":" + row.expected + "}");
                break;
            case Check::sameJSON:
                EXPECT_EQ(reply(result, id), parse(row.expected));
                break;
            case Check::errorCode:
                EXPECT_EQ(member(reply(result, id), "error", "code"), row.expected);
                break;
        }
    }
}

TEST_F(HostTest, IdsDefaultToTheCountOfAcceptedCallsAndMayBeGiven) {
    const HostRun result = run(script({
        R"({"call":"SetBadgeCount","payload":{"count":1},"id":42})",
        R"({"call":"GetNotificationSettings"})",
        R"({"call":5})",  // refused: does not count
        R"({"callSync":"GetToken"})",
        R"({"call":"GetToken","id":-7})",
        R"({"call":"GetToken"})",
    }));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(reply(result, 42), parse(R"({"success":{}})"));
    EXPECT_EQ(reply(result, 2), parse(R"({"success":{"authorizationStatus":1}})"));
    // The plug-in has no synchronous methods.
    EXPECT_EQ(
        reply(result, 3),
        parse(
            R"({"error":{"code":"INTERNAL","message":"Plugin ApnsService has no SYNC methods"}})"));
    EXPECT_EQ(member(reply(result, -7), "error", "externalCode"), "SIMULATOR_NO_APNS");
    EXPECT_EQ(member(reply(result, 5), "error", "externalCode"), "SIMULATOR_NO_APNS");
}

TEST_F(HostTest, EventsAreWrittenBeforeTheReplyOfTheCallThatEmitsThem) {
    const std::string notification(kNotification);
    const HostRun result = run(script({
        callLine("NotifyWillPresentNotification",
                 R"(,"payload":{"notification":)" + notification + "}"),
        callLine("NotifyDidRegisterForRemoteNotifications", R"(,"payload":{"deviceToken":"Chss"})"),
        callLine("NotifyDidReceiveResponse", R"(,"payload":{"notification":)" + notification +
                                                 R"(,"actionIdentifier":"open"})"),
        callLine("GetToken"),
    }));
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.lines.size(), 7u);

    const Value presented = parse(result.lines[0]);
    EXPECT_EQ(member(presented, "event"), "APNSService.OnNotificationPresented");
    EXPECT_EQ(*presented.find("payload"), parse(notification));
    EXPECT_EQ(result.lines[1], R"({"id":1,"reply":{"success":{"presentationOptions":[]}}})");
    // The payload text is spliced in as the plug-in emitted it.
    EXPECT_EQ(result.lines[2],
              R"({"event":"APNSService.OnTokenRefreshed","payload":{"newToken":"0a1b2c"}})");
    EXPECT_EQ(result.lines[3], R"({"id":2,"reply":{"success":{}}})");
    const Value opened = parse(result.lines[4]);
    EXPECT_EQ(member(opened, "event"), "APNSService.OnNotificationOpened");
    EXPECT_EQ(member(opened, "payload", "actionIdentifier"), "open");
    EXPECT_EQ(*opened.find("payload")->find("notification"), parse(notification));
    EXPECT_EQ(result.lines[5], R"({"id":3,"reply":{"success":{}}})");
    EXPECT_EQ(replyIndex(result, 4), 6u);
}

// Earlier calls are queued in front, so a launch that did not wait for them would be drained by
// the first GetColdStartNotification.
TEST_F(HostTest, LaunchWaitsForEveryEarlierCall) {
    std::string input;
    for (int i = 0; i < 20; ++i) {
        input += callLine("GetNotificationSettings") + "\n";
    }
    input += script({
        callLine("GetColdStartNotification"),
        R"({"launch":{"aps":{"alert":{"title":"Shipped","body":"On its way"},"badge":3},"order":"A-1"}})",
        callLine("GetColdStartNotification"),
        callLine("GetColdStartNotification"),
    });
    const HostRun result = run(input);
    EXPECT_EQ(result.status, 0);

    EXPECT_EQ(member(coldStartNotification(result, 21), "title"), "");
    const Value launched = coldStartNotification(result, 22);
    EXPECT_EQ(member(launched, "title"), "Shipped");
    EXPECT_EQ(member(launched, "body"), "On its way");
    EXPECT_EQ(*launched.find("badge"), Value(3));
    EXPECT_EQ(
        parse(member(launched, "userInfoJson")),
        parse(
            R"({"aps":{"alert":{"body":"On its way","title":"Shipped"},"badge":3},"order":"A-1"})"));
    // Drained once.
    EXPECT_EQ(member(coldStartNotification(result, 23), "title"), "");
}

TEST_F(HostTest, LaunchPayloadsCarryByteDataAndDates) {
    struct Row {
        std::string launch;
        std::string userInfoJson;  // "{}" when a value is not JSON
    };
    // Byte data and dates are not JSON, so the user info of a payload holding one is written as
    // {}; an object that only resembles the special forms stays an object.
    const std::vector<Row> rows = {
        {R"({"aps":{"alert":"a"},"blob":{"$data":"AAE="}})", "{}"},
        {R"({"aps":{"alert":"b"},"at":{"$date":1700000000.5}})", "{}"},
        {R"({"aps":{"alert":"c"},"list":[1,{"$date":0}]})", "{}"},
        {R"({"aps":{"alert":"d"},"blob":{"$data":"AAE=","size":2}})",
         R"({"aps":{"alert":"d"},"blob":{"$data":"AAE=","size":2}})"},
    };
    std::string input;
    for (const auto& row : rows) {
        input += "{\"launch\":" + row.launch + "}\n" + callLine("GetColdStartNotification") + "\n";
    }
    const HostRun result = run(input);
    EXPECT_EQ(result.status, 0);
    for (std::size_t index = 0; index < rows.size(); ++index) {
        SCOPED_TRACE(rows[index].launch);
        const Value notification =
            coldStartNotification(result, static_cast<std::int64_t>(index + 1));
        EXPECT_EQ(member(notification, "body"), std::string(1, static_cast<char>('a' + index)));
        EXPECT_EQ(parse(member(notification, "userInfoJson")), parse(rows[index].userInfoJson));
    }
}

TEST_F(HostTest, PlatformChangesApplyToLaterCallsOnly) {
    const HostRun result = run(script({
        callLine("RequestAuthorization", R"(,"payload":{"options":[3]})"),
        R"({"platform":{"authorization":{"error":{"domain":"NSCocoaErrorDomain","code":3}}}})",
        callLine("RequestAuthorization", R"(,"payload":{"options":[3]})"),
        // "Not allowed" is reported as a refusal, not an error.
        R"({"platform":{"authorization":{"error":{"domain":"UNErrorDomain","code":1}}}})",
        callLine("RequestAuthorization", R"(,"payload":{"options":[3]})"),
        R"({"platform":{"authorization":{"granted":false}}})",
        callLine("RequestAuthorization", R"(,"payload":{"options":[3]})"),
        R"({"platform":{"authorization":{"granted":true}}})",
        callLine("RequestAuthorization", R"(,"payload":{"options":[3]})"),
    }));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(reply(result, 1), parse(R"({"success":{"granted":true}})"));
    EXPECT_EQ(reply(result, 2),
              parse(R"({"error":{"code":"INTERNAL","message":"requestAuthorization failed.",)"
                    R"("externalCode":"NSCocoaErrorDomain:3"}})"));
    EXPECT_EQ(reply(result, 3), parse(R"({"success":{"granted":false}})"));
    EXPECT_EQ(reply(result, 4), parse(R"({"success":{"granted":false}})"));
    EXPECT_EQ(reply(result, 5), parse(R"({"success":{"granted":true}})"));
}

TEST_F(HostTest, PlatformSetsSettingsBadgeErrorsAndTheBundle) {
    const HostRun result =
        run(script({
                callLine("GetNotificationSettings"),
                R"({"platform":{"authorizationStatus":2}})",
                callLine("GetNotificationSettings"),
                R"({"platform":{"authorizationStatus":7}})",
                callLine("GetNotificationSettings"),
                R"({"platform":{"badgeError":{"domain":"UNErrorDomain","code":4}}})",
                callLine("SetBadgeCount", R"(,"payload":{"count":1})"),
                R"({"platform":{"badgeError":null}})",
                callLine("SetBadgeCount", R"(,"payload":{"count":1})"),
                callLine("GetProviderEnvironment"),
                "{\"platform\":{\"bundle\":\"" + sampleBundle() + "\"}}",
                callLine("GetProviderEnvironment"),
            }),
            {"--bundle", emptyBundle_.string()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(reply(result, 1), parse(R"({"success":{"authorizationStatus":1}})"));
    EXPECT_EQ(reply(result, 2), parse(R"({"success":{"authorizationStatus":3}})"));
    EXPECT_EQ(reply(result, 3), parse(R"({"success":{"authorizationStatus":0}})"));
    EXPECT_EQ(reply(result, 4),
              parse(R"({"error":{"code":"INTERNAL","message":"setBadgeCount failed.",)"
                    R"("externalCode":"UNErrorDomain:4"}})"));
    EXPECT_EQ(reply(result, 5), parse(R"({"success":{}})"));
    // No profile: production; the sample bundle's profile: the sandbox.
    EXPECT_EQ(reply(result, 6), parse(R"({"success":{"environment":1}})"));
    EXPECT_EQ(reply(result, 7), parse(R"({"success":{"environment":2}})"));
}

TEST_F(HostTest, InspectWaitsForEveryEarlierCall) {
    const HostRun result = run(script({
        R"({"inspect":"platform"})",
        callLine("RequestAuthorization", R"(,"payload":{"options":[7,1]})"),
        callLine("SetBadgeCount", R"(,"payload":{"count":9})"),
        R"({"inspect":"platform"})",
    }));
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.lines.size(), 4u);
    EXPECT_EQ(result.lines[0],
              R"({"platform":{"authorizationOptions":null,"badgeCount":null,"registrations":0}})");
    EXPECT_EQ(result.lines[1], R"({"id":1,"reply":{"success":{"granted":true}}})");
    EXPECT_EQ(result.lines[2], R"({"id":2,"reply":{"success":{}}})");
    // Provisional (64) and badge (1).
    EXPECT_EQ(result.lines[3],
              R"({"platform":{"authorizationOptions":65,"badgeCount":9,"registrations":0}})");
}

TEST_F(HostTest, RefusedLinesAreReportedWithTheirNumberAndTheSessionGoesOn) {
    const std::vector<std::string> refused = {
        "not json",
        "[1,2]",
        R"("call")",
        "{}",
        R"({"call":"GetToken","launch":{}})",
        R"({"call":5})",
        R"({"callSync":null})",
        R"({"call":"GetToken","id":"7"})",
        R"({"call":"GetToken","id":1.5})",
        R"({"call":"GetToken","paylod":{}})",
        R"({"cancel":"x"})",
        R"({"launch":[]})",
        R"({"launch":{"aps":{"alert":"x"},"b":{"$data":"***"}}})",
        R"({"launch":{"a":{"$date":"yesterday"}}})",
        R"({"platform":[]})",
        R"({"platform":{"authorizationStatus":"2"}})",
        R"({"platform":{"authorization":{"granted":"yes"}}})",
        R"({"platform":{"authorization":{"granted":true,"error":{"domain":"d","code":1}}}})",
        R"({"platform":{"badgeError":{"domain":"d"}}})",
        R"({"platform":{"bundle":3}})",
        R"({"platform":{"volume":11}})",
        // Refused as a whole: the valid status is not applied either.
        R"({"platform":{"authorizationStatus":2,"bundle":3}})",
        R"({"inspect":"everything"})",
        R"({"inspect":"platform","extra":true})",
    };
    std::string input = "# a comment and a blank line come first\n\n";
    for (const auto& line : refused) {
        input += line + "\n";
    }
    input +=
        callLine("GetNotificationSettings") + "\n" + callLine("GetColdStartNotification") + "\n";

    const HostRun result = run(input);
    EXPECT_EQ(result.status, 1);
    ASSERT_EQ(result.lines.size(), refused.size() + 2);
    for (std::size_t index = 0; index < refused.size(); ++index) {
        SCOPED_TRACE(refused[index]);
        const Value line = parse(result.lines[index]);
        EXPECT_EQ(line.find("line") ? *line.find("line") : Value(), Value(index + 3));
        EXPECT_NE(member(line, "error"), "<none>");
        EXPECT_FALSE(member(line, "error").empty());
    }
    // Refused lines changed nothing and are not counted as calls.
    EXPECT_EQ(reply(result, 1), parse(R"({"success":{"authorizationStatus":1}})"));
    EXPECT_EQ(reply(result, 2), parse(kEmptyNotificationReply));
}

TEST_F(HostTest, ExitStatusSaysWhetherEveryLineWasAccepted) {
    const std::string directory = scratch_.string();
    const std::string missing = (scratch_ / "no-such-script.jsonl").string();
    struct Row {
        std::vector<std::string> arguments;
        std::string input;
        int status;
    };
    const std::vector<Row> rows = {
        {{}, "", 0},
        {{}, "# only a comment\n\n   \n", 0},
        // An error reply is an answer, not a refused line.
        {{}, callLine("GetToken") + "\n", 0},
        // The last line needs no line break.
        {{}, callLine("GetToken"), 0},
        {{}, "{\"cancel\":1}\nnot json\n", 1},
        {{"--bogus"}, "", 2},
        {{"extra-argument"}, "", 2},
        {{"--log-level", "loud"}, "", 2},
        {{"--script"}, "", 2},
        {{"--script", missing}, "", 2},
        {{"--script", directory}, "", 2},
        {{"--demo", "--script", missing}, "", 2},
    };
    for (const auto& row : rows) {
        std::string description;
        for (const auto& argument : row.arguments) {
            description += argument + " ";
        }
        SCOPED_TRACE(description + "<<< " + row.input);
        const HostRun result = run(row.input, row.arguments);
        EXPECT_EQ(result.status, row.status) << result.standardError;
        if (row.status == 2) {
            EXPECT_TRUE(result.lines.empty());
            EXPECT_NE(result.standardError.find("apns-host: "), std::string::npos);
        }
    }
}

TEST_F(HostTest, ScriptFileIsReadInsteadOfStandardInput) {
    const auto path = scratch_ / "session.jsonl";
    std::ofstream(path) << script({"# settings", callLine("GetNotificationSettings")});
    const HostRun result = run("this line is not read\n", {"--script", path.string()});
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.lines.size(), 1u);
    EXPECT_EQ(result.lines[0], R"({"id":1,"reply":{"success":{"authorizationStatus":1}}})");
}

TEST_F(HostTest, CancelWritesNothingAndTheCallIsStillAnswered) {
    const HostRun result =
        run(script({callLine("GetToken"), R"({"cancel":1})", R"({"cancel":-9})"}));
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.lines.size(), 1u);
    EXPECT_EQ(member(reply(result, 1), "error", "externalCode"), "SIMULATOR_NO_APNS");
}

TEST_F(HostTest, LogLinesGoToStandardErrorFromTheChosenLevel) {
    const std::string logged = "] APNs remote registration failed: no network";
    const std::string input =
        callLine("NotifyDidFailToRegister", R"(,"payload":{"errorDescription":"no network"})");
    struct Row {
        std::vector<std::string> arguments;
        bool debugLineWritten;
    };
    const std::vector<Row> rows = {
        {{}, false},
        {{"--log-level", "debug"}, true},
        {{"--log-level=debug"}, true},
        {{"--log-level", "info"}, false},
        {{"--log-level", "error"}, false},
        {{"--log-level", "off"}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments.empty() ? "default" : row.arguments.back());
        const HostRun result = run(input, row.arguments);
        EXPECT_EQ(result.status, 0);
        // One line per record: the level name first, the message unchanged at the end.
        bool found = false;
        std::size_t start = 0;
        const std::string& errors = result.standardError;
        while (start < errors.size()) {
            const std::size_t end = std::min(errors.find('\n', start), errors.size());
            const std::string line = errors.substr(start, end - start);
            if (line.size() >= logged.size() &&
                line.compare(line.size() - logged.size(), logged.size(), logged) == 0) {
                EXPECT_EQ(line.rfind("debug [", 0), 0u) << line;
                found = true;
            }
            start = end + 1;
        }
        EXPECT_EQ(found, row.debugLineWritten) << errors;
        ASSERT_EQ(result.lines.size(), 1u);
    }
}

TEST_F(HostTest, RepliesAndEventsAreWrittenAsTheyArriveNotAtTheEndOfInput) {
    HostProcess host({});
    ASSERT_TRUE(host.started());
    host.write(callLine("GetNotificationSettings") + "\n");
    EXPECT_EQ(host.readLine(), R"({"id":1,"reply":{"success":{"authorizationStatus":1}}})");

    host.write(callLine("NotifyDidRegisterForRemoteNotifications",
                        R"(,"payload":{"deviceToken":"AP8Q"})") +
               "\n");
    EXPECT_EQ(host.readLine(),
              R"({"event":"APNSService.OnTokenRefreshed","payload":{"newToken":"00ff10"}})");
    EXPECT_EQ(host.readLine(), R"({"id":2,"reply":{"success":{}}})");

    host.write("{\"inspect\":\"platform\"}\n");
    EXPECT_EQ(host.readLine(),
              R"({"platform":{"authorizationOptions":null,"badgeCount":null,"registrations":0}})");
    EXPECT_EQ(host.finish(), 0);
    EXPECT_TRUE(host.remainingLines().empty());
}

TEST_F(HostTest, EchoWritesEachCommandBeforeItsOutput) {
    const HostRun result = run(script({
                                   "# first the badge",
                                   R"({"call":"SetBadgeCount","payload":{"count":1}})",
                                   R"({"inspect":"platform"})",
                                   "oops",
                               }),
                               {"--echo"});
    EXPECT_EQ(result.status, 1);
    const std::vector<std::string> expected = {
        R"({"comment":"first the badge"})",
        R"({"command":{"call":"SetBadgeCount","payload":{"count":1}}})",
        R"({"id":1,"reply":{"success":{}}})",
        R"({"command":{"inspect":"platform"}})",
        R"({"platform":{"authorizationOptions":null,"badgeCount":1,"registrations":0}})",
        R"({"command":"oops"})",
        R"({"error":"not JSON: )",
    };
    ASSERT_EQ(result.lines.size(), expected.size());
    for (std::size_t index = 0; index + 1 < expected.size(); ++index) {
        EXPECT_EQ(result.lines[index], expected[index]);
    }
    EXPECT_EQ(result.lines.back().rfind(expected.back(), 0), 0u) << result.lines.back();
}

TEST_F(HostTest, DemoCallsEveryMethodOnceAndExitsZero) {
    const HostRun result = run("", {"--demo"});
    EXPECT_EQ(result.status, 0) << result.standardError;

    // Follow the echoed commands to learn which id each method's call was given.
    std::map<std::string, std::int64_t> idOfMethod;
    std::int64_t calls = 0;
    for (const auto& line : result.lines) {
        const Value parsed = parse(line);
        const Value* command = parsed.find("command");
        if (command == nullptr) {
            continue;
        }
        if (const Value* method = command->find("call")) {
            ++calls;
            EXPECT_EQ(idOfMethod.count(text(method)), 0u) << text(method) << " called twice";
            idOfMethod[text(method)] = calls;
        } else if (command->find("callSync") != nullptr) {
            ++calls;
        }
    }
    const std::vector<std::string> methods = {
        "GetToken",
        "GetProviderEnvironment",
        "GetColdStartNotification",
        "RequestAuthorization",
        "SetBadgeCount",
        "GetNotificationSettings",
        "NotifyDidRegisterForRemoteNotifications",
        "NotifyDidFailToRegister",
        "NotifyWillPresentNotification",
        "NotifyDidReceiveResponse",
        "NotifyColdStartNotification",
    };
    for (const auto& method : methods) {
        SCOPED_TRACE(method);
        ASSERT_EQ(idOfMethod.count(method), 1u);
        const Value answer = reply(result, idOfMethod[method]);
        EXPECT_TRUE(answer.find("success") != nullptr || answer.find("error") != nullptr);
    }
    // The sample bundle's profile is found: the sandbox environment.
    EXPECT_EQ(reply(result, idOfMethod["GetProviderEnvironment"]),
              parse(R"({"success":{"environment":2}})"));
    std::vector<std::string> events;
    for (const auto& line : result.lines) {
        const Value parsed = parse(line);
        if (const Value* event = parsed.find("event")) {
            events.push_back(text(event));
        }
    }
    EXPECT_EQ(events, (std::vector<std::string>{"APNSService.OnTokenRefreshed",
                                                "APNSService.OnNotificationPresented",
                                                "APNSService.OnNotificationOpened"}));
}

TEST_F(HostTest, HelpDescribesTheOptionsCommandsAndExitStatuses) {
    const HostRun result = runHost("", {"--help"});
    EXPECT_EQ(result.status, 0);
    std::string help;
    for (const auto& line : result.lines) {
        help += line + "\n";
    }
    for (const std::string_view word :
         {"--script", "--bundle", "--log-level", "--demo", "--echo", "\"call\"", "\"callSync\"",
          "\"cancel\"", "\"launch\"", "\"platform\"", "\"inspect\"", "$data", "$date",
          "Exit status"}) {
        EXPECT_NE(help.find(word), std::string::npos) << word;
    }
}

}  // namespace
}  // namespace nimborra::testing
