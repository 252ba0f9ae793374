// URLConnection: one load of a URL request, reported to a delegate as it
// goes: the response, each chunk of the body, then completion or failure.
//
//   auto connection = URLConnection::create(request, delegate, false);
//   connection->start();                       // on this thread's run loop
//   while (!done) RunLoop::currentRunLoop()->runModeBeforeDate(NSDefaultRunLoopMode, Date::distantFuture());
//
// Contract:
// - Nothing happens before `start`. `start` schedules the load on the
//   calling thread's run loop in the default mode, and the delegate is called
//   on that thread while it runs its loop; or, when a delegate queue was set,
//   the load runs on the transport's own thread and each callback is an
//   operation on that queue (in order when the queue is serial).
// - A started connection keeps its run loop from looking empty until it
//   ends, so a caller that runs the loop until it reports nothing left to do
//   waits for the answer. A cancelled connection no longer counts.
// - A delegate that handles authentication challenges is asked about the
//   server's certificate chain first (see URLAuthenticationChallenge.h).
// - Callbacks, in order: `connectionDidReceiveResponse` once, before any data
//   (after redirects, for the final answer); `connectionDidReceiveData` for
//   each chunk; then exactly one of `connectionDidFinishLoading` or
//   `connectionDidFailWithError`. After `cancel` no callback comes at all;
//   `cancel` is safe from any thread and from inside a callback.
// - The connection keeps itself and its delegate alive until it ends or is
//   cancelled, then lets the delegate go.
// - What the transport does (see docs/ARCHITECTURE.md): the proxy variables
//   and the system's CA store as libcurl reads them, redirects followed
//   without carrying any field the caller set to another origin (scheme,
//   host or port), nor a POST's body past a 301, 302 or 303, gzip and deflate
//   decoded, HTTP/2 where the server offers it, connections, TLS sessions and
//   DNS answers shared by every load of the process, and never a cookie.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/HTTPURLResponse.h"
#include "Platform/URLLoading/URLAuthenticationChallenge.h"
#include "Platform/URLLoading/URLRequest.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace platform {

class URLConnection;
using URLConnectionRef = std::shared_ptr<URLConnection>;

namespace urlloading_internal {
class Transfer;
class CurlDriver;
}  // namespace urlloading_internal

// Every method is optional.
class URLConnectionDelegate {
public:
    virtual ~URLConnectionDelegate() = default;

    // Whether the delegate answers authentication challenges; without it an
    // https load trusts what the system trusts. A load whose delegate answers
    // them is asked about every server it reaches, so it never shares a
    // connection or a TLS session with another load.
    virtual bool handlesAuthenticationChallenges() const { return false; }
    // Asked during the TLS handshake, before anything is sent to the
    // server; answer through the challenge's sender before returning.
    virtual void connectionWillSendRequestForAuthenticationChallenge(const URLConnectionRef& connection,
                                                                     const URLAuthenticationChallengeRef& challenge);

    virtual void connectionDidReceiveResponse(const URLConnectionRef& connection, const HTTPURLResponseRef& response);
    virtual void connectionDidReceiveData(const URLConnectionRef& connection, const Data& data);
    virtual void connectionDidFinishLoading(const URLConnectionRef& connection);
    virtual void connectionDidFailWithError(const URLConnectionRef& connection, const ErrorRef& error);
};
using URLConnectionDelegateRef = std::shared_ptr<URLConnectionDelegate>;

class URLConnection final : public Object {
public:
    static URLConnectionRef create(URLRequestRef request, URLConnectionDelegateRef delegate, bool startImmediately = true);
    ~URLConnection() override;

    const URLRequestRef& originalRequest() const { return request_; }

    // Before `start`: the queue the delegate is called on.
    void setDelegateQueue(OperationQueueRef queue);
    // Starts the load; a second call does nothing.
    void start();
    void cancel();
    bool isCancelled() const { return cancelled_.load(); }

    std::string className() const override { return "NSURLConnection"; }

private:
    friend class urlloading_internal::Transfer;
    friend class urlloading_internal::CurlDriver;
    template <class> friend struct ObjectAllocator;
    // One callback recorded for the delegate: a plain record rather than a
    // closure, so that recording one allocates nothing beyond a chunk's bytes.
    struct Event {
        enum class Kind { Response, Data, Finish, Failure };
        Kind kind;
        HTTPURLResponseRef response;  // Response
        Data data;                    // Data
        ErrorRef error;               // Failure
        void callOn(URLConnectionDelegate& delegate, const URLConnectionRef& connection) const;
    };

    URLConnection(URLRequestRef request, URLConnectionDelegateRef delegate);
    URLConnectionRef self();

    // On the run loop the load is driven from.
    void deliver(Event event);
    // On the run loop the load is driven from, from inside curl: the
    // delegate's answer is in the challenge when this returns.
    void askDelegate(const URLAuthenticationChallengeRef& challenge);

    const URLRequestRef request_;
    URLConnectionDelegateRef delegate_;  // the driving run loop's, until the load ends
    OperationQueueRef delegateQueue_;
    std::unique_ptr<urlloading_internal::Transfer> transfer_;
    // Orders a `start` and a `cancel` that race from two threads, and guards
    // `drivingLoop_`, which the first writes and the second reads.
    std::mutex startMutex_;
    std::atomic<bool> started_{false};
    std::atomic<bool> cancelled_{false};
    std::weak_ptr<RunLoop> drivingLoop_;
};

}  // namespace platform
