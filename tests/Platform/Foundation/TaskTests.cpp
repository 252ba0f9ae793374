#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Pipe.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Task.h"
#include "tests/Support/RunProgram.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

using namespace platform;
using testsupport::Signal;

namespace {

std::string text(const Data& data)
{
    return std::string(data.begin(), data.end());
}

TaskRef shellTask(const std::string& script)
{
    auto task = Task::create();
    task->setLaunchPath("/bin/sh");
    task->setArguments({"-c", script});
    return task;
}

// Runs the body on a thread of its own, so that it has a run loop of its own.
template <typename Body>
void onFreshThread(Body body)
{
    std::thread(body).join();
}

TEST(Task, RunsWithItsArgumentsAndCollectsBothStreamsAndTheStatus)
{
    auto task = shellTask("printf out; printf err >&2; exit 3");
    auto output = Pipe::create();
    auto errors = Pipe::create();
    task->setStandardOutput(output);
    task->setStandardError(errors);
    task->launch();
    EXPECT_GT(task->processIdentifier(), 0);
    // The parent's copies of the write ends were closed, so reading ends.
    EXPECT_EQ(text(output->fileHandleForReading()->readDataToEndOfFile()), "out");
    EXPECT_EQ(text(errors->fileHandleForReading()->readDataToEndOfFile()), "err");
    task->waitUntilExit();
    EXPECT_FALSE(task->isRunning());
    EXPECT_EQ(task->terminationStatus(), 3);
    EXPECT_EQ(task->terminationReason(), Task::TerminationReason::Exit);
}

TEST(Task, GetsExactlyItsEnvironmentAndWorkingDirectory)
{
    testsupport::TemporaryDirectory directory;
    auto task = shellTask("printf '%s|%s|%s' \"$ZARVO_VALUE\" \"${HOME-unset}\" \"$(pwd -P)\"");
    task->setEnvironment(Dictionary{{"ZARVO_VALUE", "a b"}});
    task->setCurrentDirectoryPath(directory.path());
    auto output = Pipe::create();
    task->setStandardOutput(output);
    task->launch();
    const auto printed = text(output->fileHandleForReading()->readDataToEndOfFile());
    char resolved[PATH_MAX];
    ASSERT_NE(::realpath(directory.path().c_str(), resolved), nullptr);
    EXPECT_EQ(printed, std::string("a b|unset|") + resolved);
}

TEST(Task, ReadsStandardInputFromAPipeOrTheNullDevice)
{
    auto fromPipe = Task::create();
    fromPipe->setLaunchPath("/bin/cat");
    auto input = Pipe::create();
    auto output = Pipe::create();
    fromPipe->setStandardInput(input);
    fromPipe->setStandardOutput(output);
    fromPipe->launch();
    input->fileHandleForWriting()->writeData(Data{'a', 'b', 'c'});
    input->fileHandleForWriting()->closeFile();
    EXPECT_EQ(text(output->fileHandleForReading()->readDataToEndOfFile()), "abc");

    auto fromNothing = Task::create();
    fromNothing->setLaunchPath("/bin/cat");
    fromNothing->setStandardInput(FileHandle::fileHandleWithNullDevice());
    auto nothing = Pipe::create();
    fromNothing->setStandardOutput(nothing);
    fromNothing->launch();
    EXPECT_EQ(text(nothing->fileHandleForReading()->readDataToEndOfFile()), "");
    fromNothing->waitUntilExit();
    EXPECT_EQ(fromNothing->terminationStatus(), 0);
}

TEST(Task, LaunchFailuresAreRaisedAndLeaveTheTaskUnlaunched)
{
    const auto reasonOf = [](const TaskRef& task) -> std::string {
        try {
            task->launch();
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), NSInvalidArgumentException);
            return exception.reason();
        }
        return "launched";
    };
    auto missing = Task::create();
    missing->setLaunchPath("/nonexistent/zarvo-program");
    EXPECT_EQ(reasonOf(missing), "*** -[NSConcreteTask launch]: launch path not accessible");
    EXPECT_FALSE(missing->isRunning());
    EXPECT_THROW(missing->terminationStatus(), Exception);

    auto notExecutable = Task::create();
    notExecutable->setLaunchPath("/etc/hostname");
    EXPECT_EQ(reasonOf(notExecutable), "*** -[NSConcreteTask launch]: launch path not accessible");

    auto badDirectory = shellTask("exit 0");
    badDirectory->setCurrentDirectoryPath("/nonexistent/zarvo-directory");
    EXPECT_EQ(reasonOf(badDirectory), "*** -[NSConcreteTask launch]: working directory doesn't exist.");

    EXPECT_EQ(reasonOf(Task::create()), "*** -[NSConcreteTask launch]: must provide a launch path");

    auto twice = shellTask("exit 0");
    twice->launch();
    EXPECT_EQ(reasonOf(twice), "*** -[NSConcreteTask launch]: task already launched");
    twice->waitUntilExit();

    EXPECT_THROW(Task::create()->setStandardOutput(Task::create()), Exception);
}

TEST(Task, AStreamTheChildCannotBeGivenFailsTheLaunch)
{
    // A descriptor number beyond this process's table: the C library refuses
    // to set it up for the child, and that refusal is the launch's failure.
    const auto unusable = FileHandle::create(static_cast<int>(::sysconf(_SC_OPEN_MAX)), false);
    auto task = shellTask("exit 0");
    task->setStandardOutput(unusable);
    try {
        task->launch();
        ADD_FAILURE() << "launched with a standard output it could not be given";
        task->waitUntilExit();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInvalidArgumentException);
        EXPECT_EQ(exception.reason().rfind("*** -[NSConcreteTask launch]: ", 0), 0U) << exception.reason();
    }
    EXPECT_FALSE(task->isRunning());
    EXPECT_THROW(task->terminationStatus(), Exception) << "a task that failed to launch has no status";
}

