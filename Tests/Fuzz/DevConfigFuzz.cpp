// Fuzzes the developer configuration. The input is "devConfig.json" as the
// daemon would find it in the shared folder; it goes through the real reader
// (one open, owner and mode from that descriptor, JSON parse) and then into
// the backend settings built from it, as the daemon builds them.
//
// Run as root, as the daemon is: for any other user the file fails the owner
// check and only that path is exercised.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Fuzz/FuzzSupport.h"
#include "VLVpnClient/VLVpnBackendClient.h"
#include "vpn_helper/BackendClient.h"
#include "vpn_helper/DeveloperConfigUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using VpnHelper::DevConfigKey;
    using VpnHelper::DeveloperConfigUtils;

    FuzzSupport::quietLogs();
    static const std::filesystem::path file = FuzzSupport::scratchFolder() / "devConfig.json";
    FuzzSupport::writeFile(file, FuzzSupport::bytesOf(data, size), 0644);

    DeveloperConfigUtils utils(file);
    const std::optional<DeveloperConfigUtils::Configuration> parsed = utils.parse();

    // Keyed reads check and parse the same, unchanged file again: they must
    // agree with parse() (an empty object answers nothing).
    const auto expected = [&](DevConfigKey key) -> std::optional<nlohmann::json> {
        if (!parsed) return std::nullopt;
        auto entry = parsed->find(std::string(VpnHelper::rawValue(key)));
        if (entry == parsed->end()) return std::nullopt;
        return entry->second;
    };
    for (DevConfigKey key : VpnHelper::allDevConfigKeys) FUZZ_CHECK(utils[key] == expected(key));

    // The settings the daemon builds from the file, and the client built from those.
    auto config = VpnHelper::BackendClient::makeConfig([&](DevConfigKey key) { return utils[key]; },
                                                      std::string("/tmp/selector"), "2.11.0");
    FUZZ_CHECK(config && config->appVersion);
    const auto apiDomain = expected(DevConfigKey::apiFallbackDomain);
    if (apiDomain && apiDomain->is_string()) {
        FUZZ_CHECK(config->protocolConfigOverrides &&
                   config->protocolConfigOverrides->apiFallbackDomain == apiDomain->get<std::string>());
    }
    auto details = std::make_shared<VLVpnClient::VLVBCAppDetails>(
        VLVpnClient::VLVBCAppDetails{"0a0b0c0d0e0f", 8, "en", "en", "2.11.0"});
    auto client = VLVpnClient::VLVpnBackendClient::create(config, details, nullptr);
    FUZZ_CHECK(client && client->appsApi());
    FUZZ_CHECK(client->apiBaseUrl().empty() || client->apiBaseUrl().back() != '/');
    return 0;
}
