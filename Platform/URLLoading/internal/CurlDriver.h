// CurlDriver: one libcurl multi handle, driven by one thread's run loop.
//
// Sockets that curl wants watched become descriptor sources and its timer a
// run-loop timer, all in the default mode; a time-out of 0 ms is served at
// once, after the call that asked for it, rather than through a timer. Every
// transfer ends in one place, the drain of curl's completion messages, and
// handles are added and removed only outside curl's callbacks. Delegates are
// called (or their operations queued) after curl has returned.
//
// One driver per thread, made on first use and used only on that thread.
// While it has transfers its timer keeps the loop running, so the loop does
// not look empty between curl's own sockets and deadlines; otherwise nothing
// of the driver does (curl's sockets never). The driver opens and closes the sockets of
// curl's connections itself, so it knows when one is really gone: a kept-alive
// connection's socket stays watched between the transfers that use it (parked,
// its readiness ignored) instead of leaving the loop's epoll set and coming
// back for every request. Easy handles of ended
// transfers are kept for the next ones, with the options that all transfers
// share still set: making one, or setting them all again, costs more than
// the rest of a small request's own work.
#pragma once

#include "Platform/Foundation/RunLoop.h"
#include "Platform/URLLoading/URLConnection.h"
#include "Platform/URLLoading/internal/Transfer.h"

#include <curl/curl.h>

#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace platform::urlloading_internal {

class CurlDriver {
public:
    static CurlDriver& forCurrentThread();
    ~CurlDriver();
    CurlDriver(const CurlDriver&) = delete;
    CurlDriver& operator=(const CurlDriver&) = delete;

    void add(const URLConnectionRef& connection);
    // Stops a transfer without a word to its delegate.
    void remove(const URLConnectionRef& connection);

private:
    CurlDriver();

    static int onSocket(CURL* easy, curl_socket_t socket, int what, void* driver, void* socketData);
    static int onTimer(CURLM* multi, long milliseconds, void* driver);
    static curl_socket_t onOpenSocket(void* driver, curlsocktype purpose, curl_sockaddr* address);
    static int onCloseSocket(void* driver, curl_socket_t socket);
    void watchSocket(CURL* easy, curl_socket_t socket, int what);
    void stopWatching(curl_socket_t socket);
    void park(curl_socket_t socket);
    void stopWatchingSocketsOf(CURL* easy);
    void armTimer(long milliseconds);
    void disarmTimer();
    void rearmIfCurlStillWaits();

    // Whether curl has asked for `socket` to be watched: it is watched and
    // not parked.
    bool isWatchedForCurl(curl_socket_t socket) const;
    void act(curl_socket_t socket, int events);
    void socketAction(curl_socket_t socket, int events);
    void enterCurl();
    void leaveCurl();
    void afterCurl();
    void serveDueTimeouts();
    void finishCompletedTransfers(std::vector<URLConnectionRef>& touched);
    void deliverEvents(const std::vector<URLConnectionRef>& touched);
    void end(const URLConnectionRef& connection);
    void markBusy(bool busy);
    std::vector<std::pair<CURL*, URLConnectionRef>>::iterator findRunning(CURL* easy);
    // Takes `easy` off the running transfers; false when it was not one.
    bool forget(CURL* easy);
    CURL* takeHandle();
    void configureSharedOptions(CURL* easy);
    void recycle(Transfer::ReleasedHandle released);

    CURLM* multi_;
    RunLoopRef loop_;
    std::unordered_map<curl_socket_t, FileDescriptorSourceRef> sockets_;
    // The transfer each watched socket was last reported for; a parked
    // connection's socket has none (null).
    std::unordered_map<curl_socket_t, CURL*> socketOwners_;
    // The connections' sockets, opened here, open until curl closes them here.
    std::unordered_set<curl_socket_t> connectionSockets_;
    TimerRef timer_;
    // curl has a deadline for the timer: it is not a year ahead.
    bool timerArmed_ = false;
    bool busy_ = false;
    // The transfers in curl's hands with their connections: a handful per
    // thread, so a list, which adding and removing one leaves allocated.
    std::vector<std::pair<CURL*, URLConnectionRef>> running_;
    bool timeoutDue_ = false;
    // Calls into curl in progress: while there are any, handles are added and
    // removed later, from the loop (a trust challenge runs inside curl), and
    // sockets that become ready are not watched (their events kept here).
    int insideCurl_ = 0;
    std::vector<std::function<void()>> deferred_;
    std::unordered_map<curl_socket_t, unsigned> muted_;
    std::vector<CURL*> idleHandles_;
    std::vector<URLConnectionRef> spareTouched_;
};

// The run loop of the transport's own thread, which drives the loads whose
// delegates are called on an operation queue.
RunLoopRef transportRunLoop();

}  // namespace platform::urlloading_internal
