// Telemetry: synthetic ids, the JSON of each event kind, the POST requests
// and the start-session answer.
#include "Tovik/Telemetry.h"

#include <gtest/gtest.h>

#include <string>

#include "Support/LogCapture.h"

namespace {

using Tovik::Telemetry;
using Json = nlohmann::json;

Json parsed(const std::optional<Telemetry::Data>& data) {
    if (!data) return Json();
    return Json::parse(data->begin(), data->end());
}

Telemetry::Data bytes(std::string_view text) { return Telemetry::Data(text.begin(), text.end()); }

class TelemetryTest : public ::testing::Test {
protected:
    static Telemetry::UserAgent fixedAgent() {
        Telemetry::UserAgent agent;
        agent.device.model = "MacBookPro18,3";
        agent.os.platform = "arm";
        agent.os.version = "14.2.1";
        return agent;
    }
    static Telemetry::Props minimalProps() {
        Telemetry::Props props;
        props.appLocale = "de";
        props.systemLocale = "de-CH";
        return props;
    }
    // The parts every event shares, around the given extra members.
    static Json event(Json extra) {
        Json json = R"({"synthetic_id": "acbaaaaa", "app_type": "VPN_MAC", "version": "2.11.0",
                        "user_agent": {"device": {"brand": "Apple", "model": "MacBookPro18,3"},
                                       "os": {"name": "Mac", "platform": "arm", "version": "14.2.1"}},
                        "props": {"app_locale": "de", "system_locale": "de-CH"}})"_json;
        json.update(extra);
        return json;
    }

    TestSupport::ScopedLogCapture capture_{Tovik::LogLevel::verbose};
    Telemetry telemetry_{"acbaaaaa", Tovik::AppType::vpnMac, "2.11.0", fixedAgent()};
};

TEST_F(TelemetryTest, SyntheticIds) {
    const std::string invalid = "E: (Telemetry: createSyntheticId(from:)) Invalid synthetic id";
    EXPECT_EQ(Telemetry::createSyntheticId("0000000000ff"), "acbaaaaa");
    EXPECT_EQ(Telemetry::createSyntheticId("a1b2c3d4e5f6"), "16c6bf13");
    EXPECT_EQ(Telemetry::createSyntheticId("-8000000000000000"), "3a311d1e");
    EXPECT_EQ(Telemetry::createSyntheticId("8000000000000000"), "d3691e9d");  // overflows: read as its codes
    // Not a hexadecimal number other than 0: the characters' codes are the number.
    EXPECT_EQ(Telemetry::createSyntheticId("0"), "ddaaaaaa");
    EXPECT_EQ(Telemetry::createSyntheticId("serial"), "8842445c");
    EXPECT_EQ(Telemetry::createSyntheticId("\r\n"), "5aaaaaaa");          // one character, code 10
    // e + combining acute is one character, code 0.
    EXPECT_EQ(Telemetry::createSyntheticId("e\xCC\x81" "1"), "edaaaaaa");
    EXPECT_EQ(capture_.recorder().count(invalid), 0);

    EXPECT_EQ(Telemetry::createSyntheticId(""), "aaaaaaaa");
    EXPECT_EQ(capture_.recorder().count(invalid), 1);
    // Nine characters of three-digit codes: too big a number.
    EXPECT_EQ(Telemetry::createSyntheticId("ghijklmno"), "aaaaaaaa");
    EXPECT_EQ(capture_.recorder().count(invalid), 2);
}

TEST_F(TelemetryTest, EventJSON) {
    Telemetry::Props props = minimalProps();
    EXPECT_EQ(parsed(telemetry_.eventJSONData(Telemetry::Pageview{"main", std::nullopt}, props)),
              event(R"({"pageview": {"name": "main"}})"_json));
    EXPECT_EQ(parsed(telemetry_.eventJSONData(Telemetry::CustomEvent{"connect", "main", std::nullopt, std::nullopt},
                                              props)),
              event(R"({"event": {"name": "connect", "ref_name": "main"}})"_json));

    props.subscriptionDuration = Tovik::SubscriptionDuration::lifetime;
    props.websiteExclusions = Tovik::WebsiteExclusions::selective;
    props.appExclusions = Tovik::AppExclusions::general;
    props.loggedIn = false;
    props.licenseStatus = Tovik::LicenseStatus::other;
    props.theme = Tovik::Theme::systemDark;
    props.killSwitch = Tovik::BinaryState::on;
    props.stats = Tovik::BinaryState::off;
    props.retentionCohort = Tovik::RetentionCohort::week1;
    props.updateInterval = Tovik::UpdateIntervalSource::systemDefault;
    props.operatingMode = Tovik::OperatingMode::integrated;
    props.experiment1 = "a_def";
    props.experiment3 = "b";
    Json expected = event(R"({"event": {"name": "connect", "ref_name": "main", "action": "tap", "label": "x"},
        "props": {"subscription_duration": "LIFETIME", "website_exclusions": "SELECTIVE",
                  "app_exclusions": "GENERAL", "app_locale": "de", "system_locale": "de-CH", "logged_in": false,
                  "license_status": "MOD", "theme": "SYSTEM_DARK", "kill_switch": "ON", "stats": "OFF",
                  "retention_cohort": "WEEK_1", "update_interval": "SYSTEM_DEFAULT",
                  "operating_mode": "INTEGRATED", "experiment_1": "a_def", "experiment_3": "b"}})"_json);
    EXPECT_EQ(parsed(telemetry_.eventJSONData(Telemetry::CustomEvent{"connect", "main", "tap", "x"}, props)),
              expected);
}

