#include "vpn_helper/BackendClient.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "vpn_helper/ProductInfo.h"

namespace {

using nlohmann::json;
using VpnHelper::BackendClient;
using VpnHelper::DevConfigKey;

/// A developer configuration in memory that records the keys asked for.
struct FakeDevConfig {
    std::map<DevConfigKey, json> values;
    std::vector<std::string> asked;

    std::shared_ptr<VLVpnClient::VLVpnBackendClientConfig> makeConfig(const std::string& version = "2.11.0") {
        auto reader = [this](DevConfigKey key) -> std::optional<json> {
            asked.emplace_back(VpnHelper::rawValue(key));
            return values.contains(key) ? std::optional(values[key]) : std::nullopt;
        };
        return BackendClient::makeConfig(reader, std::nullopt, version);
    }
};

TEST(BackendClientTest, VersionPartsAreSignedDecimalsAndZeroOtherwise) {
    const std::pair<const char*, std::vector<int64_t>> cases[] = {
        {"2.11.0", {2, 11, 0}},     {"3.x.7", {3, 0, 7}}, {"+4.-2.99999999999999999999", {4, -2, 0}},
        {"1.2.3.4", {1, 2, 3}},     {"5", {5, 0, 0}},     {"+-1..07 ", {0, 0, 0}},
        {"", {0, 0, 0}}};
    for (const auto& [text, expected] : cases) {
        const auto v = BackendClient::appVersion(text);
        EXPECT_EQ((std::vector<int64_t>{v->major, v->minor, v->patch, v->build}),
                  (std::vector<int64_t>{expected[0], expected[1], expected[2], 1143})) << text;
    }
}

TEST(BackendClientTest, DeveloperKeysAreReadInOrderAndAppliedOnlyWithTheRightType) {
    FakeDevConfig devConfig;
    devConfig.values = {{DevConfigKey::disableOutboundInterfaceBinding, 1},
                        {DevConfigKey::configFetchTimeoutMs, "2500"},
                        {DevConfigKey::configFetchUrls, json::array({"https://a.test/c", 7})},
                        {DevConfigKey::apiFallbackDomain, json::array({"http://127.0.0.1"})},
                        {DevConfigKey::tmTxtDomain, nullptr}};
    const auto config = devConfig.makeConfig();
    EXPECT_FALSE(config->disableOutboundInterfaceBinding);
    EXPECT_EQ(config->backendSelectorConfigFetchTimeoutMs,
              VLVpnClient::VLVpnBackendClientConfig::defaultBackendSelectorConfigFetchTimeoutMs);
    EXPECT_EQ(config->protocolConfigOverrides, nullptr);
    EXPECT_EQ(devConfig.asked,
              (std::vector<std::string>{"disable_outbound_interface_binding", "config_fetch_timeout_ms",
                                        "config_fetch_urls", "auth_txt_domain", "api_txt_domain",
                                        "auth_fallback_domain", "api_fallback_domain", "tm_txt_domain",
                                        "tm_fallback_domain"}));

    // One override of the right type is enough for an overrides object, which
    // starts with the built-in telemetry domains.
    devConfig.values[DevConfigKey::authTxtDomain] = "auth.dev.test";
    const auto overrides = devConfig.makeConfig()->protocolConfigOverrides;
    ASSERT_NE(overrides, nullptr);
    EXPECT_EQ(overrides->authTxtDomain, "auth.dev.test");
    EXPECT_EQ(overrides->tmTxtDomain, BackendClient::builtInTmTxtDomain);
    EXPECT_EQ(overrides->tmFallbackDomain, BackendClient::builtInTmFallbackDomain);
    EXPECT_EQ(overrides->apiFallbackDomain, std::nullopt);
    EXPECT_EQ(overrides->backendSelectorConfigFetchUrls, std::nullopt);

    // Every key of the right type.
    using Overrides = VLVpnClient::VLVpnBackendClientProtocolEv1Overrides;
    const std::pair<DevConfigKey, std::optional<std::string> Overrides::*> strings[] = {
        {DevConfigKey::authTxtDomain, &Overrides::authTxtDomain},
        {DevConfigKey::apiTxtDomain, &Overrides::apiTxtDomain},
        {DevConfigKey::authFallbackDomain, &Overrides::authFallbackDomain},
        {DevConfigKey::apiFallbackDomain, &Overrides::apiFallbackDomain},
        {DevConfigKey::tmTxtDomain, &Overrides::tmTxtDomain},
        {DevConfigKey::tmFallbackDomain, &Overrides::tmFallbackDomain}};
    devConfig.values = {{DevConfigKey::disableOutboundInterfaceBinding, true},
                        {DevConfigKey::configFetchTimeoutMs, 2500},
                        {DevConfigKey::configFetchUrls, json::array({"https://a.test/c", "https://b.test/c"})}};
    for (const auto& [key, member] : strings) devConfig.values[key] = std::string(VpnHelper::rawValue(key)) + ".test";
    const auto all = devConfig.makeConfig();
    EXPECT_TRUE(all->disableOutboundInterfaceBinding);
    EXPECT_EQ(all->backendSelectorConfigFetchTimeoutMs, 2500);
    EXPECT_EQ(all->protocolConfigOverrides->backendSelectorConfigFetchUrls,
              (std::vector<std::string>{"https://a.test/c", "https://b.test/c"}));
    for (const auto& [key, member] : strings) {
        EXPECT_EQ((*all->protocolConfigOverrides).*member, std::string(VpnHelper::rawValue(key)) + ".test");
    }
}

TEST(BackendClientTest, VersionStringAndDaemonDetails) {
    // The version string is the main bundle's "VLVersion", fixed on first use: checked in a fresh process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            BackendClient::setMainBundleInfoLookup([](std::string_view key) {
                return key == "VLVersion" ? std::optional<std::string>("3.4.5") : std::nullopt;
            });
            std::exit(BackendClient::appVersionString() == "3.4.5" ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");

    // What goes on the wire for these details is checked with the framework's own tests.
    const auto details = BackendClient::defaultAppDetails();
    EXPECT_EQ(details->appId, VpnHelper::ProductInfo::appId());
    EXPECT_EQ(details->appType, 8);
    EXPECT_EQ(details->version, "2.11.0");  // without a "VLVersion"
    EXPECT_FALSE(details->language.empty());
    FakeDevConfig devConfig;
    EXPECT_NE(VLVpnClient::VLVpnBackendClient::create(devConfig.makeConfig(BackendClient::appVersionString()), details,
                                                      BackendClient::defaultIpcConfig()),
              nullptr);
}

TEST(ProductInfoTest, MacAddressElseSerialNumberWithAWarning) {
    TestSupport::ScopedLogCapture log;
    int serialAsked = 0;
    const auto serial = [&] { return ++serialAsked, std::string("NOSERIALNUMBER"); };
    EXPECT_EQ(VpnHelper::ProductInfo::appId(std::string("0a0b0c0d0e0f"), serial), "0a0b0c0d0e0f");
    EXPECT_EQ(serialAsked, 0);
    EXPECT_EQ(VpnHelper::ProductInfo::appId(std::nullopt, serial), "NOSERIALNUMBER");
    EXPECT_EQ(log.recorder().lines(), std::vector<std::string>{"W: (ProductInfo) Failed to get mac address - using serial number"});
}

}  // namespace
