#include "QMFoundation/Logging/DDTTYLogger.h"

#include "QMFoundation/Logging/DDLogMessage.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/System/ProcessInfo.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace {

constexpr const char* kAssertionSourceFile = "DDTTYLogger";

// Writes all of `parts` to standard error; a pipe or terminal may take a long
// line in pieces, and a signal may interrupt the call.
void writeWhole(iovec* parts, int count)
{
    while (count > 0) {
        const ssize_t written = ::writev(STDERR_FILENO, parts, count);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // nowhere to report it: standard error is the report
        }
        auto left = static_cast<std::size_t>(written);
        while (count > 0 && left >= parts->iov_len) {
            left -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + left;
            parts->iov_len -= left;
        }
    }
}

iovec piece(const std::string& text)
{
    return {const_cast<char*>(text.data()), text.size()};
}

iovec piece(const char* text, std::size_t length)
{
    return {const_cast<char*>(text), length};
}

}  // namespace

const DDTTYLoggerRef& DDTTYLogger::sharedInstance()
{
    // Never destroyed: the flush at exit may still reach it.
    static const auto* const instance = new DDTTYLoggerRef(platform::makeObject<DDTTYLogger>());
    return *instance;
}

DDTTYLogger::DDTTYLogger()
    : processName_(platform::ProcessInfo::processName()),
      processID_(std::to_string(platform::ProcessInfo::processIdentifier()))
{
    colorProfilesArray_.reserve(8);
    colorProfilesDict_.reserve(8);
}

void DDTTYLogger::changeOnLoggerQueue(const char* method, int line, std::function<void()> change)
{
    checkNotOnGlobalLoggingQueue(method, kAssertionSourceFile, line);
    if (isOnInternalLoggerQueue()) {
        change();
    } else {
        asyncThroughQueues(std::move(change));
    }
}

