// DDASLLogger: the system log as a logger.
//
//   DDLog::addLogger(DDASLLogger::sharedInstance());
//
// Contract:
// - Where journald's socket (/run/systemd/journal/socket) exists when the
//   logger is made, lines go to it in journald's native protocol: MESSAGE,
//   PRIORITY, SYSLOG_FACILITY (user), SYSLOG_IDENTIFIER (the process name)
//   and CODE_FILE/CODE_LINE/CODE_FUNC where the message has them. Texts too
//   big for one datagram travel in a sealed memory file, as journald expects.
//   Otherwise, and for any line the journal refuses, syslog(3) sends the line
//   to /dev/log with the user facility.
// - The priority comes from the flag's value (not its bits): 1 → alert (1),
//   2 → critical (2), 4 → error (3), 8 → warning (4), anything else (16, 3,
//   5, 6, 7, ...) → notice (5).
// - Like every logger it runs on its own queue, so a slow system log slows
//   the pipeline, never the thread that logs.
// - syslog(3) is called with the facility in each call; the process's own
//   openlog settings (identifier, options) are left as they are.
#pragma once

#include "QMFoundation/Logging/DDAbstractLogger.h"

#include <memory>
#include <string>

class DDASLLogger;
using DDASLLoggerRef = std::shared_ptr<DDASLLogger>;

class DDASLLogger final : public DDAbstractLogger {
public:
    static const DDASLLoggerRef& sharedInstance();
    ~DDASLLogger() override;

    void logMessage(const DDLogMessage& logMessage) override;
    std::string loggerName() const override { return "cocoa.velmora.aslLogger"; }
    std::string className() const override { return "DDASLLogger"; }

    // The system log priority for a flag.
    static int priorityForFlag(int flag);

    // A logger that sends to the journal socket at `journalSocketPath`, or
    // through syslog(3) when that path holds no socket. For tests; the shared
    // instance uses journald's own path.
    static DDASLLoggerRef makeWithJournalSocket(const std::string& journalSocketPath);

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit DDASLLogger(const std::string& journalSocketPath);

    bool sendToJournal(const DDLogMessage& logMessage, const std::string& text, int priority);

    int journal_ = -1;  // a connected datagram socket, or -1 for syslog(3)
    const std::string identifier_;
};
