// DDLogFileInfo: one log file on disk: its name, attributes, dates, size, age
// and its "archived" mark.
//
//   auto info = DDLogFileInfo::logFileWithPath(path);
//   if (!info->isArchived() && info->age() > 86400) info->setIsArchived(true);
//
// Contract:
// - The name, the attribute record and the dates are read once, on first
//   use, and kept until `reset` or `renameFile`; the age is computed on every
//   call from the kept creation date. A file that is gone has no attributes,
//   no dates, size 0 and age 0.
// - The archived mark lives on disk, so it survives restarts: the extended
//   attribute "user.velmora.log.archived". Where the file system keeps no
//   user attributes (ramfs, some network and FAT file systems) the mark is
//   the name instead: "log-3F9A0C.txt" becomes "log-3F9A0C.archived.txt",
//   which is still recognised as a log file and still sorts by its own
//   creation date. A file carrying either mark is archived.
// - Failures go to standard error only (see the .cpp for the texts), never
//   to the caller.
// - Not safe for use from several threads at once: an info is made for one
//   listing, or owned by one file logger and used on its queue.
#pragma once

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/ComparisonResult.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Object.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

class DDLogFileInfo;
using DDLogFileInfoRef = std::shared_ptr<DDLogFileInfo>;

// The attribute that marks a log file archived, without the "user." prefix.
inline constexpr std::string_view kDDLogFileArchivedAttribute = "velmora.log.archived";

class DDLogFileInfo : public platform::Object {
public:
    static DDLogFileInfoRef logFileWithPath(std::string filePath);

    const std::string& filePath() const { return filePath_; }
    const std::string& fileName() const;
    // The file system's record of the path (not following a final link).
    const std::optional<platform::FileAttributes>& attributes() const;
    // The same as the platform's attribute dictionary; empty when gone.
    platform::Dictionary fileAttributes() const;
    std::optional<platform::Date> creationDate() const;
    std::optional<platform::Date> modificationDate() const;
    std::uint64_t fileSize() const;
    // Seconds since the creation date.
    double age() const;

    bool isArchived() const;
    void setIsArchived(bool archived);

    // Forgets the kept name, attributes and dates.
    void reset();
    // Moves the file to `newName` in the same directory; the info follows the
    // new path even when the move failed.
    void renameFile(const std::string& newName);

    bool hasExtendedAttributeWithName(std::string_view name) const;
    void addExtendedAttributeWithName(std::string_view name);
    void removeExtendedAttributeWithName(std::string_view name);

    // Newest first: a later date orders before an earlier one. A file
    // without the date counts as made at the start of 1970.
    platform::ComparisonResult reverseCompareByCreationDate(const DDLogFileInfo& other) const;
    platform::ComparisonResult reverseCompareByModificationDate(const DDLogFileInfo& other) const;

    bool isEqual(const platform::Object& other) const override;
    std::string className() const override { return "DDLogFileInfo"; }
    std::string description() const override;

    // The name the archived mark gives where there are no user attributes,
    // and whether a name carries it.
    static std::string archivedFileName(const std::string& fileName);
    static bool isArchivedFileName(const std::string& fileName);

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit DDLogFileInfo(std::string filePath) : filePath_(std::move(filePath)) {}
    // Sets the attribute; false with the error when the system refused.
    [[nodiscard]] bool setAttribute(std::string_view name, platform::ErrorRef* error);

    std::string filePath_;
    mutable std::optional<std::string> fileName_;
    mutable std::optional<std::optional<platform::FileAttributes>> attributes_;
};
