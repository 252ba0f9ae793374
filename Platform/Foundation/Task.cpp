#include "Platform/Foundation/Task.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/Guarded.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Pipe.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/WorkerPool.h"

#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

extern char** environ;

namespace platform {
namespace {

// How often the reaper looks for children that ended unnoticed.
constexpr auto kSweepInterval = std::chrono::milliseconds(100);

[[noreturn]] void raiseLaunchFailure(const std::string& problem)
{
    Exception::raise(NSInvalidArgumentException, "*** -[NSConcreteTask launch]: " + problem);
}

[[noreturn]] void raiseNotEnded(const char* problem)
{
    Exception::raise(NSInvalidArgumentException, std::string("*** -[NSConcreteTask terminationStatus]: task ") + problem);
}

void checkStream(const ObjectRef& stream)
{
    if (stream && !std::dynamic_pointer_cast<FileHandle>(stream) && !std::dynamic_pointer_cast<Pipe>(stream)) {
        Exception::raise(NSInvalidArgumentException, "*** -[NSConcreteTask setStandard...:]: standard stream must be a file handle or a pipe");
    }
}

// What the child gets as one standard stream, and the parent's copy of a
// pipe end to close once the child has it.
struct ChildStream {
    int fd = -1;
    FileHandleRef parentCopy;
};

ChildStream childStream(const ObjectRef& stream, bool isInput)
{
    if (auto handle = std::dynamic_pointer_cast<FileHandle>(stream)) {
        return {handle->fileDescriptor(), nullptr};
    }
    if (auto pipe = std::dynamic_pointer_cast<Pipe>(stream)) {
        const auto& end = isInput ? pipe->fileHandleForReading() : pipe->fileHandleForWriting();
        return {end->fileDescriptor(), end};
    }
    return {};
}

// A launch step that the C library refused: the launch fails as one whose
// spawn failed, with the library's reason.
void checkSpawnStep(int result)
{
    if (result != 0) {
        raiseLaunchFailure(std::strerror(result));
    }
}

// posix_spawn's two set-up objects, released however the launch ends; each
// step that fills them raises a launch failure when it does not succeed.
class SpawnSetup {
public:
    SpawnSetup()
    {
        checkSpawnStep(posix_spawn_file_actions_init(&actions_));
        if (const int result = posix_spawnattr_init(&attributes_); result != 0) {
            posix_spawn_file_actions_destroy(&actions_);
            checkSpawnStep(result);
        }
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    // The child's descriptors 0 to 2 are the given streams (an unset one is
    // inherited), it starts in `directory` when there is one, and nothing
    // else this process has open (close-on-exec or not) reaches it.
    void setDescriptors(const ChildStream (&streams)[3], const std::optional<std::string>& directory)
    {
        for (int target = 0; target < 3; ++target) {
            const int fd = streams[target].fd;
            if (fd >= 0 && fd != target) {
                checkSpawnStep(posix_spawn_file_actions_adddup2(&actions_, fd, target));
            }
        }
        if (directory) {
            checkSpawnStep(posix_spawn_file_actions_addchdir_np(&actions_, directory->c_str()));
        }
        checkSpawnStep(posix_spawn_file_actions_addclosefrom_np(&actions_, 3));
    }

    // Every signal at its default disposition (those that can have another)
    // and none blocked, whatever this process set up for itself.
    void resetSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        checkSpawnStep(posix_spawnattr_setsigmask(&attributes_, &signals));
        sigfillset(&signals);
        sigdelset(&signals, SIGKILL);
        sigdelset(&signals, SIGSTOP);
        checkSpawnStep(posix_spawnattr_setsigdefault(&attributes_, &signals));
        checkSpawnStep(posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }

    [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }
    [[nodiscard]] const posix_spawnattr_t* attributes() const { return &attributes_; }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

// Through the system call itself: the C library's declaration of the
// wrapper lacks C linkage in the release the project builds on.
int openProcessDescriptor(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

std::vector<char*> pointersTo(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (auto& string : strings) {
        pointers.push_back(string.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The child's argument vector: the launch path, then the arguments.
std::vector<std::string> commandLine(const std::string& launchPath, const std::vector<std::string>& arguments)
{
    std::vector<std::string> line{launchPath};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

// "NAME=value" for each entry; a value that is not a string is given as its description.
std::vector<std::string> environmentStrings(const Dictionary& environment)
{
    std::vector<std::string> strings;
    for (const auto& [name, value] : environment) {
        strings.push_back(name + "=" + (value.string() != nullptr ? *value.string() : value.description()));
    }
    return strings;
}

// What the child is started with, read from the task in one go.
struct SpawnRequest {
    const std::string& launchPath;
    const std::vector<std::string>& arguments;
    const std::optional<Dictionary>& environment;  // nothing: this process's
    const std::optional<std::string>& directory;
};

// Starts the child and returns its process id; raises a launch failure when it cannot.
pid_t spawnChild(const SpawnRequest& request, const ChildStream (&streams)[3])
{
    SpawnSetup setup;
    setup.setDescriptors(streams, request.directory);
    setup.resetSignals();
    auto argumentStrings = commandLine(request.launchPath, request.arguments);
    auto argv = pointersTo(argumentStrings);
    auto environment = request.environment ? environmentStrings(*request.environment) : std::vector<std::string>{};
    auto envp = pointersTo(environment);
    pid_t pid = 0;
    const int failure = ::posix_spawn(&pid, request.launchPath.c_str(), setup.actions(), setup.attributes(),
                                      argv.data(), request.environment ? envp.data() : environ);
    if (failure != 0) {
        raiseLaunchFailure(failure == ENOENT || failure == EACCES || failure == ENOEXEC ? "launch path not accessible"
                                                                                        : std::strerror(failure));
    }
    return pid;
}

}  // namespace

// Holds every task whose child may still need reaping and, while there are
// any, looks at them every sweep interval: the launching thread's run loop
// normally reaps a child the moment it ends, but a thread that never runs
// its loop again (or ends) must not leave a zombie behind. Holding the tasks
// is also what keeps a running task alive.
struct Task::Reaper {
    std::mutex mutex;  // guards the fields below
    std::vector<TaskRef> tasks;
    bool sweeping = false;

    static Reaper& shared()
    {
        static auto* reaper = new Reaper;  // never destroyed: its timer may fire while the process exits
        return *reaper;
    }

    void add(TaskRef task)
    {
        std::lock_guard lock(mutex);
        tasks.push_back(std::move(task));
        if (!sweeping) {
            sweeping = true;
            schedule();
        }
    }

    void schedule()
    {
        internal::EventMonitor::shared().addTimer(internal::EventMonitor::Clock::now() + kSweepInterval, kSweepInterval / 2, [this] { sweep(); });
    }

    void sweep()
    {
        std::vector<TaskRef> current;
        {
            std::lock_guard lock(mutex);
            current = tasks;
        }
        for (const auto& task : current) {
            task->reapIfEnded();
        }
        std::vector<TaskRef> released;  // dropped outside the lock
        std::lock_guard lock(mutex);
        for (auto& task : tasks) {
            if (!task->isRunning()) {
                released.push_back(std::move(task));
            }
        }
        std::erase(tasks, nullptr);
        sweeping = !tasks.empty();
        if (sweeping) {
            schedule();
        }
    }
};

Task::~Task()
{
    if (pidfd_ >= 0) {
        ::close(pidfd_);
    }
}

TaskRef Task::create()
{
    return makeObject<Task>();
}

std::optional<std::string> Task::launchPath() const
{
    return copyUnder(mutex_, launchPath_);
}

void Task::setLaunchPath(std::optional<std::string> path)
{
    storeUnder(mutex_, launchPath_, std::move(path));
}

std::vector<std::string> Task::arguments() const
{
    return copyUnder(mutex_, arguments_);
}

void Task::setArguments(std::vector<std::string> arguments)
{
    storeUnder(mutex_, arguments_, std::move(arguments));
}

std::optional<Dictionary> Task::environment() const
{
    return copyUnder(mutex_, environment_);
}

void Task::setEnvironment(std::optional<Dictionary> environment)
{
    storeUnder(mutex_, environment_, std::move(environment));
}

std::optional<std::string> Task::currentDirectoryPath() const
{
    return copyUnder(mutex_, currentDirectoryPath_);
}

void Task::setCurrentDirectoryPath(std::optional<std::string> path)
{
    storeUnder(mutex_, currentDirectoryPath_, std::move(path));
}

ObjectRef Task::standardInput() const
{
    return copyUnder(mutex_, standardInput_);
}

void Task::setStandardInput(ObjectRef stream)
{
    checkStream(stream);
    storeUnder(mutex_, standardInput_, std::move(stream));
}

ObjectRef Task::standardOutput() const
{
    return copyUnder(mutex_, standardOutput_);
}

void Task::setStandardOutput(ObjectRef stream)
{
    checkStream(stream);
    storeUnder(mutex_, standardOutput_, std::move(stream));
}

ObjectRef Task::standardError() const
{
    return copyUnder(mutex_, standardError_);
}

void Task::setStandardError(ObjectRef stream)
{
    checkStream(stream);
    storeUnder(mutex_, standardError_, std::move(stream));
}

Task::TerminationHandler Task::terminationHandler() const
{
    return copyUnder(mutex_, terminationHandler_);
}

void Task::setTerminationHandler(TerminationHandler handler)
{
    storeUnder(mutex_, terminationHandler_, std::move(handler));
}

void Task::launch()
{
    std::unique_lock lock(mutex_);
    checkLaunchable();
    const ChildStream streams[3] = {childStream(standardInput_, true), childStream(standardOutput_, false),
                                    childStream(standardError_, false)};
    const pid_t pid = spawnChild({*launchPath_, arguments_, environment_, currentDirectoryPath_}, streams);
    launched_ = true;
    pid_ = pid;
    pidfd_ = openProcessDescriptor(pid);
    const int pidfd = pidfd_;
    const auto loop = RunLoop::currentRunLoop();
    launchLoop_ = loop;
    lock.unlock();

    for (const auto& stream : streams) {
        if (stream.parentCopy) {
            stream.parentCopy->closeFile();
        }
    }
    if (pidfd >= 0) {
        watchProcessDescriptor(loop, pidfd);
    } else {
        waitOnThread(loop, pid);
    }
}

void Task::checkLaunchable() const
{
    if (launched_) {
        raiseLaunchFailure("task already launched");
    }
    if (!launchPath_) {
        raiseLaunchFailure("must provide a launch path");
    }
    if (::access(launchPath_->c_str(), X_OK) != 0) {
        raiseLaunchFailure("launch path not accessible");
    }
    struct stat directory {};
    if (currentDirectoryPath_ && (::stat(currentDirectoryPath_->c_str(), &directory) != 0 || !S_ISDIR(directory.st_mode))) {
        raiseLaunchFailure("working directory doesn't exist.");
    }
}

void Task::watchProcessDescriptor(const std::shared_ptr<RunLoop>& loop, int pidfd)
{
    // The launching loop watches the process descriptor itself, so the
    // thread that posts the notification is woken by the child's end
    // directly. Until it has posted, the source keeps the loop non-empty.
    const auto self = std::static_pointer_cast<Task>(shared_from_this());
    const std::weak_ptr<RunLoop> weakLoop = loop;
    auto cell = std::make_shared<std::weak_ptr<FileDescriptorSource>>();
    const auto source = FileDescriptorSource::create(pidfd, FileDescriptorSource::Readable, [self, cell, weakLoop](int, unsigned) {
        self->reapIfEnded();
        if (self->isRunning()) {
            return;
        }
        if (const auto watched = cell->lock()) {
            watched->invalidate();
            if (const auto launching = weakLoop.lock()) {
                launching->removeFileDescriptorSource(watched, NSRunLoopCommonModes);
            }
        }
        self->postTermination();
    });
    *cell = source;
    loop->addFileDescriptorSource(source, NSRunLoopCommonModes);
    // The reaper sweeps as well, so that no zombie is left behind when
    // the launching thread does not run its loop again.
    Reaper::shared().add(self);
}

void Task::waitOnThread(const std::shared_ptr<RunLoop>& loop, int pid)
{
    // No process descriptors: a thread waits for the child and signals a
    // source of the launching loop, which posts.
    const auto self = std::static_pointer_cast<Task>(shared_from_this());
    const std::weak_ptr<RunLoop> weakLoop = loop;
    auto cell = std::make_shared<std::weak_ptr<RunLoopSource>>();
    const auto source = RunLoopSource::create([self, cell, weakLoop] {
        if (const auto launching = weakLoop.lock(); launching && !cell->expired()) {
            launching->removeSource(cell->lock(), NSRunLoopCommonModes);
        }
        self->postTermination();
    });
    *cell = source;
    loop->addSource(source, NSRunLoopCommonModes);
    std::thread([self, source, pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        self->recordEnd(status);
        source->signal();
    }).detach();
}

void Task::reapIfEnded()
{
    int status = 0;
    {
        // Under the lock, so that of the threads that notice the end only
        // one reaps the child.
        std::lock_guard lock(mutex_);
        if (terminated_ || ::waitpid(pid_, &status, WNOHANG) != pid_) {
            return;
        }
    }
    recordEnd(status);
}

void Task::recordEnd(int status)
{
    TerminationHandler handler;
    {
        std::lock_guard lock(mutex_);
        status_ = status;
        terminated_ = true;
        handler = terminationHandler_;
        ended_.notify_all();
    }
    if (handler) {
        internal::WorkerPool::shared().submit([self = std::static_pointer_cast<Task>(shared_from_this()), handler] { handler(*self); });
    }
}

void Task::postTermination()
{
    NotificationCenter::defaultCenter()->postNotificationName(std::string(NSTaskDidTerminateNotification),
                                                            std::static_pointer_cast<Task>(shared_from_this()));
    std::lock_guard lock(mutex_);
    notified_ = true;
    ended_.notify_all();
}

void Task::signalChild(int signal)
{
    std::lock_guard lock(mutex_);
    if (!launched_ || terminated_) {
        return;
    }
    if (pidfd_ >= 0) {
        ::syscall(SYS_pidfd_send_signal, pidfd_, signal, nullptr, 0);
    } else {
        ::kill(pid_, signal);
    }
}

void Task::interrupt()
{
    signalChild(SIGINT);
}

void Task::terminate()
{
    signalChild(SIGTERM);
}

void Task::waitUntilExit()
{
    std::shared_ptr<RunLoop> launching;
    {
        std::lock_guard lock(mutex_);
        if (!launched_) {
            return;
        }
        launching = launchLoop_.lock();
    }
    if (launching && launching == RunLoop::currentRunLoop()) {
        const Date distantFuture = Date::now().dateByAddingTimeInterval(1e9);
        for (;;) {
            {
                std::lock_guard lock(mutex_);
                if (terminated_ && notified_) {
                    return;
                }
            }
            launching->runModeBeforeDate(NSDefaultRunLoopMode, distantFuture);
        }
    }
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return terminated_; });
}

bool Task::isRunning() const
{
    std::lock_guard lock(mutex_);
    return launched_ && !terminated_;
}

int Task::processIdentifier() const
{
    return copyUnder(mutex_, pid_);
}

int Task::terminationStatus() const
{
    std::lock_guard lock(mutex_);
    if (!launched_) {
        raiseNotEnded("not launched");
    }
    if (!terminated_) {
        raiseNotEnded("still running");
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : WTERMSIG(status_);
}

Task::TerminationReason Task::terminationReason() const
{
    std::lock_guard lock(mutex_);
    if (!launched_ || !terminated_) {
        raiseNotEnded(launched_ ? "still running" : "not launched");
    }
    return WIFSIGNALED(status_) ? TerminationReason::UncaughtSignal : TerminationReason::Exit;
}

}  // namespace platform
