#include <gtest/gtest.h>

#include <cmath>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsServiceResults.h"

namespace nimborra::apns {
namespace {

using core::CodingErrorKind;
using core::OrraJSONCoding;

template <class T>
std::string encode(const T& value) {
    auto encoded = OrraJSONCoding::makeEncoder().encode(value);
    EXPECT_TRUE(encoded.ok()) << encoded.error().description();
    return encoded.ok() ? encoded.value() : std::string();
}

template <class T>
core::CodingResult<T> decode(std::string_view text) {
    return OrraJSONCoding::makeDecoder().decode<T>(text);
}

ApnsNotification fullNotification() {
    return ApnsNotification{"Title",
                            "Sub",
                            "Body \"quoted\"",
                            -1,
                            "default",
                            "cat",
                            "thread",
                            "launch.png",
                            "target",
                            UNNotificationInterruptionLevel::timeSensitive,
                            0.25,
                            R"({"aps":{"alert":"hi"},"url":"a/b"})"};
}

constexpr const char* kEmptyNotificationJSON =
    R"({"title":"","subtitle":"","body":"","badge":0,"sound":"","categoryIdentifier":"",)"
    R"("threadIdentifier":"","launchImageName":"","targetContentIdentifier":"",)"
    R"("interruptionLevel":0,"relevanceScore":0,"userInfoJson":""})";

TEST(ApnsNotification, EmptyRecordWritesAllTwelveKeys) {
    EXPECT_EQ(encode(ApnsNotification{}), kEmptyNotificationJSON);
}

TEST(ApnsNotification, RoundTripsWithUserInfoAsEscapedText) {
    const std::string json = encode(fullNotification());
    EXPECT_NE(json.find(R"("userInfoJson":"{\"aps\":{\"alert\":\"hi\"},\"url\":\"a\/b\"}")"),
              std::string::npos)
        << json;
    auto decoded = decode<ApnsNotification>(json);
    ASSERT_TRUE(decoded.ok()) << decoded.error().description();
    EXPECT_EQ(decoded.value(), fullNotification());
}

TEST(ApnsNotification, DecodingRules) {
    std::string json = kEmptyNotificationJSON;
    auto with = [&](const std::string& from, const std::string& to) {
        std::string copy = json;
        return copy.replace(copy.find(from), from.size(), to);
    };
    EXPECT_EQ(decode<ApnsNotification>(with("\"interruptionLevel\":0", "\"interruptionLevel\":9"))
                  .value()
                  .interruptionLevel,
              UNNotificationInterruptionLevel::unspecified);
    EXPECT_EQ(decode<ApnsNotification>(with("\"badge\":0", "\"badge\":-1")).value().badge, -1);

    auto missingScore = decode<ApnsNotification>(with(",\"relevanceScore\":0", ""));
    ASSERT_FALSE(missingScore.ok());
    EXPECT_EQ(missingScore.error().kind(), CodingErrorKind::keyNotFound);
    auto levelAsText = decode<ApnsNotification>(
        with("\"interruptionLevel\":0", "\"interruptionLevel\":\"active\""));
    ASSERT_FALSE(levelAsText.ok());
    EXPECT_EQ(levelAsText.error().kind(), CodingErrorKind::typeMismatch);
    EXPECT_FALSE(decode<ApnsNotification>(with("\"badge\":0", "\"badge\":0.5")).ok());
}

TEST(WireEnumerations, EncodeAsIntegersAndDecodeLeniently) {
    EXPECT_EQ(encode(APNSServiceRequestAuthorizationRequest{
                  {UNAuthorizationOption::provisional, UNAuthorizationOption::unspecified}}),
              R"({"options":[7,0]})");
    EXPECT_EQ(encode(APNSServiceNotifyWillPresentNotificationResponse{
                  {UNNotificationPresentationOption::banner}}),
              R"({"presentationOptions":[4]})");

    struct StatusCase {
        const char* raw;
        UNAuthorizationStatus expected;
    };
    for (const auto& [raw, expected] : {StatusCase{"3", UNAuthorizationStatus::authorized},
                                        StatusCase{"6", UNAuthorizationStatus::unspecified},
                                        StatusCase{"1000", UNAuthorizationStatus::unspecified},
                                        StatusCase{"-1", UNAuthorizationStatus::unspecified}}) {
        auto decoded = decode<APNSServiceGetNotificationSettingsResponse>(
            std::string(R"({"authorizationStatus":)") + raw + "}");
        ASSERT_TRUE(decoded.ok()) << raw;
        EXPECT_EQ(decoded.value().authorizationStatus, expected) << raw;
    }
    EXPECT_EQ(decode<APNSServiceGetProviderEnvironmentResponse>(R"({"environment":2})")
                  .value()
                  .environment,
              ProviderEnvironment::apnsSandbox);
    EXPECT_EQ(decode<APNSServiceGetProviderEnvironmentResponse>(R"({"environment":0})")
                  .value()
                  .environment,
              ProviderEnvironment::unspecified);
    for (const char* bad : {R"({"environment":"apns"})", R"({"environment":"1"})",
                            R"({"environment":1.5})", R"({"environment":true})"}) {
        EXPECT_FALSE(decode<APNSServiceGetProviderEnvironmentResponse>(bad).ok()) << bad;
    }
    EXPECT_EQ(core::fromRawValue<UNNotificationInterruptionLevel>(5), std::nullopt);
    EXPECT_EQ(core::fromRawValue<UNNotificationInterruptionLevel>(4),
              UNNotificationInterruptionLevel::critical);
    EXPECT_EQ(core::fromRawValue<UNAuthorizationOption>(8), std::nullopt);
    EXPECT_EQ(core::fromRawValue<ProviderEnvironment>(3), std::nullopt);
}

TEST(MethodRecords, RequestsWithFieldsRequireThem) {
    auto badge = decode<APNSServiceSetBadgeCountRequest>(R"({"count":3,"extra":true})");
    ASSERT_TRUE(badge.ok());
    EXPECT_EQ(badge.value().count, 3);
    for (const char* bad :
         {"{}", R"({"count":2147483648})", R"({"count":1.5})", R"({"count":null})", "[]"}) {
        EXPECT_FALSE(decode<APNSServiceSetBadgeCountRequest>(bad).ok()) << bad;
    }
    EXPECT_EQ(decode<APNSServiceSetBadgeCountRequest>(R"({"count":-2147483648})").value().count,
              INT32_MIN);

    auto options = decode<APNSServiceRequestAuthorizationRequest>(R"({"options":[1,1,99]})");
    ASSERT_TRUE(options.ok());
    EXPECT_EQ(options.value().options,
              (std::vector{UNAuthorizationOption::badge, UNAuthorizationOption::badge,
                           UNAuthorizationOption::unspecified}));

    auto noNotification =
        decode<APNSServiceNotifyDidReceiveResponseRequest>(R"({"actionIdentifier":"open"})");
    ASSERT_FALSE(noNotification.ok());
    EXPECT_EQ(noNotification.error().description(),
              "keyNotFound at \"notification\": no value for key \"notification\"");
}

TEST(MethodRecords, ResponsesAlwaysWriteTheirFields) {
    EXPECT_EQ(encode(APNSServiceGetTokenResponse{}), R"({"token":""})");
    EXPECT_EQ(encode(APNSServiceRequestAuthorizationResponse{true}), R"({"granted":true})");
    EXPECT_EQ(encode(APNSServiceRequestAuthorizationResponse{false}), R"({"granted":false})");
    EXPECT_EQ(encode(APNSServiceNotifyWillPresentNotificationResponse{}),
              R"({"presentationOptions":[]})");
    EXPECT_EQ(encode(APNSServiceGetColdStartNotificationResponse{}),
              std::string(R"({"notification":)") + kEmptyNotificationJSON + "}");
}

TEST(MethodRecords, NonFiniteScoreFailsTheWholeEncoding) {
    ApnsNotification notification;
    notification.relevanceScore = std::nan("");
    auto encoded = OrraJSONCoding::makeEncoder().encode(
        APNSServiceGetColdStartNotificationResponse{notification});
    ASSERT_FALSE(encoded.ok());
    EXPECT_EQ(encoded.error().kind(), CodingErrorKind::invalidValue);
    EXPECT_EQ(encoded.error().codingPath(), "notification.relevanceScore");
}

}  // namespace
}  // namespace nimborra::apns
