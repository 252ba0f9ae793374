#include "Platform/FileSystem/FileManager.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace platform {
namespace {

ErrorRef fileError(int code, const std::string& path, std::string_view action = {})
{
    std::string description = action.empty() ? path : std::string(action) + " " + path;
    description += ": ";
    description += std::strerror(code);
    return Error::create(std::string(NSPOSIXErrorDomain), code,
                         Dictionary{{NSLocalizedDescriptionKey, Value(std::move(description))},
                                    {NSFilePathErrorKey, Value(path)}});
}

// A NUL byte would end the path early at the system call, which would then
// act on another file than the one named.
bool isUsablePath(const std::string& path, ErrorRef* error)
{
    if (path.find('\0') == std::string::npos) {
        return true;
    }
    setError(error, fileError(EINVAL, path));
    return false;
}

std::optional<std::string> attributeName(std::string_view name, const std::string& path, ErrorRef* error)
{
    if (name.empty() || name.find('\0') != std::string_view::npos) {
        setError(error, fileError(EINVAL, path, "extended attribute name for"));
        return std::nullopt;
    }
    return "user." + std::string(name);
}

Date dateOf(const statx_timestamp& time)
{
    return Date(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

Date dateOf(const timespec& time)
{
    return Date(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

FileType typeOf(unsigned mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG: return FileType::Regular;
    case S_IFDIR: return FileType::Directory;
    case S_IFLNK: return FileType::SymbolicLink;
    case S_IFCHR: return FileType::CharacterSpecial;
    case S_IFBLK: return FileType::BlockSpecial;
    case S_IFSOCK: return FileType::Socket;
    default: return FileType::Unknown;
    }
}

std::string_view typeName(FileType type)
{
    switch (type) {
    case FileType::Regular: return "NSFileTypeRegular";
    case FileType::Directory: return "NSFileTypeDirectory";
    case FileType::SymbolicLink: return "NSFileTypeSymbolicLink";
    case FileType::CharacterSpecial: return "NSFileTypeCharacterSpecial";
    case FileType::BlockSpecial: return "NSFileTypeBlockSpecial";
    case FileType::Socket: return "NSFileTypeSocket";
    case FileType::Unknown: break;
    }
    return "NSFileTypeUnknown";
}

// For kernels or sandboxes without statx: no birth time.
std::optional<FileAttributes> attributesFromLstat(const std::string& path, ErrorRef* error)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        setError(error, fileError(errno, path));
        return std::nullopt;
    }
    FileAttributes attributes;
    attributes.type = typeOf(status.st_mode);
    attributes.size = static_cast<std::uint64_t>(status.st_size);
    attributes.modificationDate = dateOf(status.st_mtim);
    attributes.creationDate = std::min(attributes.modificationDate, dateOf(status.st_ctim));
    attributes.posixPermissions = status.st_mode & 07777;
    return attributes;
}

bool isDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Dictionary FileAttributes::dictionary() const
{
    return Dictionary{
        {NSFileType, Value(typeName(type))},
        {NSFileSize, Value(size)},
        {NSFileModificationDate, Value(modificationDate)},
        {NSFileCreationDate, Value(creationDate)},
        {NSFilePosixPermissions, Value(posixPermissions)},
    };
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(const std::string& path,
                                                                                ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return std::nullopt;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
    if (!directory) {
        setError(error, fileError(errno, path));
        return std::nullopt;
    }
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory.get());
        if (entry == nullptr) {
            if (errno != 0) {
                setError(error, fileError(errno, path));
                return std::nullopt;
            }
            break;
        }
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<FileAttributes> FileManager::attributesOfItemAtPath(const std::string& path, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return std::nullopt;
    }
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT,
                STATX_BASIC_STATS | STATX_BTIME, &status) != 0) {
        if (errno == ENOSYS || errno == EPERM) {
            // EPERM: a seccomp filter that refuses calls it does not know.
            return attributesFromLstat(path, error);
        }
        setError(error, fileError(errno, path));
        return std::nullopt;
    }
    FileAttributes attributes;
    attributes.type = typeOf(status.stx_mode);
    attributes.size = status.stx_size;
    attributes.modificationDate = dateOf(status.stx_mtime);
    attributes.creationDateIsBirthTime = (status.stx_mask & STATX_BTIME) != 0;
    attributes.creationDate = attributes.creationDateIsBirthTime
        ? dateOf(status.stx_btime)
        : std::min(attributes.modificationDate, dateOf(status.stx_ctime));
    attributes.posixPermissions = status.stx_mode & 07777;
    return attributes;
}

