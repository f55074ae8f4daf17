#include "vpn_helper/DeveloperConfigUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using VpnHelper::DevConfigKey;
using VpnHelper::DeveloperConfigUtils;

const std::string kCheck = "D: (DeveloperConfigUtils: checkFile()) ";
const std::string kReload = "D: (DeveloperConfigUtils: subscript(_:)) Reloading devConfig.json";
const std::string kSkip =
    "D: (DeveloperConfigUtils: subscript(_:)) Skipping to reload devConfig.json - incorrect file permissions";
const std::string kPermissions = kCheck + "Dev config file must have permissions readonly for other.";

class DeveloperConfigUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the file must be owned by root";
    }
    fs::path write(const std::string& json, mode_t mode = 0644, const std::string& name = "devConfig.json") {
        TestSupport::writeFile(temp / name, json);
        EXPECT_EQ(::chmod((temp / name).c_str(), mode), 0);
        return temp / name;
    }
    long count(const std::string& line) const {
        auto lines = log.recorder().lines();
        return std::count(lines.begin(), lines.end(), line);
    }
    std::optional<nlohmann::json> read(DevConfigKey key = DevConfigKey::authTxtDomain) { return utils[key]; }

    TestSupport::ScopedLogCapture log{Tovik::LogLevel::debug};
    TestSupport::TemporaryDirectory temp{"devconfig"};
    fs::path path = temp / "devConfig.json";
    DeveloperConfigUtils utils{path};
};

TEST_F(DeveloperConfigUtilsTest, PermissionMatrix) {
    for (mode_t mode : {0644, 0600, 0444, 0744, 0664, 0646, 0000, 0654, 0645}) {
        bool usable = (mode & 033) == 0 && mode != 0;
        write(R"({"auth_txt_domain": "ok"})", mode);
        long rejected = count(kPermissions);
        EXPECT_EQ(DeveloperConfigUtils(path)[DevConfigKey::authTxtDomain],
                  usable ? std::optional(nlohmann::json("ok")) : std::nullopt) << std::oct << mode;
        EXPECT_EQ(count(kPermissions), rejected + (usable ? 0 : 1)) << std::oct << mode;
    }
}

TEST_F(DeveloperConfigUtilsTest, RejectsOtherOwnersLinksAndNonFiles) {
    fs::path good = write(R"({"auth_txt_domain": "ok"})", 0644, "good.json");
    write(R"({"auth_txt_domain": "other"})", 0400);
    ASSERT_EQ(::chown(path.c_str(), 1, 1), 0);
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(count(kCheck + "Dev config file is not root owned"), 1);

    fs::remove(path);
    fs::create_symlink(good, path);
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(count(kCheck + "Dev config file not exists: Too many levels of symbolic links"), 1);

    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);  // must not hang the check
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(count(kCheck + "Dev config file not exists: Not a regular file"), 1);
    EXPECT_EQ(count(kSkip), 3);
}

TEST_F(DeveloperConfigUtilsTest, AbsentFileIsCheckedOnEveryReadUntilOneLoads) {
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(count(kCheck + "Dev config file not exists: No such file or directory"), 2);
    EXPECT_EQ(count(kSkip), 2);

    write(R"({"auth_txt_domain": "first", "config_fetch_urls": ["https://a"], "ab_tests": true})");
    EXPECT_EQ(read(), nlohmann::json("first"));
    EXPECT_EQ(read(DevConfigKey::configFetchUrls), nlohmann::json({"https://a"}));
    write(R"({"auth_txt_domain": "changed"})");
    fs::remove(path);
    EXPECT_EQ(read(), nlohmann::json("first")) << "a loaded file is never read again";
    EXPECT_EQ(count(kReload), 1);
}

TEST_F(DeveloperConfigUtilsTest, ArraysAndInvalidJsonMakeEveryKeyMissingForGood) {
    for (const char* text : {R"(["auth_txt_domain"])", R"({"auth_txt_domain": )"}) {
        DeveloperConfigUtils fresh(write(text));
        EXPECT_TRUE(fresh.checkFile());
        for (DevConfigKey key : VpnHelper::allDevConfigKeys) EXPECT_EQ(fresh[key], std::nullopt);
    }
    auto lines = log.recorder().lines();
    EXPECT_EQ(count("E: (DeveloperConfigUtils: parse()) Valid JSON, but invalid dev config JSON"), 1);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& l) {
                  return l.starts_with("E: (DeveloperConfigUtils: parse()) Can't convert dev config json with "
                                       "error: [json.exception.parse_error");
              }), 1);
    EXPECT_EQ(count(kReload), 2);
    EXPECT_EQ(count(kCheck + "Can't obtain url for dev config file."), 0);
    EXPECT_EQ(DeveloperConfigUtils(std::nullopt)[DevConfigKey::apiTxtDomain], std::nullopt);
    EXPECT_EQ(count(kCheck + "Can't obtain url for dev config file."), 1);
}

