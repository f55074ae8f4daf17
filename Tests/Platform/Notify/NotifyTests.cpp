// The notify center on a private bus: this process observes and posts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Dispatch/DispatchQueue.h"
#include "Notify/DarwinNotifyCenter.h"
#include "Support/PrivateBus.h"
#include "Support/TestSupport.h"

namespace {

using Notify::DarwinNotifyCenter;
using ::testing::Each;
using ::testing::ElementsAre;

// The center connects once per process: one bus for all the tests.
testing::Environment* const bus = testing::AddGlobalTestEnvironment(new TestSupport::PrivateBusEnvironment);

// "<tag>:<name>" per callback, with the queue it ran on. Shared with the
// callbacks, which may outlive a test.
class Recorder {
public:
    static std::shared_ptr<Recorder> make() { return std::make_shared<Recorder>(); }
    static DarwinNotifyCenter::Callback callback(const std::shared_ptr<Recorder>& recorder, std::string tag) {
        return [recorder, tag](const std::string& name) {
            std::lock_guard guard(recorder->mutex_);
            recorder->calls_.push_back(tag + ":" + name);
            recorder->queues_.push_back(Dispatch::DispatchQueue::currentLabel());
        };
    }
    std::vector<std::string> calls() const {
        std::lock_guard guard(mutex_);
        return calls_;
    }
    std::vector<std::string> queues() const {
        std::lock_guard guard(mutex_);
        return queues_;
    }
    // Waits until the calls end with `last` (posted last, so every earlier
    // post has been delivered), then takes them.
    std::vector<std::string> takeThrough(const std::string& last) {
        EXPECT_TRUE(TestSupport::waitUntil([&] {
            auto c = calls();
            return !c.empty() && c.back() == last;
        })) << last;
        std::lock_guard guard(mutex_);
        return std::exchange(calls_, {});
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;   // guarded by mutex_
    std::vector<std::string> queues_;  // guarded by mutex_
};

TEST(NotifyTests, EachRegistrationGetsTheNamesItObservesOnTheDeliveryQueue) {
    auto& center = DarwinNotifyCenter::darwinNotifyCenter();
    auto recorder = Recorder::make();
    int a = 0, b = 0;
    const std::string plain = "com.velmora.test.plain";
    const std::string awkward = "it's a \\ 'quoted', name \xC3\xBC";  // match-rule syntax inside the name
    ASSERT_TRUE(center.addObserver(&a, plain, Recorder::callback(recorder, "a")));
    ASSERT_TRUE(center.addObserver(&b, plain, Recorder::callback(recorder, "b")));
    ASSERT_TRUE(center.addObserver(&a, awkward, Recorder::callback(recorder, "a")));
    ASSERT_TRUE(center.addObserver(&a, "end", Recorder::callback(recorder, "a")));

    for (const auto& name : {awkward, plain, std::string("com.velmora.test.other"), std::string("end")}) {
        EXPECT_TRUE(center.postNotification(name));
    }
    EXPECT_THAT(recorder->takeThrough("a:end"), ElementsAre("a:" + awkward, "a:" + plain, "b:" + plain, "a:end"));
    EXPECT_THAT(recorder->queues(), Each(std::string(DarwinNotifyCenter::deliveryQueueLabel)));

    center.removeObserver(&b, plain);
    EXPECT_TRUE(center.postNotification(plain));
    EXPECT_TRUE(center.postNotification("end"));
    EXPECT_THAT(recorder->takeThrough("a:end"), ElementsAre("a:" + plain, "a:end"));

    center.removeObserver(&a, plain);
    EXPECT_TRUE(center.postNotification(plain));
    EXPECT_TRUE(center.postNotification("end"));
    EXPECT_THAT(recorder->takeThrough("a:end"), ElementsAre("a:end"));
    center.removeObserver(&a, awkward);
    center.removeObserver(&a, "end");
}

// Names a D-Bus string cannot hold are refused; the longest accepted name,
// made of the character that needs the most escaping, still travels.
TEST(NotifyTests, InvalidNamesAreRefusedAndTheLongestValidNameTravels) {
    auto& center = DarwinNotifyCenter::darwinNotifyCenter();
    const std::string invalid[] = {"", "bad\xFF", std::string("a\0b", 3), "\xEF\xBF\xBE", std::string(201, 'x')};
    for (const auto& name : invalid) {
        EXPECT_FALSE(center.addObserver(nullptr, name, [](const std::string&) {})) << name;
        EXPECT_FALSE(center.postNotification(name)) << name;
    }
    auto recorder = Recorder::make();
    const std::string longest(200, '\'');
    ASSERT_TRUE(center.addObserver(nullptr, longest, Recorder::callback(recorder, "n")));
    EXPECT_TRUE(center.postNotification(longest));
    EXPECT_THAT(recorder->takeThrough("n:" + longest), ElementsAre("n:" + longest));
    center.removeObserver(nullptr, longest);
}

}  // namespace