bool FileManager::fileExistsAtPath(const std::string& path, bool* isDirectory)
{
    struct stat status {};
    if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (isDirectory != nullptr) {
        *isDirectory = S_ISDIR(status.st_mode);
    }
    return true;
}

bool FileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return false;
    }
    if (!withIntermediateDirectories) {
        if (::mkdir(path.c_str(), 0777) != 0) {
            setError(error, fileError(errno, path));
            return false;
        }
        return true;
    }
    // Each prefix that ends before a slash, then the whole path. Another
    // process making the same directories at the same time is no failure.
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string prefix = path.substr(0, end);
        if (!prefix.empty() && prefix.back() != '/' && ::mkdir(prefix.c_str(), 0777) != 0) {
            int code = errno;
            if (code == EEXIST && !isDirectory(prefix)) {
                // Something else in the way of a parent makes the path
                // impossible, as the system says of such a path.
                code = end == std::string::npos ? EEXIST : ENOTDIR;
            } else if (code == EEXIST) {
                code = 0;
            }
            if (code != 0) {
                setError(error, fileError(code, path));
                return false;
            }
        }
        if (end == std::string::npos) {
            break;
        }
    }
    return true;
}

bool FileManager::moveItemAtPath(const std::string& path, const std::string& toPath, ErrorRef* error)
{
    if (!isUsablePath(path, error) || !isUsablePath(toPath, error)) {
        return false;
    }
    int result = ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, toPath.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) {
        // A file system that cannot refuse to replace: check first, which
        // leaves a window for another process to create `toPath`.
        struct stat status {};
        if (::lstat(toPath.c_str(), &status) == 0) {
            errno = EEXIST;
        } else {
            result = ::rename(path.c_str(), toPath.c_str());
        }
    }
    if (result != 0) {
        const int code = errno;
        setError(error, fileError(code, path, code == EEXIST ? "cannot replace " + toPath + " with" : "cannot move"));
        return false;
    }
    return true;
}

std::optional<std::string> FileManager::destinationOfSymbolicLinkAtPath(const std::string& path, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return std::nullopt;
    }
    // A target fits when readlink leaves part of the buffer unused; a full
    // buffer may have cut it short.
    for (std::size_t capacity = 256; capacity <= 2 * PATH_MAX; capacity *= 2) {
        std::string target(capacity, '\0');
        const auto length = ::readlink(path.c_str(), target.data(), target.size());
        if (length < 0) {
            setError(error, fileError(errno, path));
            return std::nullopt;
        }
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
    }
    setError(error, fileError(ENAMETOOLONG, path));
    return std::nullopt;
}

bool FileManager::removeItemAtPath(const std::string& path, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return false;
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        setError(error, fileError(errno, path));
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        if (::unlink(path.c_str()) != 0) {
            setError(error, fileError(errno, path));
            return false;
        }
        return true;
    }
    // remove_all does not follow links inside the tree, and reports the
    // system's error number.
    std::error_code failure;
    std::filesystem::remove_all(path, failure);
    if (failure) {
        setError(error, fileError(failure.value(), path));
        return false;
    }
    return true;
}

