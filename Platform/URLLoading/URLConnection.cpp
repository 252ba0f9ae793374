#include "Platform/URLLoading/URLConnection.h"

#include "Platform/URLLoading/internal/CurlDriver.h"
#include "Platform/URLLoading/internal/Transfer.h"

#include <chrono>
#include <future>
#include <mutex>

namespace platform {

using urlloading_internal::CurlDriver;

void URLConnectionDelegate::connectionWillSendRequestForAuthenticationChallenge(
    const URLConnectionRef&, const URLAuthenticationChallengeRef& challenge)
{
    challenge->sender()->performDefaultHandlingForAuthenticationChallenge(challenge);
}

void URLConnectionDelegate::connectionDidReceiveResponse(const URLConnectionRef&, const HTTPURLResponseRef&) {}
void URLConnectionDelegate::connectionDidReceiveData(const URLConnectionRef&, const Data&) {}
void URLConnectionDelegate::connectionDidFinishLoading(const URLConnectionRef&) {}
void URLConnectionDelegate::connectionDidFailWithError(const URLConnectionRef&, const ErrorRef&) {}

URLConnection::URLConnection(URLRequestRef request, URLConnectionDelegateRef delegate)
    : request_(std::move(request)), delegate_(std::move(delegate))
{
}

URLConnection::~URLConnection() = default;

URLConnectionRef URLConnection::create(URLRequestRef request, URLConnectionDelegateRef delegate, bool startImmediately)
{
    auto connection = makeObject<URLConnection>(std::move(request), std::move(delegate));
    if (startImmediately) {
        connection->start();
    }
    return connection;
}

URLConnectionRef URLConnection::self()
{
    return std::static_pointer_cast<URLConnection>(shared_from_this());
}

void URLConnection::setDelegateQueue(OperationQueueRef queue)
{
    delegateQueue_ = std::move(queue);
}

void URLConnection::start()
{
    std::shared_ptr<RunLoop> loop;
    {
        // A cancel that got here first means no load at all.
        std::lock_guard lock(startMutex_);
        if (cancelled_ || started_.exchange(true)) {
            return;
        }
        loop = delegateQueue_ ? urlloading_internal::transportRunLoop() : RunLoop::currentRunLoop();
        drivingLoop_ = loop;
    }
    if (!delegateQueue_) {
        CurlDriver::forCurrentThread().add(self());
        return;
    }
    loop->performBlock([connection = self()] { CurlDriver::forCurrentThread().add(connection); });
}

void URLConnection::cancel()
{
    std::shared_ptr<RunLoop> loop;
    URLConnectionDelegateRef unstarted;
    {
        std::lock_guard lock(startMutex_);
        if (cancelled_.exchange(true)) {
            return;
        }
        loop = drivingLoop_.lock();
        if (!loop) {
            // Never started, and now never will: no load holds the delegate,
            // so let it go here, or a delegate that keeps its connection
            // would keep itself alive. It goes once the lock is released.
            unstarted = std::move(delegate_);
        }
    }
    if (!loop) {
        return;
    }
    if (loop == RunLoop::currentRunLoop()) {
        CurlDriver::forCurrentThread().remove(self());
    } else {
        loop->performBlock([connection = self()] { CurlDriver::forCurrentThread().remove(connection); });
    }
}

void URLConnection::Event::callOn(URLConnectionDelegate& delegate, const URLConnectionRef& connection) const
{
    switch (kind) {
    case Kind::Response: delegate.connectionDidReceiveResponse(connection, response); break;
    case Kind::Data: delegate.connectionDidReceiveData(connection, data); break;
    case Kind::Finish: delegate.connectionDidFinishLoading(connection); break;
    case Kind::Failure: delegate.connectionDidFailWithError(connection, error); break;
    }
}

void URLConnection::deliver(Event event)
{
    if (isCancelled() || !delegate_) {
        return;
    }
    if (!delegateQueue_) {
        // Held here: the delegate may cancel, which lets the connection's go.
        const auto delegate = delegate_;
        event.callOn(*delegate, self());
        return;
    }
    delegateQueue_->addOperationWithBlock([connection = self(), delegate = delegate_, event = std::move(event)] {
        if (!connection->isCancelled()) {
            event.callOn(*delegate, connection);
        }
    });
}

void URLConnection::askDelegate(const URLAuthenticationChallengeRef& challenge)
{
    const auto delegate = delegate_;
    if (isCancelled() || !delegate) {
        return;
    }
    if (!delegateQueue_) {
        delegate->connectionWillSendRequestForAuthenticationChallenge(self(), challenge);
        return;
    }
    // The handshake waits for the answer on the transport's thread; a queue
    // that does not get to it within the request's time-out cancels.
    auto answered = std::make_shared<std::promise<void>>();
    auto waited = answered->get_future();
    delegateQueue_->addOperationWithBlock([connection = self(), delegate, challenge, answered] {
        if (!connection->isCancelled()) {
            delegate->connectionWillSendRequestForAuthenticationChallenge(connection, challenge);
        }
        answered->set_value();
    });
    const double timeout = request_->timeoutInterval() > 0 ? request_->timeoutInterval() : URLRequest::DefaultTimeoutInterval;
    waited.wait_for(std::chrono::duration<double>(timeout));
}

}  // namespace platform
