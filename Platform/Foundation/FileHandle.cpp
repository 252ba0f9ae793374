#include "Platform/Foundation/FileHandle.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/WorkerPool.h"

#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

namespace platform {
namespace {

// One read of a pipe takes at most what a default pipe buffer holds.
constexpr std::size_t kChunkSize = 64 * 1024;

[[noreturn]] void raiseOperationFailure(const char* method, int error)
{
    Exception::raise(NSFileHandleOperationException,
                     std::string("*** -[NSConcreteFileHandle ") + method + "]: " + std::strerror(error));
}

FileHandleRef openAt(const std::string& path, int flags)
{
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    return fd < 0 ? nullptr : FileHandle::create(fd, true);
}

// Scratch space for reads, never cleared: a read costs only the bytes it
// brings, and one at end of file touches no memory at all.
std::unique_ptr<std::uint8_t[]> makeScratch()
{
    return std::make_unique_for_overwrite<std::uint8_t[]>(kChunkSize);
}

// One read of at most `limit` bytes (and at most a chunk), appended to
// `data`. False at end of file.
bool readChunk(int fd, std::uint8_t* scratch, std::size_t limit, Data& data, const char* method)
{
    for (;;) {
        const auto count = ::read(fd, scratch, std::min(kChunkSize, limit));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            raiseOperationFailure(method, errno);
        }
        data.insert(data.end(), scratch, scratch + count);
        return count > 0;
    }
}

// Reads until `limit` bytes or end of file.
Data readUpTo(int fd, std::size_t limit, const char* method)
{
    const auto scratch = makeScratch();
    Data data;
    while (data.size() < limit && readChunk(fd, scratch.get(), limit - data.size(), data, method)) {
    }
    return data;
}

}  // namespace

FileHandle::FileHandle(int fd, bool closeOnDealloc) : fd_(fd), closeOnDealloc_(closeOnDealloc) {}

FileHandle::~FileHandle()
{
    std::unique_lock lock(mutex_);
    stopWatchingLocked(lock);
    if (closeOnDealloc_ && fd_ >= 0) {
        ::close(fd_);
    }
}

FileHandleRef FileHandle::create(int fd, bool closeOnDealloc)
{
    return makeObject<FileHandle>(fd, closeOnDealloc);
}

FileHandleRef FileHandle::fileHandleForReadingAtPath(const std::string& path)
{
    return openAt(path, O_RDONLY);
}

FileHandleRef FileHandle::fileHandleForWritingAtPath(const std::string& path)
{
    return openAt(path, O_WRONLY);
}

FileHandleRef FileHandle::fileHandleForUpdatingAtPath(const std::string& path)
{
    return openAt(path, O_RDWR);
}

FileHandleRef FileHandle::fileHandleWithNullDevice()
{
    return openAt("/dev/null", O_RDWR);
}

FileHandleRef FileHandle::fileHandleWithStandardInput()
{
    return create(STDIN_FILENO, false);
}

FileHandleRef FileHandle::fileHandleWithStandardOutput()
{
    return create(STDOUT_FILENO, false);
}

FileHandleRef FileHandle::fileHandleWithStandardError()
{
    return create(STDERR_FILENO, false);
}

int FileHandle::fileDescriptor() const
{
    std::lock_guard lock(mutex_);
    return fd_;
}

int FileHandle::descriptorOrRaise(const char* method) const
{
    const int fd = fileDescriptor();
    if (fd < 0) {
        raiseOperationFailure(method, EBADF);
    }
    return fd;
}

Data FileHandle::availableData()
{
    const int fd = descriptorOrRaise("availableData");
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        return readUpTo(fd, SIZE_MAX, "availableData");
    }
    Data chunk;
    readChunk(fd, makeScratch().get(), kChunkSize, chunk, "availableData");
    return chunk;
}

Data FileHandle::readDataToEndOfFile()
{
    return readUpTo(descriptorOrRaise("readDataToEndOfFile"), SIZE_MAX, "readDataToEndOfFile");
}

