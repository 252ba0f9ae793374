// QMRESTAPIRequestOperation: one call to a REST service, as an operation that
// owns its URL request, runs the load with its callbacks on a private serial
// queue, and can accept a server whose certificate the system does not trust.
//
//   auto operation = QMRESTAPIRequestOperation::create(*platform::URL::fromString("https://git.example.com/api/v1/user"));
//   operation->setTrustsServer(userSaidYes);
//   operation->setServerTrustExceptionCookie(savedCookie);   // from an earlier run, or nothing
//   platform::ErrorRef error;
//   if (operation->execute(&error)) { ... operation->responseData() ... }
//   savedCookie = operation->serverTrustExceptionCookie();   // keep it for next time
//
// Subclasses fill in `request()` before `start` and turn the outcome into a
// result or an error through the hooks; they are made through `initialized`
// so that their `requestCachePolicy` and `requestTimeoutInterval` apply:
//
//   static std::shared_ptr<ItemsOperation> create(platform::URL url)
//   {
//       return initialized(platform::makeObject<ItemsOperation>(std::move(url)));
//   }
//
// Contract:
// - `start` runs on the calling thread and returns only when the operation
//   has finished; it waits on that thread's run loop in the default mode,
//   which runs whatever else is scheduled there meanwhile. It neither marks
//   the operation executing nor looks at the platform's cancelled flag.
// - The load's callbacks, the trust decision and the hooks that follow them
//   (`parseResponseData`, `handleAPIErrorResponse`, `handleConnectionError`,
//   `requestDidFinish`) run on `connectionQueue()`, one at a time. With a
//   canned outcome (`_setResponseWithStatusCode`) the hooks run on the thread
//   that calls `start`; `cancel` finishes the operation on its caller's thread.
// - `requestDidFinish` runs before the operation reports itself finished;
//   the finished flag is the last thing a run sets, so once `isFinished` is
//   true, `error`, `response` and `responseData` hold their final values.
// - `cancel` (from any thread, also through a queue's cancel-all) stops the
//   load and finishes the operation with no error and no `requestDidFinish`.
//   A callback already running on the connection queue may still finish.
// - Executing and finished are announced to observers under
//   "executingValue" and "finishedValue" only. Nothing sets executing.
// - The request belongs to the caller until `start` (or `connection()`):
//   the load takes a copy then, and later changes are not sent.
// - Server trust (on the connection queue): see docs/ARCHITECTURE.md. With
//   neither `trustsServer` nor a cookie the system decides. Otherwise a
//   given cookie is applied, or the trust's exceptions are recorded as the
//   cookie, and the server is accepted when the evaluation itself succeeds.
//   A recorded cookie names only the server it was recorded for.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Operation.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"
#include "Platform/URLLoading/HTTPURLResponse.h"
#include "Platform/URLLoading/URLConnection.h"
#include "Platform/URLLoading/URLRequest.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

class QMRESTAPIRequestOperation;
using QMRESTAPIRequestOperationRef = std::shared_ptr<QMRESTAPIRequestOperation>;

class QMRESTAPIRequestOperation : public platform::Operation, public platform::URLConnectionDelegate {
public:
    // A missing URL fails the parameter assertion "URL"; `create()` gives none.
    static QMRESTAPIRequestOperationRef create();
    static QMRESTAPIRequestOperationRef create(std::optional<platform::URL> url,
                                               std::optional<std::string> httpMethod = std::nullopt);
    ~QMRESTAPIRequestOperation() override;

    // `start`, then wait until finished; true when no error was set.
    [[nodiscard]] bool execute(platform::ErrorRef* error = nullptr);
    // For tests: a response with `statusCode` ("HTTP/1.1", no header fields)
    // for the request's URL and `data` as the body, set by key-value coding.
    // A following `start` finishes from it without any network traffic.
    void _setResponseWithStatusCode(std::int64_t statusCode, std::optional<platform::Data> data);

