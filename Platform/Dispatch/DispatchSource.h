// DispatchSource: events delivered as blocks on a serial queue: timers, and
// changes to an open file.
//
//   auto timer = DispatchTimerSource::create(queue);
//   timer->setTimer(dispatchTimeFromNow(60), DispatchTimerSource::kOnce, std::chrono::nanoseconds(1));
//   timer->setEventHandler([] { roll(); });
//   timer->resume();
//   ...
//   timer->cancel();
//
// Contract:
// - A source is created suspended: nothing is watched until the first
//   `resume`. `suspend`/`resume` nest; events that arrive while suspended are
//   kept and delivered, merged, on the last `resume`.
// - The event handler runs on the source's queue, never twice at once, and
//   `data()` tells it what the delivery carries: for a timer, how many times
//   it fired since the last delivery; for a file, the events seen (bits of
//   the mask). Events that arrive before a pending delivery runs merge into it.
// - `cancel` stops the watch: no event handler starts afterwards (one already
//   running finishes), and the cancel handler, if any, is then submitted to
//   the queue. Handlers are released on cancel, which breaks the usual cycle
//   of a handler that holds its own source.
// - A source lives as long as its owner holds it. Destroying it without
//   `cancel` stops it as well, but runs no cancel handler.
// - Not promised: exact timing. A timer fires at or after its date, and,
//   if nothing else is busy, before the date plus its leeway; a repeating
//   timer that could not keep up reports the missed firings in `data()`.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace platform {

class DispatchSource : public Object {
public:
    ~DispatchSource() override;

    void setEventHandler(std::function<void()> handler);
    void setCancelHandler(std::function<void()> handler);
    void resume();
    void suspend();
    void cancel();
    bool isCancelled() const;
    // Meaningful inside the event handler.
    std::uint64_t data() const { return currentData_.load(); }

protected:
    explicit DispatchSource(DispatchQueueRef queue);

    // Starts watching; called once, at the first resume, outside any lock.
    virtual void activate() = 0;
    // Stops watching; once it returns, nothing more is merged.
    virtual void deactivate() = 0;

    enum class Merge { Add, Or };
    // Adds an event, from any thread.
    void merge(std::uint64_t data, Merge how);

private:
    void scheduleDeliveryLocked(std::unique_lock<std::mutex>& lock);
    void deliver();

    const DispatchQueueRef queue_;
    mutable std::mutex mutex_;  // guards the fields below
    std::function<void()> eventHandler_;
    std::function<void()> cancelHandler_;
    int suspendCount_ = 1;
    bool activated_ = false;
    bool cancelled_ = false;
    bool deliveryScheduled_ = false;
    std::uint64_t pending_ = 0;
    std::atomic<std::uint64_t> currentData_{0};
};

class DispatchTimerSource final : public DispatchSource {
public:
    // The interval of a timer that fires once.
    static constexpr std::chrono::nanoseconds kOnce = std::chrono::nanoseconds::max();

    static std::shared_ptr<DispatchTimerSource> create(const DispatchQueueRef& queue);
    ~DispatchTimerSource() override;

    // First firing at `start`, then every `interval` (or never again for
    // `kOnce` or zero). May be called again, also from the handler, to
    // reschedule.
    void setTimer(DispatchTime start, std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway);

private:
    template <class> friend struct ObjectAllocator;
    explicit DispatchTimerSource(DispatchQueueRef queue) : DispatchSource(std::move(queue)) {}
    void activate() override;
    void deactivate() override;
    void armLocked();
    void fired(std::uint64_t generation);

    std::mutex timerMutex_;  // guards the fields below
    bool active_ = false;
    bool scheduled_ = false;  // a next firing is planned
    DispatchTime next_{};
    std::chrono::nanoseconds interval_ = kOnce;
    std::chrono::nanoseconds leeway_{0};
    std::uint64_t generation_ = 0;  // tells firings of an older schedule apart
    std::uint64_t token_ = 0;
};

// Changes to an open file, watched through inotify. The source does not own
// the descriptor; keep it open until the source is cancelled.
class DispatchFileSource final : public DispatchSource {
public:
    // The platform's event bits.
    static constexpr unsigned long kDelete = 0x1;
    static constexpr unsigned long kWrite = 0x2;
    static constexpr unsigned long kExtend = 0x4;
    static constexpr unsigned long kAttrib = 0x8;
    static constexpr unsigned long kLink = 0x10;
    static constexpr unsigned long kRename = 0x20;

    static std::shared_ptr<DispatchFileSource> create(int fd, unsigned long mask, const DispatchQueueRef& queue);
    ~DispatchFileSource() override;

    int fileDescriptor() const { return fd_; }
    unsigned long mask() const { return mask_; }

private:
    friend class FileWatcher;
    template <class> friend struct ObjectAllocator;
    DispatchFileSource(int fd, unsigned long mask, DispatchQueueRef queue);
    void activate() override;
    void deactivate() override;
    // Translates what inotify said into event bits, from the watcher's thread.
    void changed(std::uint32_t inotifyMask);

    const int fd_;
    const unsigned long mask_;
    std::mutex fileMutex_;  // guards the fields below
    int watch_ = -1;
    long long lastSize_ = 0;
    unsigned long lastLinks_ = 0;
};

}  // namespace platform