TEST_F(DeveloperConfigUtilsTest, KeysUseTheirJsonNamesInCaseOrder) {
    const char* names[] = {"auth_txt_domain", "api_txt_domain", "auth_fallback_domain", "api_fallback_domain",
                           "disable_outbound_interface_binding", "tds_base_link", "promo_time_till_the_first_show",
                           "promo_time_duration", "config_fetch_urls", "config_fetch_timeout_ms", "tm_txt_domain",
                           "tm_fallback_domain", "app_force_using_trace_logs", "show_traffic_limit_reached_on_start",
                           "show_free_traffic_left_on_start", "show_too_many_device_connected_on_start",
                           "force_app_update", "handler_profiling_enabled", "ab_tests", "force_regional_blocks_promo"};
    nlohmann::json file;
    for (size_t i = 0; i < std::size(names); ++i) file[names[i]] = i;
    write(file.dump());
    ASSERT_EQ(VpnHelper::allDevConfigKeys.size(), std::size(names));
    EXPECT_EQ(DeveloperConfigUtils::queue().label(), "backend.client.queue");
    for (size_t i = 0; i < std::size(names); ++i) {
        DevConfigKey key = VpnHelper::allDevConfigKeys[i];
        EXPECT_EQ(static_cast<size_t>(key), i);
        EXPECT_EQ(DeveloperConfigUtils::queue().sync([&] { return read(key); }), nlohmann::json(i)) << names[i];
    }
}

// An attacker swaps the path between the good file and a symbolic or hard
// link to a file of another owner while the daemon loads it again and again.
TEST_F(DeveloperConfigUtilsTest, PathSwapsNeverLeakAnUncheckedFile) {
    Tovik::Logger::shared().setHandlers({});  // thousands of lines of no interest
    fs::path good = write(R"({"auth_txt_domain": "good"})", 0644, "good.json");
    fs::path evil = write(R"({"auth_txt_domain": "evil"})", 0644, "evil.json");
    ASSERT_EQ(::chown(evil.c_str(), 1, 1), 0);
    std::atomic<bool> stop{false};
    std::thread attacker([&] {
        const std::string staged = (temp / "staged").string();
        for (int n = 0; !stop; ++n) {
            ::unlink(staged.c_str());
            n % 2 == 0 ? ::link(good.c_str(), staged.c_str())
                       : (n % 4 == 1 ? ::symlink(evil.c_str(), staged.c_str()) : ::link(evil.c_str(), staged.c_str()));
            ::rename(staged.c_str(), path.c_str());
        }
    });
    long used = 0, rejected = 0, leaked = 0;
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3); std::chrono::steady_clock::now() < end;) {
        auto value = DeveloperConfigUtils(path)[DevConfigKey::authTxtDomain];
        ++(!value ? rejected : *value == "good" ? used : leaked);
    }
    stop = true;
    attacker.join();
    EXPECT_EQ(leaked, 0);
    EXPECT_GT(used, 0) << "the race was not exercised";
    EXPECT_GT(rejected, 0) << "the race was not exercised";
}

}  // namespace