Data FileHandle::readDataOfLength(std::size_t length)
{
    return readUpTo(descriptorOrRaise("readDataOfLength:"), length, "readDataOfLength:");
}

void FileHandle::writeData(const Data& data)
{
    const int fd = descriptorOrRaise("writeData:");
    std::size_t written = 0;
    while (written < data.size()) {
        const auto count = ::write(fd, data.data() + written, data.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            raiseOperationFailure("writeData:", errno);
        }
        written += static_cast<std::size_t>(count);
    }
}

std::uint64_t FileHandle::offsetInFile()
{
    const auto offset = ::lseek(descriptorOrRaise("offsetInFile"), 0, SEEK_CUR);
    if (offset < 0) {
        raiseOperationFailure("offsetInFile", errno);
    }
    return static_cast<std::uint64_t>(offset);
}

std::uint64_t FileHandle::seekToEndOfFile()
{
    const auto offset = ::lseek(descriptorOrRaise("seekToEndOfFile"), 0, SEEK_END);
    if (offset < 0) {
        raiseOperationFailure("seekToEndOfFile", errno);
    }
    return static_cast<std::uint64_t>(offset);
}

void FileHandle::seekToFileOffset(std::uint64_t offset)
{
    if (::lseek(descriptorOrRaise("seekToFileOffset:"), static_cast<off_t>(offset), SEEK_SET) < 0) {
        raiseOperationFailure("seekToFileOffset:", errno);
    }
}

void FileHandle::truncateFileAtOffset(std::uint64_t offset)
{
    const int fd = descriptorOrRaise("truncateFileAtOffset:");
    if (::ftruncate(fd, static_cast<off_t>(offset)) != 0 || ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
        raiseOperationFailure("truncateFileAtOffset:", errno);
    }
}

void FileHandle::synchronizeFile()
{
    // Pipes and terminals cannot be synchronised; like the platform, that is not an error.
    if (::fsync(descriptorOrRaise("synchronizeFile")) != 0 && errno != EINVAL && errno != EROFS) {
        raiseOperationFailure("synchronizeFile", errno);
    }
}

void FileHandle::closeFile()
{
    std::unique_lock lock(mutex_);
    stopWatchingLocked(lock);
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

FileHandle::ReadabilityHandler FileHandle::readabilityHandler() const
{
    std::lock_guard lock(mutex_);
    return readabilityHandler_;
}

void FileHandle::stopWatchingLocked(std::unique_lock<std::mutex>&)
{
    // The monitor's callback for this watch only hands a job to the pool and
    // takes no lock of ours, so waiting for it here cannot deadlock.
    if (const auto token = std::exchange(watchToken_, 0); token != 0) {
        internal::EventMonitor::shared().unwatch(token);
    }
}

void FileHandle::setReadabilityHandler(ReadabilityHandler handler)
{
    ReadabilityHandler previous;  // released outside the lock
    std::unique_lock lock(mutex_);
    previous = std::exchange(readabilityHandler_, std::move(handler));
    stopWatchingLocked(lock);
    if (!readabilityHandler_ || fd_ < 0) {
        return;
    }
    std::weak_ptr<FileHandle> weak = std::static_pointer_cast<FileHandle>(shared_from_this());
    // The watch may fire before `watch` returns; the job compares its token
    // under the lock, which this call holds until the token is stored.
    watchToken_ = internal::EventMonitor::shared().watch(fd_, EPOLLIN, [weak](internal::EventMonitor::Token token, std::uint32_t) {
        if (auto self = weak.lock()) {
            internal::WorkerPool::shared().submit([self, token] { self->handlerJob(token); });
        }
    });
}

void FileHandle::handlerJob(std::uint64_t token)
{
    ReadabilityHandler handler;
    {
        std::lock_guard lock(mutex_);
        if (token != watchToken_) {
            return;
        }
        handler = readabilityHandler_;
    }
    handler(*this);
    std::lock_guard lock(mutex_);
    if (token == watchToken_) {
        internal::EventMonitor::shared().rearm(token);
    }
}

}  // namespace platform
