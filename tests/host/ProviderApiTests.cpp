// apns-host's provider API driven by a real HTTP/2 client (libcurl; the asyncio APNs client is
// run in the private network of `apns-host -- COMMAND`), as a push server would drive it: every
// request is answered with APNs's status and reason, and what is accepted travels through the
// simulated system to the far side.

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CurlExchange.h"
#include "HostProcess.h"

namespace nimborra::testing {
namespace {

class ProviderApi : public ::testing::Test {
  protected:
    static std::filesystem::path certFile() { return temporaryFile("cert.pem"); }

    void SetUp() override {
        auto arguments = providerHostArguments();
        arguments.insert(arguments.end(),
                         {"--provider-api", "0", "--tls-cert-out", certFile().string()});
        host_ = std::make_unique<HostProcess>(arguments);
        const auto start = host_->readLine();
        ASSERT_TRUE(start && start->starts_with("{\"providerApi\":")) << host_->standardError();
        port_ = member(*start, "port");
        token_ = member(*start, "deviceToken");
        // The application registered at launch: the far side learns the token.
        const auto event = host_->readLine();
        ASSERT_TRUE(event);
        EXPECT_NE(event->find("APNSService.OnTokenRefreshed"), std::string::npos) << *event;
        EXPECT_NE(event->find(token_), std::string::npos) << *event;
        ASSERT_TRUE(host_->readLine());  // its reply
    }

    void TearDown() override {
        host_->signal(SIGTERM);
        EXPECT_EQ(host_->finish(), 0) << host_->standardError();
    }

    // Sends one request on `connection` (a new connection unless one is given).
    static HttpReply send(const HttpRequest& request, CURL* connection = nullptr) {
        const HttpReply reply = sendHttp2(request, connection);
        EXPECT_EQ(reply.code, CURLE_OK) << curl_easy_strerror(reply.code);
        return reply;
    }
    // A valid alert push to the device, over TLS with a fresh token.
    HttpRequest push(std::string body = R"({"aps":{"alert":"Hello"}})") {
        HttpRequest request;
        request.url = "https://localhost:" + port_ + "/3/device/" + token_;
        request.headers = {"apns-topic: " + kTopic, "authorization: bearer " + providerToken()};
        request.body = std::move(body);
        request.caFile = certFile().string();
        return request;
    }

    // Output lines up to and including the first that starts with `prefix`.
    std::vector<std::string> linesThrough(std::string_view prefix) {
        return host_->readLinesThrough([&](const auto& line) { return line.starts_with(prefix); });
    }
    // Runs session commands (lines without the last line break) and returns what they wrote,
    // once they have all run. The input stays open: a host that held its replies and events
    // until the end of its input would fail here (and in SetUp).
    std::vector<std::string> command(const std::string& lines) {
        host_->write(lines + "\n{\"inspect\":\"platform\"}\n");
        auto written = linesThrough("{\"platform\":");
        if (!written.empty()) {
            written.pop_back();
        }
        return written;
    }
    std::string providerLine() {
        const auto lines = linesThrough("{\"provider\":");
        return lines.empty() ? std::string() : lines.back();
    }

