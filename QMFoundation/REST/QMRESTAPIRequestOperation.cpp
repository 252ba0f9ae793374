#include "QMFoundation/REST/QMRESTAPIRequestOperation.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecTrust.h"
#include "QMFoundation/Comparison/NSString+QMVersionStringComparator.h"
#include "QMFoundation/Objects/NSOperationQueue+QMFoundation.h"
#include "QMFoundation/REST/NSProcessInfo+QMSystemInfo.h"

using platform::Data;
using platform::ErrorRef;
using platform::HTTPURLResponse;
using platform::HTTPURLResponseRef;
using platform::URLAuthenticationChallengeRef;
using platform::URLConnectionRef;
using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMRESTAPIRequestOperation";
// At and below this version the platform could not record trust exceptions,
// so a server the caller trusts is accepted without evaluating it.
constexpr std::string_view kLastVersionWithoutTrustExceptions = "10.8";

platform::MutableURLRequestRef requestFor(const std::optional<platform::URL>& url,
                                          const std::optional<std::string>& httpMethod)
{
    // Applications match this failure by its line.
    PLATFORM_PARAMETER_ASSERT_AT_LINE(url.has_value(), "URL", 43);
    auto request = platform::MutableURLRequest::create(*url);
    request->setHTTPShouldHandleCookies(false);
    if (httpMethod) {
        request->setHTTPMethod(*httpMethod);
    }
    return request;
}

}  // namespace

QMRESTAPIRequestOperation::QMRESTAPIRequestOperation(std::optional<platform::URL> url,
                                                     std::optional<std::string> httpMethod)
    : request_(requestFor(url, httpMethod)),
      connectionQueue_(serialQueue()),
      finishedSignal_(platform::RunLoopSource::create([] {}))
{
}

QMRESTAPIRequestOperation::~QMRESTAPIRequestOperation() = default;

QMRESTAPIRequestOperationRef QMRESTAPIRequestOperation::create()
{
    return create(std::nullopt, std::nullopt);
}

QMRESTAPIRequestOperationRef QMRESTAPIRequestOperation::create(std::optional<platform::URL> url,
                                                               std::optional<std::string> httpMethod)
{
    return initialized(platform::makeObject<QMRESTAPIRequestOperation>(std::move(url), std::move(httpMethod)));
}

void QMRESTAPIRequestOperation::prepareRequest()
{
    // Asked of the finished object, so that a subclass's answers apply.
    request_->setCachePolicy(requestCachePolicy());
    request_->setTimeoutInterval(requestTimeoutInterval());
}

std::shared_ptr<QMRESTAPIRequestOperation> QMRESTAPIRequestOperation::self()
{
    return std::static_pointer_cast<QMRESTAPIRequestOperation>(shared_from_this());
}

bool QMRESTAPIRequestOperation::execute(ErrorRef* error)
{
    start();
    waitUntilFinished();
    const ErrorRef outcome = this->error();
    if (!outcome) {
        return true;
    }
    if (error != nullptr) {
        *error = outcome;
    }
    return false;
}

void QMRESTAPIRequestOperation::_setResponseWithStatusCode(std::int64_t statusCode, std::optional<Data> data)
{
    auto response = HTTPURLResponse::create(request_->url(), statusCode, "HTTP/1.1", {});
    setValueForKey(Value(std::const_pointer_cast<HTTPURLResponse>(response)), "response");
    setValueForKey(Value(std::move(data)), "mutableResponseData");
}

// --- Properties

HTTPURLResponseRef QMRESTAPIRequestOperation::response() const
{
    return platform::copyUnder(mutex_, response_);
}

void QMRESTAPIRequestOperation::setResponse(HTTPURLResponseRef response)
{
    platform::storeUnder(mutex_, response_, std::move(response));
}

std::optional<Data> QMRESTAPIRequestOperation::responseData() const
{
    return mutableResponseData();
}

std::optional<Data> QMRESTAPIRequestOperation::mutableResponseData() const
{
    return platform::copyUnder(mutex_, mutableResponseData_);
}

void QMRESTAPIRequestOperation::setMutableResponseData(std::optional<Data> data)
{
    platform::storeUnder(mutex_, mutableResponseData_, std::move(data));
}

ErrorRef QMRESTAPIRequestOperation::error() const
{
    return platform::copyUnder(mutex_, error_);
}

void QMRESTAPIRequestOperation::setError(ErrorRef error)
{
    platform::storeUnder(mutex_, error_, std::move(error));
}

platform::URLRequestCachePolicy QMRESTAPIRequestOperation::requestCachePolicy() const
{
    return platform::URLRequestCachePolicy::ReloadIgnoringLocalCacheData;
}