bool DDTTYLogger::colorsEnabled() const
{
    checkNotOnGlobalLoggingQueue(__func__, kAssertionSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue(__func__, kAssertionSourceFile, __LINE__);
    bool result = false;
    syncThroughQueues([&] { result = colorsEnabled_; });
    return result;
}

void DDTTYLogger::setColorsEnabled(bool enabled)
{
    checkNotOnGlobalLoggingQueue(__func__, kAssertionSourceFile, __LINE__);
    checkNotOnInternalLoggerQueue(__func__, kAssertionSourceFile, __LINE__);
    asyncThroughQueues([this, enabled] {
        colorsEnabled_ = enabled;
        if (enabled && colorProfilesArray_.empty()) {
            colorProfilesArray_.push_back(DDTTYLoggerColorProfile::create(DDColor::fromRGB(214, 57, 30), std::nullopt,
                                                                          DDLogFlagError, DDTTYLoggerAnyContext));
            colorProfilesArray_.push_back(DDTTYLoggerColorProfile::create(DDColor::fromRGB(204, 121, 32), std::nullopt,
                                                                          DDLogFlagWarning, DDTTYLoggerAnyContext));
        }
    });
}

void DDTTYLogger::setForegroundColor(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor,
                                     int forFlag, int context)
{
    changeOnLoggerQueue(__func__, __LINE__, [this, foregroundColor, backgroundColor, forFlag, context] {
        auto profile = DDTTYLoggerColorProfile::create(foregroundColor, backgroundColor, forFlag, context);
        const auto same = std::find_if(colorProfilesArray_.begin(), colorProfilesArray_.end(), [&](const auto& existing) {
            return existing->mask() == forFlag && existing->context() == context;
        });
        if (same != colorProfilesArray_.end()) {
            *same = std::move(profile);
        } else {
            colorProfilesArray_.push_back(std::move(profile));
        }
    });
}

void DDTTYLogger::setForegroundColor(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor,
                                     const platform::Value& forTag)
{
    PLATFORM_ASSERT(!forTag.isNothing(), "Invalid tag");
    changeOnLoggerQueue(__func__, __LINE__, [this, foregroundColor, backgroundColor, forTag] {
        auto profile = DDTTYLoggerColorProfile::create(foregroundColor, backgroundColor, 0, 0);
        const auto same = std::find_if(colorProfilesDict_.begin(), colorProfilesDict_.end(),
                                       [&](const auto& entry) { return entry.first == forTag; });
        if (same != colorProfilesDict_.end()) {
            same->second = std::move(profile);
        } else {
            colorProfilesDict_.emplace_back(forTag, std::move(profile));
        }
    });
}

void DDTTYLogger::clearColorsForFlag(int flag, int context)
{
    changeOnLoggerQueue(__func__, __LINE__, [this, flag, context] {
        const auto same = std::find_if(colorProfilesArray_.begin(), colorProfilesArray_.end(), [&](const auto& existing) {
            return existing->mask() == flag && existing->context() == context;
        });
        if (same != colorProfilesArray_.end()) {
            colorProfilesArray_.erase(same);
        }
    });
}

void DDTTYLogger::clearColorsForTag(const platform::Value& tag)
{
    PLATFORM_ASSERT(!tag.isNothing(), "Invalid tag");
    changeOnLoggerQueue(__func__, __LINE__, [this, tag] {
        std::erase_if(colorProfilesDict_, [&](const auto& entry) { return entry.first == tag; });
    });
}

void DDTTYLogger::clearColorsForAllFlags()
{
    changeOnLoggerQueue(__func__, __LINE__, [this] { colorProfilesArray_.clear(); });
}

void DDTTYLogger::clearColorsForAllTags()
{
    changeOnLoggerQueue(__func__, __LINE__, [this] { colorProfilesDict_.clear(); });
}

void DDTTYLogger::clearAllColors()
{
    changeOnLoggerQueue(__func__, __LINE__, [this] {
        colorProfilesArray_.clear();
        colorProfilesDict_.clear();
    });
}

const DDTTYLoggerColorProfile* DDTTYLogger::profileFor(const DDLogMessage& message) const
{
    if (!message.tag().isNothing()) {
        for (const auto& [tag, profile] : colorProfilesDict_) {
            if (tag == message.tag()) {
                return profile.get();
            }
        }
    }
    const DDTTYLoggerColorProfile* anyContext = nullptr;
    for (const auto& profile : colorProfilesArray_) {
        if ((message.logFlag() & profile->mask()) == 0) {
            continue;
        }
        if (profile->context() == message.logContext()) {
            return profile.get();
        }
        if (profile->context() == DDTTYLoggerAnyContext) {
            anyContext = profile.get();
        }
    }
    return anyContext;
}

void DDTTYLogger::logMessage(const DDLogMessage& logMessage)
{
    std::string line;
    const std::string* found = textToWrite(logMessage, line);
    if (found == nullptr) {
        return;
    }
    const std::string& text = *found;

    // Not a static: the exit handler's flush may write after statics are gone.
    const std::string none;
    const DDTTYLoggerColorProfile* profile = colorsEnabled_ ? profileFor(logMessage) : nullptr;
    const std::string& fgCode = profile != nullptr ? profile->fgCode() : none;
    const std::string& bgCode = profile != nullptr ? profile->bgCode() : none;
    const std::string& resetCode = profile != nullptr ? profile->resetCode() : none;

    static const char lineEnd[] = "\n";
    if (formatter_) {
        iovec parts[] = {piece(fgCode), piece(bgCode), piece(text), piece(lineEnd, 1), piece(resetCode)};
        writeWhole(parts, 5);
        return;
    }

    // The line's own prefix: local time to the millisecond, process and thread.
    const double when = logMessage.timestamp().timeIntervalSince1970();
    const double whole = std::floor(when);
    const auto seconds = static_cast<std::time_t>(whole);
    std::tm fields{};
    ::localtime_r(&seconds, &fields);
    const int milliseconds = std::min(static_cast<int>((when - whole) * 1000.0), 999);
    char timestamp[24];
    const int timestampLength =
        std::snprintf(timestamp, sizeof timestamp, "%04ld-%02ld-%02ld %02ld:%02ld:%02ld:%03d",
                      static_cast<long>(fields.tm_year) + 1900, static_cast<long>(fields.tm_mon) + 1,
                      static_cast<long>(fields.tm_mday), static_cast<long>(fields.tm_hour),
                      static_cast<long>(fields.tm_min), static_cast<long>(fields.tm_sec), milliseconds);
    char thread[9];
    const int threadLength = std::snprintf(thread, sizeof thread, "%x", logMessage.machThreadID());

    iovec parts[] = {
        piece(fgCode),
        piece(bgCode),
        piece(timestamp, static_cast<std::size_t>(std::clamp(timestampLength, 0, 23))),
        piece(" ", 1),
        piece(processName_),
        piece("[", 1),
        piece(processID_),
        piece(":", 1),
        piece(thread, static_cast<std::size_t>(std::clamp(threadLength, 0, 8))),
        piece("] ", 2),
        piece(text),
        piece(lineEnd, 1),
        piece(resetCode),
    };
    writeWhole(parts, 13);
}
