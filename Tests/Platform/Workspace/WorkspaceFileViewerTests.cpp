// Revealing files goes through a private bus daemon and a fake file manager.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "Support/PrivateBus.h"
#include "Support/TestSupport.h"
#include "Workspace/Workspace.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

using TestSupport::PrivateBus;
using TestSupport::ScopedBusAddress;

// Owns org.freedesktop.FileManager1 on the bus and records each ShowItems call.
class FakeFileManager {
public:
    enum class Answer { accept, refuse, never };
    struct Call {
        std::vector<std::string> uris;
        std::string startupId;
        bool operator==(const Call&) const = default;
    };

    FakeFileManager(const std::string& address, Answer answer) : answer_(answer) {
        sd_bus_new(&bus_);
        sd_bus_set_address(bus_, address.c_str());
        sd_bus_set_bus_client(bus_, 1);
        EXPECT_GE(sd_bus_start(bus_), 0);
        EXPECT_GE(sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/FileManager1",
                                           "org.freedesktop.FileManager1", vtable, this),
                  0);
        EXPECT_GE(sd_bus_request_name(bus_, "org.freedesktop.FileManager1", 0), 0);
        server_ = std::thread([this] {
            while (!stop_) {
                if (sd_bus_process(bus_, nullptr) > 0) continue;
                sd_bus_wait(bus_, 50'000);  // wakes for a request or to look at stop_
            }
        });
    }
    ~FakeFileManager() {
        stop_ = true;
        server_.join();
        sd_bus_flush_close_unref(bus_);
    }
    std::vector<Call> calls() const {
        std::lock_guard guard(mutex_);
        return calls_;
    }

private:
    static int showItems(sd_bus_message* message, void* userdata, sd_bus_error* error) {
        auto* self = static_cast<FakeFileManager*>(userdata);
        char** uris = nullptr;
        const char* startupId = nullptr;
        if (sd_bus_message_read_strv(message, &uris) < 0 || sd_bus_message_read(message, "s", &startupId) < 0) {
            return -EINVAL;
        }
        Call call{{}, startupId};
        for (char** uri = uris; uri && *uri; ++uri) call.uris.emplace_back(*uri);
        for (char** uri = uris; uri && *uri; ++uri) free(*uri);
        free(uris);
        {
            std::lock_guard guard(self->mutex_);
            self->calls_.push_back(call);
        }
        switch (self->answer_) {
            case Answer::accept: return sd_bus_reply_method_return(message, "");
            case Answer::refuse: return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "not today");
            case Answer::never: return 1;
        }
        return 1;
    }

    static constexpr sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("ShowItems", "ass", "", showItems, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    Answer answer_;
    sd_bus* bus_ = nullptr;
    std::thread server_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<Call> calls_;  // guarded by mutex_
};

// One reveal with the console (standard error) captured.
std::pair<bool, std::string> reveal(const std::vector<fs::path>& urls) {
    testing::internal::CaptureStderr();
    const bool shown = Workspace::Workspace::shared().activateFileViewerSelecting(urls);
    return {shown, testing::internal::GetCapturedStderr()};
}

TEST(WorkspaceFileViewerTests, ShowItemsReachesTheFileManagerAsFileUris) {
    TestSupport::TemporaryDirectory folder("file-viewer");
    PrivateBus bus(folder.path());
    ASSERT_FALSE(bus.address().empty());
    FakeFileManager fileManager(bus.address(), FakeFileManager::Answer::accept);

    EXPECT_EQ(reveal({"/var/log/Velmora VPN-shared.log", "/tmp/a&b/\xC3\xBC.zip"}),
              std::make_pair(true, std::string()));
    EXPECT_EQ(reveal({}), std::make_pair(true, std::string()));
    EXPECT_THAT(fileManager.calls(),
                ::testing::ElementsAre(FakeFileManager::Call{
                    {"file:///var/log/Velmora%20VPN-shared.log", "file:///tmp/a%26b/%C3%BC.zip"}, ""}));
}

// Every way of not being shown ends in false and one console line, soon.
TEST(WorkspaceFileViewerTests, NoBusNoFileManagerRefusalOrSilenceGiveFalseAndOneLine) {
    TestSupport::TemporaryDirectory folder("file-viewer");
    struct Row {
        const char* name;
        std::optional<FakeFileManager::Answer> fileManager;  // none: nobody owns the name
        bool busRuns;
        std::string reason;
    } rows[] = {
        {"no bus", std::nullopt, false, "no session bus: "},
        {"no file manager", std::nullopt, true, "org.freedesktop.DBus.Error.ServiceUnknown: "},
        {"refused", FakeFileManager::Answer::refuse, true, "org.freedesktop.DBus.Error.AccessDenied: not today"},
        {"never answers", FakeFileManager::Answer::never, true, "no answer in time"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::optional<PrivateBus> bus;
        std::optional<ScopedBusAddress> noBus;
        std::optional<FakeFileManager> fileManager;
        if (row.busRuns) bus.emplace(folder.path());
        else noBus.emplace("unix:path=" + (folder / "missing").string());
        if (row.fileManager) fileManager.emplace(bus->address(), *row.fileManager);

        const auto [shown, console] = reveal({"/srv/x.zip"});
        EXPECT_FALSE(shown);
        EXPECT_THAT(console, HasSubstr("Workspace: cannot reveal /srv/x.zip in the file manager: " + row.reason));
        EXPECT_EQ(std::count(console.begin(), console.end(), '\n'), 1) << console;
    }
}

}  // namespace
