#include "QMFoundation/Strings/NSFileManager+QMTemporaryFiles.h"

#include "Platform/FileSystem/FileManager.h"
#include "QMFoundation/Strings/NSString+QMUniqueIdentifier.h"

#include <cerrno>
#include <filesystem>
#include <fcntl.h>
#include <unistd.h>

namespace {

std::filesystem::path systemTemporaryDirectory()
{
    return platform::FileManager::temporaryDirectory();
}

// Writes beside the destination and renames over it, so a reader never sees
// a partial file.
bool writeAtomically(const std::string& path, const platform::Data& contents, platform::ErrorRef* error)
{
    std::string staging = path + ".XXXXXX";
    const int descriptor = mkstemp(staging.data());
    if (descriptor < 0) {
        platform::setError(error, platform::Error::posix(errno, path));
        return false;
    }
    std::size_t written = 0;
    int failure = 0;
    while (written < contents.size()) {
        const auto count = write(descriptor, contents.data() + written, contents.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            failure = errno;
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (failure == 0 && fsync(descriptor) != 0) {
        failure = errno;
    }
    if (close(descriptor) != 0 && failure == 0) {
        failure = errno;
    }
    if (failure == 0 && rename(staging.c_str(), path.c_str()) != 0) {
        failure = errno;
    }
    if (failure != 0) {
        unlink(staging.c_str());
        platform::setError(error, platform::Error::posix(failure, path));
        return false;
    }
    return true;
}

}  // namespace

std::string temporaryDirectoryPath()
{
    return (systemTemporaryDirectory() / uniqueIdentifier()).string();
}

platform::URL temporaryDirectoryURL()
{
    return platform::URL::fileURLWithPath(temporaryDirectoryPath(), true);
}

std::optional<platform::URL> createTemporaryDirectory(platform::ErrorRef* error)
{
    const auto path = temporaryDirectoryPath();
    std::error_code failure;
    std::filesystem::create_directories(path, failure);
    if (failure) {
        platform::setError(error, platform::Error::posix(failure.value(), path));
        return std::nullopt;
    }
    return platform::URL::fileURLWithPath(path, true);
}

std::string temporaryFilePath()
{
    return temporaryFilePathWithExtension(std::nullopt);
}

std::string temporaryFilePathWithExtension(std::optional<std::string_view> extension)
{
    auto path = (systemTemporaryDirectory() / uniqueIdentifier()).string();
    if (extension && !extension->empty()) {
        path += '.';
        path += *extension;
    }
    return path;
}

platform::URL temporaryFileURL()
{
    return temporaryFileURLWithExtension(std::nullopt);
}

platform::URL temporaryFileURLWithExtension(std::optional<std::string_view> extension)
{
    return platform::URL::fileURLWithPath(temporaryFilePathWithExtension(extension));
}

std::optional<platform::URL> createTemporaryFileWithExtension(std::optional<std::string_view> extension,
                                                              const std::optional<platform::Data>& contents,
                                                              platform::ErrorRef* error)
{
    const auto path = temporaryFilePathWithExtension(extension);
    if (!writeAtomically(path, contents.value_or(platform::Data{}), error)) {
        return std::nullopt;
    }
    return platform::URL::fileURLWithPath(path);
}

std::optional<platform::URL> createTemporaryFileWithContents(const std::optional<platform::Data>& contents,
                                                             platform::ErrorRef* error)
{
    return createTemporaryFileWithExtension(std::nullopt, contents, error);
}