double QMRESTAPIRequestOperation::requestTimeoutInterval() const
{
    return 15.0;
}

bool QMRESTAPIRequestOperation::trustsServer() const
{
    return platform::copyUnder(mutex_, trustsServer_);
}

void QMRESTAPIRequestOperation::setTrustsServer(bool trusts)
{
    platform::storeUnder(mutex_, trustsServer_, trusts);
}

std::optional<Data> QMRESTAPIRequestOperation::serverTrustExceptionCookie() const
{
    return platform::copyUnder(mutex_, serverTrustExceptionCookie_);
}

void QMRESTAPIRequestOperation::setServerTrustExceptionCookie(std::optional<Data> cookie)
{
    platform::storeUnder(mutex_, serverTrustExceptionCookie_, std::move(cookie));
}

URLConnectionRef QMRESTAPIRequestOperation::connection()
{
    std::lock_guard lock(mutex_);
    if (!connection_) {
        // The connection holds its delegate only while it loads; the
        // operation holds the connection.
        const std::shared_ptr<platform::URLConnectionDelegate> delegate(self(), this);
        connection_ = platform::URLConnection::create(request_->copy(), delegate, false);
        connection_->setDelegateQueue(connectionQueue_);
    }
    return connection_;
}

bool QMRESTAPIRequestOperation::executingValue() const
{
    return platform::copyUnder(mutex_, executing_);
}

bool QMRESTAPIRequestOperation::finishedValue() const
{
    return platform::copyUnder(mutex_, finished_);
}

void QMRESTAPIRequestOperation::setExecuting(bool executing)
{
    if (executingValue() == executing) {
        return;
    }
    willChangeValueForKey("executingValue");
    platform::storeUnder(mutex_, executing_, executing);
    didChangeValueForKey("executingValue");
}

void QMRESTAPIRequestOperation::setFinished(bool finished)
{
    if (finishedValue() == finished) {
        return;
    }
    willChangeValueForKey("finishedValue");
    platform::storeUnder(mutex_, finished_, finished);
    didChangeValueForKey("finishedValue");
    if (finished) {
        finishedSignal_->signal();
        operationStateDidChange();
    }
}

// --- Operation

void QMRESTAPIRequestOperation::start()
{
    if (const auto canned = response()) {
        requestDidReceiveResponse(canned, responseData());
        return;
    }
    // The callbacks arrive on the connection queue, so this thread's loop may
    // have nothing else to do: the signal keeps it waiting, not spinning.
    const auto loop = platform::RunLoop::currentRunLoop();
    loop->addSource(finishedSignal_, platform::NSDefaultRunLoopMode);
    connection()->start();
    const platform::Date distantFuture = platform::Date::now().dateByAddingTimeInterval(1e9);
    while (!isFinished()) {
        loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, distantFuture);
    }
    loop->removeSource(finishedSignal_, platform::NSDefaultRunLoopMode);
}

void QMRESTAPIRequestOperation::cancel()
{
    connection()->cancel();
    requestDidCancel();
}

const platform::PropertyTable& QMRESTAPIRequestOperation::propertyTable() const
{
    using Operation = QMRESTAPIRequestOperation;
    static const auto table = platform::PropertyTable::extending<Operation>(platform::Operation::propertyTable(), {
        {"response",
         [](const Operation& operation) { return Value(std::const_pointer_cast<HTTPURLResponse>(operation.response())); },
         [](Operation& operation, const Value& value) { operation.setResponse(value.objectAs<HTTPURLResponse>()); }},
        {"mutableResponseData", [](const Operation& operation) { return Value(operation.mutableResponseData()); },
         [](Operation& operation, const Value& value) {
             operation.setMutableResponseData(value.data() != nullptr ? std::optional<Data>(*value.data())
                                                                      : std::nullopt);
         }},
        {"responseData", [](const Operation& operation) { return Value(operation.responseData()); }},
        {"error", [](const Operation& operation) { return Value(operation.error()); },
         [](Operation& operation, const Value& value) { operation.setError(value.error()); }},
        {"trustsServer", [](const Operation& operation) { return Value(operation.trustsServer()); },
         [](Operation& operation, const Value& value) { operation.setTrustsServer(value.boolValue().value_or(false)); }},
        {"serverTrustExceptionCookie",
         [](const Operation& operation) { return Value(operation.serverTrustExceptionCookie()); },
         [](Operation& operation, const Value& value) {
             operation.setServerTrustExceptionCookie(value.data() != nullptr ? std::optional<Data>(*value.data())
                                                                             : std::nullopt);
         }},
        {"executingValue", [](const Operation& operation) { return Value(operation.executingValue()); }},
        {"finishedValue", [](const Operation& operation) { return Value(operation.finishedValue()); }},
    });
    return table;
}

