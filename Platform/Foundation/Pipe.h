// Pipe: a one-way channel between processes, as two file handles.
//
// Both ends are close-on-exec; a task that is given a pipe for one of its
// standard streams gets its end as that stream and the parent's copy of that
// end is closed after the launch, so the other end sees end of file when the
// child exits.
#pragma once

#include "Platform/Foundation/FileHandle.h"

#include <memory>

namespace platform {

class Pipe;
using PipeRef = std::shared_ptr<Pipe>;

class Pipe final : public Object {
public:
    // Nothing when the process is out of descriptors.
    static PipeRef create();

    const FileHandleRef& fileHandleForReading() const { return reading_; }
    const FileHandleRef& fileHandleForWriting() const { return writing_; }

private:
    template <class> friend struct ObjectAllocator;
    Pipe(FileHandleRef reading, FileHandleRef writing) : reading_(std::move(reading)), writing_(std::move(writing)) {}

    const FileHandleRef reading_;
    const FileHandleRef writing_;
};

}  // namespace platform
