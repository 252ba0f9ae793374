#include "Platform/Dispatch/DispatchSource.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Exception.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <system_error>
#include <vector>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Dispatch/DispatchSource";

constexpr std::uint32_t kWatchedChanges = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_MODIFY;

}  // namespace

// The process's one inotify instance, shared by every file source. The same
// file watched twice gets the same watch descriptor from the kernel, so each
// descriptor maps to a list of sources.
class FileWatcher {
public:
    static FileWatcher& shared()
    {
        static auto* watcher = new FileWatcher;  // never destroyed, like the monitor it uses
        return *watcher;
    }

    int add(const std::string& path, const std::shared_ptr<DispatchFileSource>& source)
    {
        std::lock_guard lock(mutex_);
        const int watch = ::inotify_add_watch(inotify_, path.c_str(), kWatchedChanges);
        if (watch >= 0) {
            sources_[watch].emplace_back(source.get(), source);
        }
        return watch;
    }

    void remove(int watch, const DispatchFileSource* source)
    {
        std::lock_guard lock(mutex_);
        const auto found = sources_.find(watch);
        if (found == sources_.end()) {
            return;
        }
        std::erase_if(found->second, [&](const auto& entry) { return entry.first == source; });
        if (found->second.empty()) {
            ::inotify_rm_watch(inotify_, watch);
            sources_.erase(found);
        }
    }

private:
    FileWatcher() : inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        if (inotify_ < 0) {
            throw std::system_error(errno, std::generic_category(), "inotify");
        }
        token_ = internal::EventMonitor::shared().watch(inotify_, EPOLLIN, [this](internal::EventMonitor::Token, std::uint32_t) { readEvents(); });
    }

    // On the monitor thread.
    void readEvents()
    {
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            const auto length = ::read(inotify_, buffer, sizeof buffer);
            if (length <= 0) {
                break;
            }
            for (const char* cursor = buffer; cursor < buffer + length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(cursor);
                cursor += sizeof(inotify_event) + event->len;
                std::vector<std::shared_ptr<DispatchFileSource>> targets;
                {
                    std::lock_guard lock(mutex_);
                    if (const auto found = sources_.find(event->wd); found != sources_.end()) {
                        for (const auto& [raw, weak] : found->second) {
                            if (auto source = weak.lock()) {
                                targets.push_back(std::move(source));
                            }
                        }
                    }
                }
                for (const auto& source : targets) {
                    source->changed(event->mask);
                }
            }
        }
        internal::EventMonitor::shared().rearm(token_);
    }

    const int inotify_;
    internal::EventMonitor::Token token_ = 0;
    std::mutex mutex_;  // guards `sources_`
    std::map<int, std::vector<std::pair<const DispatchFileSource*, std::weak_ptr<DispatchFileSource>>>> sources_;
};

// --- DispatchSource

DispatchSource::DispatchSource(DispatchQueueRef queue) : queue_(std::move(queue))
{
    PLATFORM_PARAMETER_ASSERT(queue_ != nullptr, "queue != NULL");
}

DispatchSource::~DispatchSource() = default;

void DispatchSource::setEventHandler(std::function<void()> handler)
{
    std::function<void()> previous;  // released outside the lock
    std::lock_guard lock(mutex_);
    if (!cancelled_) {
        previous = std::exchange(eventHandler_, std::move(handler));
    }
}

void DispatchSource::setCancelHandler(std::function<void()> handler)
{
    std::function<void()> previous;
    std::lock_guard lock(mutex_);
    if (!cancelled_) {
        previous = std::exchange(cancelHandler_, std::move(handler));
    }
}

bool DispatchSource::isCancelled() const
{
    std::lock_guard lock(mutex_);
    return cancelled_;
}

void DispatchSource::suspend()
{
    std::lock_guard lock(mutex_);
    ++suspendCount_;
}

void DispatchSource::resume()
{
    bool activateNow = false;
    {
        std::unique_lock lock(mutex_);
        PLATFORM_ASSERT(suspendCount_ > 0, "Over-resume of a dispatch source");
        if (--suspendCount_ > 0) {
            return;
        }
        if (!activated_ && !cancelled_) {
            activated_ = true;
            activateNow = true;
        }
        scheduleDeliveryLocked(lock);
    }
    if (activateNow) {
        activate();
    }
}

void DispatchSource::cancel()
{
    std::function<void()> eventHandler;
    std::function<void()> cancelHandler;
    bool wasActive = false;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_) {
            return;
        }
        cancelled_ = true;
        eventHandler = std::move(eventHandler_);
        cancelHandler = std::move(cancelHandler_);
        eventHandler_ = nullptr;
        cancelHandler_ = nullptr;
        wasActive = activated_;
    }
    if (wasActive) {
        deactivate();
    }
    if (cancelHandler) {
        queue_->async(std::move(cancelHandler));
    }
}

void DispatchSource::merge(std::uint64_t data, Merge how)
{
    std::unique_lock lock(mutex_);
    if (cancelled_) {
        return;
    }
    pending_ = how == Merge::Add ? pending_ + data : (pending_ | data);
    scheduleDeliveryLocked(lock);
}

void DispatchSource::scheduleDeliveryLocked(std::unique_lock<std::mutex>& lock)
{
    if (deliveryScheduled_ || suspendCount_ > 0 || pending_ == 0 || cancelled_) {
        return;
    }
    deliveryScheduled_ = true;
    auto self = std::static_pointer_cast<DispatchSource>(shared_from_this());
    lock.unlock();
    queue_->async([self] { self->deliver(); });
}