TEST(Task, InterruptEndsTheChildWithSigint)
{
    auto task = Task::create();
    task->setLaunchPath("/bin/sleep");
    task->setArguments({"60"});
    task->launch();
    EXPECT_TRUE(task->isRunning());
    EXPECT_THROW(task->terminationStatus(), Exception);
    task->interrupt();
    task->waitUntilExit();
    EXPECT_EQ(task->terminationReason(), Task::TerminationReason::UncaughtSignal);
    EXPECT_EQ(task->terminationStatus(), SIGINT);
    task->interrupt();  // after the end: nothing to signal, no effect
}

TEST(Task, TheNotificationComesFromTheLaunchingThreadsRunLoopAndTheHandlerFromAWorker)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        auto task = shellTask("exit 0");
        std::atomic<bool> notified{false};
        std::thread::id notifiedOn;
        std::thread::id handledOn;
        Signal handled;
        const auto token = NotificationCenter::defaultCenter()->addObserverForName(
            std::string(NSTaskDidTerminateNotification), task, nullptr, [&](const Notification& notification) {
                EXPECT_EQ(notification.object, task);
                notifiedOn = std::this_thread::get_id();
                notified.store(true);
            });
        task->setTerminationHandler([&](Task& ended) {
            EXPECT_FALSE(ended.isRunning());
            handledOn = std::this_thread::get_id();
            handled.raise();
        });
        task->launch();
        bool emptyBeforeTheEnd = false;
        while (!notified.load()) {
            if (!loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(20))) {
                emptyBeforeTheEnd = true;
                break;
            }
        }
        EXPECT_FALSE(emptyBeforeTheEnd) << "the loop looked empty while the task ran";
        EXPECT_EQ(notifiedOn, std::this_thread::get_id());
        ASSERT_TRUE(handled.wait());
        EXPECT_NE(handledOn, std::this_thread::get_id());
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(5)))
            << "the task's source left the loop once the notification was out";
        NotificationCenter::defaultCenter()->removeObserver(token);
    });
}

TEST(Task, EndedChildrenAreReapedEvenWhenNobodyWaits)
{
    Signal ended;
    int pid = 0;
    {
        auto task = shellTask("exit 0");
        task->setTerminationHandler([&](Task&) { ended.raise(); });
        task->launch();
        pid = task->processIdentifier();
    }  // dropped while running
    ASSERT_TRUE(ended.wait());
    errno = 0;
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "the child was left for someone else to reap";
}

TEST(Task, TheChildInheritsNoDescriptorBeyondItsStandardStreams)
{
    // A descriptor opened without close-on-exec, as a careless library would.
    const int careless = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(careless, 0);
    auto task = Task::create();
    task->setLaunchPath("/bin/ls");
    task->setArguments({"/proc/self/fd"});
    auto output = Pipe::create();
    task->setStandardOutput(output);
    task->launch();
    const auto listing = text(output->fileHandleForReading()->readDataToEndOfFile());
    ::close(careless);
    // 0, 1 and 2, and the directory ls itself opened to list them.
    EXPECT_EQ(listing, "0\n1\n2\n3\n");
}

TEST(FileHandle, AReadabilityHandlerSeesEveryByteThenTheEnd)
{
    auto task = shellTask("head -c 1000000 /dev/zero");
    auto output = Pipe::create();
    task->setStandardOutput(output);
    std::mutex mutex;
    std::size_t received = 0;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    Signal ended;
    output->fileHandleForReading()->setReadabilityHandler([&](FileHandle& handle) {
        if (++running != 1) {
            overlapped.store(true);
        }
        const Data chunk = handle.availableData();
        {
            std::lock_guard lock(mutex);
            received += chunk.size();
        }
        --running;
        if (chunk.empty()) {
            handle.setReadabilityHandler(nullptr);
            ended.raise();
        }
    });
    task->launch();
    ASSERT_TRUE(ended.wait());
    EXPECT_FALSE(overlapped.load());
    std::lock_guard lock(mutex);
    EXPECT_EQ(received, 1000000U);
}

TEST(FileHandle, ReadsWritesAndSeeksAFileAndRaisesOnceClosed)
{
    testsupport::TemporaryDirectory directory;
    const auto path = directory.path() + "/file";
    EXPECT_EQ(FileHandle::fileHandleForReadingAtPath(path), nullptr);
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    auto handle = FileHandle::fileHandleForUpdatingAtPath(path);
    ASSERT_NE(handle, nullptr);
    handle->writeData(Data{'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(handle->seekToEndOfFile(), 5U);
    handle->seekToFileOffset(1);
    EXPECT_EQ(text(handle->readDataOfLength(3)), "ell");
    EXPECT_EQ(handle->offsetInFile(), 4U);
    EXPECT_EQ(text(handle->availableData()), "o");
    handle->truncateFileAtOffset(2);
    handle->seekToFileOffset(0);
    EXPECT_EQ(text(handle->readDataToEndOfFile()), "he");
    handle->synchronizeFile();
    handle->closeFile();
    EXPECT_EQ(handle->fileDescriptor(), -1);
    try {
        handle->availableData();
        FAIL() << "a closed handle read";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSFileHandleOperationException);
    }
    EXPECT_TRUE(FileHandle::fileHandleWithNullDevice()->availableData().empty());
}

}  // namespace
