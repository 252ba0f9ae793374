// DDTTYLogger: the process's standard error as a logger, in colour where the
// terminal allows.
//
//   auto tty = DDTTYLogger::sharedInstance();
//   tty->setColorsEnabled(true);   // errors and warnings get colours
//   tty->setForegroundColor(DDColor::fromRGB(0, 128, 255), std::nullopt, DDLogFlagInfo);
//   DDLog::addLogger(tty);
//
// Contract:
// - Each line goes out in one vectored write (finished if the kernel takes it
//   in parts), so lines of this logger never interleave with each other. A
//   line is the colour codes, the text, "\n" and the reset code; without a
//   formatter the text is prefixed with the local time, the process name, its
//   id and the thread number: "2014-03-07 09:15:02:417 name[812:1a03] text".
//   A line end is always added, also to a text that already ends in one.
// - Colours: decided once per process from the environment. TERM containing
//   "color" picks 16 colours, or 256 when it also contains "256"; other TERM
//   values give no codes; without TERM, XcodeColors=YES picks RGB codes for
//   a debugger console. NO_COLOR set to anything but "" switches codes off
//   whatever TERM says. With colours disabled (the default) no codes are
//   written; the layout of the line is the same.
// - Profiles: a message with a tag uses the tag's profile when there is one;
//   otherwise the first profile in the order set whose mask shares a bit with
//   the flag and whose context equals the message's, or failing that the last
//   such profile for any context.
// - Every property and profile change runs on the logger's queue, between
//   two messages. Changes made elsewhere go through the global logging queue
//   first (asynchronously; `colorsEnabled` reads wait). Calling them from the
//   global logging queue raises "Core architecture requirement failure";
//   `colorsEnabled`/`setColorsEnabled` also refuse the logger's own queue, as
//   the formatter property does. Profile changes made on the logger's own
//   queue happen at once.
#pragma once

#include "QMFoundation/Logging/DDAbstractLogger.h"
#include "QMFoundation/Logging/DDTTYLoggerColorProfile.h"

#include "Platform/Foundation/Value.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class DDTTYLogger;
using DDTTYLoggerRef = std::shared_ptr<DDTTYLogger>;

class DDTTYLogger final : public DDAbstractLogger {
public:
    static const DDTTYLoggerRef& sharedInstance();

    bool colorsEnabled() const;
    // Enabling loads the default profiles (errors 214,57,30, warnings
    // 204,121,32, any context) when no flag profile exists.
    void setColorsEnabled(bool enabled);

    void setForegroundColor(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor, int forFlag)
    {
        setForegroundColor(foregroundColor, backgroundColor, forFlag, DDTTYLoggerAnyContext);
    }
    // Replaces a profile with exactly this mask and context in place, or adds
    // one at the end.
    void setForegroundColor(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor, int forFlag,
                            int context);
    // A tag is any value but nothing ("Invalid tag" otherwise); profiles are
    // kept by the tag's value.
    void setForegroundColor(std::optional<DDColor> foregroundColor, std::optional<DDColor> backgroundColor,
                            const platform::Value& forTag);

    // With context 0: a profile set for any context stays.
    void clearColorsForFlag(int flag) { clearColorsForFlag(flag, 0); }
    void clearColorsForFlag(int flag, int context);
    void clearColorsForTag(const platform::Value& tag);
    void clearColorsForAllFlags();
    void clearColorsForAllTags();
    void clearAllColors();

    void logMessage(const DDLogMessage& logMessage) override;
    std::string loggerName() const override { return "cocoa.velmora.ttyLogger"; }
    std::string className() const override { return "DDTTYLogger"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    DDTTYLogger();

    // Runs `change` on the logger queue: now when already there, otherwise
    // through the global logging queue.
    void changeOnLoggerQueue(const char* method, int line, std::function<void()> change);
    const DDTTYLoggerColorProfile* profileFor(const DDLogMessage& message) const;

    // Read and written on the logger queue only.
    bool colorsEnabled_ = false;
    std::vector<DDTTYLoggerColorProfileRef> colorProfilesArray_;
    std::vector<std::pair<platform::Value, DDTTYLoggerColorProfileRef>> colorProfilesDict_;

    // Fixed at creation.
    const std::string processName_;
    const std::string processID_;
};
