#include "URLLoading/URLError.h"

#include <curl/curl.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Foundation {

namespace {

const char* textFor(URLError code) {
    switch (code) {
        case URLError::cancelled: return "cancelled";
        case URLError::badURL: return "bad URL";
        case URLError::timedOut: return "The request timed out.";
        case URLError::unsupportedURL: return "unsupported URL";
        case URLError::cannotFindHost: return "A server with the specified hostname could not be found.";
        case URLError::cannotConnectToHost: return "Could not connect to the server.";
        case URLError::networkConnectionLost: return "The network connection was lost.";
        case URLError::dnsLookupFailed: return "DNS lookup failed.";
        case URLError::httpTooManyRedirects: return "too many HTTP redirects";
        case URLError::notConnectedToInternet: return "The Internet connection appears to be offline.";
        case URLError::badServerResponse: return "bad server response";
        case URLError::secureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be made.";
        case URLError::serverCertificateUntrusted: return "The certificate for this server is invalid.";
        case URLError::unknown: break;
    }
    return "unknown error";
}

bool connectionDropped(int osErrno) {
    return osErrno == 0 || osErrno == ECONNRESET || osErrno == EPIPE || osErrno == ECONNABORTED ||
           osErrno == ENOTCONN;
}

NSError posixError(int osErrno) {
    return NSError{std::string(NSPOSIXErrorDomain), osErrno, std::strerror(osErrno), {}};
}

}  // namespace

NSError makeURLError(URLError code, std::string_view failingURL, std::string_view reason) {
    NSError error{std::string(NSURLErrorDomain), static_cast<long>(code), textFor(code), {}};
    if (!failingURL.empty()) error.userInfo.emplace_back(NSErrorFailingURLStringKey, failingURL);
    if (!reason.empty()) error.userInfo.emplace_back(NSLocalizedFailureReasonErrorKey, reason);
    return error;
}

NSError errorForTransfer(int curlCode, int osErrno, std::string_view failingURL, std::string_view detail) {
    auto url = [&](URLError code) { return makeURLError(code, failingURL, detail); };
    switch (curlCode) {
        case CURLE_OPERATION_TIMEDOUT: return url(URLError::timedOut);
        case CURLE_COULDNT_RESOLVE_HOST: return url(URLError::cannotFindHost);
        case CURLE_COULDNT_RESOLVE_PROXY: return url(URLError::dnsLookupFailed);
        case CURLE_COULDNT_CONNECT:
            if (osErrno == ENETUNREACH || osErrno == ENETDOWN) return url(URLError::notConnectedToInternet);
            if (osErrno == ETIMEDOUT) return url(URLError::timedOut);
            return url(URLError::cannotConnectToHost);
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
            // Any other socket error is reported as itself, EPROTOTYPE (what a
            // send on a socket being torn down fails with) among them.
            return connectionDropped(osErrno) ? url(URLError::networkConnectionLost) : posixError(osErrno);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE: return url(URLError::networkConnectionLost);
        case CURLE_ABORTED_BY_CALLBACK: return url(URLError::cancelled);
        case CURLE_URL_MALFORMAT: return url(URLError::badURL);
        case CURLE_UNSUPPORTED_PROTOCOL: return url(URLError::unsupportedURL);
        case CURLE_TOO_MANY_REDIRECTS: return url(URLError::httpTooManyRedirects);
        case CURLE_WEIRD_SERVER_REPLY: return url(URLError::badServerResponse);
        case CURLE_PEER_FAILED_VERIFICATION: return url(URLError::serverCertificateUntrusted);
        case CURLE_SSL_CONNECT_ERROR: return url(URLError::secureConnectionFailed);
        default: return url(URLError::unknown);
    }
}

}  // namespace Foundation
