#include "OSLog/OSLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <syslog.h>

#include "OSLog/ConsoleLog.h"
#include "Platform/OSLog/JournalCapture.h"

using OSLog::OSLogType;
using TestSupport::JournalCapture;

TEST(OSLogTests, EntriesCarryPriorityFieldsAndIdentifier) {
    JournalCapture journal;
    const OSLog::OSLog log("com.velmora.mac.vpn.vpn_helper", "main");
    const std::pair<OSLogType, std::string> cases[] = {
        {OSLogType::default_, "5"}, {OSLogType::info, "6"}, {OSLogType::debug, "7"},
        {OSLogType::error, "3"},    {OSLogType::fault, "2"},
    };
    for (const auto& [type, priority] : cases) {
        log.log(type, "entry " + priority);
        auto fields = journal.next();
        EXPECT_EQ(fields["PRIORITY"], priority);
        EXPECT_EQ(fields["MESSAGE"], "entry " + priority);
        EXPECT_EQ(fields["SUBSYSTEM"], "com.velmora.mac.vpn.vpn_helper");
        EXPECT_EQ(fields["CATEGORY"], "main");
        EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], "OSLogTests");
    }
}

TEST(OSLogTests, TextsArriveVerbatim) {
    JournalCapture journal;
    const OSLog::OSLog log("sub", "cat");

    log.log(OSLogType::default_, "100%d of %@ %s");
    EXPECT_EQ(journal.next()["MESSAGE"], "100%d of %@ %s");

    // A line feed forces the binary field form.
    log.log(OSLogType::default_, "first\nsecond=2\n");
    auto multiline = journal.next();
    EXPECT_EQ(multiline["MESSAGE"], "first\nsecond=2\n");
    EXPECT_EQ(multiline["CATEGORY"], "cat");

    log.log(OSLogType::error, "");
    auto empty = journal.next();
    ASSERT_TRUE(empty.count("MESSAGE"));
    EXPECT_EQ(empty["MESSAGE"], "");
    EXPECT_EQ(empty["PRIORITY"], "3");
}

TEST(OSLogTests, EntryTooLargeForADatagramTravelsAsMemoryFile) {
    JournalCapture journal;
    const OSLog::OSLog log("sub", "cat");
    std::string big(600 * 1024, 'x');
    big[1000] = '\n';
    log.log(OSLogType::fault, big);
    auto fields = journal.next();
    EXPECT_TRUE(journal.passedFile());
    EXPECT_EQ(fields["MESSAGE"], big);
    EXPECT_EQ(fields["PRIORITY"], "2");
}

// Without a journal socket entries go to syslog(3), which writes to /dev/log.
// The check runs in a child with a private mount namespace whose /dev is a
// fresh tmpfs holding the test's own /dev/log.
TEST(OSLogTests, FallsBackToSyslogWithoutJournal) {
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(report[0]);
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) {
            ::_exit(77);
        }
        int sink = ::socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/log");
        if (::bind(sink, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ::_exit(3);

        ::closelog();
        OSLog::OSLog::setJournalSocketPath("/nonexistent/journal.socket");
        const OSLog::OSLog log("sub", "cat");
        log.log(OSLogType::error, "fell back %d");
        log.log(OSLogType::default_, "notice");
        for (int i = 0; i < 2; ++i) {
            char buffer[1024];
            pollfd ready{sink, POLLIN, 0};
            if (::poll(&ready, 1, 5000) != 1) ::_exit(4);
            ssize_t size = ::recv(sink, buffer, sizeof buffer, 0);
            if (size <= 0) ::_exit(5);
            buffer[size] = '\n';
            if (::write(report[1], buffer, static_cast<size_t>(size) + 1) < 0) ::_exit(6);
        }
        ::_exit(0);
    }
    ::close(report[1]);
    std::string received;
    char chunk[1024];
    ssize_t got;
    while ((got = ::read(report[0], chunk, sizeof chunk)) > 0) received.append(chunk, static_cast<size_t>(got));
    ::close(report[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root for a private mount namespace";
    ASSERT_EQ(WEXITSTATUS(status), 0) << received;

    // LOG_USER (8) + err (3) = 11; LOG_USER + notice (5) = 13.
    EXPECT_THAT(received, ::testing::MatchesRegex("<11>[^\n]* OSLogTests: fell back %d\n"
                                                  "<13>[^\n]* OSLogTests: notice\n"));
}

TEST(OSLogTests, ConsoleLineHasDateProgramAndIds) {
    const std::string date = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
    const std::string ids = "\\[" + std::to_string(::getpid()) + ":" + std::to_string(::gettid()) + "\\]";
    EXPECT_THAT(OSLog::consoleLine("50%d %@"), ::testing::MatchesRegex(date + " OSLogTests" + ids + " 50%d %@"));
    EXPECT_THAT(OSLog::consoleLine(""), ::testing::MatchesRegex(date + " OSLogTests" + ids + " "));
}