std::optional<Data> FileManager::contentsAtPath(const std::string& path, std::size_t maximumSize, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return std::nullopt;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        setError(error, fileError(errno, path));
        return std::nullopt;
    }
    const auto closer = std::unique_ptr<int, void (*)(int*)>(new int(fd), [](int* descriptor) {
        ::close(*descriptor);
        delete descriptor;
    });
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        setError(error, fileError(errno, path));
        return std::nullopt;
    }
    if (S_ISDIR(status.st_mode)) {
        setError(error, fileError(EISDIR, path));
        return std::nullopt;
    }
    Data contents;
    // The size is only a hint (a file may grow while it is read, and /proc
    // files report 0); the limit is checked on what is actually read.
    contents.reserve(std::min<std::size_t>(static_cast<std::size_t>(std::max<off_t>(status.st_size, 0)), maximumSize));
    std::uint8_t buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            setError(error, fileError(errno, path));
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        if (contents.size() + static_cast<std::size_t>(count) > maximumSize) {
            setError(error, fileError(EFBIG, path));
            return std::nullopt;
        }
        contents.insert(contents.end(), buffer, buffer + count);
    }
    return contents;
}

bool FileManager::writeContentsAtomically(const std::string& path, const Data& contents, ErrorRef* error)
{
    if (!isUsablePath(path, error)) {
        return false;
    }
    const std::filesystem::path target(path);
    const std::string directory = target.has_parent_path() ? target.parent_path().string() : std::string(".");
    // A name of our own beside the target, made with O_EXCL so that the
    // umask gives the new file the mode a plain creation would (mkstemp's
    // fixed 0600 would not), and nobody else's file is ever opened.
    static std::atomic<unsigned long> counter{0};
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = directory + "/." + target.filename().string() + "." + std::to_string(::getpid()) + "." +
                    std::to_string(counter.fetch_add(1, std::memory_order_relaxed)) + ".tmp";
        fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) {
            break;
        }
    }
    if (fd < 0) {
        setError(error, fileError(errno, path));
        return false;
    }
    auto fail = [&](int code) {
        ::close(fd);
        ::unlink(temporary.c_str());
        setError(error, fileError(code, path));
        return false;
    };
    std::size_t written = 0;
    while (written < contents.size()) {
        const ssize_t count = ::write(fd, contents.data() + written, contents.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return fail(errno);
        }
        written += static_cast<std::size_t>(count);
    }
    if (::fsync(fd) != 0) {
        return fail(errno);
    }
    if (::close(fd) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        setError(error, fileError(code, path));
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        setError(error, fileError(code, path));
        return false;
    }
    // The rename is durable only once the directory's entry is on disk.
    const int directoryFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd >= 0) {
        ::fsync(directoryFd);
        ::close(directoryFd);
    }
    return true;
}

std::optional<Data> FileManager::extendedAttribute(std::string_view name, const std::string& path, ErrorRef* error)
{
    const auto fullName = attributeName(name, path, error);
    if (!fullName || !isUsablePath(path, error)) {
        return std::nullopt;
    }
    // The value may grow between asking its size and reading it; then the
    // read fails with ERANGE and is tried again.
    for (;;) {
        const ssize_t size = ::getxattr(path.c_str(), fullName->c_str(), nullptr, 0);
        if (size < 0) {
            setError(error, fileError(errno, path));
            return std::nullopt;
        }
        Data value(static_cast<std::size_t>(size));
        const ssize_t read = ::getxattr(path.c_str(), fullName->c_str(), value.data(), value.size());
        if (read >= 0) {
            value.resize(static_cast<std::size_t>(read));
            return value;
        }
        if (errno != ERANGE) {
            setError(error, fileError(errno, path));
            return std::nullopt;
        }
    }
}

bool FileManager::setExtendedAttribute(std::string_view name, const Data& value, const std::string& path,
                                       ErrorRef* error)
{
    const auto fullName = attributeName(name, path, error);
    if (!fullName || !isUsablePath(path, error)) {
        return false;
    }
    if (::setxattr(path.c_str(), fullName->c_str(), value.data(), value.size(), 0) != 0) {
        setError(error, fileError(errno, path));
        return false;
    }
    return true;
}

bool FileManager::removeExtendedAttribute(std::string_view name, const std::string& path, ErrorRef* error)
{
    const auto fullName = attributeName(name, path, error);
    if (!fullName || !isUsablePath(path, error)) {
        return false;
    }
    if (::removexattr(path.c_str(), fullName->c_str()) != 0) {
        setError(error, fileError(errno, path));
        return false;
    }
    return true;
}

}  // namespace platform
