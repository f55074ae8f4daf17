// KeyStorageBase through a subclass whose hooks record, and the keychain
// storages KeyChainStorage and KeyChainData (in scripts/sandbox.sh, as root:
// their items go to the sandbox's system keychain).
#include "Tovik/KeyStorage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Foundation/NotificationCenter.h"
#include "Support/LogCapture.h"
#include "Support/MountNamespace.h"
#include "Support/TestSupport.h"
#include "Tovik/KeyChain.h"
#include "Tovik/KeyChainData.h"
#include "Tovik/KeyChainStorage.h"

using Foundation::PropertyList;
using TestSupport::insideSandbox;
using TestSupport::ScopedLogCapture;
using TestSupport::TemporaryDirectory;
using Tovik::KeyStorageBase;
using Dictionary = PropertyList::Dictionary;
using Data = KeyStorageBase::Data;

namespace {

Data blobOf(const PropertyList& value, PropertyList::Format format = PropertyList::Format::binary) {
    const std::string text = value.data(format);
    return Data(text.begin(), text.end());
}

Dictionary parsed(const Data& blob) {
    auto value = PropertyList::fromData(std::string_view(reinterpret_cast<const char*>(blob.data()), blob.size()));
    return value && value->get<Dictionary>() ? *value->get<Dictionary>() : Dictionary{{"not", "a dictionary"}};
}

/// What the recording storage's hooks saw and do; outlives the storage.
struct Hooks {
    std::mutex mutex;
    std::optional<Data> stored;  // what loadData() returns
    bool failLoad = false;
    bool failWrites = false;
    std::vector<Dictionary> writes;  // every blob storeData() took
    int deletes = 0;
    std::atomic<int> inside = 0;  // hooks running now
    std::atomic<bool> overlapped = false;
};

class RecordingStorage : public KeyStorageBase {
protected:
    RecordingStorage(std::shared_ptr<Hooks> hooks, double writeDelay)
        : KeyStorageBase("RecordingStorage", writeDelay), hooks_(std::move(hooks)) {}

    std::optional<Data> loadData() override {
        std::lock_guard guard(hooks_->mutex);
        if (hooks_->failLoad) throw std::runtime_error("unreadable");
        return hooks_->stored;
    }
    void storeData(const Data& blob) override {
        if (++hooks_->inside > 1) hooks_->overlapped = true;
        for (int i = 0; i < 50; ++i) std::this_thread::yield();  // widens the window for a second writer
        std::lock_guard guard(hooks_->mutex);
        --hooks_->inside;
        if (hooks_->failWrites) throw std::runtime_error("disk full");
        hooks_->stored = blob;
        hooks_->writes.push_back(parsed(blob));
    }
    void deleteData() override {
        std::lock_guard guard(hooks_->mutex);
        ++hooks_->deletes;
        hooks_->stored.reset();
    }

private:
    std::shared_ptr<Hooks> hooks_;
};

std::vector<Dictionary> writesOf(Hooks& hooks) {
    std::lock_guard guard(hooks.mutex);
    return hooks.writes;
}

const std::string loadError = "E: (KeyStorage: load()) ";

}  // namespace

TEST(KeyStorageTests, ChangesWithinTheDelayAreWrittenOnce) {
    auto hooks = std::make_shared<Hooks>();
    auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0.5);
    for (int i = 0; i < 100; ++i) storage->set(PropertyList(i), "k" + std::to_string(i));
    std::weak_ptr<RecordingStorage> watched = storage;
    storage.reset();
    // Every scheduled write holds the storage: it is gone once all have run.
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched.expired(); }));
    const auto writes = writesOf(*hooks);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].size(), 100u);
}

TEST(KeyStorageTests, FailedWriteStaysDirtyUntilAWriteSucceeds) {
    auto hooks = std::make_shared<Hooks>();
    hooks->failWrites = true;
    ScopedLogCapture capture;
    auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0);
    storage->set(PropertyList("v"), "a");
    EXPECT_EQ(capture.recorder().count("E: (KeyStorage: store()) Failed to store cache: disk full"), 1);
    {
        std::lock_guard guard(hooks->mutex);
        hooks->failWrites = false;
    }
    storage.reset();  // the last reference writes what is pending
    EXPECT_EQ(writesOf(*hooks), (std::vector<Dictionary>{{{"a", "v"}}}));
}

TEST(KeyStorageTests, RemovalResetAndDelete) {
    auto hooks = std::make_shared<Hooks>();
    auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0);
    storage->set(PropertyList(1), "a");
    storage->set(std::nullopt, "a");
    storage->reset({});  // written although nothing changed
    storage->reset({{"b", 2}});
    EXPECT_EQ(storage->object("b"), PropertyList(2));
    storage->delete_();
    EXPECT_TRUE(storage->isEmpty());
    storage->store();
    EXPECT_EQ(writesOf(*hooks), (std::vector<Dictionary>{{{"a", 1}}, {}, {}, {{"b", 2}}}));
    EXPECT_EQ(hooks->deletes, 1);
}

