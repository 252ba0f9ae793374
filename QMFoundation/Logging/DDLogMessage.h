// DDLogMessage: one log statement as the core carries it to the loggers: the
// text, its level, flag and context, where it was made (file, function, line,
// thread, queue) and when.
//
//   DDLogMessage message("disk full", DDLogLevelAll, DDLogFlagError, 0, __FILE__, __func__, __LINE__, {},
//                        DDLogMessageCopyFile | DDLogMessageCopyFunction);
//   message.fileName();   // "Uploader" for ".../Uploader.cpp"
//
// Contract:
// - Without the copy options the message keeps the caller's `file` and
//   `function` pointers, which must then live as long as the process (string
//   literals, __FILE__ and __func__ do). With an option it keeps a copy of its
//   own; a copy that cannot be allocated leaves the field null.
// - A copy of a message owns copies of whatever the original owned, so
//   copies and originals live and die independently.
// - The thread, queue label, thread name and time are those of the thread
//   that constructs the message.
// - A message is a value: it is not shared between threads while one of them
//   changes it. Loggers receive it by reference for the length of one call.
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

inline constexpr int DDLogMessageCopyFile = 1;
inline constexpr int DDLogMessageCopyFunction = 2;

class DDLogMessage {
public:
    DDLogMessage(std::string logMsg, int level, int flag, int context, const char* file, const char* function,
                 int line, platform::Value tag, int options);
    DDLogMessage(const DDLogMessage& other);
    DDLogMessage& operator=(const DDLogMessage& other);
    DDLogMessage(DDLogMessage&& other) noexcept = default;
    DDLogMessage& operator=(DDLogMessage&& other) noexcept = default;
    ~DDLogMessage() = default;

    int logLevel() const { return logLevel_; }
    int logFlag() const { return logFlag_; }
    int logContext() const { return logContext_; }
    const std::string& logMsg() const { return logMsg_; }
    platform::Date timestamp() const { return timestamp_; }
    // May be null.
    const char* file() const { return file_; }
    const char* function() const { return function_; }
    int lineNumber() const { return lineNumber_; }
    // The kernel's number of the creating thread.
    std::uint32_t machThreadID() const { return machThreadID_; }
    // The label of the dispatch queue the message was made on; "" off any queue.
    const std::string& queueLabel() const { return queueLabel_; }
    const std::string& threadName() const { return threadName_; }
    const platform::Value& tag() const { return tag_; }
    int options() const { return options_; }

    // `machThreadID` in lower-case hexadecimal.
    std::string threadID() const;
    // The last component of `file` without its extension, nothing without a
    // file. The extension starts at the last "." anywhere in the path, so a
    // path whose only dot lies in a directory name gives "".
    std::optional<std::string> fileName() const;
    // `function` as text, nothing without one.
    std::optional<std::string> methodName() const;

private:
    void takeOwnCopies();

    int logLevel_;
    int logFlag_;
    int logContext_;
    std::string logMsg_;
    platform::Date timestamp_;
    const char* file_;
    const char* function_;
    int lineNumber_;
    std::uint32_t machThreadID_;
    std::string queueLabel_;
    std::string threadName_;
    platform::Value tag_;
    int options_;
    // The copies behind `file_` and `function_` when the options ask for them.
    std::unique_ptr<char[]> ownFile_;
    std::unique_ptr<char[]> ownFunction_;
};

// The length of the name that the file-name rule finds in `path`, and where
// it starts; the length is 0 where the rule would give a negative one.
struct DDLogFileNameRange {
    std::size_t start = 0;
    std::size_t length = 0;
};
DDLogFileNameRange DDLogFileNameRangeInPath(const char* path);
