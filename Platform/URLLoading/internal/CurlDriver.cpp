#include "Platform/URLLoading/internal/CurlDriver.h"

#include "Platform/URLLoading/internal/SharedCurlCache.h"
#include "Platform/URLLoading/internal/Transfer.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <thread>

namespace platform::urlloading_internal {
namespace {

// curl may ask for an immediate time-out again and again (a resolver that is
// not done yet); past this many rounds in one go it gets a timer of 1 ms.
constexpr int kImmediateTimeoutRounds = 32;

// Reset handles kept for reuse, at most: as many as a thread usually runs at
// once, so a burst does not leave its handles behind for good.
constexpr std::size_t kIdleHandles = 8;

// Where the driver's timer waits while curl has no deadline: a year ahead.
constexpr double kUnarmed = 365.0 * 24 * 3600;

unsigned watchedEvents(int what)
{
    unsigned events = FileDescriptorSource::None;
    if (what & CURL_POLL_IN) {
        events |= FileDescriptorSource::Readable;
    }
    if (what & CURL_POLL_OUT) {
        events |= FileDescriptorSource::Writable;
    }
    return events;
}

int curlEvents(unsigned readyEvents)
{
    return ((readyEvents & FileDescriptorSource::Readable) ? CURL_CSELECT_IN : 0)
         | ((readyEvents & FileDescriptorSource::Writable) ? CURL_CSELECT_OUT : 0);
}

}  // namespace

CurlDriver& CurlDriver::forCurrentThread()
{
    thread_local CurlDriver driver;
    return driver;
}

CurlDriver::CurlDriver()
    : multi_((sharedCurlCache(), curl_multi_init())),
      loop_(RunLoop::currentRunLoop())
{
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlDriver::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlDriver::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    // One timer for the driver's life, moved to curl's deadlines, instead of
    // one made and added per request. It repeats so that firing does not end
    // it; between deadlines it waits a year ahead and keeps no loop running.
    timer_ = Timer::create(kUnarmed, true, [this](Timer&) {
        timerArmed_ = false;
        act(CURL_SOCKET_TIMEOUT, 0);
        // Inside a challenge the due time-out waits for curl to return (see
        // `act`); a new deadline now would fire again at once, and again.
        if (insideCurl_ == 0) {
            rearmIfCurlStillWaits();
        }
    });
    // It keeps the loop running while transfers run (see `markBusy`), and
    // only then.
    timer_->setKeepsLoopRunning(false);
    loop_->addTimer(timer_, NSDefaultRunLoopMode);
}

CurlDriver::~CurlDriver()
{
    for (const auto& [easy, connection] : running_) {
        curl_multi_remove_handle(multi_, easy);
    }
    running_.clear();
    curl_multi_cleanup(multi_);
    for (CURL* easy : idleHandles_) {
        curl_easy_cleanup(easy);
    }
    for (const auto& [socket, source] : sockets_) {
        source->invalidate();
    }
    timer_->invalidate();
}

void CurlDriver::add(const URLConnectionRef& connection)
{
    if (insideCurl_ > 0) {
        deferred_.push_back([this, connection] { add(connection); });
        return;
    }
    if (connection->isCancelled()) {
        // Cancelled between its start and now: no load will hold the
        // delegate, and one that keeps its connection would keep itself.
        connection->delegate_.reset();
        return;
    }
    connection->transfer_ = std::make_unique<Transfer>(*connection, takeHandle());
    if (const auto refusal = connection->transfer_->refusal()) {
        connection->transfer_->fail(*refusal);
        deliverEvents({connection});
        return;
    }
    CURL* easy = connection->transfer_->handle();
    running_.emplace_back(easy, connection);
    markBusy(true);
    enterCurl();
    curl_multi_add_handle(multi_, easy);
    leaveCurl();
    afterCurl();
}

void CurlDriver::remove(const URLConnectionRef& connection)
{
    if (insideCurl_ > 0) {
        deferred_.push_back([this, connection] { remove(connection); });
        return;
    }
    if (!connection->transfer_ || !forget(connection->transfer_->handle())) {
        return;
    }
    // A transfer removed before its end may have its sockets closed by curl
    // before curl says to stop watching them, by which time another thread
    // may own the same descriptor numbers: stop watching them first.
    stopWatchingSocketsOf(connection->transfer_->handle());
    curl_multi_remove_handle(multi_, connection->transfer_->handle());
    end(connection);
    markBusy(!running_.empty());
}

int CurlDriver::onSocket(CURL* easy, curl_socket_t socket, int what, void* driver, void*)
{
    static_cast<CurlDriver*>(driver)->watchSocket(easy, socket, what);
    return 0;
}

int CurlDriver::onTimer(CURLM*, long milliseconds, void* driver)
{
    auto& self = *static_cast<CurlDriver*>(driver);
    if (milliseconds == 0) {
        self.timeoutDue_ = true;  // served as soon as curl returns
    } else if (milliseconds < 0) {
        self.disarmTimer();
    } else {
        self.armTimer(milliseconds);
    }
    return 0;
}

curl_socket_t CurlDriver::onOpenSocket(void* driver, curlsocktype, curl_sockaddr* address)
{
    const int socket = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (socket < 0) {
        return CURL_SOCKET_BAD;
    }
    static_cast<CurlDriver*>(driver)->connectionSockets_.insert(socket);
    return socket;
}

// Unwatched before it is closed: once closed, its number may be given to
// another thread's descriptor at once.
int CurlDriver::onCloseSocket(void* driver, curl_socket_t socket)
{
    auto& self = *static_cast<CurlDriver*>(driver);
    self.connectionSockets_.erase(socket);
    self.stopWatching(socket);
    return ::close(socket);
}

void CurlDriver::watchSocket(CURL* easy, curl_socket_t socket, int what)
{
    if (what == CURL_POLL_REMOVE) {
        // curl lets go of a kept-alive connection's socket when its transfer
        // ends, and asks for it again when the next one reuses it.
        if (connectionSockets_.contains(socket)) {
            park(socket);
        } else {
            stopWatching(socket);
        }
        return;
    }
    socketOwners_[socket] = easy;  // an entry kept while parked, so seldom a new one
    if (const auto muted = muted_.find(socket); muted != muted_.end()) {
        muted->second = watchedEvents(what);  // watched again once curl returns
        return;
    }
    if (const auto found = sockets_.find(socket); found != sockets_.end()) {
        found->second->setEvents(watchedEvents(what));
        return;
    }
    auto source = FileDescriptorSource::create(socket, watchedEvents(what),
                                               [this](int fd, unsigned ready) { act(fd, curlEvents(ready)); });
    source->setKeepsLoopRunning(false);  // the driver's timer does, while transfers run
    loop_->addFileDescriptorSource(source, NSDefaultRunLoopMode);
    sockets_.emplace(socket, std::move(source));
}

void CurlDriver::stopWatching(curl_socket_t socket)
{
    socketOwners_.erase(socket);
    muted_.erase(socket);
    if (const auto found = sockets_.find(socket); found != sockets_.end()) {
        found->second->invalidate();
        loop_->removeFileDescriptorSource(found->second, NSDefaultRunLoopMode);
        sockets_.erase(found);
    }
}

// The socket stays in the loop's epoll set with what it was watched for. It
// is not curl's to act on while parked; should it become ready (the server
// closed the connection), it is watched for nothing until curl takes it up
// again, and curl finds the connection dead then.
void CurlDriver::park(curl_socket_t socket)
{
    if (const auto found = socketOwners_.find(socket); found != socketOwners_.end()) {
        found->second = nullptr;
    }
    muted_.erase(socket);
}

void CurlDriver::stopWatchingSocketsOf(CURL* easy)
{
    std::vector<curl_socket_t> owned;
    for (const auto& [socket, owner] : socketOwners_) {
        if (owner == easy) {
            owned.push_back(socket);
        }
    }
    for (const auto socket : owned) {
        stopWatching(socket);
    }
}

void CurlDriver::armTimer(long milliseconds)
{
    timerArmed_ = true;
    timer_->setFireDate(Date::now().dateByAddingTimeInterval(static_cast<double>(milliseconds) / 1000));
}

void CurlDriver::disarmTimer()
{
    if (timerArmed_) {
        timerArmed_ = false;
        timer_->setFireDate(Date::now().dateByAddingTimeInterval(kUnarmed));
    }
}

// A run-loop timer may fire a little before curl's own deadline; curl then
// finds nothing due and, its earliest deadline unchanged, does not call the
// timer callback again. Without a new timer a time-out would wait for the
// next socket event, however late that comes.
void CurlDriver::rearmIfCurlStillWaits()
{
    if (timerArmed_) {
        return;
    }
    long milliseconds = -1;
    curl_multi_timeout(multi_, &milliseconds);
    if (milliseconds >= 0) {
        armTimer(std::max(1L, milliseconds));
    }
}

bool CurlDriver::isWatchedForCurl(curl_socket_t socket) const
{
    const auto found = socketOwners_.find(socket);
    return found != socketOwners_.end() && found->second != nullptr;
}

void CurlDriver::act(curl_socket_t socket, int events)
{
    if (socket != CURL_SOCKET_TIMEOUT && !isWatchedForCurl(socket)) {
        if (const auto found = sockets_.find(socket); found != sockets_.end()) {
            found->second->setEvents(FileDescriptorSource::None);  // parked
        }
        return;
    }
    if (insideCurl_ > 0) {
        // A loop run from inside a challenge: curl takes no nested calls. A
        // ready socket would stay ready and the loop spin on it, so it is not
        // watched until curl returns; a due time-out is served then.
        if (socket == CURL_SOCKET_TIMEOUT) {
            timeoutDue_ = true;
        } else if (const auto found = sockets_.find(socket); found != sockets_.end() && !muted_.contains(socket)) {
            muted_.emplace(socket, found->second->events());
            found->second->setEvents(FileDescriptorSource::None);
        }
        return;
    }
    socketAction(socket, events);
    afterCurl();
}

void CurlDriver::socketAction(curl_socket_t socket, int events)
{
    int running = 0;
    enterCurl();
    curl_multi_socket_action(multi_, socket, events, &running);
    leaveCurl();
}

void CurlDriver::enterCurl()
{
    ++insideCurl_;
}

// What was held back while curl was busy resumes when the outermost call
// returns: sockets are watched again (a ready one fires on the next pass),
// and loads started or cancelled meanwhile are added or removed from the loop.
void CurlDriver::leaveCurl()
{
    if (--insideCurl_ > 0) {
        return;
    }
    for (const auto& [socket, events] : std::exchange(muted_, {})) {
        if (const auto found = sockets_.find(socket); found != sockets_.end()) {
            found->second->setEvents(events);
        }
    }
    for (auto& later : std::exchange(deferred_, {})) {
        loop_->performBlock(std::move(later));
    }
}

void CurlDriver::afterCurl()
{
    // The last round's list, for its room; a round that a delegate runs
    // inside this one makes a list of its own.
    std::vector<URLConnectionRef> touched = std::move(spareTouched_);
    // A redirect goes back to curl, which then asks for a time-out at once.
    do {
        serveDueTimeouts();
        for (const auto& [easy, connection] : running_) {
            if (connection->transfer_->hasPendingEvents() && std::find(touched.begin(), touched.end(), connection) == touched.end()) {
                touched.push_back(connection);
            }
        }
        finishCompletedTransfers(touched);
    } while (timeoutDue_);
    markBusy(!running_.empty());
    deliverEvents(touched);
    touched.clear();
    spareTouched_ = std::move(touched);
}

void CurlDriver::serveDueTimeouts()
{
    for (int round = 0; timeoutDue_; ++round) {
        timeoutDue_ = false;
        if (round == kImmediateTimeoutRounds) {
            armTimer(1);
            return;
        }
        socketAction(CURL_SOCKET_TIMEOUT, 0);
    }
}

void CurlDriver::finishCompletedTransfers(std::vector<URLConnectionRef>& touched)
{
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        const auto found = findRunning(message->easy_handle);
        if (found == running_.end()) {
            continue;
        }
        auto connection = found->second;
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        curl_multi_remove_handle(multi_, easy);
        if (connection->transfer_->finish(result)) {
            enterCurl();
            curl_multi_add_handle(multi_, easy);  // the same handle, and its connection, for the next request
            leaveCurl();
            continue;
        }
        running_.erase(found);
        if (std::find(touched.begin(), touched.end(), connection) == touched.end()) {
            touched.push_back(connection);
        }
    }
}

