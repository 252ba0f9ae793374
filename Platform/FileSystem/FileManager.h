// FileManager: the file-system operations the library needs, and where the
// user's own directories are.
//
//   platform::ErrorRef error;
//   if (!platform::FileManager::createDirectoryAtPath(logs, true, &error)) ...
//   for (const auto& name : platform::FileManager::contentsOfDirectoryAtPath(logs).value_or({})) ...
//
// Contract:
// - Every operation is a few system calls on the path as given (relative
//   paths from the current directory) and may be called from any thread. No
//   operation is atomic with another: a file may change between two calls.
// - Failures give nothing or false and an error in "NSPOSIXErrorDomain" whose
//   code is the system's error number (ENOENT, EEXIST, EACCES, ENOTSUP...),
//   whose description names the path and the system's message, and whose user
//   information holds the path under NSFilePathErrorKey. A path with a NUL
//   byte in it is EINVAL, never cut short.
// - Symbolic links: `fileExistsAtPath` follows them (a dangling link does not
//   exist); `attributesOfItemAtPath`, `moveItemAtPath` and `removeItemAtPath`
//   act on the link itself; extended attributes are those of the target.
// - Not promised: moving across file systems (EXDEV is reported, nothing is
//   copied); extended attributes on a file system without user attributes
//   (ENOTSUP is reported).
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

enum class FileType { Regular, Directory, SymbolicLink, CharacterSpecial, BlockSpecial, Socket, Unknown };

// Keys and values of the attribute dictionary, with the platform's names.
inline constexpr std::string_view NSFileType = "NSFileType";
inline constexpr std::string_view NSFileSize = "NSFileSize";
inline constexpr std::string_view NSFileModificationDate = "NSFileModificationDate";
inline constexpr std::string_view NSFileCreationDate = "NSFileCreationDate";
inline constexpr std::string_view NSFilePosixPermissions = "NSFilePosixPermissions";

struct FileAttributes {
    FileType type = FileType::Unknown;
    std::uint64_t size = 0;
    Date modificationDate;
    // The file's birth time where the file system keeps one. Where it does
    // not, the earlier of the modification and status-change times: the
    // latest moment the file can have been made, and one that, unlike the
    // modification time, no one can set to the past.
    Date creationDate;
    bool creationDateIsBirthTime = false;
    std::uint32_t posixPermissions = 0;  // the mode's permission bits

    // The platform's attribute dictionary, for descriptions: type
    // ("NSFileTypeRegular", "NSFileTypeDirectory", ...), size, both dates
    // and the permissions.
    Dictionary dictionary() const;
};

// The user's directories, after the XDG base directories: each the variable's
// value when it is an absolute path, else the default under the home
// directory. A relative value is not a valid setting and is ignored.
enum class SearchPathDirectory {
    ApplicationSupport,  // ${XDG_DATA_HOME:-$HOME/.local/share}
    Logs,                // ${XDG_STATE_HOME:-$HOME/.local/state}: logs and other state
    Caches,              // ${XDG_CACHE_HOME:-$HOME/.cache}
};

class FileManager {
public:
    // The names in a directory, without "." and "..", sorted by bytes.
    [[nodiscard]] static std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path,
                                                                             ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path, ErrorRef* error = nullptr);

    // Whether something is there, following links; with `isDirectory`, also
    // whether it is a directory (untouched when nothing is there).
    static bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);

    // Makes the directory (mode 0777 less the umask). With intermediates,
    // missing parents are made too and a directory already there is success;
    // without, the parent must exist and the directory must not (EEXIST).
    [[nodiscard]] static bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                                    ErrorRef* error = nullptr);
    // Renames; fails with EEXIST when something is at `toPath` already.
    [[nodiscard]] static bool moveItemAtPath(const std::string& path, const std::string& toPath,
                                             ErrorRef* error = nullptr);
    // The text a symbolic link holds, however long; links in /proc report a
    // size of 0, so the size is not trusted. A path that is not a link is
    // EINVAL.
    [[nodiscard]] static std::optional<std::string> destinationOfSymbolicLinkAtPath(const std::string& path,
                                                                                    ErrorRef* error = nullptr);
    // Removes a file, a link, or a directory with everything in it. Nothing
    // there is ENOENT.
    [[nodiscard]] static bool removeItemAtPath(const std::string& path, ErrorRef* error = nullptr);

    // The whole contents of a regular file. A file larger than `maximumSize`
    // is EFBIG, so that a file from outside cannot make us read without end;
    // a directory is EISDIR.
    [[nodiscard]] static std::optional<Data> contentsAtPath(const std::string& path, std::size_t maximumSize,
                                                            ErrorRef* error = nullptr);
    // Replaces the file at `path` with `contents` so that a reader, or the
    // file after a crash, shows either the old or the new contents whole: a
    // temporary file beside it is written, flushed to disk, renamed over the
    // path, and the directory flushed. New files get mode 0666 less the
    // umask. On failure the temporary file is removed and the old file stays.
    [[nodiscard]] static bool writeContentsAtomically(const std::string& path, const Data& contents,
                                                      ErrorRef* error = nullptr);

    // Extended attributes in the "user." namespace: `name` is given without
    // it ("velmora.log.archived" is stored as "user.velmora.log.archived").
    // A missing attribute is ENODATA. Values may be empty.
    [[nodiscard]] static std::optional<Data> extendedAttribute(std::string_view name, const std::string& path,
                                                 ErrorRef* error = nullptr);
    [[nodiscard]] static bool setExtendedAttribute(std::string_view name, const Data& value, const std::string& path,
                                                   ErrorRef* error = nullptr);
    [[nodiscard]] static bool removeExtendedAttribute(std::string_view name, const std::string& path,
                                                      ErrorRef* error = nullptr);

    // The user's directory of that kind as a file URL, alone in the list (the
    // platform's answer is a list; there is one user domain here). Not
    // created: the caller makes it when it first writes there.
    static std::vector<URL> URLsForDirectory(SearchPathDirectory directory);
    // The same directory as a path, bytes as the environment gives them (a
    // URL's path reads only UTF-8).
    static std::string pathForDirectory(SearchPathDirectory directory);
    // $HOME when it is an absolute path, else the user database's home, else "/".
    static std::string homeDirectory();
    // $TMPDIR when it names a directory, else "/tmp".
    static std::string temporaryDirectory();
};

}  // namespace platform