    // --- Properties
    const platform::MutableURLRequestRef& request() const { return request_; }
    platform::HTTPURLResponseRef response() const;
    void setResponse(platform::HTTPURLResponseRef response);
    // A copy of what arrived; nothing when no data came.
    std::optional<platform::Data> responseData() const;
    std::optional<platform::Data> mutableResponseData() const;
    void setMutableResponseData(std::optional<platform::Data> data);
    platform::ErrorRef error() const;
    void setError(platform::ErrorRef error);
    // Asked once, while the operation is made.
    virtual platform::URLRequestCachePolicy requestCachePolicy() const;
    virtual double requestTimeoutInterval() const;
    bool trustsServer() const;
    void setTrustsServer(bool trusts);
    std::optional<platform::Data> serverTrustExceptionCookie() const;
    void setServerTrustExceptionCookie(std::optional<platform::Data> cookie);
    // Made on first use from a copy of the request as it is then, with this
    // operation as its delegate on `connectionQueue()`; not started.
    platform::URLConnectionRef connection();
    const platform::OperationQueueRef& connectionQueue() const { return connectionQueue_; }
    bool executingValue() const;
    bool finishedValue() const;

    // --- Operation
    void start() override;
    void cancel() override;
    bool isConcurrent() const override { return true; }
    bool isExecuting() const override { return executingValue(); }
    bool isFinished() const override { return finishedValue(); }
    const platform::PropertyTable& propertyTable() const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;
    std::string className() const override { return "QMRESTAPIRequestOperation"; }

    // --- Connection callbacks (on the connection queue)
    bool handlesAuthenticationChallenges() const override { return true; }
    void connectionWillSendRequestForAuthenticationChallenge(
        const platform::URLConnectionRef& connection, const platform::URLAuthenticationChallengeRef& challenge) override;
    void connectionDidReceiveResponse(const platform::URLConnectionRef& connection,
                                      const platform::HTTPURLResponseRef& response) override;
    void connectionDidReceiveData(const platform::URLConnectionRef& connection, const platform::Data& data) override;
    void connectionDidFinishLoading(const platform::URLConnectionRef& connection) override;
    void connectionDidFailWithError(const platform::URLConnectionRef& connection,
                                    const platform::ErrorRef& error) override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    explicit QMRESTAPIRequestOperation(std::optional<platform::URL> url,
                                       std::optional<std::string> httpMethod = std::nullopt);

    // Prepares the request with the object's own cache policy and time-out;
    // every factory, a subclass's included, passes its new object through.
    template <typename Subclass>
    static std::shared_ptr<Subclass> initialized(std::shared_ptr<Subclass> operation)
    {
        operation->prepareRequest();
        return operation;
    }

    // --- Completion steps
    void requestDidCancel();
    void requestDidFailToConnectWithError(const platform::ErrorRef& error);
    // Reads `response()` and `responseData()` again rather than its arguments.
    void requestDidReceiveResponse(const platform::HTTPURLResponseRef& response,
                                   const std::optional<platform::Data>& data);

    // --- Hooks for subclasses
    virtual void requestDidFinish() {}
    virtual platform::ErrorRef handleConnectionError(const platform::ErrorRef& error) { return error; }
    // For status 400 and above; the base class makes no error of it.
    virtual platform::ErrorRef handleAPIErrorResponse(const platform::HTTPURLResponseRef& response,
                                                      const std::optional<platform::Data>& data);
    // For status below 400; false with `error` set makes it the outcome.
    [[nodiscard]] virtual bool parseResponseData(const std::optional<platform::Data>& data, platform::ErrorRef* error);
    // The version that decides how a server is trusted; a seam for tests.
    virtual std::string operatingSystemVersion() const;

    void setExecuting(bool executing);
    void setFinished(bool finished);

private:
    void prepareRequest();
    void finishRun();
    std::shared_ptr<QMRESTAPIRequestOperation> self();
    void acceptServer(const platform::URLAuthenticationChallengeRef& challenge);

    platform::MutableURLRequestRef request_;
    std::optional<std::string> httpMethod_;
    const platform::OperationQueueRef connectionQueue_;
    // Signalled when the operation finishes, to end `start`'s wait; while
    // `start` waits it is in that thread's run loop, so the loop never looks
    // empty and waits instead of spinning.
    const platform::RunLoopSourceRef finishedSignal_;

    // Guards the fields below: written on the connection queue (or by
    // `cancel` on any thread), read by the starting thread.
    mutable std::mutex mutex_;
    platform::HTTPURLResponseRef response_;
    std::optional<platform::Data> mutableResponseData_;
    platform::ErrorRef error_;
    bool trustsServer_ = false;
    std::optional<platform::Data> serverTrustExceptionCookie_;
    platform::URLConnectionRef connection_;
    bool executing_ = false;
    bool finished_ = false;
};
