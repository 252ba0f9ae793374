#include "QMFoundation/Logging/DDLogFileManagerDefault.h"

#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/internal/SystemConsole.h"
#include "QMFoundation/Strings/NSString+QMUniqueIdentifier.h"

#include "Platform/DateFormatting/DateFormatter.h"
#include "Platform/System/ProcessInfo.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

using platform::FileManager;

namespace {

std::string joinPath(const std::string& directory, const std::string& name)
{
    if (directory.empty() || directory.ends_with('/')) {
        return directory + name;
    }
    return directory + "/" + name;
}

std::vector<std::string> namesOf(const std::vector<std::string>& paths)
{
    std::vector<std::string> names;
    for (const auto& path : paths) {
        names.push_back(path.substr(path.rfind('/') + 1));
    }
    return names;
}

const platform::DateFormatter& utcNameFormatter()
{
    static const platform::DateFormatterRef formatter = [] {
        auto made = platform::DateFormatter::create();
        made->setLocaleIdentifier("en_US_POSIX");
        made->setTimeZone(platform::TimeZone::utc());
        made->setDateFormat("yyyy'-'MM'-'dd'T'HH':'mm':'ss'Z'");
        return made;
    }();
    return *formatter;
}

// Makes the file only if nothing is there: a file another process made under
// the same name between our look and our creation is not taken over.
enum class Creation { Made, Taken, Failed };
Creation createEmptyFile(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        ::close(fd);
        return Creation::Made;
    }
    return errno == EEXIST ? Creation::Taken : Creation::Failed;
}

}  // namespace

DDLogFileManagerDefaultRef DDLogFileManagerDefault::create(std::optional<std::string> logsDirectory)
{
    return platform::makeObject<DDLogFileManagerDefault>(logsDirectory ? std::move(*logsDirectory) : defaultLogsDirectory());
}

std::string DDLogFileManagerDefault::defaultLogsDirectory()
{
    return joinPath(FileManager::pathForDirectory(platform::SearchPathDirectory::Logs),
                    platform::ProcessInfo::processName());
}

bool DDLogFileManagerDefault::isLogFile(const std::string& fileName)
{
    if (fileName.size() < 10 || !fileName.starts_with("log-")) {
        return false;
    }
    return std::all_of(fileName.begin() + 4, fileName.begin() + 10,
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); });
}

void DDLogFileManagerDefault::setMaximumNumberOfLogFiles(unsigned maximum)
{
    if (maximum == maximumNumberOfLogFiles_.load()) {
        return;
    }
    willChangeValueForKey("maximumNumberOfLogFiles");
    maximumNumberOfLogFiles_.store(maximum);
    didChangeValueForKey("maximumNumberOfLogFiles");
    const auto self = std::static_pointer_cast<DDLogFileManagerDefault>(shared_from_this());
    DDLog::loggingQueue()->async([self] { self->deleteOldLogFiles(); });
}

std::string DDLogFileManagerDefault::logsDirectory()
{
    if (!FileManager::fileExistsAtPath(logsDirectory_)) {
        platform::ErrorRef error;
        if (!FileManager::createDirectoryAtPath(logsDirectory_, true, &error)) {
            qmlogging::internal::writeToSystemConsole("DDFileLogManagerDefault: Error creating logsDirectory: " +
                                                      error->description());
        }
    }
    return logsDirectory_;
}

std::vector<std::string> DDLogFileManagerDefault::unsortedLogFilePaths()
{
    const std::string directory = logsDirectory();
    std::vector<std::string> paths;
    for (const auto& name : FileManager::contentsOfDirectoryAtPath(directory).value_or(std::vector<std::string>())) {
        if (!isLogFile(name)) {
            continue;
        }
        std::string path = joinPath(directory, name);
        // Only regular files: a directory bearing a log file's name would be
        // "continued" by a logger that can never open it, and deleting it
        // would take whatever someone put inside.
        const auto attributes = FileManager::attributesOfItemAtPath(path);
        if (attributes && attributes->type == platform::FileType::Regular) {
            paths.push_back(std::move(path));
        }
    }
    return paths;
}

std::vector<std::string> DDLogFileManagerDefault::unsortedLogFileNames()
{
    return namesOf(unsortedLogFilePaths());
}

std::vector<DDLogFileInfoRef> DDLogFileManagerDefault::unsortedLogFileInfos()
{
    std::vector<DDLogFileInfoRef> infos;
    for (auto& path : unsortedLogFilePaths()) {
        infos.push_back(DDLogFileInfo::logFileWithPath(std::move(path)));
    }
    return infos;
}

std::vector<std::string> DDLogFileManagerDefault::sortedLogFilePaths()
{
    std::vector<std::string> paths;
    for (const auto& info : sortedLogFileInfos()) {
        paths.push_back(info->filePath());
    }
    return paths;
}

std::vector<std::string> DDLogFileManagerDefault::sortedLogFileNames()
{
    return namesOf(sortedLogFilePaths());
}

std::vector<DDLogFileInfoRef> DDLogFileManagerDefault::sortedLogFileInfos()
{
    auto infos = unsortedLogFileInfos();
    std::stable_sort(infos.begin(), infos.end(), [](const DDLogFileInfoRef& left, const DDLogFileInfoRef& right) {
        return left->reverseCompareByCreationDate(*right) == platform::ComparisonResult::OrderedAscending;
    });
    return infos;
}

std::string DDLogFileManagerDefault::generateLogFileNameWithConvention(std::int32_t convention, unsigned attempt)
{
    std::string name;
    if (convention == kNamingRandom) {
        name = uniqueIdentifier().substr(0, 6);
    } else if (convention == kNamingDate) {
        name = utcNameFormatter().stringFromDate(platform::Date::now());
        if (attempt > 1) {
            name += " " + std::to_string(attempt);
        }
    } else {
        name = "(null)";
    }
    return "log-" + name + ".txt";
}

std::string DDLogFileManagerDefault::createNewLogFile()
{
    const std::string directory = logsDirectory();
    const std::int32_t convention = fileNamingConvention();
    std::string previousName;
    for (unsigned attempt = 1;; ++attempt) {
        const std::string name = generateLogFileNameWithConvention(convention, attempt);
        const std::string path = joinPath(directory, name);
        const Creation creation = name == previousName ? Creation::Made : createEmptyFile(path);
        if (creation == Creation::Taken) {
            previousName = name;
            continue;
        }
        // A file that could not be made (the directory is not writable, the
        // disk is full) is answered all the same: the logger cannot open it
        // and drops its messages until a later roll succeeds.
        deleteOldLogFiles();
        return path;
    }
}

void DDLogFileManagerDefault::deleteOldLogFiles()
{
    const unsigned limit = maximumNumberOfLogFiles();
    if (limit == 0) {
        return;
    }
    auto infos = sortedLogFileInfos();
    if (!infos.empty() && !infos.front()->isArchived()) {
        // The newest unarchived file is the one in use.
        infos.erase(infos.begin());
    }
    for (std::size_t index = limit; index < infos.size(); ++index) {
        (void)FileManager::removeItemAtPath(infos[index]->filePath());
    }
}

const platform::PropertyTable& DDLogFileManagerDefault::propertyTable() const
{
    static const auto table = platform::PropertyTable::extending<DDLogFileManagerDefault>(
        Object::propertyTable(),
        {
            {"maximumNumberOfLogFiles",
             [](const DDLogFileManagerDefault& manager) { return platform::Value(manager.maximumNumberOfLogFiles()); }},
            {"logsDirectory", [](const DDLogFileManagerDefault& manager) { return platform::Value(manager.logsDirectory_); }},
        });
    return table;
}