    std::unique_ptr<HostProcess> host_;
    std::string port_;
    std::string token_;
};

TEST_F(ProviderApi, RefusesWhatApnsRefusesWithItsStatusAndReason) {
    const auto other = provider::AuthKey::generate();
    const struct {
        const char* what;
        std::function<void(HttpRequest&)> change;
        long status;
        std::string reason;
    } rows[] = {
        {"path", [](auto& r) { r.url.replace(r.url.find("/3/"), 10, "/3/devices/"); }, 404,
         "BadPath"},
        {"repeated topic", [](auto& r) { r.headers.push_back("apns-topic: " + kTopic); }, 400,
         "DuplicateHeaders"},
        {"apns-id", [](auto& r) { r.headers.push_back("apns-id: 123"); }, 400, "BadMessageId"},
        {"other key",
         [&](auto& r) { r.headers[1] = "authorization: bearer " + providerToken(0, other); }, 403,
         "InvalidProviderToken"},
        {"short token", [](auto& r) { r.url.resize(r.url.size() - 61); }, 400, "BadDeviceToken"},
        {"no topic", [](auto& r) { r.headers.erase(r.headers.begin()); }, 400, "MissingTopic"},
        {"push type", [](auto& r) { r.headers.push_back("apns-push-type: bogus"); }, 400,
         "InvalidPushType"},
        {"collapse-id",
         [](auto& r) { r.headers.push_back("apns-collapse-id: " + std::string(65, 'c')); }, 400,
         "BadCollapseId"},
        {"empty", [](auto& r) { r.body.clear(); }, 400, "PayloadEmpty"},
        {"4097 bytes, its apns-id in mixed case",
         [](auto& r) {
             r.body = R"({"aps":{"alert":")" + std::string(4097 - 20, 'x') + "\"}}";
             r.headers.push_back("apns-id: 8F1B5B6C-6d4a-4F6B-9B1E-2C3D4E5F6A7B");
         },
         413, "PayloadTooLarge"},
        // The profile's environment is development.
        {"production host", [](auto& r) { r.headers.push_back("host: api.push.apple.com"); }, 400,
         "BadDeviceToken"},
    };
    for (const auto& row : rows) {
        HttpRequest request = push();
        row.change(request);
        const HttpReply reply = send(request);
        EXPECT_EQ(reply.status, row.status) << row.what;
        EXPECT_EQ(reply.body, "{\"reason\":\"" + row.reason + "\"}") << row.what;
        EXPECT_EQ(reply.apnsId.size(), 36u) << row.what;
        for (const auto& header : request.headers) {
            if (header.starts_with("apns-id: ") && header.size() == 45) {
                EXPECT_EQ(reply.apnsId, header.substr(9)) << "echoed exactly as sent";
            }
        }
        const std::string line = providerLine();
        EXPECT_EQ(member(line, "reason"), row.reason) << row.what;
        EXPECT_EQ(member(line, "apnsId"), reply.apnsId) << row.what;
        EXPECT_FALSE(member(line, "explanation").empty()) << line;
    }

    // The largest payload is delivered, and an hour-old token still holds.
    HttpRequest largest = push(R"({"aps":{"alert":")" + std::string(4096 - 20, 'x') + "\"}}");
    largest.headers[1] = "authorization: bearer " + providerToken(3600);
    EXPECT_EQ(send(largest).status, 200);
}

TEST_F(ProviderApi, AcceptedPushReachesTheFarSideAsThePushCommandDoes) {
    const std::string payload = R"({"aps":{"alert":{"title":"Order","body":"Shipped"},"badge":3}})";
    HttpRequest request = push(payload);
    request.headers.push_back("apns-id: 8F1B5B6C-6D4A-4F6B-9B1E-2C3D4E5F6A7B");
    const HttpReply reply = send(request);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.apnsId, "8F1B5B6C-6D4A-4F6B-9B1E-2C3D4E5F6A7B");
    EXPECT_EQ(reply.body, "");
    auto lines = linesThrough("{\"system\":");
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(member(lines[0], "outcome"), "delivered") << lines[0];
    EXPECT_EQ(member(lines[0], "pushType"), "alert") << lines[0];

    // The push command with the same apns-id goes down the same road: the same lines.
    const HostRun pushed =
        runHost("{\"push\":" + payload + ",\"apnsId\":\"8F1B5B6C-6D4A-4F6B-9B1E-2C3D4E5F6A7B\"}\n",
                {"--status", "2"});
    EXPECT_EQ(std::vector(lines.begin() + 1, lines.end()), pushed.lines);
    // The far side's ids are its own: the application's calls took none.
    EXPECT_EQ(
        command("{\"call\":\"GetNotificationSettings\",\"id\":3}"),
        std::vector<std::string>{R"({"id":3,"reply":{"success":{"authorizationStatus":3}}})"});
}