TEST(KeyStorageTests, LoadTakesOnlyDictionaries) {
    const Dictionary contents{{"a", "x"}, {"n", PropertyList::Array{1, 2.5, true}}};
    const std::string garbage = "bplist00 not really";
    struct Case {
        const char* name;
        std::optional<Data> stored;
        bool failLoad;
        Dictionary expected;
        std::vector<std::string> logged;
    } cases[] = {
        {"nothing", std::nullopt, false, {}, {}},
        {"binary", blobOf(contents), false, contents, {}},
        {"xml", blobOf(contents, PropertyList::Format::xml), false, contents, {}},
        {"array", blobOf(PropertyList::Array{"a"}), false, {}, {loadError + "The decoded object is not a dictionary"}},
        {"garbage", Data(garbage.begin(), garbage.end()), false, {},
         {loadError + "Failed to load stored cache: The data is not a property list"}},
        {"throws", std::nullopt, true, {}, {loadError + "Failed to load stored cache: unreadable"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto hooks = std::make_shared<Hooks>();
        hooks->stored = c.stored;
        hooks->failLoad = c.failLoad;
        ScopedLogCapture capture(Tovik::LogLevel::error);
        auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0);
        EXPECT_EQ(storage->dictionaryRepresentation(), c.expected);
        EXPECT_EQ(capture.recorder().lines(), c.logged);
    }

    // A later load that fails keeps what the storage holds.
    auto hooks = std::make_shared<Hooks>();
    hooks->stored = blobOf(contents);
    auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0);
    hooks->stored = blobOf(PropertyList::Array{});
    storage->load();
    EXPECT_EQ(storage->dictionaryRepresentation(), contents);
}

TEST(KeyStorageTests, WritesRunOneAtATimeAndTheLastContentsWin) {
    auto hooks = std::make_shared<Hooks>();
    auto storage = KeyStorageBase::make<RecordingStorage>(hooks, 0.001);
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                if (i % 2) storage->reset({{"writer", t}, {"i", i}});
                else storage->set(PropertyList(i), "w" + std::to_string(t));
            }
        });
    }
    for (auto& writer : writers) writer.join();
    const Dictionary last = storage->dictionaryRepresentation();
    std::weak_ptr<RecordingStorage> watched = storage;
    storage.reset();
    ASSERT_TRUE(TestSupport::waitUntil([&] { return watched.expired(); }));
    EXPECT_FALSE(hooks->overlapped) << "two writes ran at once";
    EXPECT_EQ(writesOf(*hooks).back(), last);
}

TEST(KeyStorageTests, KeyChainStorageKeepsTheBlobInOneItem) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture;

    auto storage = Tovik::KeyChainStorage::create("prefs");
    EXPECT_TRUE(storage->isEmpty());
    storage->set(PropertyList("x"), "a");
    const auto item = Tovik::KeyChain::load("prefs");
    ASSERT_TRUE(item);
    EXPECT_EQ(parsed(*item), (Dictionary{{"a", "x"}}));
    EXPECT_EQ(Tovik::KeyChainStorage::create("prefs")->object("a"), PropertyList("x"));

    storage->delete_();
    EXPECT_EQ(Tovik::KeyChain::load("prefs"), std::nullopt);
    storage->delete_();
    EXPECT_EQ(capture.recorder().count("D: (KeyChainStorage: loadData()) Load from prefs"), 2);
    EXPECT_EQ(capture.recorder().count("D: (KeyChainStorage: storeData(_:)) Store to prefs"), 1);
    EXPECT_EQ(capture.recorder().count("E: (KeyChainStorage: deleteData()) Failed to delete prefs"), 1);
}

TEST(KeyStorageTests, KeyChainDataKeepsACopyAndReportsAMissingKeychain) {
    TemporaryDirectory sandbox("sandbox");
    if (!insideSandbox(sandbox.path())) return;
    ScopedLogCapture capture(Tovik::LogLevel::error);
    const Data bytes{'v', 0xff};

    Tovik::KeyChainData data("");
    EXPECT_FALSE(data.store(bytes));
    EXPECT_EQ(data.get(), bytes) << "the copy changes even without a key";
    data.setKey("k");
    EXPECT_TRUE(data.store(bytes));
    EXPECT_EQ(Tovik::KeyChainData("k").get(), bytes);
    EXPECT_EQ(data.getString(), std::nullopt) << "not UTF-8";
    EXPECT_TRUE(data.storeString("text"));
    EXPECT_EQ(Tovik::KeyChainData("k").getString(), "text");
    EXPECT_TRUE(data.storeString(std::nullopt));
    EXPECT_EQ(Tovik::KeyChain::load("k"), std::nullopt);
    EXPECT_FALSE(data.store(std::nullopt));

    // A user without a home folder has no keychain to add items to.
    auto& center = Foundation::NotificationCenter::defaultCenter();
    std::vector<const void*> senders;
    const auto token =
        center.addObserver(Tovik::KeyChainData::keyChainNotAvailableNotification, nullptr,
                           [&](const Foundation::Notification& note) { senders.push_back(note.object); });
    ASSERT_EQ(seteuid(54321), 0);
    const bool stored = data.store(bytes);
    ASSERT_EQ(seteuid(0), 0);
    center.removeObserver(token);
    EXPECT_FALSE(stored);
    EXPECT_EQ(senders, (std::vector<const void*>{&data}));
    EXPECT_EQ(capture.recorder().lines(),
              (std::vector<std::string>{"E: (KeyChainData: store(_:)) Failed to delete k: status -25300",
                                        "E: (KeyChainData: store(_:)) Failed to store k: status -25291"}));
}