void CurlDriver::deliverEvents(const std::vector<URLConnectionRef>& touched)
{
    for (const auto& connection : touched) {
        if (!connection->transfer_) {
            continue;  // ended by a delegate called earlier in this round
        }
        // A delegate may cancel, and so end the transfer, between two events.
        for (auto& event : connection->transfer_->takePendingEvents()) {
            connection->deliver(std::move(event));
        }
        if (connection->transfer_ && findRunning(connection->transfer_->handle()) == running_.end()) {
            end(connection);
        }
    }
}

// The transfer is over (its handle out of the multi handle, or never in it):
// the handle goes back to the idle ones, and the delegate goes, whose queued
// callbacks hold their own reference.
void CurlDriver::end(const URLConnectionRef& connection)
{
    recycle(connection->transfer_->releaseHandle());
    connection->transfer_.reset();
    connection->delegate_.reset();
}

std::vector<std::pair<CURL*, URLConnectionRef>>::iterator CurlDriver::findRunning(CURL* easy)
{
    return std::find_if(running_.begin(), running_.end(), [easy](const auto& entry) { return entry.first == easy; });
}

bool CurlDriver::forget(CURL* easy)
{
    const auto found = findRunning(easy);
    if (found == running_.end()) {
        return false;
    }
    running_.erase(found);
    return true;
}

