#include "vpn_helper/DeveloperConfigUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>

#include "Tovik/Logger/Logger.h"
#include "vpn_helper/Locations.h"

namespace VpnHelper {

namespace {

// Group write, group execute, other write, other execute.
constexpr mode_t kForbiddenBits = 0033;

std::string errorText(int error) { return std::generic_category().message(error); }

const std::string kTooLarge =
    "devConfig.json is larger than " + std::to_string(DeveloperConfigUtils::maxFileSize) + " bytes";

// A parse that builds nothing: it follows how deep arrays and objects nest
// and stops at the first one past the limit, or at the first syntax error.
// The parser itself keeps its state on the heap, so this never recurses.
class NestingCheck {
public:
    using json = nlohmann::json;

    bool null() { return true; }
    bool boolean(bool) { return true; }
    bool number_integer(json::number_integer_t) { return true; }
    bool number_unsigned(json::number_unsigned_t) { return true; }
    bool number_float(json::number_float_t, const json::string_t&) { return true; }
    bool string(json::string_t&) { return true; }
    bool binary(json::binary_t&) { return true; }
    bool key(json::string_t&) { return true; }
    bool start_object(std::size_t) { return enter(); }
    bool start_array(std::size_t) { return enter(); }
    bool end_object() { return leave(); }
    bool end_array() { return leave(); }
    bool parse_error(std::size_t, const std::string&, const json::exception& error) {
        error_ = error.what();
        return false;
    }

    const std::string& error() const { return error_; }

private:
    bool enter() {
        if (++depth_ <= DeveloperConfigUtils::maxNestingDepth) return true;
        error_ = "nesting deeper than " + std::to_string(DeveloperConfigUtils::maxNestingDepth) + " levels";
        return false;
    }
    bool leave() {
        --depth_;
        return true;
    }

