#include "Platform/Foundation/Thread.h"

#include <gtest/gtest.h>

#include <fstream>
#include <pthread.h>
#include <unistd.h>
#include <string>
#include <thread>

using platform::Thread;

namespace {

// The name as the kernel shows it to other processes (ps, debuggers).
std::string kernelShownName()
{
    std::ifstream comm("/proc/self/task/" + std::to_string(Thread::currentThreadID()) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

// Runs `body` on a thread of its own, so names set there go with it.
template <typename Body>
void onNewThread(Body body)
{
    std::thread thread(body);
    thread.join();
}

}  // namespace

TEST(ThreadName, AShortNameIsKeptByTheKernelAsIs)
{
    onNewThread([] {
        Thread::setName("worker-1");
        EXPECT_EQ(Thread::name(), "worker-1");
        EXPECT_EQ(kernelShownName(), "worker-1");
    });
}

TEST(ThreadName, ALongNameIsAnsweredWholeWhileTheKernelKeepsItsStart)
{
    onNewThread([] {
        Thread::setName("cocoa.velmora.fileLogger");
        EXPECT_EQ(Thread::name(), "cocoa.velmora.fileLogger");
        EXPECT_EQ(kernelShownName(), "cocoa.velmora.f");
    });
}

TEST(ThreadName, TheKernelsPartEndsOnACharacterBoundary)
{
    onNewThread([] {
        // Fourteen ASCII bytes, then a two-byte character across the limit.
        Thread::setName("abcdefghijklmn\xC3\xBC-rest");
        EXPECT_EQ(kernelShownName(), "abcdefghijklmn");
        EXPECT_EQ(Thread::name(), "abcdefghijklmn\xC3\xBC-rest");
    });
    onNewThread([] {
        // Thirteen bytes and a two-byte character fill the fifteen exactly.
        Thread::setName("abcdefghijklm\xC3\xBC-rest");
        EXPECT_EQ(kernelShownName(), "abcdefghijklm\xC3\xBC");
    });
}

TEST(ThreadName, ANameBelongsToItsThreadOnly)
{
    const std::string before = Thread::name();
    std::string inherited;
    onNewThread([&] {
        // Unnamed here, the thread shows what it inherited from its creator.
        inherited = Thread::name();
        Thread::setName("only-here");
    });
    EXPECT_EQ(inherited, before);
    EXPECT_EQ(Thread::name(), before);
}

TEST(ThreadName, ARenameByOtherMeansIsSeen)
{
    onNewThread([] {
        Thread::setName("a name that is too long for the kernel");
        ::pthread_setname_np(::pthread_self(), "renamed");
        EXPECT_EQ(Thread::name(), "renamed");
    });
}

TEST(ThreadName, EmptyAndNulContainingNames)
{
    onNewThread([] {
        Thread::setName("");
        EXPECT_EQ(Thread::name(), "");
        EXPECT_EQ(kernelShownName(), "");
        Thread::setName(std::string_view("in\0side", 7));
        EXPECT_EQ(kernelShownName(), "in");
        EXPECT_EQ(Thread::name(), std::string("in\0side", 7));
    });
}

TEST(ThreadName, TheNameAsLastSeenFollowsSetNameOnly)
{
    onNewThread([] {
        Thread::setName("first name, longer than the kernel keeps");
        EXPECT_EQ(Thread::nameAsLastSeen(), "first name, longer than the kernel keeps");
        ::pthread_setname_np(::pthread_self(), "other means");
        EXPECT_EQ(Thread::nameAsLastSeen(), "first name, longer than the kernel keeps");
        Thread::setName("second");
        EXPECT_EQ(Thread::nameAsLastSeen(), "second");
    });
    onNewThread([] { EXPECT_EQ(Thread::nameAsLastSeen(), kernelShownName()); });
}

TEST(ThreadIdentity, OnlyTheFirstThreadIsTheMainThread)
{
    EXPECT_EQ(Thread::isMainThread(), Thread::currentThreadID() == static_cast<std::uint64_t>(::getpid()));
    onNewThread([] { EXPECT_FALSE(Thread::isMainThread()); });
}
