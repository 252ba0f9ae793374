#include "QMFoundation/Logging/DDLogMessage.h"

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Thread.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace {

std::unique_ptr<char[]> copyOf(const char* text)
{
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(text);
    std::unique_ptr<char[]> copy(new (std::nothrow) char[length + 1]);
    if (copy) {
        std::memcpy(copy.get(), text, length + 1);
    }
    return copy;
}

}  // namespace

DDLogMessage::DDLogMessage(std::string logMsg, int level, int flag, int context, const char* file,
                           const char* function, int line, platform::Value tag, int options)
    : logLevel_(level),
      logFlag_(flag),
      logContext_(context),
      logMsg_(std::move(logMsg)),
      timestamp_(platform::Date::now()),
      file_(file),
      function_(function),
      lineNumber_(line),
      machThreadID_(static_cast<std::uint32_t>(platform::Thread::currentThreadID())),
      queueLabel_(platform::DispatchQueue::currentLabel()),
      threadName_(platform::Thread::nameAsLastSeen()),
      tag_(std::move(tag)),
      options_(options)
{
    takeOwnCopies();
}

DDLogMessage::DDLogMessage(const DDLogMessage& other)
    : logLevel_(other.logLevel_),
      logFlag_(other.logFlag_),
      logContext_(other.logContext_),
      logMsg_(other.logMsg_),
      timestamp_(other.timestamp_),
      file_(other.file_),
      function_(other.function_),
      lineNumber_(other.lineNumber_),
      machThreadID_(other.machThreadID_),
      queueLabel_(other.queueLabel_),
      threadName_(other.threadName_),
      tag_(other.tag_),
      options_(other.options_)
{
    takeOwnCopies();
}

DDLogMessage& DDLogMessage::operator=(const DDLogMessage& other)
{
    if (this != &other) {
        DDLogMessage copy(other);
        *this = std::move(copy);
    }
    return *this;
}

// Copies from the pointers as they stand, which for a copy are the
// original's own copies: each message owns what it frees.
void DDLogMessage::takeOwnCopies()
{
    if ((options_ & DDLogMessageCopyFile) != 0) {
        ownFile_ = copyOf(file_);
        file_ = ownFile_.get();
    }
    if ((options_ & DDLogMessageCopyFunction) != 0) {
        ownFunction_ = copyOf(function_);
        function_ = ownFunction_.get();
    }
}

std::string DDLogMessage::threadID() const
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", machThreadID_);
    return text;
}

DDLogFileNameRange DDLogFileNameRangeInPath(const char* path)
{
    std::size_t start = 0;
    std::size_t dot = 0;
    bool sawDot = false;
    std::size_t end = 0;
    for (; path[end] != '\0'; ++end) {
        if (path[end] == '/') {
            start = end + 1;
        } else if (path[end] == '.') {
            dot = end;
            sawDot = true;
        }
    }
    const std::size_t stop = sawDot ? dot : end;
    // A dot in a directory name before the last slash would end the name
    // before it starts.
    return {start, stop > start ? stop - start : 0};
}

std::optional<std::string> DDLogMessage::fileName() const
{
    if (file_ == nullptr) {
        return std::nullopt;
    }
    const DDLogFileNameRange range = DDLogFileNameRangeInPath(file_);
    return std::string(file_ + range.start, range.length);
}

std::optional<std::string> DDLogMessage::methodName() const
{
    if (function_ == nullptr) {
        return std::nullopt;
    }
    return std::string(function_);
}
