#include "Tovik/Logger/LogManager.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <mutex>
#include <typeinfo>
#include <utility>

#include "Dispatch/DispatchGroup.h"
#include "Dispatch/DispatchQueue.h"
#include "Tovik/ErrorText.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/UnfairLock.h"

namespace Tovik {

namespace {

UnfairLock& sharedLock() {
    static UnfairLock lock;
    return lock;
}

std::shared_ptr<LogManagerProtocol>& sharedManager() {  // guarded by sharedLock()
    static std::shared_ptr<LogManagerProtocol> manager = std::make_shared<LogManager>();
    return manager;
}

// The dynamic type's name, as written in code ("Tovik::FileLogManager").
std::string typeName(const LogManagerProtocol& manager) {
    const char* mangled = typeid(manager).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                     std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

}  // namespace

std::shared_ptr<LogManagerProtocol> LogManager::shared() {
    std::lock_guard guard(sharedLock());
    return sharedManager();
}

void LogManager::setShared(std::shared_ptr<LogManagerProtocol> manager) {
    std::lock_guard guard(sharedLock());
    sharedManager().swap(manager);
    // The previous manager is released outside the lock.
}

LogManager::LogManager(Handlers handlers) : handlers_(std::move(handlers)) {}

std::vector<std::string> LogManager::saveLogs(const LogSubsystemSelector& selecting, const std::string& inFolder,
                                              const LogSavingOpts& opts) {
    UnfairLock lock;
    std::vector<std::string> result;  // guarded by lock
    Dispatch::DispatchGroup group;
    const auto queue = Dispatch::DispatchQueue::global(Dispatch::DispatchQoS::userInitiated);
    for (const auto& manager : handlers_) {
        // The tasks use the caller's arguments by reference: this call outlives them (wait below).
        queue.async(group, [&, manager] {
            try {
                auto paths = manager->saveLogs(selecting, inFolder, opts);
                std::lock_guard guard(lock);
                result.insert(result.end(), std::make_move_iterator(paths.begin()),
                              std::make_move_iterator(paths.end()));
            } catch (...) {
                TLOG_ERROR("saveLogs(selecting:inFolder:opts:)",
                           typeName(*manager) + " Failed to save logs: " + errorText(std::current_exception()));
            }
        });
    }
    group.wait();
    return result;
}

void LogManager::resetLog() {
    for (const auto& manager : handlers_) {
        try {
            manager->resetLog();
        } catch (...) {
            TLOG_ERROR("resetLog()", typeName(*manager) + " Failed to reset log: " + errorText(std::current_exception()));
        }
    }
}

}  // namespace Tovik
