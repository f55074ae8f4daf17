// URL-loading error codes and the translation of a failed libcurl transfer
// into the error the platform would report for it.
//
// Transfer result (CURLcode) and the socket's errno (CURLINFO_OS_ERRNO, 0 when
// libcurl has none) give:
//
//   CURLE_OPERATION_TIMEDOUT                             -1001 timedOut
//   CURLE_COULDNT_RESOLVE_HOST                           -1003 cannotFindHost
//   CURLE_COULDNT_RESOLVE_PROXY                          -1006 dnsLookupFailed
//   CURLE_COULDNT_CONNECT, errno ENETUNREACH / ENETDOWN  -1009 notConnectedToInternet
//   CURLE_COULDNT_CONNECT, errno ETIMEDOUT               -1001 timedOut
//   CURLE_COULDNT_CONNECT, any other errno               -1004 cannotConnectToHost
//   CURLE_SEND_ERROR / CURLE_RECV_ERROR, errno 0,
//     ECONNRESET, EPIPE, ECONNABORTED or ENOTCONN        -1005 networkConnectionLost
//   CURLE_SEND_ERROR / CURLE_RECV_ERROR, other errno     NSPOSIXErrorDomain <errno>
//     (EPROTOTYPE, 41, among them)
//   CURLE_GOT_NOTHING, CURLE_PARTIAL_FILE                -1005 networkConnectionLost
//   CURLE_ABORTED_BY_CALLBACK                            -999  cancelled
//   CURLE_URL_MALFORMAT                                  -1000 badURL
//   CURLE_UNSUPPORTED_PROTOCOL                           -1002 unsupportedURL
//   CURLE_TOO_MANY_REDIRECTS                             -1007 httpTooManyRedirects
//   CURLE_WEIRD_SERVER_REPLY                             -1011 badServerResponse
//   CURLE_PEER_FAILED_VERIFICATION                       -1202 serverCertificateUntrusted
//   CURLE_SSL_CONNECT_ERROR                              -1200 secureConnectionFailed
//   anything else                                        -1    unknown
//
// URL-domain errors carry the failing URL and libcurl's own text (when it has
// one) in userInfo; POSIX errors carry strerror's text.
#pragma once

#include <string_view>

#include "URLLoading/NSError.h"

namespace Foundation {

enum class URLError : long {
    unknown = -1,
    cancelled = -999,
    badURL = -1000,
    timedOut = -1001,
    unsupportedURL = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    dnsLookupFailed = -1006,
    httpTooManyRedirects = -1007,
    notConnectedToInternet = -1009,
    badServerResponse = -1011,
    secureConnectionFailed = -1200,
    serverCertificateUntrusted = -1202,
};

/// An NSURLErrorDomain error with the platform's text for the code.
NSError makeURLError(URLError code, std::string_view failingURL = {}, std::string_view reason = {});

/// The error for a failed transfer (see the table above). curlCode is a
/// CURLcode other than CURLE_OK; detail is libcurl's error buffer, may be empty.
NSError errorForTransfer(int curlCode, int osErrno, std::string_view failingURL, std::string_view detail);

}  // namespace Foundation
