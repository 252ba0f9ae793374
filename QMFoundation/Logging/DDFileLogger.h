// DDFileLogger: writes log lines to rolling files in a directory kept by a
// DDLogFileManager.
//
//   auto logger = DDFileLogger::create();          // ~/.local/state/<process name>/log-XXXXXX.txt
//   logger->setRollingFrequency(86400);
//   DDLog::addLogger(logger);
//
// Contract:
// - Idle until its first message. It then continues the newest file of the
//   directory that is not archived, unless that file has reached the size
//   limit or the age limit (then it is archived), or makes a new one.
// - It rolls (closes the file, marks it archived, starts a new file with the
//   next message) when the file reaches `maximumFileSize` (checked after
//   each line, so a file may exceed it by one line), when the file's age
//   reaches `rollingFrequency` (a one-shot timer), when the file is deleted
//   or renamed under it (an inotify watch), when asked, and when it is
//   removed from DDLog. Limits of 0 switch the size or the age rule off.
// - Lines are collected in memory and written with one write(2) when the
//   global logging queue has nothing more queued for this logger, when 64 KiB
//   have gathered, on a flush, a roll and destruction: the file is current
//   whenever the program stops logging for a moment, and a burst costs a
//   write per many lines. No line is synced to disk on its own; a roll syncs
//   the file it closes. The file is opened for appending, so two processes
//   that share the directory never overwrite each other's lines.
// - Failures never reach the caller. A write that fails (disk full, file
//   size limit) loses the lines it carried and counts once in a process-wide
//   counter of failures, the first ten of which are reported on standard
//   error ("DDFileLogger.logMessage: ...", and with the tenth "Too many
//   exceptions -- will not log any more of them."). A file that cannot be
//   made or opened (directory not writable) drops the message; the next
//   message tries again.
// - Queues: `logMessage`, rolling, the timer, the watch and the accessors
//   marked so run on the logger queue ("cocoa.velmora.fileLogger"). The
//   property accessors and `rollLogFile` may be called from any other
//   queue; from the global logging queue they raise "Core architecture
//   requirement failure", from the logger queue (where the logger's own code
//   reads its fields directly) "MUST access ivar directly, NOT via self.*
//   syntax.". Setters and rolls take effect asynchronously, in order.
#pragma once

#include "QMFoundation/Logging/DDAbstractLogger.h"
#include "QMFoundation/Logging/DDLogFileInfo.h"
#include "QMFoundation/Logging/DDLogFileManager.h"

#include "Platform/Dispatch/DispatchSource.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileHandle.h"

#include <cstdint>
#include <functional>
#include <memory>

class DDFileLogger;
using DDFileLoggerRef = std::shared_ptr<DDFileLogger>;

class DDFileLogger : public DDAbstractLogger {
public:
    // Nothing: a new DDLogFileManagerDefault in the default directory.
    static DDFileLoggerRef create(DDLogFileManagerRef logFileManager = nullptr);
    ~DDFileLogger() override;

    std::uint64_t maximumFileSize() const;
    void setMaximumFileSize(std::uint64_t maximumFileSize);
    double rollingFrequency() const;
    void setRollingFrequency(double rollingFrequency);
    const DDLogFileManagerRef& logFileManager() const { return logFileManager_; }

    // Rolls now on the logger queue (at once when called there), then submits
    // `completion` to the main queue.
    void rollLogFile() { rollLogFileWithCompletionBlock(nullptr); }
    void rollLogFileWithCompletionBlock(std::function<void()> completion);

    // On the logger queue only: the file in use, chosen (or made) when none
    // is; nothing when no file could be had.
    DDLogFileInfoRef currentLogFileInfo();

    void logMessage(const DDLogMessage& logMessage) override;
    void willRemoveLogger() override;
    void flush() override;
    std::string loggerName() const override { return "cocoa.velmora.fileLogger"; }
    std::string className() const override { return "DDFileLogger"; }

    // The failures counted so far by every file logger of the process.
    static int exceptionCount();

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit DDFileLogger(DDLogFileManagerRef logFileManager);

    // All on the logger queue.
    platform::FileHandleRef currentLogFileHandle();
    void rollLogFileNow();
    // Writes what is collected, syncs and closes the file; forgets the handle.
    void closeCurrentFile();
    void maybeRollLogFileDueToSize();
    void maybeRollLogFileDueToAge();
    void scheduleTimerToRollLogFileDueToAge();
    void watchCurrentFile();
    // Writes the collected lines; raises what the write raised.
    void writeCollectedLines();
    // Has the collected lines written once the logging queue has passed the
    // messages queued so far.
    void scheduleCollectedLinesWrite();
    static void countException(const platform::Exception& exception);
    std::weak_ptr<DDFileLogger> weakSelf();

    const DDLogFileManagerRef logFileManager_;

    // Read and written only on the logger queue.
    std::uint64_t maximumFileSize_ = 1024 * 1024;
    double rollingFrequency_ = 86400.0;
    DDLogFileInfoRef currentLogFileInfo_;
    platform::FileHandleRef currentLogFileHandle_;
    std::shared_ptr<platform::DispatchFileSource> currentLogFileVnode_;
    std::shared_ptr<platform::DispatchTimerSource> rollingTimer_;
    platform::Data collectedLines_;
    // Where the file ends once the collected lines are written.
    std::uint64_t fileOffset_ = 0;
    bool writeScheduled_ = false;
};
