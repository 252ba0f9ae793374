#include "QMFoundation/Logging/DDFileLogger.h"

#include "QMFoundation/Logging/DDLogFileFormatterDefault.h"
#include "QMFoundation/Logging/DDLogFileManagerDefault.h"
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/internal/DDLogTesting.h"
#include "QMFoundation/Logging/internal/SystemConsole.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>

using platform::DispatchFileSource;
using platform::DispatchTimerSource;
using qmlogging::internal::writeToSystemConsole;

namespace {

constexpr const char* kSourceFile = "DDFileLogger";
constexpr std::size_t kCollectedLinesLimit = 64 * 1024;
constexpr int kReportedExceptions = 10;

// Touched from every file logger's queue.
std::atomic<int> exceptionsSeen{0};

// Appending, so that a second process writing the same file adds its lines
// instead of writing over ours; never through a link, and never waiting on a
// pipe that someone left under a log file's name.
platform::FileHandleRef openForAppending(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    return platform::FileHandle::create(fd, true);
}

}  // namespace

DDFileLoggerRef DDFileLogger::create(DDLogFileManagerRef logFileManager)
{
    if (!logFileManager) {
        logFileManager = DDLogFileManagerDefault::create();
    }
    return platform::makeObject<DDFileLogger>(std::move(logFileManager));
}

DDFileLogger::DDFileLogger(DDLogFileManagerRef logFileManager) : logFileManager_(std::move(logFileManager))
{
    // Set directly: no queue exists to go through yet, and nobody else can
    // reach the logger.
    formatter_ = DDLogFileFormatterDefault::create();
}

DDFileLogger::~DDFileLogger()
{
    // The last reference is gone, so no block of the logger's queue can touch
    // these fields any more.
    if (currentLogFileVnode_) {
        currentLogFileVnode_->cancel();
    }
    if (rollingTimer_) {
        rollingTimer_->cancel();
    }
    closeCurrentFile();
}

void DDFileLogger::closeCurrentFile()
{
    if (!currentLogFileHandle_) {
        return;
    }
    try {
        writeCollectedLines();
        currentLogFileHandle_->synchronizeFile();
        currentLogFileHandle_->closeFile();
    } catch (const platform::Exception& exception) {
        countException(exception);
    }
    currentLogFileHandle_.reset();
    collectedLines_.clear();
}

std::weak_ptr<DDFileLogger> DDFileLogger::weakSelf()
{
    return std::static_pointer_cast<DDFileLogger>(shared_from_this());
}

int DDFileLogger::exceptionCount()
{
    return exceptionsSeen.load(std::memory_order_relaxed);
}

void ddlog_internal::resetFileLoggerExceptionCount()
{
    exceptionsSeen.store(0, std::memory_order_relaxed);
}

void DDFileLogger::countException(const platform::Exception& exception)
{
    const int seen = exceptionsSeen.fetch_add(1, std::memory_order_relaxed) + 1;
    if (seen <= kReportedExceptions) {
        writeToSystemConsole("DDFileLogger.logMessage: " + exception.reason());
    }
    if (seen == kReportedExceptions) {
        writeToSystemConsole("DDFileLogger.logMessage: Too many exceptions -- will not log any more of them.");
    }
}

// Properties

