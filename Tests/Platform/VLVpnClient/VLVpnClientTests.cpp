#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>

#include "Support/LoopbackHttpServer.h"
#include "VLVpnClient/VLVpnBackendClient.h"

namespace {

using namespace VLVpnClient;
using TestSupport::LoopbackHttpServer;

std::shared_ptr<VLVpnBackendClient> clientFor(const std::optional<std::string>& apiDomain,
                                              std::int64_t timeoutMs = 10000) {
    auto config = std::make_shared<VLVpnBackendClientConfig>();
    config->timeoutMs = timeoutMs;
    config->appVersion = std::make_shared<VLVpnBackendClientConfigAppVersion>(
        VLVpnBackendClientConfigAppVersion{2, 11, 0, 1143});
    if (apiDomain) {
        config->protocolConfigOverrides = std::make_shared<VLVpnBackendClientProtocolEv1Overrides>();
        config->protocolConfigOverrides->apiFallbackDomain = apiDomain;
    }
    return VLVpnBackendClient::create(
        config, std::make_shared<VLVBCAppDetails>(VLVBCAppDetails{"0a0b0c0d0e0f", 8, "de", "en", "2.11.0"}), nullptr);
}

TEST(VLVpnBackendClientTest, UninstallReportIsOneJsonPostToTheApiDomain) {
    LoopbackHttpServer server;
    EXPECT_EQ(clientFor(server.url() + "/")->appsApi()->trackAppUninstall(), std::nullopt);

    ASSERT_EQ(server.requests().size(), 1u);
    const auto request = server.requests()[0];
    EXPECT_EQ(request.requestLine, "POST /v1/apps/uninstall HTTP/1.1");
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_EQ(nlohmann::json::parse(request.body), nlohmann::json::parse(R"({
        "appDetails": {"appId": "0a0b0c0d0e0f", "appType": 8, "language": "de", "sysLanguage": "en",
                       "version": "2.11.0"},
        "appVersion": {"major": 2, "minor": 11, "patch": 0, "build": 1143}})"));

    // No override: the built-in domain; an override without a scheme means HTTPS.
    EXPECT_EQ(clientFor(std::nullopt)->apiBaseUrl(), "https://api.velmora.com");
    EXPECT_EQ(clientFor("api.example.test:8443")->apiBaseUrl(), "https://api.example.test:8443");
    EXPECT_FALSE(VLVpnBackendClient::create(nullptr, std::make_shared<VLVBCAppDetails>(), nullptr));
}

TEST(VLVpnBackendClientTest, StatusesOutsideTwoHundredsAndTransportFailuresAreErrors) {
    LoopbackHttpServer server(500);
    const auto error = clientFor(server.url())->appsApi()->trackAppUninstall();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 500);
    EXPECT_EQ(error->description(), "Error Domain=VLVBCErrorDomain Code=500 \"Backend answered HTTP status 500 to " +
                                        server.url() + "/v1/apps/uninstall\"");

    const std::string refusingUrl = LoopbackHttpServer().url();  // closed again at once
    const auto refused = clientFor(refusingUrl)->appsApi()->trackAppUninstall();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, VLVBCError::transportErrorBase + 7);  // could not connect
    EXPECT_TRUE(refused->localizedDescription.starts_with("Request to " + refusingUrl + "/v1/apps/uninstall failed: "))
        << refused->localizedDescription;

    // A backend that never answers: the request ends at the client's time-out,
    // long before the server would drop the connection.
    LoopbackHttpServer silent(200, /*respond=*/false);
    const auto timedOut = clientFor(silent.url(), 200)->appsApi()->trackAppUninstall();
    ASSERT_TRUE(timedOut);
    EXPECT_EQ(timedOut->code, VLVBCError::transportErrorBase + 28);  // operation timed out
    EXPECT_NE(timedOut->localizedDescription.find("Timeout"), std::string::npos) << timedOut->localizedDescription;
    EXPECT_EQ(silent.requests().size(), 1u);
}

}  // namespace