CURL* CurlDriver::takeHandle()
{
    if (idleHandles_.empty()) {
        CURL* easy = curl_easy_init();
        configureSharedOptions(easy);
        return easy;
    }
    CURL* easy = idleHandles_.back();
    idleHandles_.pop_back();
    return easy;
}

void CurlDriver::configureSharedOptions(CURL* easy)
{
    Transfer::configureSharedOptions(easy);
    // A connection keeps the socket functions of the handle that opened it.
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlDriver::onOpenSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlDriver::onCloseSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
}

// Cleared at once, not when taken: the handle still points at the ended
// request's body and header list, which go with it. Connections live in the
// multi handle's cache and DNS answers in the shared one, so a kept handle
// holds nothing that a later request could reuse without being asked.
void CurlDriver::recycle(Transfer::ReleasedHandle released)
{
    if (released.easy == nullptr) {
        return;
    }
    if (idleHandles_.size() >= kIdleHandles) {
        curl_easy_cleanup(released.easy);
        return;
    }
    if (released.reset) {
        configureSharedOptions(released.easy);
    }
    idleHandles_.push_back(released.easy);
}

// The loop must not look empty between curl's sockets and deadlines while
// transfers run; the driver's timer says so, which costs a flag where a
// source of its own would be added to the loop and taken out per request.
void CurlDriver::markBusy(bool busy)
{
    if (busy == busy_) {
        return;
    }
    busy_ = busy;
    timer_->setKeepsLoopRunning(busy);
}

RunLoopRef transportRunLoop()
{
    static const RunLoopRef loop = [] {
        std::promise<RunLoopRef> made;
        std::thread([&made] {
            pthread_setname_np(pthread_self(), "zarvo.urlload");
            auto current = RunLoop::currentRunLoop();
            // Never empty, so the thread waits in its loop for good.
            current->addSource(RunLoopSource::create([] {}), NSDefaultRunLoopMode);
            made.set_value(current);
            for (;;) {
                current->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(3600));
            }
        }).detach();
        return made.get_future().get();
    }();
    return loop;
}

}  // namespace platform::urlloading_internal