std::uint64_t DDFileLogger::maximumFileSize() const
{
    checkNotOnGlobalLoggingQueue("maximumFileSize", kSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue("maximumFileSize", kSourceFile, __LINE__);
    std::uint64_t result = 0;
    syncThroughQueues([&] { result = maximumFileSize_; });
    return result;
}

void DDFileLogger::setMaximumFileSize(std::uint64_t maximumFileSize)
{
    checkNotOnGlobalLoggingQueue("setMaximumFileSize:", kSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue("setMaximumFileSize:", kSourceFile, __LINE__);
    asyncThroughQueues([self = weakSelf(), maximumFileSize] {
        if (const auto logger = self.lock()) {
            logger->maximumFileSize_ = maximumFileSize;
            logger->maybeRollLogFileDueToSize();
        }
    });
}

double DDFileLogger::rollingFrequency() const
{
    checkNotOnGlobalLoggingQueue("rollingFrequency", kSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue("rollingFrequency", kSourceFile, __LINE__);
    double result = 0;
    syncThroughQueues([&] { result = rollingFrequency_; });
    return result;
}

void DDFileLogger::setRollingFrequency(double rollingFrequency)
{
    checkNotOnGlobalLoggingQueue("setRollingFrequency:", kSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue("setRollingFrequency:", kSourceFile, __LINE__);
    asyncThroughQueues([self = weakSelf(), rollingFrequency] {
        if (const auto logger = self.lock()) {
            logger->rollingFrequency_ = rollingFrequency;
            logger->maybeRollLogFileDueToAge();
        }
    });
}

// Rolling

void DDFileLogger::rollLogFileWithCompletionBlock(std::function<void()> completion)
{
    checkNotOnGlobalLoggingQueue("rollLogFileWithCompletionBlock:", kSourceFile, __LINE__);
    auto work = [self = weakSelf(), completion = std::move(completion)] {
        if (const auto logger = self.lock()) {
            logger->rollLogFileNow();
        }
        if (completion) {
            platform::DispatchQueue::main()->async(completion);
        }
    };
    if (isOnInternalLoggerQueue()) {
        work();
        return;
    }
    asyncThroughQueues(std::move(work));
}

void DDFileLogger::rollLogFileNow()
{
    if (!currentLogFileHandle_) {
        return;
    }
    // The watch goes first: it must not outlive the descriptor it watches,
    // and our own closing and renaming are not news to us.
    if (currentLogFileVnode_) {
        currentLogFileVnode_->cancel();
        currentLogFileVnode_.reset();
    }
    closeCurrentFile();
    if (currentLogFileInfo_) {
        currentLogFileInfo_->setIsArchived(true);
        if (logFileManager_->respondsToDidRollAndArchiveLogFile()) {
            logFileManager_->didRollAndArchiveLogFile(currentLogFileInfo_->filePath());
        }
        currentLogFileInfo_.reset();
    }
    if (rollingTimer_) {
        rollingTimer_->cancel();
        rollingTimer_.reset();
    }
}

void DDFileLogger::maybeRollLogFileDueToSize()
{
    if (maximumFileSize_ > 0 && currentLogFileHandle_ && fileOffset_ >= maximumFileSize_) {
        rollLogFileNow();
    }
}

void DDFileLogger::maybeRollLogFileDueToAge()
{
    if (rollingFrequency_ > 0 && currentLogFileInfo_ && currentLogFileInfo_->age() >= rollingFrequency_) {
        rollLogFileNow();
    } else {
        scheduleTimerToRollLogFileDueToAge();
    }
}

void DDFileLogger::scheduleTimerToRollLogFileDueToAge()
{
    if (rollingTimer_) {
        rollingTimer_->cancel();
        rollingTimer_.reset();
    }
    if (!currentLogFileInfo_ || rollingFrequency_ <= 0) {
        return;
    }
    const platform::Date created = currentLogFileInfo_->creationDate().value_or(platform::Date::now());
    const double delay = std::max(0.0, created.dateByAddingTimeInterval(rollingFrequency_)
                                           .timeIntervalSinceDate(platform::Date::now()));
    rollingTimer_ = DispatchTimerSource::create(loggerQueue());
    rollingTimer_->setEventHandler([self = weakSelf()] {
        if (const auto logger = self.lock()) {
            logger->maybeRollLogFileDueToAge();
        }
    });
    rollingTimer_->setTimer(platform::dispatchTimeFromNow(delay), DispatchTimerSource::kOnce,
                            std::chrono::nanoseconds(1));
    rollingTimer_->resume();
}

// The current file

DDLogFileInfoRef DDFileLogger::currentLogFileInfo()
{
    if (currentLogFileInfo_) {
        return currentLogFileInfo_;
    }
    const auto infos = logFileManager_->sortedLogFileInfos();
    if (!infos.empty() && !infos.front()->isArchived()) {
        const auto& newest = infos.front();
        const bool full = maximumFileSize_ > 0 && newest->fileSize() >= maximumFileSize_;
        const bool old = rollingFrequency_ > 0 && newest->age() >= rollingFrequency_;
        if (!full && !old) {
            currentLogFileInfo_ = newest;
            return currentLogFileInfo_;
        }
        newest->setIsArchived(true);
        if (logFileManager_->respondsToDidArchiveLogFile()) {
            logFileManager_->didArchiveLogFile(newest->filePath());
        }
    }
    currentLogFileInfo_ = DDLogFileInfo::logFileWithPath(logFileManager_->createNewLogFile());
    return currentLogFileInfo_;
}

platform::FileHandleRef DDFileLogger::currentLogFileHandle()
{
    if (currentLogFileHandle_) {
        return currentLogFileHandle_;
    }
    platform::FileHandleRef handle;
    // A file chosen earlier may be gone by now (or never have been made, on
    // a read-only disk): forget it and choose once more. A file that still
    // cannot be opened is forgotten too, so the next message looks again.
    for (int attempt = 0; attempt < 2 && !handle; ++attempt) {
        handle = openForAppending(currentLogFileInfo()->filePath());
        if (!handle) {
            currentLogFileInfo_.reset();
        }
    }
    if (!handle) {
        return nullptr;
    }
    fileOffset_ = handle->seekToEndOfFile();
    currentLogFileHandle_ = std::move(handle);
    scheduleTimerToRollLogFileDueToAge();
    watchCurrentFile();
    return currentLogFileHandle_;
}

void DDFileLogger::watchCurrentFile()
{
    currentLogFileVnode_ = DispatchFileSource::create(currentLogFileHandle_->fileDescriptor(),
                                                      DispatchFileSource::kDelete | DispatchFileSource::kRename,
                                                      loggerQueue());
    currentLogFileVnode_->setEventHandler([self = weakSelf()] {
        if (const auto logger = self.lock()) {
            logger->rollLogFileNow();
        }
    });
    currentLogFileVnode_->resume();
}

// Writing

void DDFileLogger::logMessage(const DDLogMessage& logMessage)
{
    std::string line;
    const std::string* text = textToWrite(logMessage, line);
    if (text == nullptr) {
        return;
    }
    try {
        if (!currentLogFileHandle()) {
            return;
        }
        const std::size_t before = collectedLines_.size();
        collectedLines_.insert(collectedLines_.end(), text->begin(), text->end());
        if (!text->ends_with('\n')) {
            collectedLines_.push_back('\n');
        }
        fileOffset_ += collectedLines_.size() - before;
        if (collectedLines_.size() >= kCollectedLinesLimit) {
            writeCollectedLines();
        } else {
            scheduleCollectedLinesWrite();
        }
        maybeRollLogFileDueToSize();
    } catch (const platform::Exception& exception) {
        countException(exception);
    }
}

void DDFileLogger::writeCollectedLines()
{
    if (collectedLines_.empty() || !currentLogFileHandle_) {
        return;
    }
    // The lines are gone whether the write succeeds or not: a failed write
    // is not tried again with the next one.
    try {
        currentLogFileHandle_->writeData(collectedLines_);
    } catch (const platform::Exception&) {
        collectedLines_.clear();
        throw;
    }
    collectedLines_.clear();
}

void DDFileLogger::scheduleCollectedLinesWrite()
{
    if (writeScheduled_) {
        return;
    }
    writeScheduled_ = true;
    // Queued behind every message the logging queue holds now: it reaches
    // this logger when the burst it belongs to has been handed over. It runs
    // on the logger queue from inside the logging queue (the one nesting the
    // pipeline allows), so the logging queue's own thread does the write
    // while the logger queue is idle, and no thread is woken for it.
    DDLog::loggingQueue()->async([self = weakSelf()] {
        const auto logger = self.lock();
        if (!logger) {
            return;
        }
        logger->loggerQueue()->sync([&logger] {
            logger->writeScheduled_ = false;
            try {
                logger->writeCollectedLines();
            } catch (const platform::Exception& exception) {
                countException(exception);
            }
        });
    });
}

void DDFileLogger::flush()
{
    try {
        writeCollectedLines();
    } catch (const platform::Exception& exception) {
        countException(exception);
    }
}

void DDFileLogger::willRemoveLogger()
{
    rollLogFileNow();
}
