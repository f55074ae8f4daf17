#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <string>

#include "Support/LoopbackHttpServer.h"
#include "VLVpnClient/VLVpnBackendClient.h"

namespace {

using namespace VLVpnClient;
using TestSupport::LoopbackHttpServer;

std::shared_ptr<VLVpnBackendClientConfig> configFor(const std::optional<std::string>& apiDomain,
                                                    std::int64_t timeoutMs = 10000) {
    auto config = std::make_shared<VLVpnBackendClientConfig>();
    config->timeoutMs = timeoutMs;
    config->appVersion = std::make_shared<VLVpnBackendClientConfigAppVersion>();
    config->appVersion->major = 2;
    config->appVersion->minor = 11;
    config->appVersion->patch = 0;
    config->appVersion->build = 1143;
    if (apiDomain) {
        config->protocolConfigOverrides = std::make_shared<VLVpnBackendClientProtocolEv1Overrides>();
        config->protocolConfigOverrides->apiFallbackDomain = apiDomain;
    }
    return config;
}

std::shared_ptr<VLVBCAppDetails> appDetails() {
    auto details = std::make_shared<VLVBCAppDetails>();
    details->appId = "0a0b0c0d0e0f";
    details->appType = 8;
    details->language = "de";
    details->sysLanguage = "en";
    details->version = "2.11.0";
    return details;
}

std::optional<VLVBCError> trackUninstall(const std::shared_ptr<VLVpnBackendClientConfig>& config) {
    const auto client = VLVpnBackendClient::create(config, appDetails(), nullptr);
    if (!client) return VLVBCError{"test", -1, "no client"};
    return client->appsApi()->trackAppUninstall();
}

TEST(VLVpnBackendClientTest, UninstallReportIsOneJsonPostToTheApiDomain) {
    LoopbackHttpServer server;
    EXPECT_EQ(trackUninstall(configFor(server.url() + "/")), std::nullopt);

    ASSERT_EQ(server.requests().size(), 1u);
    const auto request = server.requests()[0];
    EXPECT_EQ(request.requestLine, "POST /v1/apps/uninstall HTTP/1.1");
    EXPECT_EQ(request.header("content-type"), "application/json");
    const auto body = nlohmann::json::parse(request.body);
    EXPECT_EQ(body, nlohmann::json::parse(R"({
        "appDetails": {"appId": "0a0b0c0d0e0f", "appType": 8, "language": "de", "sysLanguage": "en",
                       "version": "2.11.0"},
        "appVersion": {"major": 2, "minor": 11, "patch": 0, "build": 1143}})"));
}

TEST(VLVpnBackendClientTest, AnswerOutsideTwoHundredsIsAnErrorNamingTheStatus) {
    LoopbackHttpServer server({.status = 500});
    const auto error = trackUninstall(configFor(server.url()));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 500);
    EXPECT_EQ(error->localizedDescription,
              "Backend answered HTTP status 500 to " + server.url() + "/v1/apps/uninstall");
    EXPECT_EQ(error->description(), "Error Domain=VLVBCErrorDomain Code=500 \"" + error->localizedDescription + "\"");
}

TEST(VLVpnBackendClientTest, TransportFailuresAreErrors) {
    std::string refusingUrl;
    {
        LoopbackHttpServer closed({.maxRequests = 0});
        refusingUrl = closed.url();
    }
    const auto refused = trackUninstall(configFor(refusingUrl));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, VLVBCError::transportErrorBase + 7);  // could not connect
    EXPECT_TRUE(refused->localizedDescription.starts_with("Request to " + refusingUrl + "/v1/apps/uninstall failed: "))
        << refused->localizedDescription;

    // A backend that never answers: the request ends at the client's time-out,
    // long before the server would drop the connection.
    LoopbackHttpServer silent({.respond = false, .ioTimeout = std::chrono::seconds(30)});
    const auto timedOut = trackUninstall(configFor(silent.url(), 200));
    ASSERT_TRUE(timedOut);
    EXPECT_EQ(timedOut->code, VLVBCError::transportErrorBase + 28);  // operation timed out
    EXPECT_NE(timedOut->localizedDescription.find("Timeout"), std::string::npos) << timedOut->localizedDescription;
    EXPECT_EQ(silent.requests().size(), 1u);
}

TEST(VLVpnBackendClientTest, CreationNeedsConfigurationVersionAndDetailsAndPicksTheApiDomain) {
    EXPECT_FALSE(VLVpnBackendClient::create(nullptr, appDetails(), nullptr));
    EXPECT_FALSE(VLVpnBackendClient::create(configFor(std::nullopt), nullptr, nullptr));
    auto noVersion = configFor(std::nullopt);
    noVersion->appVersion = nullptr;
    EXPECT_FALSE(VLVpnBackendClient::create(noVersion, appDetails(), nullptr));

    EXPECT_EQ(VLVpnBackendClient::create(configFor(std::nullopt), appDetails(), nullptr)->apiBaseUrl(),
              "https://api.velmora.com");
    EXPECT_EQ(VLVpnBackendClient::create(configFor("api.example.test:8443"), appDetails(), nullptr)->apiBaseUrl(),
              "https://api.example.test:8443");
}

}  // namespace
