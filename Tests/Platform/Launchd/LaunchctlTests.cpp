#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "Launchd/Launchctl.h"
#include "Support/TestSupport.h"

namespace {

using Launchd::SystemctlResult;
using TestSupport::writeFile;

const std::string kLabel = "com.velmora.mac.vpn.vpn_helper";
const std::string kUnit = kLabel + ".service";
const std::string kLoadState = "show --property=LoadState --value " + kUnit;
const std::string kPrintShow =
    "show --property=Id,LoadState,ActiveState,SubState,UnitFileState,MainPID,ExecMainStatus " + kUnit;

std::string properties(const std::string& load, const std::string& active, const std::string& sub,
                       const std::string& enabled, const std::string& pid) {
    return "Id=" + kUnit + "\nLoadState=" + load + "\nActiveState=" + active + "\nSubState=" + sub +
           "\nUnitFileState=" + enabled + "\nMainPID=" + pid + "\nExecMainStatus=0\n";
}

struct Row {
    std::vector<std::string> args;
    std::vector<SystemctlResult> answers;  // systemctl's, call by call
    int status;
    std::vector<std::string> calls;  // systemctl's arguments, joined by blanks
    std::string out;                 // all of the standard output
    std::string err;                 // part of the standard error; "" when nothing may be written
};

TEST(LaunchctlTest, MapsEachSubcommandOntoSystemctlAndItsAnswersOntoLaunchctlResults) {
    TestSupport::TemporaryDirectory dir{"launchctl"};
    const std::string plist = (dir / "service.plist").string();
    writeFile(plist, "<plist version=\"1.0\"><dict><key>Label</key><string>" + kLabel +
                         "</string><key>RunAtLoad</key><true/></dict></plist>");
    const std::string unlabelled = (dir / "unlabelled.plist").string();
    writeFile(unlabelled, "<plist version=\"1.0\"><dict><key>Program</key><string>/x</string></dict></plist>");
    const std::string badLabel = (dir / "bad-label.plist").string();
    writeFile(badLabel, "<plist version=\"1.0\"><dict><key>Label</key><string>../x</string></dict></plist>");
    const std::string missing = (dir / "missing.plist").string();
    const SystemctlResult loaded{0, "loaded\n"}, notFound{0, "not-found\n"}, done{0, ""}, failed{1, ""};
    const std::string usage = "Usage: launchctl";

    const std::vector<Row> rows = {
        {{"bootout", "system/" + kLabel}, {loaded, done}, 0, {kLoadState, "disable --now " + kUnit}, "", ""},
        {{"bootout", "system/" + kLabel}, {notFound}, 3, {kLoadState}, "", "Boot-out failed: 3: No such process\n"},
        {{"bootout", "system/" + kLabel}, {failed}, 5, {kLoadState}, "",
         "Boot-out failed: 5: Input/output error (systemctl exited with status 1; is systemd running?)\n"},
        {{"bootout", "system/" + kLabel}, {loaded, {4, ""}}, 5, {kLoadState, "disable --now " + kUnit}, "",
         "Boot-out failed: 5: Input/output error (systemctl disable exited with status 4)\n"},

        {{"bootstrap", "system", plist}, {loaded, done}, 0, {kLoadState, "enable --now " + kUnit}, "", ""},
        {{"bootstrap", "system", plist}, {notFound}, 2, {kLoadState}, "",
         "Bootstrap failed: 2: No such file or directory (no systemd unit " + kUnit + ")\n"},
        {{"bootstrap", "system", missing}, {}, 2, {}, "",
         "Bootstrap failed: 2: No such file or directory (" + missing + ")\n"},
        {{"bootstrap", "system", unlabelled}, {}, 5, {}, "",
         "Bootstrap failed: 5: Input/output error (" + unlabelled + ": no Label)\n"},
        {{"bootstrap", "system", badLabel}, {}, 5, {}, "", badLabel + ": no Label"},

        {{"print", "system/" + kLabel},
         {{0, properties("loaded", "active", "running", "enabled", "4242")}},
         0,
         {kPrintShow},
         "system/" + kLabel + " = {\n\tunit = " + kUnit +
             "\n\tstate = running\n\tsystemd state = active/running\n\tenabled = enabled\n\tpid = 4242\n"
             "\tlast exit code = 0\n}\n",
         ""},
        {{"print", "system/" + kLabel},
         {{0, properties("loaded", "failed", "failed", "disabled", "0")}},
         0,
         {kPrintShow},
         "system/" + kLabel + " = {\n\tunit = " + kUnit +
             "\n\tstate = not running\n\tsystemd state = failed/failed\n\tenabled = disabled\n"
             "\tlast exit code = 0\n}\n",
         ""},
        {{"print", "system/" + kLabel},
         {{0, properties("not-found", "inactive", "dead", "", "0")}},
         113,
         {kPrintShow},
         "",
         "Could not find service \"" + kLabel + "\" in domain for system\n"},

        {{}, {}, 64, {}, "", usage},
        {{"help"}, {}, 64, {}, "", usage},
        {{"frobnicate"}, {}, 64, {}, "", usage},
        {{"bootout", "gui/501/" + kLabel}, {}, 64, {}, "", usage},
        {{"bootout", "system/"}, {}, 64, {}, "", usage},
        {{"bootout", "system/a b"}, {}, 64, {}, "", usage},
        {{"bootout", "system/" + kLabel, "extra"}, {}, 64, {}, "", usage},
        {{"bootstrap", "gui/501", plist}, {}, 64, {}, "", usage},
        {{"print", "system"}, {}, 64, {}, "", usage},
    };

    for (const Row& row : rows) {
        std::string command = "launchctl";
        for (const auto& arg : row.args) command += " " + arg;
        SCOPED_TRACE(command);
        std::vector<std::string> calls;
        auto systemctl = [&](const std::vector<std::string>& args) -> SystemctlResult {
            std::string call;
            for (const auto& arg : args) call += (call.empty() ? "" : " ") + arg;
            calls.push_back(call);
            return calls.size() <= row.answers.size() ? row.answers[calls.size() - 1] : SystemctlResult{99, ""};
        };
        std::ostringstream out, err;
        EXPECT_EQ(Launchd::launchctl(row.args, systemctl, out, err), row.status);
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(out.str(), row.out);
        if (row.err.empty()) {
            EXPECT_EQ(err.str(), "");
        } else {
            EXPECT_NE(err.str().find(row.err), std::string::npos) << err.str();
        }
    }
}

TEST(LaunchctlTest, RunSystemctlRunsTheOneOnPathWithItsArgumentsAndCapturesAllOfItsOutput) {
    TestSupport::TemporaryDirectory dir{"systemctl-path"};
    // More output than a pipe holds: it must be read while the child runs.
    writeFile(dir / "systemctl", "#!/bin/sh\nprintf '%s|' \"$@\"\n/usr/bin/head -c 100000 /dev/zero\nexit 3\n");
    ASSERT_EQ(chmod((dir / "systemctl").c_str(), 0755), 0);
    std::filesystem::create_directories(dir / "empty");
    // Each test runs in a process of its own: PATH need not be put back.
    ASSERT_EQ(setenv("PATH", ((dir / "empty").string() + ":" + dir.path().string()).c_str(), 1), 0);
    auto result = Launchd::runSystemctl({"show", "--value", "a b"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "show|--value|a b|" + std::string(100000, '\0'));
    ASSERT_EQ(setenv("PATH", (dir / "empty").c_str(), 1), 0);
    EXPECT_EQ(Launchd::runSystemctl({"show"}).status, 127);
}

}  // namespace
