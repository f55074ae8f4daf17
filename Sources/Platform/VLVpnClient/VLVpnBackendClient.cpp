#include "VLVpnClient/VLVpnBackendClient.h"

#include <memory>
#include <nlohmann/json.hpp>

#include "VLVpnClient/CurlLibrary.h"

namespace VLVpnClient {

namespace {

constexpr size_t maxResponseBytes = 1 << 20;


size_t collectResponse(char* data, size_t size, size_t count, void* context) {
    auto* response = static_cast<std::string*>(context);
    const size_t bytes = size * count;
    if (response->size() + bytes > maxResponseBytes) return 0;  // aborts the transfer
    response->append(data, bytes);
    return bytes;
}

std::string normalisedBaseUrl(std::string domain) {
    if (domain.find("://") == std::string::npos) domain = "https://" + domain;
    while (!domain.empty() && domain.back() == '/') domain.pop_back();
    return domain;
}

VLVBCError transportError(const CurlLibrary& curl, const std::string& url, CURLcode code, const char* detail) {
    std::string text = "Request to " + url + " failed: " + curl.easyStrerror(code);
    if (detail != nullptr && *detail != '\0') text += std::string(" (") + detail + ")";
    return VLVBCError{VLVBCError::domainName, VLVBCError::transportErrorBase + code, text};
}

class HttpAppsApi final : public VLVBCAppsApi {
public:
    HttpAppsApi(std::string baseUrl, long timeoutMs, std::string uninstallBody)
        : baseUrl_(std::move(baseUrl)), timeoutMs_(timeoutMs), uninstallBody_(std::move(uninstallBody)) {}

    std::optional<VLVBCError> trackAppUninstall() override {
        return post(baseUrl_ + VLVpnBackendClient::appUninstallPath, uninstallBody_);
    }

private:
    std::optional<VLVBCError> post(const std::string& url, const std::string& body) const {
        const CurlLibrary* library = CurlLibrary::shared();
        if (library == nullptr) {
            return VLVBCError{VLVBCError::domainName, VLVBCError::transportErrorBase + CURLE_FAILED_INIT,
                              "Request to " + url + " failed: " + CurlLibrary::loadError()};
        }
        const CurlLibrary& c = *library;
        std::unique_ptr<CURL, void (*)(CURL*)> handle(c.easyInit(), c.easyCleanup);
        if (!handle) return transportError(c, url, CURLE_FAILED_INIT, nullptr);
        curl_slist* rawHeaders = c.slistAppend(nullptr, "Content-Type: application/json");
        rawHeaders = c.slistAppend(rawHeaders, "Accept: application/json");
        rawHeaders = c.slistAppend(rawHeaders, "Expect:");
        std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(rawHeaders, c.slistFreeAll);

        char errorText[CURL_ERROR_SIZE] = {};
        std::string response;
        CURL* curl = handle.get();
        c.easySetopt(curl, CURLOPT_URL, url.c_str());
        c.easySetopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        c.easySetopt(curl, CURLOPT_NOSIGNAL, 1L);
        c.easySetopt(curl, CURLOPT_NOPROXY, "localhost,127.0.0.1,::1");
        c.easySetopt(curl, CURLOPT_HTTPHEADER, headers.get());
        c.easySetopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        c.easySetopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        c.easySetopt(curl, CURLOPT_USERAGENT, "VLVpnClient/1.0");
        c.easySetopt(curl, CURLOPT_ERRORBUFFER, errorText);
        c.easySetopt(curl, CURLOPT_WRITEFUNCTION, collectResponse);
        c.easySetopt(curl, CURLOPT_WRITEDATA, &response);
        if (timeoutMs_ > 0) c.easySetopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs_);

        const CURLcode result = c.easyPerform(curl);
        if (result != CURLE_OK) return transportError(c, url, result, errorText);
        long status = 0;
        c.easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        // Not an HTTP status at all (libcurl passes on any three or more
        // digits): a broken answer, which must not pass for a status code nor
        // collide with the transport error codes.
        if (status < 100 || status > 599)
            return transportError(c, url, CURLE_WEIRD_SERVER_REPLY,
                                  ("invalid HTTP status " + std::to_string(status)).c_str());
        if (status < 200 || status > 299)
            return VLVBCError{VLVBCError::domainName, status,
                              "Backend answered HTTP status " + std::to_string(status) + " to " + url};
        return std::nullopt;
    }

    const std::string baseUrl_;
    const long timeoutMs_;
    const std::string uninstallBody_;
};

}  // namespace

std::shared_ptr<VLVpnBackendClient> VLVpnBackendClient::create(
    const std::shared_ptr<VLVpnBackendClientConfig>& config, const std::shared_ptr<VLVBCAppDetails>& appDetails,
    const std::shared_ptr<VLVpnBackendClientIpcConfig>& /*ipcConfig*/) {
    if (!config || !config->appVersion || !appDetails) return nullptr;
    return std::shared_ptr<VLVpnBackendClient>(new VLVpnBackendClient(*config, *appDetails));
}

VLVpnBackendClient::VLVpnBackendClient(const VLVpnBackendClientConfig& config, const VLVBCAppDetails& appDetails) {
    const auto& overrides = config.protocolConfigOverrides;
    apiBaseUrl_ = normalisedBaseUrl(overrides && overrides->apiFallbackDomain ? *overrides->apiFallbackDomain
                                                                              : std::string(defaultApiDomain));
    const auto& version = *config.appVersion;
    const nlohmann::json body = {
        {"appDetails",
         {{"appId", appDetails.appId},
          {"appType", appDetails.appType},
          {"language", appDetails.language},
          {"sysLanguage", appDetails.sysLanguage},
          {"version", appDetails.version}}},
        {"appVersion",
         {{"major", version.major}, {"minor", version.minor}, {"patch", version.patch}, {"build", version.build}}},
    };
    const long timeoutMs = config.timeoutMs > 0 ? static_cast<long>(config.timeoutMs) : 0L;
    appsApi_ = std::make_shared<HttpAppsApi>(apiBaseUrl_, timeoutMs,
                                             body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace VLVpnClient
