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
    long count(const std::string& line) const { return log.recorder().count(line); }
    std::optional<nlohmann::json> read(DevConfigKey key = DevConfigKey::authTxtDomain) { return utils[key]; }

    TestSupport::ScopedLogCapture log{Tovik::LogLevel::debug};
    TestSupport::TemporaryDirectory temp{"devconfig"};
    fs::path path = temp / "devConfig.json";
    DeveloperConfigUtils utils{path};
};

TEST_F(DeveloperConfigUtilsTest, OnlyARootOwnedRegularFileThatOnlyItsOwnerCanWriteIsUsed) {
    for (mode_t mode : {0644, 0600, 0444, 0744, 0664, 0646, 0000, 0654, 0645}) {
        bool usable = (mode & 033) == 0 && mode != 0;
        write(R"({"auth_txt_domain": "ok"})", mode);
        EXPECT_EQ(DeveloperConfigUtils(path)[DevConfigKey::authTxtDomain],
                  usable ? std::optional(nlohmann::json("ok")) : std::nullopt) << std::oct << mode;
    }
    EXPECT_EQ(count(kCheck + "Dev config file must have permissions readonly for other."), 5);

    fs::path good = write(R"({"auth_txt_domain": "ok"})", 0644, "good.json");
    write(R"({"auth_txt_domain": "other"})");
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

// Invalid JSON, JSON that is no object and files beyond the limits (refused
// before any value is built) answer nothing for every key, for good.
TEST_F(DeveloperConfigUtilsTest, UnusableContentsMakeEveryKeyMissingForGood) {
    const auto nested = [](size_t levels) {
        return R"({"config_fetch_urls": )" + std::string(levels, '[') + std::string(levels, ']') + "}";
    };
    std::string padded = R"({"auth_txt_domain": "ok", "pad": ")";
    padded += std::string(DeveloperConfigUtils::maxFileSize - padded.size() - 1, 'x') + "\"}";
    const std::string refused = "E: (DeveloperConfigUtils: parse()) Can't convert dev config json with error: ";
    const std::pair<std::string, std::string> cases[] = {
        {R"(["auth_txt_domain"])", "E: (DeveloperConfigUtils: parse()) Valid JSON, but invalid dev config JSON"},
        {R"({"auth_txt_domain": )", refused + "[json.exception.parse_error"},
        {nested(100'000), refused + "nesting deeper than 64 levels"},
        {nested(64), refused + "nesting deeper than 64 levels"},
        {padded, refused + "devConfig.json is larger than 1048576 bytes"},
        {R"({"auth_txt_domain": "ok"})" + std::string(1, '\0') + "tail", refused + "unexpected NUL byte at offset 25"},
    };
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(reason);
        const size_t before = log.recorder().lines().size();
        DeveloperConfigUtils fresh(write(text));
        EXPECT_TRUE(fresh.checkFile());
        for (DevConfigKey key : VpnHelper::allDevConfigKeys) EXPECT_EQ(fresh[key], std::nullopt);
        const auto lines = log.recorder().lines();
        EXPECT_EQ(std::count(lines.begin() + long(before), lines.end(), kReload), 1);
        EXPECT_EQ(std::count_if(lines.begin() + long(before), lines.end(),
                                [&](const std::string& line) { return line.starts_with(reason); }),
                  1);
    }
    DeveloperConfigUtils atTheLimits(write(nested(63)));  // 63 arrays in the top-level object: 64 levels
    EXPECT_EQ(atTheLimits[DevConfigKey::configFetchUrls], nlohmann::json::parse(nested(63))["config_fetch_urls"]);
    EXPECT_EQ(DeveloperConfigUtils(std::nullopt)[DevConfigKey::apiTxtDomain], std::nullopt);
    EXPECT_EQ(count(kCheck + "Can't obtain url for dev config file."), 1);
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
