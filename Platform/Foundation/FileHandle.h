// FileHandle: an open file descriptor with reading, writing and seeking, and
// a readability handler for pipes.
//
//   auto output = Pipe::create()->fileHandleForReading();
//   output->setReadabilityHandler([](FileHandle& handle) {
//       const Data chunk = handle.availableData();   // empty: end of file
//       if (chunk.empty()) handle.setReadabilityHandler(nullptr);
//   });
//
// Contract:
// - Failures of the system calls raise "NSFileHandleOperationException" with
//   the system's message; a closed handle raises the same.
// - The readability handler runs on a worker thread whenever data (or end of
//   file) is waiting, never twice at once for one handle, and again after it
//   returns for as long as something is waiting, so a handler that does not
//   read is called repeatedly. A handler set to nothing, or replaced, is not
//   called again (a call already under way finishes). The handle stays alive
//   while its handler runs; closing it ends the watch.
// - Descriptors made here are close-on-exec.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view NSFileHandleOperationException = "NSFileHandleOperationException";

class FileHandle;
using FileHandleRef = std::shared_ptr<FileHandle>;

class FileHandle final : public Object {
public:
    using ReadabilityHandler = std::function<void(FileHandle&)>;

    ~FileHandle() override;

    static FileHandleRef create(int fd, bool closeOnDealloc);
    // Nothing when the file cannot be opened.
    static FileHandleRef fileHandleForReadingAtPath(const std::string& path);
    static FileHandleRef fileHandleForWritingAtPath(const std::string& path);
    static FileHandleRef fileHandleForUpdatingAtPath(const std::string& path);
    // Reads give end of file at once; writes vanish.
    static FileHandleRef fileHandleWithNullDevice();
    static FileHandleRef fileHandleWithStandardInput();
    static FileHandleRef fileHandleWithStandardOutput();
    static FileHandleRef fileHandleWithStandardError();

    // -1 once closed.
    int fileDescriptor() const;

    // What can be had now: for a pipe or socket, the next chunk (waiting for
    // one if none is there); for a file, the rest of it. Empty at end of file.
    Data availableData();
    Data readDataToEndOfFile();
    Data readDataOfLength(std::size_t length);
    void writeData(const Data& data);

    std::uint64_t offsetInFile();
    std::uint64_t seekToEndOfFile();
    void seekToFileOffset(std::uint64_t offset);
    void truncateFileAtOffset(std::uint64_t offset);
    void synchronizeFile();
    void closeFile();

    ReadabilityHandler readabilityHandler() const;
    void setReadabilityHandler(ReadabilityHandler handler);

private:
    template <class> friend struct ObjectAllocator;
    FileHandle(int fd, bool closeOnDealloc);
    int descriptorOrRaise(const char* method) const;
    void stopWatchingLocked(std::unique_lock<std::mutex>& lock);
    void handlerJob(std::uint64_t token);

    mutable std::mutex mutex_;  // guards the fields below
    int fd_;
    const bool closeOnDealloc_;
    ReadabilityHandler readabilityHandler_;
    std::uint64_t watchToken_ = 0;
};

}  // namespace platform
