#include "QMFoundation/Logging/DDLogFileInfo.h"

#include "QMFoundation/Logging/internal/SystemConsole.h"

#include <cerrno>

using platform::ComparisonResult;
using platform::Date;
using platform::FileManager;
using qmlogging::internal::writeToSystemConsole;

namespace {

constexpr std::string_view kArchivedNameMark = ".archived";

std::string directoryOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

std::string lastComponent(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Where a name's extension starts ("log-3F9A0C.txt" -> ".txt"), or its end.
std::size_t extensionStart(const std::string& fileName)
{
    const auto dot = fileName.rfind('.');
    return dot == std::string::npos || dot == 0 ? fileName.size() : dot;
}

// EOPNOTSUPP: the file system keeps no user attributes (ramfs, vfat, some
// network file systems); EPERM: it refuses them on this kind of file.
bool attributesUnsupported(const platform::ErrorRef& error)
{
    return error && (error->code() == EOPNOTSUPP || error->code() == EPERM);
}

ComparisonResult reverseCompare(std::optional<Date> mine, std::optional<Date> theirs)
{
    const Date left = mine.value_or(Date(0));
    const Date right = theirs.value_or(Date(0));
    if (left > right) {
        return ComparisonResult::OrderedAscending;
    }
    if (left < right) {
        return ComparisonResult::OrderedDescending;
    }
    return ComparisonResult::OrderedSame;
}

}  // namespace

DDLogFileInfoRef DDLogFileInfo::logFileWithPath(std::string filePath)
{
    return platform::makeObject<DDLogFileInfo>(std::move(filePath));
}

const std::string& DDLogFileInfo::fileName() const
{
    if (!fileName_) {
        fileName_ = lastComponent(filePath_);
    }
    return *fileName_;
}

const std::optional<platform::FileAttributes>& DDLogFileInfo::attributes() const
{
    if (!attributes_) {
        attributes_ = FileManager::attributesOfItemAtPath(filePath_);
    }
    return *attributes_;
}

platform::Dictionary DDLogFileInfo::fileAttributes() const
{
    const auto& record = attributes();
    return record ? record->dictionary() : platform::Dictionary();
}

std::optional<Date> DDLogFileInfo::creationDate() const
{
    const auto& record = attributes();
    return record ? std::optional<Date>(record->creationDate) : std::nullopt;
}

std::optional<Date> DDLogFileInfo::modificationDate() const
{
    const auto& record = attributes();
    return record ? std::optional<Date>(record->modificationDate) : std::nullopt;
}

std::uint64_t DDLogFileInfo::fileSize() const
{
    const auto& record = attributes();
    return record ? record->size : 0;
}

double DDLogFileInfo::age() const
{
    const auto created = creationDate();
    return created ? Date::now().timeIntervalSinceDate(*created) : 0;
}

bool DDLogFileInfo::isArchived() const
{
    return isArchivedFileName(fileName()) || hasExtendedAttributeWithName(kDDLogFileArchivedAttribute);
}

void DDLogFileInfo::setIsArchived(bool archived)
{
    if (archived) {
        if (isArchivedFileName(fileName())) {
            return;
        }
        platform::ErrorRef error;
        if (setAttribute(kDDLogFileArchivedAttribute, &error)) {
            return;
        }
        if (attributesUnsupported(error)) {
            renameFile(archivedFileName(fileName()));
            return;
        }
        if (error && error->code() == ENOENT) {
            return;  // deleted under its logger: nothing left to mark
        }
        writeToSystemConsole("DDLogFileInfo: setxattr(" + std::string(kDDLogFileArchivedAttribute) + ", " +
                             fileName() + "): error = -1");
        return;
    }
    if (isArchivedFileName(fileName())) {
        std::string name = fileName();
        const std::size_t end = name.ends_with(kArchivedNameMark) ? name.size() : extensionStart(name);
        name.erase(end - kArchivedNameMark.size(), kArchivedNameMark.size());
        renameFile(name);
    }
    platform::ErrorRef error;
    if (!FileManager::removeExtendedAttribute(kDDLogFileArchivedAttribute, filePath_, &error) &&
        error->code() != ENODATA && !attributesUnsupported(error)) {
        writeToSystemConsole("DDLogFileInfo: removexattr(" + std::string(kDDLogFileArchivedAttribute) + ", " +
                             fileName() + "): error = -1");
    }
}

void DDLogFileInfo::reset()
{
    fileName_.reset();
    attributes_.reset();
}

void DDLogFileInfo::renameFile(const std::string& newName)
{
    if (newName == fileName()) {
        return;
    }
    const std::string newPath = directoryOf(filePath_) + newName;
    platform::ErrorRef error;
    if (!FileManager::moveItemAtPath(filePath_, newPath, &error)) {
        writeToSystemConsole("DDLogFileInfo: Error renaming file (" + fileName() + "): " + error->description());
    }
    filePath_ = newPath;
    reset();
}

bool DDLogFileInfo::hasExtendedAttributeWithName(std::string_view name) const
{
    return FileManager::extendedAttribute(name, filePath_).has_value();
}

bool DDLogFileInfo::setAttribute(std::string_view name, platform::ErrorRef* error)
{
    return FileManager::setExtendedAttribute(name, platform::Data(), filePath_, error);
}

void DDLogFileInfo::addExtendedAttributeWithName(std::string_view name)
{
    if (!setAttribute(name, nullptr)) {
        writeToSystemConsole("DDLogFileInfo: setxattr(" + std::string(name) + ", " + fileName() + "): error = -1");
    }
}

void DDLogFileInfo::removeExtendedAttributeWithName(std::string_view name)
{
    if (!FileManager::removeExtendedAttribute(name, filePath_)) {
        writeToSystemConsole("DDLogFileInfo: removexattr(" + std::string(name) + ", " + fileName() +
                             "): error = -1");
    }
}

ComparisonResult DDLogFileInfo::reverseCompareByCreationDate(const DDLogFileInfo& other) const
{
    return reverseCompare(creationDate(), other.creationDate());
}

ComparisonResult DDLogFileInfo::reverseCompareByModificationDate(const DDLogFileInfo& other) const
{
    return reverseCompare(modificationDate(), other.modificationDate());
}

bool DDLogFileInfo::isEqual(const platform::Object& other) const
{
    const auto* info = dynamic_cast<const DDLogFileInfo*>(&other);
    return info != nullptr && info->className() == className() && info->filePath_ == filePath_;
}

std::string DDLogFileInfo::description() const
{
    const platform::Dictionary record{
        {"filePath", platform::Value(filePath_)},
        {"fileName", platform::Value(fileName())},
        {"fileAttributes", platform::Value(fileAttributes())},
        {"creationDate", platform::Value(creationDate())},
        {"modificationDate", platform::Value(modificationDate())},
        {"fileSize", platform::Value(static_cast<std::int64_t>(fileSize()))},
        {"age", platform::Value(age())},
        {"isArchived", platform::Value(isArchived())},
    };
    return platform::Value(record).description();
}

std::string DDLogFileInfo::archivedFileName(const std::string& fileName)
{
    std::string name = fileName;
    name.insert(extensionStart(name), kArchivedNameMark);
    return name;
}

bool DDLogFileInfo::isArchivedFileName(const std::string& fileName)
{
    if (fileName.ends_with(kArchivedNameMark)) {
        return true;
    }
    const std::size_t end = extensionStart(fileName);
    return end >= kArchivedNameMark.size() &&
           std::string_view(fileName).substr(end - kArchivedNameMark.size(), kArchivedNameMark.size()) ==
               kArchivedNameMark;
}