void DispatchSource::deliver()
{
    std::function<void()> handler;
    {
        std::lock_guard lock(mutex_);
        deliveryScheduled_ = false;
        if (cancelled_ || suspendCount_ > 0 || pending_ == 0) {
            return;
        }
        currentData_.store(std::exchange(pending_, 0));
        handler = eventHandler_;
    }
    if (handler) {
        handler();
    }
}

// --- DispatchTimerSource

std::shared_ptr<DispatchTimerSource> DispatchTimerSource::create(const DispatchQueueRef& queue)
{
    return makeObject<DispatchTimerSource>(queue);
}

DispatchTimerSource::~DispatchTimerSource()
{
    deactivate();
}

void DispatchTimerSource::setTimer(DispatchTime start, std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway)
{
    std::uint64_t previous = 0;
    {
        std::lock_guard lock(timerMutex_);
        previous = std::exchange(token_, 0);
        ++generation_;
        next_ = start;
        interval_ = interval;
        leeway_ = std::max(leeway, std::chrono::nanoseconds(0));
        scheduled_ = true;
    }
    if (previous != 0) {
        internal::EventMonitor::shared().cancelTimer(previous);
    }
    std::lock_guard lock(timerMutex_);
    if (active_ && token_ == 0) {
        armLocked();
    }
}

void DispatchTimerSource::armLocked()
{
    std::weak_ptr<DispatchTimerSource> weak = std::static_pointer_cast<DispatchTimerSource>(shared_from_this());
    const std::uint64_t generation = generation_;
    token_ = internal::EventMonitor::shared().addTimer(next_, leeway_, [weak, generation] {
        if (auto self = weak.lock()) {
            self->fired(generation);
        }
    });
}

void DispatchTimerSource::fired(std::uint64_t generation)
{
    std::uint64_t count = 1;
    {
        std::lock_guard lock(timerMutex_);
        if (generation != generation_ || !active_) {
            return;
        }
        token_ = 0;
        if (interval_ == kOnce || interval_.count() <= 0) {
            scheduled_ = false;
        } else {
            const auto late = DispatchClock::now() - next_;
            if (late >= interval_) {
                count += static_cast<std::uint64_t>(late / interval_);
            }
            next_ += interval_ * static_cast<std::int64_t>(count);
            armLocked();
        }
    }
    merge(count, Merge::Add);
}

void DispatchTimerSource::activate()
{
    std::lock_guard lock(timerMutex_);
    active_ = true;
    if (scheduled_ && token_ == 0) {
        armLocked();
    }
}

void DispatchTimerSource::deactivate()
{
    std::uint64_t previous = 0;
    {
        std::lock_guard lock(timerMutex_);
        active_ = false;
        ++generation_;
        previous = std::exchange(token_, 0);
    }
    if (previous != 0) {
        internal::EventMonitor::shared().cancelTimer(previous);
    }
}

// --- DispatchFileSource

DispatchFileSource::DispatchFileSource(int fd, unsigned long mask, DispatchQueueRef queue)
    : DispatchSource(std::move(queue)), fd_(fd), mask_(mask)
{
}

std::shared_ptr<DispatchFileSource> DispatchFileSource::create(int fd, unsigned long mask, const DispatchQueueRef& queue)
{
    if (::fcntl(fd, F_GETFD) < 0) {
        return nullptr;
    }
    return makeObject<DispatchFileSource>(fd, mask, queue);
}

DispatchFileSource::~DispatchFileSource()
{
    deactivate();
}

void DispatchFileSource::activate()
{
    struct stat status {};
    const bool known = ::fstat(fd_, &status) == 0;
    auto self = std::static_pointer_cast<DispatchFileSource>(shared_from_this());
    // The descriptor's entry in /proc names the open file itself, even after
    // it was renamed or unlinked, so the watch follows the file, not a path.
    const int watch = FileWatcher::shared().add("/proc/self/fd/" + std::to_string(fd_), self);
    std::lock_guard lock(fileMutex_);
    watch_ = watch;
    lastSize_ = known ? static_cast<long long>(status.st_size) : 0;
    lastLinks_ = known ? static_cast<unsigned long>(status.st_nlink) : 0;
}

void DispatchFileSource::deactivate()
{
    int watch = -1;
    {
        std::lock_guard lock(fileMutex_);
        watch = std::exchange(watch_, -1);
    }
    if (watch >= 0) {
        FileWatcher::shared().remove(watch, this);
    }
}

void DispatchFileSource::changed(std::uint32_t inotifyMask)
{
    struct stat status {};
    const bool known = ::fstat(fd_, &status) == 0;
    unsigned long events = 0;
    {
        std::lock_guard lock(fileMutex_);
        if ((inotifyMask & IN_DELETE_SELF) != 0) {
            events |= kDelete;
        }
        if ((inotifyMask & IN_MOVE_SELF) != 0) {
            events |= kRename;
        }
        if ((inotifyMask & IN_MODIFY) != 0) {
            events |= kWrite;
            if (known && static_cast<long long>(status.st_size) > lastSize_) {
                events |= kExtend;
            }
        }
        if ((inotifyMask & IN_ATTRIB) != 0) {
            // Unlinking a file that is still open changes only its link count;
            // the inode itself goes when the last descriptor closes.
            if (known && status.st_nlink == 0) {
                events |= kDelete;
            } else if (known && static_cast<unsigned long>(status.st_nlink) != lastLinks_) {
                events |= kLink;
            } else {
                events |= kAttrib;
            }
        }
        if (known) {
            lastSize_ = static_cast<long long>(status.st_size);
            lastLinks_ = static_cast<unsigned long>(status.st_nlink);
        }
    }
    events &= mask_;
    if (events != 0) {
        merge(events, Merge::Or);
    }
}

}  // namespace platform
