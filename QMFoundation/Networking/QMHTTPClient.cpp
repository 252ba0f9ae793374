#include "QMFoundation/Networking/QMHTTPClient.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/URLError.h"
#include "QMFoundation/Strings/NSDictionary+QMURLEncoding.h"
#include "QMFoundation/Strings/NSString+QMBase64Transcoding.h"

#include <algorithm>
#include <utility>

using platform::RunLoop;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMHTTPClient";

// As far as a run loop wait goes, for ever.
platform::Date distantFuture()
{
    return platform::Date::now().dateByAddingTimeInterval(1e9);
}

// "%@" of a missing string prints "(null)".
std::string formatted(const std::optional<std::string>& text)
{
    return text.value_or("(null)");
}

std::string basicAuthorization(const QMHTTPAuth& auth)
{
    const auto credentials = formatted(auth.username()) + ":" + formatted(auth.password());
    platform::Data bytes;
    // Text that is not ASCII converts to no data at all.
    if (std::all_of(credentials.begin(), credentials.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        bytes.assign(credentials.begin(), credentials.end());
    }
    auto header = "Basic " + stringWithDataUsingBase64Encoding(bytes);
    // The encoder breaks long output into lines; a header value is one line.
    std::erase_if(header, [](char c) { return c == '\r' || c == '\n'; });
    return header;
}

}  // namespace

QMHTTPClient::QMHTTPClient(QMHTTPRequestRef request, QMHTTPAuthRef auth)
    : QMHTTPClientBase(std::move(request), std::move(auth))
{
    // Often made on one thread and sent from another (an operation's): the
    // thread that first uses it is the one it belongs to.
    sequence_.detach();
}

QMHTTPClientRef QMHTTPClient::create(QMHTTPRequestRef request, QMHTTPAuthRef auth)
{
    return platform::makeObject<QMHTTPClient>(std::move(request), std::move(auth));
}

QMHTTPClientRef QMHTTPClient::clientWithRequest(QMHTTPRequestRef request, QMHTTPAuthRef auth)
{
    return create(std::move(request), std::move(auth));
}

platform::MutableURLRequestRef QMHTTPClient::URLRequestForRequest(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(request != nullptr, "request != nil", 120);
    if (!request->URL()) {
        return nullptr;
    }
    // The request's own URL unless parameters go into the query: then the
    // URL is made again from the text with the query appended.
    std::optional<platform::URL> URLWithQuery;
    if (request->params() && (request->isGETRequest() || request->isDELETERequest())) {
        const auto query = URLEncodedQueryString(*request->params());
        if (!query.empty()) {
            auto URLString = request->URL()->absoluteString();
            if (URLString.find('?') == std::string::npos) {
                URLString += "?";
            }
            URLString += query;
            URLWithQuery = platform::URL::fromString(URLString);
            if (!URLWithQuery) {
                return nullptr;
            }
        }
    }
    auto URLRequest = platform::MutableURLRequest::create(URLWithQuery ? std::move(*URLWithQuery) : *request->URL(),
                                                          platform::URLRequestCachePolicy::ReloadIgnoringLocalCacheData,
                                                          TimeoutInterval);
    if (request->method()) {
        URLRequest->setHTTPMethod(*request->method());
    }
    URLRequest->setHTTPShouldHandleCookies(false);
    if (auth) {
        URLRequest->setValueForHTTPHeaderField(basicAuthorization(*auth), "Authorization");
    }
    if (request->headers()) {
        for (const auto& [field, value] : *request->headers()) {
            URLRequest->setValueForHTTPHeaderField(value.string() != nullptr ? *value.string() : value.description(), field);
        }
    }
    if (request->data() && (request->isPOSTRequest() || request->isPUTRequest())) {
        URLRequest->setHTTPBody(request->data());
    }
    return URLRequest;
}

platform::URLConnectionRef QMHTTPClient::URLConnectionForRequest(const QMHTTPRequestRef& request, const QMHTTPAuthRef& auth)
{
    const auto URLRequest = URLRequestForRequest(request, auth);
    if (!URLRequest) {
        return nullptr;
    }
    // Nothing else holds the request, so the connection may have it as it is:
    // no copy is needed to keep it from changing under the load.
    return platform::URLConnection::create(URLRequest, std::static_pointer_cast<QMHTTPClient>(shared_from_this()), false);
}

void QMHTTPClient::send()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    if (sent_) {
        platform::Exception::raise(platform::NSInternalInconsistencyException,
                                   className() + " can only perform one connection request.");
    }
    URLConnection_ = URLConnectionForRequest(request(), auth());
    sent_ = true;
    setSending(true);
    if (URLConnection_) {
        URLConnection_->start();
        return;
    }
    // No URL to load: the failure comes as a connection's would, from the
    // run loop, never from inside `send`.
    const auto failingURL = request()->URL() ? request()->URL()->absoluteString() : std::string();
    RunLoop::currentRunLoop()->performBlock({std::string(platform::NSDefaultRunLoopMode)},
                                            [client = std::static_pointer_cast<QMHTTPClient>(shared_from_this()), failingURL] {
                                                client->connectionDidFailWithError(
                                                    nullptr, platform::makeURLError(platform::NSURLErrorBadURL, failingURL));
                                            });
}

void QMHTTPClient::waitUntilFinished()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    const auto loop = RunLoop::currentRunLoop();
    while (isSending() && loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, distantFuture())) {
    }
}

void QMHTTPClient::cancel()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    if (URLConnection_) {
        URLConnection_->cancel();
    }
}

void QMHTTPClient::connectionDidReceiveResponse(const platform::URLConnectionRef&, const platform::HTTPURLResponseRef& response)
{
    // A later answer (after a redirect) replaces the earlier one; the body
    // gathered so far stays.
    URLResponse_ = response;
}

void QMHTTPClient::connectionDidReceiveData(const platform::URLConnectionRef&, const platform::Data& data)
{
    if (!URLResponseBody_) {
        URLResponseBody_.emplace();
    }
    URLResponseBody_->insert(URLResponseBody_->end(), data.begin(), data.end());
}

void QMHTTPClient::connectionDidFinishLoading(const platform::URLConnectionRef&)
{
    setResponse(QMHTTPResponse::responseFromURLResponse(URLResponse_, URLResponseBody_));
    didReceiveResponse();
}

void QMHTTPClient::connectionDidFailWithError(const platform::URLConnectionRef&, const platform::ErrorRef& error)
{
    setError(error);
    didFailToConnect();
}
