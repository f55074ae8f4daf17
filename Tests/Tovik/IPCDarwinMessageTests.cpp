// Requests and responses between this process and a peer process
// (Tests/Tools/darwin-notify-peer.cpp) on a private bus.
#include "Tovik/IPCDarwinMessage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Kernel/FileDescriptor.h"
#include "Notify/DarwinNotifyCenter.h"
#include "Posix/ChildProcess.h"
#include "Support/LogCapture.h"
#include "Support/PrivateBus.h"
#include "Support/TestSupport.h"

namespace {

using Notify::DarwinNotifyCenter;
using ::testing::ElementsAre;
using Tovik::IPCDarwinMessage;

auto* const bus =
    static_cast<TestSupport::PrivateBusEnvironment*>(testing::AddGlobalTestEnvironment(new TestSupport::PrivateBusEnvironment));

const std::string prefix = "com.velmora.tests";
std::string nameOf(const std::string& suffix) { return prefix + ".DARWIN_NOTIFICATION." + suffix; }

class Prefix : public Tovik::IPCDarwinMessageConfig {
public:
    std::string notificationPrefix() const override { return prefix; }
};

class IPCDarwinMessageTests : public ::testing::Test {
protected:
    void SetUp() override { IPCDarwinMessage::config(std::make_shared<Prefix>()); }
    TestSupport::ScopedLogCapture capture_;
};

// The peer program with its standard streams on pipes, read into text as it writes.
class Peer {
public:
    explicit Peer(std::vector<std::string> arguments) {
        int in[2], out[2], err[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
        Kernel::FileDescriptor childIn(in[0]), childOut(out[1]), childErr(err[1]);
        input_.reset(in[1]);
        Posix::ChildProcess::Options options;
        options.arguments = std::move(arguments);
        options.standardInput = childIn.get();
        options.standardOutput = childOut.get();
        options.standardError = childErr.get();
        child_ = Posix::ChildProcess::spawn(DARWIN_NOTIFY_PEER, options);
        readers_.emplace_back(&Peer::collect, this, Kernel::FileDescriptor(out[0]), &out_);
        readers_.emplace_back(&Peer::collect, this, Kernel::FileDescriptor(err[0]), &err_);
    }
    ~Peer() {
        input_.reset();
        if (child_) ::kill(child_->pid(), SIGTERM);
        for (auto& reader : readers_) reader.join();
    }
    std::string out() const { return text(out_); }
    std::string err() const { return text(err_); }
    /// Both streams ended: the peer has exited.
    bool finished() const { return ended_ == 2; }

private:
    void collect(Kernel::FileDescriptor from, std::string* into) {
        char buffer[512];
        ssize_t count;
        while ((count = ::read(from.get(), buffer, sizeof buffer)) > 0) {
            std::lock_guard guard(mutex_);
            into->append(buffer, static_cast<size_t>(count));
        }
        ++ended_;
    }
    std::string text(const std::string& stream) const {
        std::lock_guard guard(mutex_);
        return stream;
    }

    std::optional<Posix::ChildProcess> child_;
    Kernel::FileDescriptor input_;
    mutable std::mutex mutex_;
    std::string out_, err_;  // guarded by mutex_
    std::atomic<int> ended_{0};
    std::vector<std::thread> readers_;
};

long countOf(const std::string& text, const std::string& part) {
    long count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

TEST_F(IPCDarwinMessageTests, AnotherProcessAnswersARequest) {
    Peer peer({bus->address(), "answer", prefix, "X", "1"});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return peer.out() == "ready\n"; })) << peer.err();
    // What travels on the bus, seen from here.
    auto names = std::make_shared<std::vector<std::string>>();
    auto mutex = std::make_shared<std::mutex>();
    auto& center = DarwinNotifyCenter::darwinNotifyCenter();
    const auto record = [names, mutex](const std::string& name) {
        std::lock_guard guard(*mutex);
        names->push_back(name);
    };
    ASSERT_TRUE(center.addObserver(&names, nameOf("X"), record));
    ASSERT_TRUE(center.addObserver(&names, nameOf("X.1"), record));

    EXPECT_TRUE(IPCDarwinMessage::sendRequest("X", "1"));
    EXPECT_TRUE(IPCDarwinMessage::sendRequest("X", ""));  // answered, but nothing awaited