    size_t depth_ = 0;
    std::string error_;
};

}  // namespace

std::string_view rawValue(DevConfigKey key) {
    switch (key) {
        case DevConfigKey::authTxtDomain: return "auth_txt_domain";
        case DevConfigKey::apiTxtDomain: return "api_txt_domain";
        case DevConfigKey::authFallbackDomain: return "auth_fallback_domain";
        case DevConfigKey::apiFallbackDomain: return "api_fallback_domain";
        case DevConfigKey::disableOutboundInterfaceBinding: return "disable_outbound_interface_binding";
        case DevConfigKey::tdsBaseLink: return "tds_base_link";
        case DevConfigKey::promoTimeTillTheFirstShow: return "promo_time_till_the_first_show";
        case DevConfigKey::promoTimeDuration: return "promo_time_duration";
        case DevConfigKey::configFetchUrls: return "config_fetch_urls";
        case DevConfigKey::configFetchTimeoutMs: return "config_fetch_timeout_ms";
        case DevConfigKey::tmTxtDomain: return "tm_txt_domain";
        case DevConfigKey::tmFallbackDomain: return "tm_fallback_domain";
        case DevConfigKey::appForceUsingTraceLogs: return "app_force_using_trace_logs";
        case DevConfigKey::showTrafficLimitReachedOnStart: return "show_traffic_limit_reached_on_start";
        case DevConfigKey::showFreeTrafficLeftOnStart: return "show_free_traffic_left_on_start";
        case DevConfigKey::showTooManyDeviceConnectedOnStart: return "show_too_many_device_connected_on_start";
        case DevConfigKey::forceAppUpdate: return "force_app_update";
        case DevConfigKey::handlerProfilingEnabled: return "handler_profiling_enabled";
        case DevConfigKey::abTests: return "ab_tests";
        case DevConfigKey::forceRegionalBlocksPromo: return "force_regional_blocks_promo";
    }
    return "";
}

const Dispatch::DispatchQueue& DeveloperConfigUtils::queue() {
    static const Dispatch::DispatchQueue queue("backend.client.queue", Dispatch::DispatchQoS::unspecified,
                                               Dispatch::DispatchQueue::Attributes::concurrent);
    return queue;
}

const std::optional<std::filesystem::path>& DeveloperConfigUtils::devConfigURL() {
    static const std::optional<std::filesystem::path> url = []() -> std::optional<std::filesystem::path> {
        auto folder = Locations::sharedFolder();
        if (!folder) return std::nullopt;
        return *folder / "devConfig.json";
    }();
    return url;
}

DeveloperConfigUtils& DeveloperConfigUtils::shared() {
    static DeveloperConfigUtils* const instance = new DeveloperConfigUtils(devConfigURL());
    return *instance;
}

DeveloperConfigUtils::DeveloperConfigUtils(std::optional<std::filesystem::path> devConfigURL)
    : devConfigURL_(std::move(devConfigURL)) {}

std::optional<nlohmann::json> DeveloperConfigUtils::operator[](DevConfigKey key) {
    std::lock_guard guard(lock_);
    if (needsReload_) {
        configuration_.reset();
        if (checkFileLocked()) {
            TLOG_DEBUG("subscript(_:)", "Reloading devConfig.json");
            configuration_ = parseLocked();
            needsReload_ = false;
        } else {
            TLOG_DEBUG("subscript(_:)", "Skipping to reload devConfig.json - incorrect file permissions");
        }
    }
    if (!configuration_ || configuration_->empty()) return std::nullopt;
    auto entry = configuration_->find(std::string(rawValue(key)));
    if (entry == configuration_->end()) return std::nullopt;
    return entry->second;
}

bool DeveloperConfigUtils::checkFile() {
    std::lock_guard guard(lock_);
    return checkFileLocked();
}

std::optional<DeveloperConfigUtils::Configuration> DeveloperConfigUtils::parse() {
    std::lock_guard guard(lock_);
    return parseLocked();
}

bool DeveloperConfigUtils::checkFileLocked() {
    checkedFile_.reset();
    if (!devConfigURL_) {
        TLOG_DEBUG("checkFile()", "Can't obtain url for dev config file.");
        return false;
    }

    // One open, never through a final symbolic link; O_NONBLOCK so a FIFO put
    // in the file's place cannot hold the open. Everything below looks at this
    // descriptor only.
    Kernel::FileDescriptor file(::open(devConfigURL_->c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        int error = errno;
        TLOG_DEBUG("checkFile()", "Dev config file not exists: " + errorText(error));
        return false;
    }
    struct stat attributes {};
    if (::fstat(file.get(), &attributes) != 0) {
        int error = errno;
        TLOG_DEBUG("checkFile()", "Can't get attributes of the dev config with error: " + errorText(error));
        return false;
    }
    if (!S_ISREG(attributes.st_mode)) {
        TLOG_DEBUG("checkFile()", "Dev config file not exists: " +
                                      (S_ISDIR(attributes.st_mode) ? errorText(EISDIR) : "Not a regular file"));
        return false;
    }
    if (attributes.st_uid != 0) {
        TLOG_DEBUG("checkFile()", "Dev config file is not root owned");
        return false;
    }
    mode_t permissions = attributes.st_mode & 07777;
    if (permissions == 0 || (permissions & kForbiddenBits) != 0) {
        TLOG_DEBUG("checkFile()", "Dev config file must have permissions readonly for other.");
        return false;
    }
    checkedFile_ = std::move(file);
    return true;
}

std::optional<nlohmann::json> DeveloperConfigUtils::parseText(std::string_view text, std::string& error) {
    try {
        if (text.size() > maxFileSize) {
            error = kTooLarge;
            return std::nullopt;
        }
        if (size_t nul = text.find('\0'); nul != std::string_view::npos) {
            error = "unexpected NUL byte at offset " + std::to_string(nul);
            return std::nullopt;
        }
        NestingCheck check;
        if (!nlohmann::json::sax_parse(text.data(), text.data() + text.size(), &check)) {
            error = check.error();
            return std::nullopt;
        }
        return nlohmann::json::parse(text.data(), text.data() + text.size());
    } catch (const std::exception& failure) {
        error = failure.what();
        return std::nullopt;
    }
}

std::optional<DeveloperConfigUtils::Configuration> DeveloperConfigUtils::parseLocked() {
    if (!checkedFile_ && !checkFileLocked()) return std::nullopt;
    Kernel::FileDescriptor file = std::move(checkedFile_);
    const auto fail = [](const std::string& reason) -> std::optional<Configuration> {
        TLOG_ERROR("parse()", "Can't convert dev config json with error: " + reason);
        return std::nullopt;
    };

    try {
        struct stat attributes {};
        if (::fstat(file.get(), &attributes) != 0) return fail(errorText(errno));
        if (attributes.st_size > static_cast<off_t>(maxFileSize)) return fail(kTooLarge);

        // The file can grow after fstat(): read one byte past the limit at most.
        std::string text;
        text.reserve(static_cast<size_t>(attributes.st_size));
        char buffer[16 * 1024];
        for (off_t offset = 0; text.size() <= maxFileSize;) {
            size_t wanted = std::min(sizeof buffer, maxFileSize + 1 - text.size());
            ssize_t count = ::pread(file.get(), buffer, wanted, offset);
            if (count < 0) {
                if (errno == EINTR) continue;
                return fail(errorText(errno));
            }
            if (count == 0) break;
            text.append(buffer, static_cast<size_t>(count));
            offset += count;
        }

        std::string error;
        std::optional<nlohmann::json> json = parseText(text, error);
        if (!json) return fail(error);
        if (!json->is_object()) {
            TLOG_ERROR("parse()", "Valid JSON, but invalid dev config JSON");
            return std::nullopt;
        }
        return std::move(json->get_ref<Configuration&>());
    } catch (const std::exception& failure) {
        return fail(failure.what());
    }
}

}  // namespace VpnHelper
