// libcurl, loaded on the first request rather than at start-up: a daemon that
// idles for months never maps it, nor the TLS, LDAP, Kerberos and SSH
// libraries it pulls in (most of an idle daemon's resident memory otherwise).
#pragma once

#include <curl/curl.h>

#include <string>

namespace VLVpnClient {

struct CurlLibrary {
    CURL* (*easyInit)();
    CURLcode (*easySetopt)(CURL*, CURLoption, ...);
    CURLcode (*easyPerform)(CURL*);
    CURLcode (*easyGetinfo)(CURL*, CURLINFO, ...);
    void (*easyCleanup)(CURL*);
    const char* (*easyStrerror)(CURLcode);
    curl_slist* (*slistAppend)(curl_slist*, const char*);
    void (*slistFreeAll)(curl_slist*);
    // The multi interface, for transfers that can be cancelled while they wait.
    CURLM* (*multiInit)();
    CURLMcode (*multiAddHandle)(CURLM*, CURL*);
    CURLMcode (*multiRemoveHandle)(CURLM*, CURL*);
    CURLMcode (*multiPerform)(CURLM*, int*);
    CURLMcode (*multiPoll)(CURLM*, curl_waitfd*, unsigned int, int, int*);
    CURLMcode (*multiWakeup)(CURLM*);
    CURLMsg* (*multiInfoRead)(CURLM*, int*);
    CURLMcode (*multiCleanup)(CURLM*);

    /// The library, loaded and globally initialised once per process; nothing
    /// when it cannot be loaded, with the reason in loadError(). Thread-safe.
    static const CurlLibrary* shared();
    static const std::string& loadError();
};

}  // namespace VLVpnClient
