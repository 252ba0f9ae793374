// Task: a child process with its launch path, arguments, environment,
// working directory and standard streams.
//
//   auto task = Task::create();
//   task->setLaunchPath("/bin/ls");
//   task->setArguments({"-l"});
//   auto output = Pipe::create();
//   task->setStandardOutput(output);
//   task->setTerminationHandler([](Task& ended) { ... ended.terminationStatus() ... });
//   task->launch();   // raises "NSInvalidArgumentException" when it cannot start
//
// Contract:
// - The child gets exactly the descriptors it is given as standard streams
//   (an unset stream is inherited); every other descriptor is closed in it.
//   Signal dispositions and the signal mask are reset to their defaults.
// - When the child ends it is reaped: at once by the launching thread's run
//   loop, or within a tenth of a second by the runtime if that loop is not
//   run, so no zombie remains even if nobody asks. A running task is kept
//   alive until then, whether or not anyone holds it.
// - Then, in no promised order relative to each other: the termination
//   handler runs on a worker thread, and "NSTaskDidTerminateNotification" is
//   posted to the default centre on the thread that launched the task, from
//   its run loop (any mode). Until the notification is posted that run loop
//   is not empty, so a thread pumping it while the task runs keeps waiting.
//   If the launching thread never runs its loop again, the notification is
//   not posted; the task still ends and the handler still runs.
// - `interrupt` and `terminate` send SIGINT and SIGTERM to the child while it
//   runs (through its process descriptor, never to a reused process id).
// - Reading the termination status or reason before the end raises
//   "NSInvalidArgumentException". A child ended by a signal has that
//   signal's number as its status.
// - A pipe given as a standard stream has the parent's copy of the child's
//   end closed once the child is launched, so the parent sees end of file
//   when the child is done with it.
// - A launch that cannot start raises "NSInvalidArgumentException" with the
//   platform's reasons ("launch path not accessible", "working directory
//   doesn't exist.").
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

inline constexpr std::string_view NSTaskDidTerminateNotification = "NSTaskDidTerminateNotification";

class Task;
class RunLoop;
using TaskRef = std::shared_ptr<Task>;

class Task final : public Object {
public:
    enum class TerminationReason { Exit = 1, UncaughtSignal = 2 };
    using TerminationHandler = std::function<void(Task&)>;

    ~Task() override;
    static TaskRef create();

    std::optional<std::string> launchPath() const;
    void setLaunchPath(std::optional<std::string> path);
    std::vector<std::string> arguments() const;
    void setArguments(std::vector<std::string> arguments);
    // Nothing: the child inherits this process's environment.
    std::optional<Dictionary> environment() const;
    void setEnvironment(std::optional<Dictionary> environment);
    std::optional<std::string> currentDirectoryPath() const;
    void setCurrentDirectoryPath(std::optional<std::string> path);

    // A FileHandle or a Pipe (the pipe's reading end for input, its writing
    // end for output); nothing to inherit. Anything else raises
    // "NSInvalidArgumentException".
    ObjectRef standardInput() const;
    void setStandardInput(ObjectRef stream);
    ObjectRef standardOutput() const;
    void setStandardOutput(ObjectRef stream);
    ObjectRef standardError() const;
    void setStandardError(ObjectRef stream);

    TerminationHandler terminationHandler() const;
    void setTerminationHandler(TerminationHandler handler);

    // Starts the child. Raises "NSInvalidArgumentException" when there is no
    // launch path, it cannot be executed, the working directory does not
    // exist, or the task was launched before.
    void launch();
    void interrupt();
    void terminate();
    // Blocks until the child has ended; on the launching thread, runs its run
    // loop meanwhile so that the notification is posted before it returns.
    void waitUntilExit();

    bool isRunning() const;
    int processIdentifier() const;
    // The exit code, or the number of the signal that ended the child.
    int terminationStatus() const;
    TerminationReason terminationReason() const;

private:
    struct Reaper;
    template <class> friend struct ObjectAllocator;
    Task() = default;
    // The launch steps. `checkLaunchable` raises the launch failures that
    // need no spawn; it reads the settings and so runs with `mutex_` held.
    void checkLaunchable() const;
    // How the launching loop learns of the child's end: from its process
    // descriptor, or where there is none from a thread that waits for it.
    void watchProcessDescriptor(const std::shared_ptr<RunLoop>& loop, int pidfd);
    void waitOnThread(const std::shared_ptr<RunLoop>& loop, int pid);
    // Reaps the child if it has ended and nobody reaped it yet.
    void reapIfEnded();
    void recordEnd(int status);
    void postTermination();
    void signalChild(int signal);

    mutable std::mutex mutex_;  // guards the fields below
    std::condition_variable ended_;
    std::optional<std::string> launchPath_;
    std::vector<std::string> arguments_;
    std::optional<Dictionary> environment_;
    std::optional<std::string> currentDirectoryPath_;
    ObjectRef standardInput_;
    ObjectRef standardOutput_;
    ObjectRef standardError_;
    TerminationHandler terminationHandler_;
    bool launched_ = false;
    bool terminated_ = false;
    bool notified_ = false;
    int pid_ = 0;
    int pidfd_ = -1;  // open until the task goes: the launching loop may still watch it
    int status_ = 0;
    std::weak_ptr<RunLoop> launchLoop_;
};

}  // namespace platform
