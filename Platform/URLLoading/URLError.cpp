#include "Platform/URLLoading/URLError.h"

#include <string>

namespace platform {
namespace {

std::string_view describe(URLErrorCode code)
{
    switch (code) {
    case NSURLErrorCancelled: return "The load was cancelled.";
    case NSURLErrorBadURL: return "The URL is not one that can be loaded.";
    case NSURLErrorTimedOut: return "The server sent nothing for longer than the request's time-out.";
    case NSURLErrorUnsupportedURL: return "The URL's scheme is not one this transport loads.";
    case NSURLErrorCannotFindHost: return "The server's name could not be resolved.";
    case NSURLErrorCannotConnectToHost: return "Could not connect to the server.";
    case NSURLErrorNetworkConnectionLost: return "The connection to the server was lost before the answer was complete.";
    case NSURLErrorHTTPTooManyRedirects: return "The server redirected too many times.";
    case NSURLErrorBadServerResponse: return "The server's answer is not HTTP.";
    case NSURLErrorUserCancelledAuthentication: return "The server's certificate was not accepted.";
    case NSURLErrorCannotDecodeContentData: return "The server's compressed answer could not be decoded.";
    case NSURLErrorSecureConnectionFailed: return "A secure connection to the server could not be made.";
    case NSURLErrorServerCertificateHasBadDate: return "The server's certificate has expired or is not yet valid.";
    case NSURLErrorServerCertificateUntrusted: return "The server's certificate is not trusted.";
    case NSURLErrorServerCertificateHasUnknownRoot: return "The server's certificate was issued by an unknown authority.";
    case NSURLErrorClientCertificateRejected: return "The server rejected the client certificate.";
    case NSURLErrorUnknown: break;
    }
    return "The URL could not be loaded.";
}

// The failing URL as errors show it: errors are printed and logged, so the
// password of its user information is left out ("https://jo:pw@host/" reads
// "https://jo@host/"). The text need not be a valid URL; one to three slashes
// after the scheme begin the authority, as the transport reads them.
std::string withoutPassword(std::string_view url)
{
    const auto schemeEnd = url.find(':');
    const auto authorityStart = url.find_first_not_of('/', schemeEnd == std::string_view::npos ? 0 : schemeEnd + 1);
    if (schemeEnd == std::string_view::npos || authorityStart == std::string_view::npos ||
        authorityStart == schemeEnd + 1) {
        return std::string(url);
    }
    const auto authority = url.substr(authorityStart, url.find_first_of("/?#", authorityStart) - authorityStart);
    const auto at = authority.rfind('@');
    const auto colon = authority.find(':');
    if (at == std::string_view::npos || colon == std::string_view::npos || colon > at) {
        return std::string(url);
    }
    return std::string(url.substr(0, authorityStart + colon)) + std::string(url.substr(authorityStart + at));
}

}  // namespace

ErrorRef makeURLError(URLErrorCode code, std::string_view failingURL)
{
    return Error::create(std::string(NSURLErrorDomain), code,
                         Dictionary{{NSLocalizedDescriptionKey, std::string(describe(code))},
                                    {NSURLErrorFailingURLStringErrorKey, withoutPassword(failingURL)}});
}

}  // namespace platform
