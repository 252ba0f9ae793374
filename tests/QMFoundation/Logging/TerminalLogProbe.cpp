// Logs an error, a warning and an information line through the terminal
// logger with colours switched on, then returns from main: what a terminal
// shows of it is the terminal logger's test (DDTTYLoggerTerminalTests).
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDTTYLogger.h"

int main()
{
    const auto& tty = DDTTYLogger::sharedInstance();
    tty->setColorsEnabled(true);
    DDLog::addLogger(tty);
    DDLog::log(true, DDLogLevelAll, DDLogFlagError, 0, __FILE__, __func__, __LINE__, {}, "%s", "error line");
    DDLog::log(true, DDLogLevelAll, DDLogFlagWarning, 0, __FILE__, __func__, __LINE__, {}, "%s", "warning line");
    DDLog::log(true, DDLogLevelAll, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "%s", "info line");
    // Nothing waits here: the flush at exit writes what is still queued.
    return 0;
}