TEST_F(ProviderApi, ANewTokenWithinTwentyMinutesOnOneConnectionIsRefused) {
    std::unique_ptr<CURL, void (*)(CURL*)> connection(curl_easy_init(), curl_easy_cleanup);
    HttpRequest first = push();
    first.headers[1] = "authorization: bearer " + providerToken(60);
    EXPECT_EQ(send(first, connection.get()).status, 200);
    // The same token again is fine; a new one is an update too soon.
    EXPECT_EQ(send(first, connection.get()).status, 200);
    const HttpReply second = send(push(), connection.get());
    EXPECT_EQ(second.status, 429);
    EXPECT_EQ(second.body, R"({"reason":"TooManyProviderTokenUpdates"})");
}

TEST_F(ProviderApi, UnregisteredAndOfflineDevicesAreTreatedAsApnsDoes) {
    command(R"({"platform":{"deviceRegistered":false}})");
    const HttpReply gone = send(push());
    EXPECT_EQ(gone.status, 410);
    EXPECT_TRUE(gone.body.starts_with(R"({"reason":"Unregistered","timestamp":)")) << gone.body;
    EXPECT_EQ(member(providerLine(), "outcome"), "refused");

    // Installed again: a new token, announced to the far side.
    const auto registered = command(R"({"platform":{"deviceRegistered":true}})");
    ASSERT_EQ(registered.size(), 2u);
    EXPECT_TRUE(registered[1].starts_with(R"({"app":"NotifyDidRegisterForRemoteNotifications")"))
        << registered[1];
    EXPECT_NE(registered[0].find("OnTokenRefreshed"), std::string::npos);
    const std::string oldToken = token_;
    token_ = member(registered[0], "newToken");
    EXPECT_NE(token_, oldToken);

    command(R"({"platform":{"deviceOnline":false}})");
    const auto later = std::to_string(std::time(nullptr) + 600);
    const struct {
        std::string expiration;
        std::string text;
        std::string outcome;
    } offline[] = {{"0", "never", "discarded"},
                   {later, "older", "kept while offline"},
                   {later, "newest", "kept while offline"}};
    for (const auto& row : offline) {
        HttpRequest request = push(R"({"aps":{"alert":")" + row.text + "\"}}");
        request.headers.push_back("apns-expiration: " + row.expiration);
        EXPECT_EQ(send(request).status, 200);
        EXPECT_EQ(member(providerLine(), "outcome"), row.outcome) << row.text;
    }
    // Online again: only the newest kept notification arrives, and is shown, before the next
    // command runs.
    const auto online = command(R"({"platform":{"app":"background","deviceOnline":true}})"
                                "\n{\"inspect\":\"notificationCenter\"}");
    ASSERT_GE(online.size(), 2u);
    EXPECT_TRUE(online.front().starts_with(R"({"providerDelivery":{"apnsId":)")) << online.front();
    EXPECT_EQ(member(online.front(), "outcome"), "delivered") << online.front();
    EXPECT_NE(online.back().find("newest"), std::string::npos) << online.back();
    EXPECT_EQ(online.back().find("older"), std::string::npos) << online.back();
    EXPECT_EQ(online.back().find("never"), std::string::npos) << online.back();
}

TEST_F(ProviderApi, CollapseIdReplacesTheListedNotification) {
    command(R"({"platform":{"app":"background"}})");
    std::string firstId;
    for (const char* body :
         {R"({"aps":{"alert":"Score 1-0"}})", R"({"aps":{"alert":"Score 2-0"}})"}) {
        HttpRequest request = push(body);
        request.headers.push_back("apns-collapse-id: score");
        const HttpReply reply = send(request);
        firstId = firstId.empty() ? reply.apnsId : firstId;
        EXPECT_EQ(member(providerLine(), "outcome"),
                  firstId == reply.apnsId ? "delivered" : "replaced");
        // The answer comes once the system has the notification, maybe before it is shown.
        linesThrough("{\"system\":");
    }
    // Only the notification in the replaced one's place is listed. (Tapping a listed
    // notification is the phone's, whatever brought it: the host's scripts test it.)
    const auto listed = command("{\"inspect\":\"notificationCenter\"}");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_NE(listed[0].find("Score 2-0"), std::string::npos) << listed[0];
    EXPECT_EQ(listed[0].find("Score 1-0"), std::string::npos) << listed[0];
}

}  // namespace
}  // namespace nimborra::testing
