// DDLogFileManager: what a file logger asks of the object that keeps its
// directory: where files go, which files there are, a new file, and the
// limit on how many are kept.
#pragma once

#include "QMFoundation/Logging/DDLogFileInfo.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class DDLogFileManager {
public:
    virtual ~DDLogFileManager() = default;

    // How many archived files are kept besides the one in use; 0 keeps all.
    virtual unsigned maximumNumberOfLogFiles() const = 0;
    virtual void setMaximumNumberOfLogFiles(unsigned maximum) = 0;

    virtual std::string logsDirectory() = 0;

    virtual std::vector<std::string> unsortedLogFilePaths() = 0;
    virtual std::vector<std::string> unsortedLogFileNames() = 0;
    virtual std::vector<DDLogFileInfoRef> unsortedLogFileInfos() = 0;
    // Newest first, by creation date.
    virtual std::vector<std::string> sortedLogFilePaths() = 0;
    virtual std::vector<std::string> sortedLogFileNames() = 0;
    virtual std::vector<DDLogFileInfoRef> sortedLogFileInfos() = 0;

    // Makes an empty file and answers its path.
    virtual std::string createNewLogFile() = 0;

    // Optional: told on the logger's queue after a file was archived because
    // it was full or old when the logger started, and after a roll.
    virtual bool respondsToDidArchiveLogFile() const { return false; }
    virtual void didArchiveLogFile(const std::string& /*logFilePath*/) {}
    virtual bool respondsToDidRollAndArchiveLogFile() const { return false; }
    virtual void didRollAndArchiveLogFile(const std::string& /*logFilePath*/) {}
};

using DDLogFileManagerRef = std::shared_ptr<DDLogFileManager>;
