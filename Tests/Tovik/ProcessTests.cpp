// The runner against real children: this test binary, started again with
// "--process-tests-child", plays the tool and follows the steps it is given.
#include "Tovik/Process.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fstream>

#include "Support/LogCapture.h"
#include "Support/TestSupport.h"

namespace fs = std::filesystem;
using Foundation::Pipe;
using TestSupport::waitUntil;
using Tovik::Process;

namespace {

const std::string self = "/proc/self/exe";
const std::string childFlag = "--process-tests-child";

// Child steps: "out:<bytes>" and "err:<bytes>" write to standard output or
// error; "drain" waits until the reader has taken everything written so far;
// "stdin" reads standard input to its end; "exit:<n>" exits with n (0 after the last step).
const bool runsAsChild = [] {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> args;
    for (std::string arg; std::getline(in, arg, '\0');) args.push_back(arg);
    if (args.size() < 2 || args[1] != childFlag) return false;
    auto put = [](int fd, std::string_view bytes) { return write(fd, bytes.data(), bytes.size()) >= 0; };
    for (size_t i = 2; i < args.size(); ++i) {
        std::string_view step = args[i];
        if (step.starts_with("out:")) {
            put(1, step.substr(4));
        } else if (step.starts_with("err:")) {
            put(2, step.substr(4));
        } else if (step == "drain") {
            int pending = 0;
            while (ioctl(1, FIONREAD, &pending) == 0 && pending > 0) usleep(1000);
        } else if (step == "stdin") {
            char buffer[256];
            while (read(0, buffer, sizeof buffer) > 0) {
            }
        } else if (step.starts_with("exit:")) {
            _exit(std::stoi(std::string(step.substr(5))));
        }
    }
    _exit(0);
}();

// Runs this binary as a child following steps.
std::shared_ptr<Process> runChild(std::vector<std::string> steps, bool wait,
                                  const std::optional<Tovik::ProcessStream>& in = std::nullopt) {
    steps.insert(steps.begin(), childFlag);
    return Process::run(self, steps, std::nullopt, in, std::nullopt, std::nullopt, wait);
}

std::string running(const std::vector<std::string>& steps) {
    std::string text = "I: (Process) Running " + self + " " + childFlag;
    for (const auto& step : steps) text += " " + step;
    return text + " ";
}

std::string returned(pid_t pid, int status) {
    return "I: (Process) " + self + " (pid: " + std::to_string(pid) + ") returned " + std::to_string(status);
}

class ProcessTests : public ::testing::Test {
protected:
    std::vector<std::string> lines() const { return capture_.recorder().lines(); }
    bool logged(const std::string& text) const {
        auto all = lines();
        return std::find(all.begin(), all.end(), text) != all.end();
    }
    std::vector<std::string> outputLines() const {
        std::vector<std::string> output;
        for (auto& line : lines())
            if (line.starts_with("I: (Process) exe> ")) output.push_back(line.substr(13));
        return output;
    }

    TestSupport::ScopedLogCapture capture_;
};

}  // namespace

// Waiting returns once the exit status was logged; the output may follow.
TEST_F(ProcessTests, OutputIsLoggedOneRecordPerLineAndWaitingReturnsAfterTheExitStatus) {
    // A line split across reads, stderr beside stdout, CR LF (whose empty
    // line is dropped), invalid UTF-8, and a last line without a line feed.
    std::vector<std::string> steps = {"out:ab", "drain", "out:c\n", "err:oops\n",
                                      "out:d\r\ne\n\n", "out:\xff\xfe\n", "out:tail", "exit:3"};
    auto process = runChild(steps, true);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->terminationStatus(), 3);
    EXPECT_TRUE(logged(returned(process->processIdentifier(), 3)));
    ASSERT_TRUE(waitUntil([&] { return outputLines().size() >= 5; }));
    EXPECT_EQ(outputLines(), (std::vector<std::string>{"exe> abc", "exe> oops", "exe> d", "exe> e", "exe> tail"}));
    EXPECT_EQ(lines().front(), running(steps));
}

TEST_F(ProcessTests, WithoutWaitingTheCallReturnsWhileTheChildRuns) {
    auto input = Pipe::create();
    auto process = runChild({"stdin", "exit:7"}, false, Tovik::ProcessStream(input));
    ASSERT_TRUE(process);
    EXPECT_TRUE(process->isRunning());
    EXPECT_FALSE(logged(returned(process->processIdentifier(), 7)));
    input->fileHandleForWriting()->closeFile();
    ASSERT_TRUE(waitUntil([&] { return logged(returned(process->processIdentifier(), 7)); }));
    process->waitUntilExit();
    EXPECT_EQ(process->terminationStatus(), 7);
}

TEST_F(ProcessTests, ANonExecutableFileRunsNothing) {
    TestSupport::TemporaryDirectory dir;
    TestSupport::writeFile(dir / "plain", "#!/bin/sh\n");
    fs::permissions(dir / "plain", fs::perms::owner_read | fs::perms::owner_write);
    std::string plain = (dir / "plain").string();
    EXPECT_FALSE(Process::run(plain, std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt, true));
    EXPECT_EQ(lines(), std::vector<std::string>{"E: (Process: run(_:args:workdir:inpipe:outpipe:errpipe:wait:)) File " +
                                                plain + " can not be executed"});
}

TEST_F(ProcessTests, DroppedProcessesLeaveNoZombies) {
    std::vector<pid_t> pids;
    for (int i = 0; i < 8; ++i) {
        auto process = runChild({"out:bye\n"}, false);
        ASSERT_TRUE(process);
        pids.push_back(process->processIdentifier());
    }
    // A zombie keeps its /proc entry until it is reaped.
    ASSERT_TRUE(waitUntil([&] {
        for (pid_t pid : pids)
            if (fs::exists("/proc/" + std::to_string(pid))) return false;
        return true;
    })) << "a child was never reaped";
    for (pid_t pid : pids) EXPECT_TRUE(waitUntil([&] { return logged(returned(pid, 0)); }));
    EXPECT_TRUE(waitUntil([&] { return outputLines().size() == pids.size(); }));
}
