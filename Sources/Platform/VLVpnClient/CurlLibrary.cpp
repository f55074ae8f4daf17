#include "VLVpnClient/CurlLibrary.h"

#include <dlfcn.h>

namespace VLVpnClient {

namespace {

constexpr const char* libraryName = "libcurl.so.4";

struct Loaded {
    CurlLibrary library{};
    bool ok = false;
    std::string error;
};

template <typename Function>
bool resolve(void* handle, const char* name, Function& function, std::string& error) {
    function = reinterpret_cast<Function>(::dlsym(handle, name));
    if (function == nullptr) error = std::string("libcurl lacks ") + name;
    return function != nullptr;
}

Loaded load() {
    Loaded loaded;
    // Never closed: handles and callbacks of the library live as long as the process.
    void* handle = ::dlopen(libraryName, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();
        loaded.error = reason != nullptr ? reason : std::string("cannot load ") + libraryName;
        return loaded;
    }
    CurlLibrary& c = loaded.library;
    CURLcode (*globalInit)(long) = nullptr;
    std::string& e = loaded.error;
    loaded.ok = resolve(handle, "curl_global_init", globalInit, e) && resolve(handle, "curl_easy_init", c.easyInit, e) &&
                resolve(handle, "curl_easy_setopt", c.easySetopt, e) &&
                resolve(handle, "curl_easy_perform", c.easyPerform, e) &&
                resolve(handle, "curl_easy_getinfo", c.easyGetinfo, e) &&
                resolve(handle, "curl_easy_cleanup", c.easyCleanup, e) &&
                resolve(handle, "curl_easy_strerror", c.easyStrerror, e) &&
                resolve(handle, "curl_slist_append", c.slistAppend, e) &&
                resolve(handle, "curl_slist_free_all", c.slistFreeAll, e) &&
                resolve(handle, "curl_multi_init", c.multiInit, e) &&
                resolve(handle, "curl_multi_add_handle", c.multiAddHandle, e) &&
                resolve(handle, "curl_multi_remove_handle", c.multiRemoveHandle, e) &&
                resolve(handle, "curl_multi_perform", c.multiPerform, e) &&
                resolve(handle, "curl_multi_poll", c.multiPoll, e) &&
                resolve(handle, "curl_multi_wakeup", c.multiWakeup, e) &&
                resolve(handle, "curl_multi_info_read", c.multiInfoRead, e) &&
                resolve(handle, "curl_multi_cleanup", c.multiCleanup, e);
    if (loaded.ok && globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        loaded.ok = false;
        e = "curl_global_init failed";
    }
    return loaded;
}

const Loaded& loadedOnce() {
    static const Loaded loaded = load();
    return loaded;
}

}  // namespace

const CurlLibrary* CurlLibrary::shared() {
    const Loaded& loaded = loadedOnce();
    return loaded.ok ? &loaded.library : nullptr;
}

const std::string& CurlLibrary::loadError() { return loadedOnce().error; }

}  // namespace VLVpnClient
