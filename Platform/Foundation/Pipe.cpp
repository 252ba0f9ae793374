#include "Platform/Foundation/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

PipeRef Pipe::create()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return nullptr;
    }
    return makeObject<Pipe>(FileHandle::create(fds[0], true), FileHandle::create(fds[1], true));
}

}  // namespace platform
