#include "vpn_helper/BackendClient.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Support/LoopbackHttpServer.h"
#include "Support/RecordingLogHandler.h"
#include "Tovik/Logger/Logger.h"
#include "vpn_helper/ProductInfo.h"

namespace {

using nlohmann::json;
using VpnHelper::BackendClient;
using VpnHelper::DevConfigKey;

/// A developer configuration in memory that records the keys asked for.
struct FakeDevConfig {
    std::map<DevConfigKey, json> values;
    std::vector<std::string> asked;

    BackendClient::DevConfigReader reader() {
        return [this](DevConfigKey key) -> std::optional<json> {
            asked.emplace_back(VpnHelper::rawValue(key));
            const auto entry = values.find(key);
            if (entry == values.end()) return std::nullopt;
            return entry->second;
        };
    }
};

std::vector<int64_t> parts(std::string_view version) {
    const auto v = BackendClient::appVersion(version);
    return {v->major, v->minor, v->patch, v->build};
}

TEST(BackendClientTest, VersionPartsAreSignedDecimalsAndZeroOtherwise) {
    EXPECT_EQ(parts("2.11.0"), (std::vector<int64_t>{2, 11, 0, 1143}));
    EXPECT_EQ(parts("3.x.7"), (std::vector<int64_t>{3, 0, 7, 1143}));
    EXPECT_EQ(parts("+4.-2.99999999999999999999"), (std::vector<int64_t>{4, -2, 0, 1143}));
    EXPECT_EQ(parts("1.2.3.4"), (std::vector<int64_t>{1, 2, 3, 1143}));
    EXPECT_EQ(parts("5"), (std::vector<int64_t>{5, 0, 0, 1143}));
    EXPECT_EQ(parts("+-1..07 "), (std::vector<int64_t>{0, 0, 0, 1143}));
    EXPECT_EQ(parts(""), (std::vector<int64_t>{0, 0, 0, 1143}));
}

TEST(BackendClientTest, ConfigurationWithoutDeveloperKeysHasFixedValuesAndNoOverrides) {
    FakeDevConfig devConfig;
    const auto config = BackendClient::makeConfig(devConfig.reader(), "/tmp/selector", "2.11.0");
    EXPECT_EQ(config->timeoutMs, 10000);
    EXPECT_EQ(config->backendSelectorCacheDirectory, "/tmp/selector");
    EXPECT_EQ(config->protocolConfigOverrides, nullptr);
    EXPECT_EQ(config->appVersion->minor, 11);
    EXPECT_EQ(devConfig.asked,
              (std::vector<std::string>{"disable_outbound_interface_binding", "config_fetch_timeout_ms",
                                        "config_fetch_urls", "auth_txt_domain", "api_txt_domain",
                                        "auth_fallback_domain", "api_fallback_domain", "tm_txt_domain",
                                        "tm_fallback_domain"}));
}

TEST(BackendClientTest, OneOverrideAttachesAnOverridesObjectWithTheBuiltInTelemetryDomains) {
    FakeDevConfig devConfig;
    devConfig.values[DevConfigKey::authTxtDomain] = "auth.dev.test";
    const auto overrides = BackendClient::makeConfig(devConfig.reader(), std::nullopt, "2.11.0")->protocolConfigOverrides;
    ASSERT_NE(overrides, nullptr);
    EXPECT_EQ(overrides->authTxtDomain, "auth.dev.test");
    EXPECT_EQ(overrides->tmTxtDomain, BackendClient::builtInTmTxtDomain);
    EXPECT_EQ(overrides->tmFallbackDomain, BackendClient::builtInTmFallbackDomain);
    EXPECT_EQ(overrides->apiFallbackDomain, std::nullopt);
    EXPECT_EQ(overrides->backendSelectorConfigFetchUrls, std::nullopt);
}

TEST(BackendClientTest, EveryDeveloperKeyOfTheRightTypeIsApplied) {
    FakeDevConfig devConfig;
    devConfig.values = {{DevConfigKey::disableOutboundInterfaceBinding, true},
                        {DevConfigKey::configFetchTimeoutMs, 2500},
                        {DevConfigKey::configFetchUrls, json::array({"https://a.test/c", "https://b.test/c"})},
                        {DevConfigKey::authTxtDomain, "auth.txt"},
                        {DevConfigKey::apiTxtDomain, "api.txt"},
                        {DevConfigKey::authFallbackDomain, "auth.fallback"},
                        {DevConfigKey::apiFallbackDomain, "http://127.0.0.1:8080"},
                        {DevConfigKey::tmTxtDomain, "tm.txt"},
                        {DevConfigKey::tmFallbackDomain, "tm.fallback/tm"}};
    const auto config = BackendClient::makeConfig(devConfig.reader(), std::nullopt, "2.11.0");
    EXPECT_TRUE(config->disableOutboundInterfaceBinding);
    EXPECT_EQ(config->backendSelectorConfigFetchTimeoutMs, 2500);
    const auto& overrides = *config->protocolConfigOverrides;
    EXPECT_EQ(overrides.backendSelectorConfigFetchUrls, (std::vector<std::string>{"https://a.test/c", "https://b.test/c"}));
    EXPECT_EQ(overrides.authTxtDomain, "auth.txt");
    EXPECT_EQ(overrides.apiTxtDomain, "api.txt");
    EXPECT_EQ(overrides.authFallbackDomain, "auth.fallback");
    EXPECT_EQ(overrides.apiFallbackDomain, "http://127.0.0.1:8080");
    EXPECT_EQ(overrides.tmTxtDomain, "tm.txt");
    EXPECT_EQ(overrides.tmFallbackDomain, "tm.fallback/tm");
}

TEST(BackendClientTest, KeysOfTheWrongTypeCountAsMissing) {
    FakeDevConfig devConfig;
    devConfig.values = {{DevConfigKey::disableOutboundInterfaceBinding, 1},
                        {DevConfigKey::configFetchTimeoutMs, "2500"},
                        {DevConfigKey::configFetchUrls, json::array({"https://a.test/c", 7})},
                        {DevConfigKey::apiFallbackDomain, json::array({"http://127.0.0.1"})},
                        {DevConfigKey::tmTxtDomain, nullptr}};
    const auto config = BackendClient::makeConfig(devConfig.reader(), std::nullopt, "2.11.0");
    EXPECT_FALSE(config->disableOutboundInterfaceBinding);
    EXPECT_EQ(config->backendSelectorConfigFetchTimeoutMs,
              VLVpnClient::VLVpnBackendClientConfig::defaultBackendSelectorConfigFetchTimeoutMs);
    EXPECT_EQ(config->protocolConfigOverrides, nullptr);
}

TEST(BackendClientTest, DaemonDetailsReachTheBackendThroughTheApiFallbackDomain) {
    TestSupport::LoopbackHttpServer server;
    FakeDevConfig devConfig;
    devConfig.values[DevConfigKey::apiFallbackDomain] = server.url();
    const auto details = BackendClient::defaultAppDetails();
    EXPECT_EQ(details->appType, 8);
    EXPECT_EQ(details->version, "2.11.0");
    EXPECT_FALSE(details->language.empty());

    const auto client = VLVpnClient::VLVpnBackendClient::create(
        BackendClient::makeConfig(devConfig.reader(), std::nullopt, BackendClient::appVersionString()), details,
        BackendClient::defaultIpcConfig());
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->appsApi()->trackAppUninstall(), std::nullopt);
    ASSERT_EQ(server.requests().size(), 1u);
    const auto body = json::parse(server.requests()[0].body);
    EXPECT_EQ(body["appDetails"]["appId"], VpnHelper::ProductInfo::appId());
    EXPECT_EQ(body["appVersion"], json::parse(R"({"major": 2, "minor": 11, "patch": 0, "build": 1143})"));
}

TEST(ProductInfoTest, MacAddressElseSerialNumberWithAWarning) {
    auto recorder = std::make_shared<TestSupport::RecordingLogHandler>();
    Tovik::Logger::shared().setHandlers({recorder});
    int serialAsked = 0;
    const auto serial = [&] {
        ++serialAsked;
        return std::string("NOSERIALNUMBER");
    };
    EXPECT_EQ(VpnHelper::ProductInfo::appId(std::string("0a0b0c0d0e0f"), serial), "0a0b0c0d0e0f");
    EXPECT_EQ(serialAsked, 0);
    EXPECT_EQ(VpnHelper::ProductInfo::appId(std::nullopt, serial), "NOSERIALNUMBER");
    Tovik::Logger::shared().setHandlers({});
    EXPECT_EQ(recorder->lines(), std::vector<std::string>{"W: (ProductInfo) Failed to get mac address - using serial number"});
}

}  // namespace
