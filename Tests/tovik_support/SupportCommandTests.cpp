#include "tovik_support/SupportCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <sstream>

#include "Support/TestSupport.h"
#include "Tovik/Logger/Handlers/FileLogHandler.h"
#include "Tovik/SystemUtils.h"

namespace {

namespace fs = std::filesystem;
using namespace TovikSupport;
using ::testing::HasSubstr;
using Args = std::vector<std::string>;

// The local time zone is two hours east of UTC while the object lives.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = ::getenv("TZ")) previous_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        previous_ ? (void)::setenv("TZ", previous_->c_str(), 1) : (void)::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> previous_;
};

Tovik::Date at(std::time_t seconds) { return std::chrono::system_clock::from_time_t(seconds); }

TEST(SupportCommandTests, DatesAreLocalTimeInThreeShapes) {
    ScopedTimeZone zone("UTC-2");
    const std::pair<const char*, std::optional<Tovik::Date>> rows[] = {
        {"2024-03-01", at(1709244000)},
        {"2024-03-01 10:00", at(1709280000)},
        {"2024-03-01T12:30:15", at(1709289015)},
        {"2024-02-29 23:59:59", at(1709243999)},
        {"2024-02-30", std::nullopt},
        {"2023-02-29", std::nullopt},
        {"2024-3-01", std::nullopt},
        {"2024-03-01 24:00", std::nullopt},
        {"2024-03-01 10:00:60", std::nullopt},
        {"2024-03-01x10:00", std::nullopt},
        {"2024-03-01 10:-1", std::nullopt},
        {"yesterday", std::nullopt},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(SupportCommand::parseDate(text), expected) << text;
}

TEST(SupportCommandTests, GoodLinesGiveTheirRequest) {
    ScopedTimeZone zone("UTC-2");
    ArchiveRequest full;
    full.logs = {"/l/a.log", "/l/b.log"};
    full.purpose = Tovik::SupportLogsPurpose::connection;
    full.subsystems = {"vpn", "ui"};
    full.maxSize = 1000;
    full.add = {"/x/notes.txt"};
    full.reveal = full.verbose = true;
    full.output = "o.zip";
    ArchiveRequest since;
    since.logs = {"a"};
    since.since = at(1709244000);
    since.output = "o.zip";
    ExtractRequest extract;
    extract.logs = {"a"};
    extract.since = at(1709280000);
    extract.until = at(1709289015);
    extract.subsystems = {"vpn"};
    extract.maxSize = 5;
    extract.output = "dir";

    const std::pair<Args, Request> rows[] = {
        {{"archive", "--log=/l/a.log", "--log", "/l/b.log", "--purpose", "connection", "--subsystem", "vpn",
          "--subsystem=ui", "--max-size", "1000", "--add", "/x/notes.txt", "--reveal", "--verbose", "--output",
          "o.zip"},
         full},
        {{"archive", "-o", "o.zip", "--since", "2024-03-01", "--log", "a"}, since},
        {{"extract", "--log", "a", "--since", "2024-03-01 10:00", "--until=2024-03-01T12:30:15", "--subsystem", "vpn",
          "--max-size", "5", "-o", "dir"},
         extract},
        {{"--help"}, HelpRequest{}},
        {{"archive", "--log", "a", "-h"}, HelpRequest{}},
    };
    for (const auto& [line, expected] : rows) {
        const auto parsed = SupportCommand::parse(line);
        ASSERT_TRUE(std::holds_alternative<Request>(parsed)) << std::get<UsageError>(parsed).message;
        EXPECT_TRUE(std::get<Request>(parsed) == expected) << ::testing::PrintToString(line);
    }
    ArchiveRequest defaults;
    defaults.logs = {"a"};
    defaults.output = "o.zip";
    EXPECT_TRUE(std::get<Request>(SupportCommand::parse({"archive", "--log", "a", "-o", "o.zip"})) ==
                Request(defaults));
    EXPECT_EQ(defaults.purpose, Tovik::SupportLogsPurpose::general);
}

TEST(SupportCommandTests, BadLinesExitWith2AndOneLine) {
    const std::pair<Args, std::string> rows[] = {
        {{}, "missing command (archive or extract); see --help"},
        {{"pack"}, "unknown command 'pack' (archive or extract); see --help"},
        {{"archive", "-o", "x.zip"}, "archive needs at least one --log"},
        {{"extract", "--log", "a"}, "extract needs -o"},
        {{"archive", "--log", "a", "-o", "x", "--until", "2024-01-01"}, "unknown option '--until' for archive"},
        {{"archive", "--log", "-o", "x"}, "option '--log' needs a value"},
        {{"archive", "--log=", "-o", "x"}, "option '--log' needs a value"},
        {{"archive", "--log", "a", "-o", "x", "-o", "y"}, "option '-o' given twice"},
        {{"archive", "--log", "a", "-o", "x", "--reveal=yes"}, "option '--reveal' takes no value"},
        {{"archive", "--log", "a", "-o", "x", "stray"}, "unexpected argument 'stray'"},
        {{"archive", "--log", "a", "-o", "x", "--since", "2024-02-30"},
         "invalid date '2024-02-30' for --since (YYYY-MM-DD, YYYY-MM-DD HH:MM[:SS] or YYYY-MM-DDTHH:MM[:SS])"},
        {{"archive", "--log", "a", "-o", "x", "--since", "2024-03-01", "--purpose", "general"},
         "--since and --purpose exclude each other"},
        {{"archive", "--log", "a", "-o", "x", "--purpose", "fast"}, "invalid purpose 'fast' (connection or general)"},
        {{"archive", "--log", "a", "-o", "x", "--max-size", "0"}, "invalid size '0' (a positive number of bytes)"},
        {{"archive", "--log", "a", "-o", "x", "--max-size", "12k"}, "invalid size '12k' (a positive number of bytes)"},
        {{"archive", "--log", "a", "-o", "x", "--add", "d1/n.txt", "--add", "d2/n.txt"},
         "two --add files are named 'n.txt'"},
        {{"extract", "--log", "a", "-o", "d", "--since", "2024-03-02", "--until", "2024-03-01"},
         "--since is later than --until"},
    };
    for (const auto& [line, message] : rows) {
        std::ostringstream out, err;
        EXPECT_EQ(SupportCommand::main(line, out, err, false), SupportCommand::exitUsage);
        EXPECT_EQ(err.str(), "tovik-support: " + message + "\n");
        EXPECT_EQ(out.str(), "");
    }
}

TEST(SupportCommandTests, HelpDocumentsEveryOption) {
    std::ostringstream out, err;
    EXPECT_EQ(SupportCommand::main({"--help"}, out, err, false), SupportCommand::exitSuccess);
    EXPECT_EQ(out.str(), SupportCommand::usage());
    const std::string options = out.str().substr(out.str().find("Options:"));
    for (const char* option : {"--log PATH", "--since DATE", "--until DATE", "--purpose P", "--subsystem NAME",
                               "--max-size BYTES", "--add FILE", "--reveal", "-o, --output PATH", "--verbose",
                               "-h, --help"}) {
        EXPECT_THAT(options, HasSubstr("\n  " + std::string(option) + " ")) << option;
    }
}

// The built program archives a log written by FileLogHandler and an extra file.
TEST(SupportCommandTests, ProgramWritesAnArchiveOfALogAndLeavesNoTemporaryFiles) {
    TestSupport::TemporaryDirectory temp("support-command");
    const fs::path log = temp / "Velmora VPN-group.log", notes = temp / "notes.txt", tmp = temp / "tmp";
    {
        Tovik::FileLogHandler handler("com.velmora.mac.vpn.test", log.string(), true);
        handler.log(Tovik::LogLevel::info, std::chrono::system_clock::now(), "I: (SupportCommandTests) hello support");
    }
    TestSupport::writeFile(notes, "steps to reproduce");
    fs::create_directories(tmp);
    const fs::path archive = temp / "out" / "support.zip";

    const auto [status, output] = Tovik::SystemUtil::cliUtilText(
        "/usr/bin/env", {"TMPDIR=" + tmp.string(), TOVIK_SUPPORT_BINARY, "archive", "--log", log.string(), "--add",
                         notes.string(), "-o", archive.string()},
        std::nullopt, true);
    ASSERT_EQ(status, 0) << output.value_or("");
    EXPECT_EQ(output, archive.string() + "\n");
    EXPECT_TRUE(fs::is_empty(tmp));

    const auto listing = Tovik::SystemUtil::cliUtilText("/usr/bin/unzip", {"-l", archive.string()}, std::nullopt, true);
    EXPECT_THAT(listing.second.value_or(""), HasSubstr("support/Velmora VPN-group.log"));
    EXPECT_THAT(listing.second.value_or(""), HasSubstr("support/notes.txt"));
    const auto saved = Tovik::SystemUtil::cliUtilText(
        "/usr/bin/unzip", {"-p", archive.string(), "support/Velmora VPN-group.log"}, std::nullopt, true);
    EXPECT_THAT(saved.second.value_or(""),
                HasSubstr("[com.velmora.mac.vpn.test] I: (SupportCommandTests) hello support"));
}

}  // namespace
