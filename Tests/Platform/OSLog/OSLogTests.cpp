#include "OSLog/OSLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <syslog.h>

#include "Platform/OSLog/JournalCapture.h"

using OSLog::OSLogType;
using TestSupport::JournalCapture;
using ::testing::MatchesRegex;

TEST(OSLogTests, EntriesCarryPriorityFieldsAndVerbatimText) {
    JournalCapture journal;
    const OSLog::OSLog log("com.velmora.mac.vpn.vpn_helper", "main");
    // A line feed forces the binary field form; an entry too large for a datagram
    // can only arrive whole as a memory file.
    std::string big(600 * 1024, 'x');
    big[1000] = '\n';
    const std::tuple<OSLogType, std::string, std::string> cases[] = {
        {OSLogType::default_, "5", "100%d of %@ %s"}, {OSLogType::info, "6", "first\nsecond=2\n"},
        {OSLogType::debug, "7", "debug"},            {OSLogType::error, "3", ""},
        {OSLogType::fault, "2", big},
    };
    for (const auto& [type, priority, text] : cases) {
        log.log(type, text);
        auto fields = journal.next();
        EXPECT_EQ(fields["PRIORITY"], priority);
        EXPECT_EQ(fields.count("MESSAGE"), 1U);
        EXPECT_EQ(fields["MESSAGE"], text) << priority;
        EXPECT_EQ(fields["SUBSYSTEM"], "com.velmora.mac.vpn.vpn_helper");
        EXPECT_EQ(fields["CATEGORY"], "main");
        EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], "OSLogTests");
    }
}

// Without a journal socket entries go to syslog(3), which writes to /dev/log:
// a child with a private mount namespace mounts the folder of a socket this
// test reads over /dev.
TEST(OSLogTests, FallsBackToSyslogWithoutJournal) {
    JournalCapture syslogSocket("log");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount(syslogSocket.folder().c_str(), "/dev", nullptr, MS_BIND, nullptr) != 0) {
            ::_exit(77);
        }
        ::closelog();
        OSLog::OSLog::setJournalSocketPath("/nonexistent/journal.socket");
        const OSLog::OSLog log("sub", "cat");
        log.log(OSLogType::error, "fell back %d");
        log.log(OSLogType::default_, "notice");
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root for a private mount namespace";
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // LOG_USER (8) + err (3) = 11; LOG_USER + notice (5) = 13.
    EXPECT_THAT(syslogSocket.nextRaw().value_or(""), MatchesRegex("<11>[^\n]* OSLogTests: fell back %d"));
    EXPECT_THAT(syslogSocket.nextRaw().value_or(""), MatchesRegex("<13>[^\n]* OSLogTests: notice"));
}
