// DDLogFileManagerDefault: the file logger's directory: chooses it, names and
// creates files there, recognises them on later runs and deletes the oldest.
//
//   auto manager = DDLogFileManagerDefault::create();   // ~/.local/state/<process name>
//   manager->setMaximumNumberOfLogFiles(7);
//   auto logger = DDFileLogger::create(manager);
//
// Contract:
// - A log file is a regular file whose name starts with "log-" and six
//   upper-case hexadecimal digits; the rest of the name is not looked at.
//   Anything else in the directory (other names, directories, links, pipes
//   that happen to bear such a name) is neither used nor deleted.
// - The directory is made, with its parents, when it is first asked for;
//   a failure is written to standard error and the path is answered all the
//   same: the logger then finds no file to write and drops its messages.
// - Every member may be called from any thread. The listings read the
//   directory afresh on every call.
// - Changing the limit to a different value deletes the surplus files on the
//   global logging queue, after the call returns; a limit of 0 deletes
//   nothing. Observers of "maximumNumberOfLogFiles" hear of the change.
#pragma once

#include "QMFoundation/Logging/DDLogFileManager.h"

#include "Platform/Foundation/Object.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class DDLogFileManagerDefault;
using DDLogFileManagerDefaultRef = std::shared_ptr<DDLogFileManagerDefault>;

class DDLogFileManagerDefault : public platform::Object, public DDLogFileManager {
public:
    // Naming conventions: 0 a random name ("log-3F9A0C.txt"), 1 the UTC time
    // ("log-2014-03-07T10:00:00Z.txt"). Files named by the second are never
    // recognised again, so they are neither continued nor deleted.
    static constexpr std::int32_t kNamingRandom = 0;
    static constexpr std::int32_t kNamingDate = 1;

    // Nothing: the default directory.
    static DDLogFileManagerDefaultRef create(std::optional<std::string> logsDirectory = std::nullopt);

    // ${XDG_STATE_HOME:-$HOME/.local/state}/<process name>
    static std::string defaultLogsDirectory();
    static bool isLogFile(const std::string& fileName);

    unsigned maximumNumberOfLogFiles() const override { return maximumNumberOfLogFiles_.load(); }
    void setMaximumNumberOfLogFiles(unsigned maximum) override;
    std::int32_t fileNamingConvention() const { return fileNamingConvention_.load(); }
    void setFileNamingConvention(std::int32_t convention) { fileNamingConvention_.store(convention); }

    std::string logsDirectory() override;

    std::vector<std::string> unsortedLogFilePaths() override;
    std::vector<std::string> unsortedLogFileNames() override;
    std::vector<DDLogFileInfoRef> unsortedLogFileInfos() override;
    std::vector<std::string> sortedLogFilePaths() override;
    std::vector<std::string> sortedLogFileNames() override;
    std::vector<DDLogFileInfoRef> sortedLogFileInfos() override;

    // "log-<name>.txt"; convention 0 draws a new random name for every
    // attempt, convention 1 adds " <attempt>" after the first, any other
    // convention gives "log-(null).txt".
    static std::string generateLogFileNameWithConvention(std::int32_t convention, unsigned attempt);
    // Makes an empty file under a name not yet taken, then deletes old files.
    // Where the convention gives the same name on every attempt and it is
    // taken, that file is answered: appending to it beats looping forever.
    std::string createNewLogFile() override;
    void deleteOldLogFiles();

    std::string className() const override { return "DDLogFileManagerDefault"; }
    const platform::PropertyTable& propertyTable() const override;

protected:
    // For subclasses that listen to the logger's optional calls.
    template <class> friend struct platform::ObjectAllocator;
    explicit DDLogFileManagerDefault(std::string logsDirectory) : logsDirectory_(std::move(logsDirectory)) {}

private:

    const std::string logsDirectory_;
    std::atomic<unsigned> maximumNumberOfLogFiles_{5};
    std::atomic<std::int32_t> fileNamingConvention_{kNamingRandom};
};
