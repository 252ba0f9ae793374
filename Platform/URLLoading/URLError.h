// URLError: failures of URL loading, in the platform's URL error domain with
// its codes. Descriptions are our own words; the failing URL is in the user
// information under NSErrorFailingURLStringKey.
#pragma once

#include "Platform/Foundation/Error.h"

#include <cstdint>
#include <string_view>

namespace platform {

inline constexpr std::string_view NSURLErrorDomain = "NSURLErrorDomain";
inline constexpr std::string_view NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

enum URLErrorCode : std::int64_t {
    NSURLErrorUnknown = -1,
    NSURLErrorCancelled = -999,
    NSURLErrorBadURL = -1000,
    NSURLErrorTimedOut = -1001,
    NSURLErrorUnsupportedURL = -1002,
    NSURLErrorCannotFindHost = -1003,
    NSURLErrorCannotConnectToHost = -1004,
    NSURLErrorNetworkConnectionLost = -1005,
    NSURLErrorHTTPTooManyRedirects = -1007,
    NSURLErrorBadServerResponse = -1011,
    NSURLErrorUserCancelledAuthentication = -1012,
    NSURLErrorCannotDecodeContentData = -1016,
    NSURLErrorSecureConnectionFailed = -1200,
    NSURLErrorServerCertificateHasBadDate = -1201,
    NSURLErrorServerCertificateUntrusted = -1202,
    NSURLErrorServerCertificateHasUnknownRoot = -1203,
    NSURLErrorClientCertificateRejected = -1205,
};

// An error of the URL domain for `code`, naming the URL that failed.
ErrorRef makeURLError(URLErrorCode code, std::string_view failingURL);

}  // namespace platform