    EXPECT_TRUE(TestSupport::waitUntil([&] { return peer.out() == "ready\nrequest\nrequest\n"; })) << peer.out();
    EXPECT_TRUE(TestSupport::waitUntil([&] {
        std::lock_guard guard(*mutex);
        return *names == std::vector<std::string>{nameOf("X"), nameOf("X.1"), nameOf("X"), nameOf("X.1")};
    }));
    const auto& log = capture_.recorder();
    EXPECT_EQ(log.count("V: (IPCDarwinMessage: sendRequest(_:responseId:)) calling sendRequest"), 2);
    EXPECT_EQ(log.count("V: (IPCDarwinMessage: sendRequest(_:responseId:)) After waiting, result: true"), 1);
    center.removeObserver(&names, nameOf("X"));
    center.removeObserver(&names, nameOf("X.1"));
}

TEST_F(IPCDarwinMessageTests, NoResponderGivesFalseAfterTheTimeOut) {
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("nobody", "1"));
    EXPECT_EQ(capture_.recorder().count(
                  "V: (IPCDarwinMessage: sendRequest(_:responseId:)) After waiting, result: false"),
              1);
}

// The quickest possible answer: posted from the center's delivery queue the
// moment the request arrives, racing the sender towards its wait.
TEST_F(IPCDarwinMessageTests, AnAnswerFromTheDeliveryQueueWakesTheSender) {
    auto& center = DarwinNotifyCenter::darwinNotifyCenter();
    static int answerer;
    ASSERT_TRUE(center.addObserver(&answerer, nameOf("early"), [&center](const std::string&) {
        (void)center.postNotification(nameOf("early.1"));
    }));
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(IPCDarwinMessage::sendRequest("early", "1")) << i;
    center.removeObserver(&answerer, nameOf("early"));
}

// Each posted request runs the listener once; a second listener replaces the
// first without a second observer; an empty one removes both, so that the
// next listener is observed once again.
TEST_F(IPCDarwinMessageTests, ListenersAreReplacedAndRemoved) {
    struct Counts {
        std::atomic<int> first{0}, second{0}, third{0}, probes{0};
    };
    auto counts = std::make_shared<Counts>();
    IPCDarwinMessage::setRequestsListener("A", [counts] { ++counts->first; });
    IPCDarwinMessage::setRequestsListener("echo", [] { IPCDarwinMessage::sendResponse("echo", "1"); });
    IPCDarwinMessage::setRequestsListener("probe", [counts] { ++counts->probes; });
    // Listeners are put in place in order: once "probe" runs, the others are in place.
    ASSERT_TRUE(TestSupport::waitUntil([&] {
        EXPECT_TRUE(IPCDarwinMessage::sendRequest("probe", ""));
        return counts->probes > 0;
    }));
    // The echo is answered on the listeners' queue, so once it is answered
    // every listener change made and every request posted before it is done.
    const auto post = [] {
        EXPECT_TRUE(IPCDarwinMessage::sendRequest("echo", "1"));
        EXPECT_TRUE(IPCDarwinMessage::sendRequest("A", ""));
        EXPECT_TRUE(IPCDarwinMessage::sendRequest("echo", "1"));
    };

    post();
    EXPECT_EQ(counts->first, 1);
    IPCDarwinMessage::setRequestsListener("A", [counts] { ++counts->second; });
    post();
    EXPECT_EQ(counts->first, 1);
    EXPECT_EQ(counts->second, 1);
    IPCDarwinMessage::setRequestsListener("A", {});
    post();
    EXPECT_EQ(counts->second, 1);
    IPCDarwinMessage::setRequestsListener("A", [counts] { ++counts->third; });
    post();
    EXPECT_EQ(counts->third, 1);
    EXPECT_EQ(counts->second, 1);
}

// Used before config() and without a bus: false every time, one error for
// the missing configuration and one console line for the missing bus.
TEST(IPCDarwinMessageNoBusTests, RequestsFailAndTheMissingBusIsLoggedOnce) {
    TestSupport::TemporaryDirectory folder("no-bus");
    Peer peer({"unix:path=" + (folder / "missing").string(), "ask", prefix, "X", "1"});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return peer.finished(); })) << peer.out() << peer.err();
    EXPECT_EQ(peer.out(), "false\nfalse\nfalse\n");
    const std::string err = peer.err();
    EXPECT_EQ(countOf(err, "E: (IPCDarwinMessage: sendRequest(_:responseId:)) Not configured: call config(_:) "
                           "before using IPCDarwinMessage"),
              1)
        << err;
    EXPECT_EQ(countOf(err, "DarwinNotifyCenter: no "), 1) << err;
    EXPECT_EQ(countOf(err, "\n"), 2) << err;
}

}  // namespace
