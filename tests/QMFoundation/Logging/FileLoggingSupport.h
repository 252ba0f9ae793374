// Helpers of the file logging tests: a file manager that reports rolls, what
// standard error received, files read whole, and messages written straight
// into a logger on its queue.
#pragma once

#include "QMFoundation/Logging/DDFileLogger.h"
#include "QMFoundation/Logging/DDLogFileManagerDefault.h"
#include "QMFoundation/Logging/DDLogMessage.h"

#include "tests/Support/Signal.h"

#include "Platform/FileSystem/FileManager.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

// A default manager that remembers every file the logger rolled away from,
// in order, and raises `rolled` for each.
class RollRecordingManager : public DDLogFileManagerDefault {
public:
    static std::shared_ptr<RollRecordingManager> make(const std::string& directory)
    {
        return platform::makeObject<RollRecordingManager>(directory);
    }

    bool respondsToDidRollAndArchiveLogFile() const override { return true; }
    void didRollAndArchiveLogFile(const std::string& path) override
    {
        {
            std::lock_guard lock(mutex_);
            rolledPaths_.push_back(path);
        }
        rolled.raise();
    }
    std::vector<std::string> rolledPaths() const
    {
        std::lock_guard lock(mutex_);
        return rolledPaths_;
    }

    Signal rolled;

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit RollRecordingManager(const std::string& directory) : DDLogFileManagerDefault(directory) {}

    mutable std::mutex mutex_;
    std::vector<std::string> rolledPaths_;
};

// File times come from the kernel's coarse clock, which moves every few
// milliseconds: files made within one tick share their birth time. Waits
// until the clock has moved past the birth time of `path` (by more than
// `atLeast` seconds), so a file made next is newer.
inline void waitForNewerFileTime(const std::string& path, double atLeast = 0)
{
    const auto attributes = platform::FileManager::attributesOfItemAtPath(path);
    if (!attributes) {
        return;
    }
    const double made = attributes->creationDate.timeIntervalSince1970();
    const auto giveUp = std::chrono::steady_clock::now() + kHangTimeout;
    timespec now{};
    do {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9 <= made + atLeast
             && std::chrono::steady_clock::now() < giveUp);
}

inline std::string readWholeFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void writeWholeFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// Sends standard error to a file while it lives; `text()` is what arrived.
class StandardErrorCapture {
public:
    StandardErrorCapture()
    {
        std::fflush(stderr);
        char name[] = "/tmp/zarvo-stderr-XXXXXX";
        file_ = ::mkstemp(name);
        ::unlink(name);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(file_, STDERR_FILENO);
    }
    ~StandardErrorCapture()
    {
        restore();
        ::close(file_);
    }
    StandardErrorCapture(const StandardErrorCapture&) = delete;
    StandardErrorCapture& operator=(const StandardErrorCapture&) = delete;

    void restore()
    {
        if (saved_ >= 0) {
            std::fflush(stderr);
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
            saved_ = -1;
        }
    }
    std::string text() const
    {
        std::string result;
        char buffer[4096];
        ssize_t count = 0;
        off_t offset = 0;
        while ((count = ::pread(file_, buffer, sizeof buffer, offset)) > 0) {
            result.append(buffer, static_cast<std::size_t>(count));
            offset += count;
        }
        return result;
    }

private:
    int file_ = -1;
    int saved_ = -1;
};

inline std::size_t countOccurrences(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

inline DDLogMessage messageWithText(const std::string& text, int flag = 4)
{
    return DDLogMessage(text, 31, flag, 0, __FILE__, __func__, __LINE__, platform::Value(), 0);
}

// Hands the logger one message on its queue and has it written out, as the
// core would; returns once the line is in the file.
inline void writeDirectly(const DDFileLoggerRef& logger, const std::string& text)
{
    logger->loggerQueue()->sync([&] {
        logger->logMessage(messageWithText(text));
        logger->flush();
    });
}

// The path of the file the logger writes, asked on its queue.
inline std::string currentPath(const DDFileLoggerRef& logger)
{
    std::string path;
    logger->loggerQueue()->sync([&] {
        if (const auto info = logger->currentLogFileInfo()) {
            path = info->filePath();
        }
    });
    return path;
}

}  // namespace testsupport