TEST_F(TelemetryTest, StartSessionEventCarriesTheExperiments) {
    const Telemetry::ExperimentVersions tests{
        {Tovik::Experiment::experiment1, {"onboarding", "a_def"}},
        {Tovik::Experiment::experiment2, {"pricing", "b"}},
        {Tovik::Experiment::experiment3, {"onboarding", "b"}},  // repeated name: the first one stays
    };
    EXPECT_EQ(parsed(telemetry_.startSessionEventJSONData(minimalProps(), tests)),
              event(R"({"tests": {"onboarding": "a_def", "pricing": "b"}})"_json));
}

TEST_F(TelemetryTest, TextThatIsNotUTF8IsLoggedAndGivesNothing) {
    Telemetry::Props props = minimalProps();
    props.appLocale = "\xFF";
    EXPECT_FALSE(telemetry_.eventJSONData(Telemetry::Pageview{"main", std::nullopt}, props));
    EXPECT_FALSE(telemetry_.eventRequest("http://127.0.0.1:1/event", 5, Telemetry::Pageview{"main", {}}, props));
    const auto lines = capture_.recorder().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("E: (Telemetry: eventJSONData(event:props:)) Failed to encode event "
                                     "Event(synthetic_id: acbaaaaa, app_type: VPN_MAC, version: 2.11.0, "
                                     "pageview: main): "))
        << lines[0];
}

TEST_F(TelemetryTest, RequestsArePostsOfTheEventJSON) {
    const auto request = telemetry_.startSessionEventRequest("http://127.0.0.1:1/session", 7.5, minimalProps(), {});
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url, "http://127.0.0.1:1/session");
    EXPECT_EQ(request->httpMethod, "POST");
    EXPECT_EQ(request->value("Content-Type"), "application/json");
    EXPECT_EQ(request->timeoutInterval, 7.5);
    EXPECT_EQ(request->cachePolicy, Foundation::URLRequest::CachePolicy::useProtocolCachePolicy);
    EXPECT_EQ(request->httpBody, telemetry_.startSessionEventJSONData(minimalProps(), {}));
}

TEST(TelemetryAnswer, StartSessionAnswerDecoding) {
    const auto versions = Telemetry::decodeStartSessionResponse(bytes(
        R"({"versions": {"experiment_3": {"experiment_name": "c", "version_name": "b"}, "experiment_2": null,
                         "experiment_1": {"experiment_name": "a", "version_name": "a_def", "extra": 1}}})"));
    const Telemetry::ExperimentVersions expected{{Tovik::Experiment::experiment1, {"a", "a_def"}},
                                                 {Tovik::Experiment::experiment3, {"c", "b"}}};
    EXPECT_EQ(versions, expected);
    EXPECT_TRUE(Telemetry::decodeStartSessionResponse(bytes(R"({"versions": {}})")).empty());

    for (std::string_view broken : {"", "[]", "{}", R"({"versions": []})",
                                    R"({"versions": {"experiment_1": {"experiment_name": "a"}}})",
                                    R"({"versions": {"experiment_1": {"experiment_name": 1, "version_name": "b"}}})"})
        EXPECT_THROW(Telemetry::decodeStartSessionResponse(bytes(broken)), Telemetry::DecodingError) << broken;
}

TEST(TelemetryFacts, PlatformAndLocaleNames) {
    EXPECT_EQ(Telemetry::UserAgent::platform(Tovik::CPUType::arm64), "arm");
    EXPECT_EQ(Telemetry::UserAgent::platform(Tovik::CPUType::x86_64), "x64");
    EXPECT_EQ(Telemetry::UserAgent::platform(Tovik::CPUType::unknown), std::nullopt);
    EXPECT_EQ(Telemetry::Props::defaultAppLocale("zh-Hant"), "zh-TW");
    EXPECT_EQ(Telemetry::Props::defaultAppLocale("zh-Hans"), "zh-CN");
    EXPECT_EQ(Telemetry::Props::defaultAppLocale("pt-BR"), "pt-BR");
}

}  // namespace