bool QMRESTAPIRequestOperation::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    // The state is announced under the names of the fields that hold it, and
    // only there.
    if (key == "isExecuting" || key == "isFinished") {
        return false;
    }
    return Operation::automaticallyNotifiesObserversForKey(key);
}

// --- Completion steps

void QMRESTAPIRequestOperation::finishRun()
{
    requestDidFinish();
    setExecuting(false);
    setFinished(true);
}

void QMRESTAPIRequestOperation::requestDidCancel()
{
    setExecuting(false);
    setFinished(true);
}

void QMRESTAPIRequestOperation::requestDidFailToConnectWithError(const ErrorRef& error)
{
    setError(handleConnectionError(error));
    finishRun();
}

void QMRESTAPIRequestOperation::requestDidReceiveResponse(const HTTPURLResponseRef&, const std::optional<Data>&)
{
    const auto received = response();
    const auto data = responseData();
    // A load reports a response before it finishes; without one (a canned
    // outcome cleared again) the status reads as 0, as a missing one would.
    const std::int64_t status = received ? received->statusCode() : 0;
    if (status < 400) {
        ErrorRef parseError;
        if (!parseResponseData(data, &parseError)) {
            setError(parseError);
        }
    } else {
        setError(handleAPIErrorResponse(received, data));
    }
    finishRun();
}

ErrorRef QMRESTAPIRequestOperation::handleAPIErrorResponse(const HTTPURLResponseRef&, const std::optional<Data>&)
{
    return nullptr;
}

bool QMRESTAPIRequestOperation::parseResponseData(const std::optional<Data>&, ErrorRef*)
{
    return true;
}

std::string QMRESTAPIRequestOperation::operatingSystemVersion() const
{
    return operatingSystemVersionString();
}

// --- Connection callbacks

void QMRESTAPIRequestOperation::connectionDidReceiveResponse(const URLConnectionRef&, const HTTPURLResponseRef& response)
{
    setResponse(response);
}

void QMRESTAPIRequestOperation::connectionDidReceiveData(const URLConnectionRef&, const Data& data)
{
    std::lock_guard lock(mutex_);
    if (!mutableResponseData_) {
        mutableResponseData_.emplace();
    }
    mutableResponseData_->insert(mutableResponseData_->end(), data.begin(), data.end());
}

void QMRESTAPIRequestOperation::connectionDidFinishLoading(const URLConnectionRef&)
{
    requestDidReceiveResponse(response(), responseData());
}

void QMRESTAPIRequestOperation::connectionDidFailWithError(const URLConnectionRef&, const ErrorRef& error)
{
    requestDidFailToConnectWithError(error);
}

void QMRESTAPIRequestOperation::acceptServer(const URLAuthenticationChallengeRef& challenge)
{
    challenge->sender()->useCredential(
        platform::URLCredential::credentialForTrust(challenge->protectionSpace().serverTrust()), challenge);
}

void QMRESTAPIRequestOperation::connectionWillSendRequestForAuthenticationChallenge(
    const URLConnectionRef&, const URLAuthenticationChallengeRef& challenge)
{
    const auto& space = challenge->protectionSpace();
    const auto& sender = challenge->sender();
    if (space.authenticationMethod() != platform::NSURLAuthenticationMethodServerTrust) {
        sender->performDefaultHandlingForAuthenticationChallenge(challenge);
        return;
    }
    const bool trusts = trustsServer();
    const auto cookie = serverTrustExceptionCookie();
    if (!trusts && !cookie) {
        sender->performDefaultHandlingForAuthenticationChallenge(challenge);
        return;
    }
    if (isLessThanOrEqualToOtherVersionString(operatingSystemVersion(), kLastVersionWithoutTrustExceptions)) {
        acceptServer(challenge);
        return;
    }
    const auto& trust = space.serverTrust();
    if (cookie) {
        // A cookie that is not one of ours matches no chain, so the
        // evaluation below fails for any server the system does not trust.
        static_cast<void>(platform::SecTrustSetExceptions(trust, cookie));
    } else {
        setServerTrustExceptionCookie(platform::SecTrustCopyExceptions(trust));
    }
    // Only the status counts: the evaluation ran, so the server is accepted.
    // For a server the user trusts and no cookie yet, the result says the
    // system would not trust it; that is the case being answered here.
    platform::SecTrustResultType result = platform::kSecTrustResultInvalid;
    if (platform::SecTrustEvaluate(trust, &result) != platform::errSecSuccess) {
        sender->performDefaultHandlingForAuthenticationChallenge(challenge);
    } else {
        acceptServer(challenge);
    }
}
