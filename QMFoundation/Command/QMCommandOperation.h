// QMCommandOperation: one external program run as an operation, its output
// collected while it runs and handed to a delegate, its exit code recorded.
//
//   platform::ErrorRef error;
//   if (!QMCommandOperation::runCommandWithLaunchPath("/bin/ln", {"-s", target, link}, &error)) {
//       ... error->code() is the exit code, its failure reason the program's standard error ...
//   }
//
// Contract (what runs where, in which order):
// - The operation is not concurrent: `main` runs on the thread that called
//   `start` (the caller's for the synchronous class operations, a worker of
//   an operation queue otherwise) and blocks it until the program has ended,
//   running that thread's run loop in the default mode in slices of at most
//   0.01 seconds (the program's end is announced through that loop).
// - Chunks of both streams are appended and passed to the delegate on the
//   operation's serial `fileHandleNotificationQueue`, one at a time, in the
//   order they were read.
// - The end is handled on the serial `taskNotificationQueue`: the readers are
//   stopped, every chunk already read is delivered, the rest of each stream
//   is read to its end and delivered; then the data properties, the exit
//   code and the end flag are set in one step. So every data callback comes
//   before `commandDidTerminate:`, and no byte is lost or reordered.
//   (The pumping thread services both queues while it pumps, so chunks and
//   the end are usually handled on it; the queues' order is what is promised.)
// - `commandDidTerminate:` and `commandDidFailToLaunch:` run on the
//   operation's own thread, after the operation has finished; exactly one of
//   them is sent, unless the operation was cancelled before it began (then
//   neither, and no hook runs).
// - The hooks run on the operation's thread too: `commandWillExecute` once
//   the operation is executing, before the program is set up;
//   `commandDidTerminate` and `commandDidFailToLaunch` after it has
//   finished, each just before the delegate's method of the same name.
// - Cancelling while the program runs interrupts it (SIGINT); the end then
//   follows the usual path with the status the program reports.
// - State changes are announced under the keys "executingValue" and
//   "finishedValue", never under "isExecuting" or "isFinished".
// - Not promised: how output is cut into chunks.
//
// State and its owners. What callers set (the delegate, identifier, launch
// settings, modes and pipes) is guarded by one lock, and read in one go when
// the program is set up. Everything a run changes (the task, the two
// streams, the end results, the executing, finished and end flags, the
// observations) is guarded by a second lock. The two serial queues order the
// work on that state (chunks in arrival order, the end after every chunk);
// they own no state of their own. Every accessor may be called from any
// thread, the delegate's callbacks and the hooks included.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/Guarded.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Operation.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/Pipe.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Task.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMCommandOperation;

// The delegate of a command. Every method is optional (an empty default).
// The two data methods share the selector's first keyword, so their C++ names
// keep the second one as well.
class QMCommandOperationDelegate {
public:
    virtual ~QMCommandOperationDelegate() = default;

    virtual void commandDidFailToLaunch(QMCommandOperation& command) { static_cast<void>(command); }
    virtual void commandDidTerminate(QMCommandOperation& command) { static_cast<void>(command); }
    virtual void commandDidReceiveStandardOutputData(QMCommandOperation& command, const platform::Data& data)
    {
        static_cast<void>(command);
        static_cast<void>(data);
    }
    virtual void commandDidReceiveStandardErrorData(QMCommandOperation& command, const platform::Data& data)
    {
        static_cast<void>(command);
        static_cast<void>(data);
    }
};

class QMCommandOperation : public platform::Operation {
public:
    using Delegate = std::weak_ptr<QMCommandOperationDelegate>;
    using Arguments = std::vector<std::string>;

    ~QMCommandOperation() override;

    // Creation. A missing launch path fails the parameter assertion
    // "launchPath != nil"; `create()` gives none and so always fails it.
    static std::shared_ptr<QMCommandOperation> create();
    static std::shared_ptr<QMCommandOperation> create(std::optional<std::string> launchPath,
                                                      std::optional<std::string> workingDirectory, Arguments arguments,
                                                      Delegate delegate = {});
    static std::shared_ptr<QMCommandOperation> commandWithLaunchPath(std::optional<std::string> launchPath,
                                                                     Arguments arguments, Delegate delegate = {});
    static std::shared_ptr<QMCommandOperation> commandWithLaunchPath(std::optional<std::string> launchPath,
                                                                     std::optional<std::string> workingDirectory,
                                                                     Arguments arguments, Delegate delegate = {});

    // Runs the command on the calling thread; true when it exited with 0.
    // Otherwise the error (domain "QMCommandOperation", code = exit code, -1
    // when it could not start) carries the program's standard error as its
    // failure reason when that is UTF-8.
    [[nodiscard]] static bool runCommandWithLaunchPath(const std::string& launchPath, Arguments arguments,
                                         platform::ErrorRef* error = nullptr);
    [[nodiscard]] static bool runCommandWithLaunchPath(const std::string& launchPath, std::optional<std::string> workingDirectory,
                                         Arguments arguments, platform::ErrorRef* error = nullptr);

    // --- Properties
    Delegate delegate() const;
    void setDelegate(Delegate delegate);
    std::string identifier() const;
    void setIdentifier(std::string identifier);
    std::optional<std::string> launchPath() const;
    void setLaunchPath(std::optional<std::string> launchPath);
    std::optional<std::string> workingDirectory() const;
    void setWorkingDirectory(std::optional<std::string> workingDirectory);
    // Kept, but the run loop is always run in the default mode.
    std::vector<std::string> modes() const;
    void setModes(std::vector<std::string> modes);
    Arguments arguments() const;
    void setArguments(Arguments arguments);
    // At creation, a copy of this process's environment.
    platform::Dictionary environment() const;
    void setEnvironment(platform::Dictionary environment);
    // A FileHandle or Pipe for the program's input; nothing: the null device.
    platform::ObjectRef standardInput() const;
    void setStandardInput(platform::ObjectRef standardInput);
    // Kept, but the program always gets fresh pipes of its own.
    platform::PipeRef standardOutput() const;
    void setStandardOutput(platform::PipeRef pipe);
    platform::PipeRef standardError() const;
    void setStandardError(platform::PipeRef pipe);

    // Set once the program has ended; nothing before.
    std::optional<platform::Data> standardOutputData() const;
    std::optional<platform::Data> standardErrorData() const;
    // The termination status, -1 after a failed launch, 0 before the end.
    std::int64_t exitCode() const;
    platform::TaskRef task() const;
    platform::Data standardOutputBuffer() const;
    platform::Data standardErrorBuffer() const;
    bool isStandardOutputClosed() const;
    bool isStandardErrorClosed() const;
    bool isTaskTerminated() const;
    std::vector<std::string> keyPathObservers() const;
    bool executingValue() const;
    bool finishedValue() const;
    platform::FileHandleRef standardOutputFileHandle() const;
    platform::FileHandleRef standardErrorFileHandle() const;
    const platform::OperationQueueRef& taskNotificationQueue() const { return taskNotificationQueue_; }
    const platform::OperationQueueRef& fileHandleNotificationQueue() const { return fileHandleNotificationQueue_; }
    platform::ObjectRef taskObserver() const;

    // --- Other operations
    // Replaces the environment by a copy with `name` set to `value`.
    void setValue(const std::string& value, const std::string& forEnvironmentVariable);
    // "launchPath arg1 arg2 ..." (with a trailing blank when there are no arguments).
    std::string commandCall() const;
    std::string description() const override;

    // --- Operation
    void start() override;
    void main() override;
    bool isExecuting() const override { return executingValue(); }
    bool isFinished() const override { return finishedValue(); }
    const platform::PropertyTable& propertyTable() const override;
    bool automaticallyNotifiesObserversForKey(std::string_view key) const override;
    void observeValueForKeyPath(const std::string& keyPath, const platform::ObjectRef& object,
                                const platform::Dictionary& change, void* context) override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMCommandOperation(std::optional<std::string> launchPath, std::optional<std::string> workingDirectory,
                       Arguments arguments, Delegate delegate);

    // Hooks for subclasses; empty here.
    virtual void commandWillExecute() {}
    virtual void commandDidFailToLaunch() {}
    virtual void commandDidTerminate() {}

    void setExecuting(bool executing);
    void setFinished(bool finished);
    void setExecutingValue(bool executing);
    void setFinishedValue(bool finished);

    // The steps of a run, in the order `main` takes them.
    void initializeTask();
    void registerObservers();
    void unregisterObservers();
    void taskDidTerminate(const platform::Notification& notification);
    void taskDidFailToLaunch();
    void operationDidCancel();
    void operationDidFinish();
    void finishOperation();
    void appendStandardOutputData(const platform::Data& data);
    void appendStandardErrorData(const platform::Data& data);

private:
    enum class Stream { Output, Error };
    struct StreamState {
        platform::Data buffer;
        bool closed = false;
        std::weak_ptr<platform::FileHandle> fileHandle;
    };

    // What callers set; see "State and its owners" above.
    struct Settings {
        Delegate delegate;
        std::string identifier;
        std::optional<std::string> launchPath;
        std::optional<std::string> workingDirectory;
        std::vector<std::string> modes;
        Arguments arguments;
        platform::Dictionary environment;
        platform::ObjectRef standardInput;
        platform::PipeRef standardOutput;
        platform::PipeRef standardError;
    };

    // What a run changes; see "State and its owners" above.
    struct RunState {
        platform::TaskRef task;
        StreamState output;
        StreamState error;
        // Whether readability handlers may hand chunks over. A handler reads
        // and hands its chunk over with the lock held, so once the end
        // handling has cleared this no chunk can follow the rest it reads.
        bool readersActive = false;
        platform::ObjectRef taskObserver;
        std::vector<std::string> keyPathObservers;
        bool executing = false;
        bool finished = false;
        std::optional<platform::Data> standardOutputData;
        std::optional<platform::Data> standardErrorData;
        std::int64_t exitCode = 0;
        bool taskTerminated = false;  // set with the results, in the same locked step

        StreamState& of(Stream stream) { return stream == Stream::Output ? output : error; }
        const StreamState& of(Stream stream) const { return stream == Stream::Output ? output : error; }
    };

    [[nodiscard]] bool launchTask();
    void appendData(Stream stream, const platform::Data& data);
    void closeStream(Stream stream);
    void readabilityChanged(Stream stream, platform::FileHandle& handle);
    void readRestOf(Stream stream);
    void deliverRestOfOutput();
    void recordEnd();
    void stopReaders();
    [[nodiscard]] platform::FileHandleRef fileHandleOf(Stream stream) const;
    template <typename Call>
    void tellDelegate(Call call);

    platform::Guarded<Settings> settings_;
    platform::Guarded<RunState> run_;

    // Made at creation and never replaced, so read without a lock.
    const platform::OperationQueueRef taskNotificationQueue_;
    const platform::OperationQueueRef fileHandleNotificationQueue_;
    // Signalled when the end has been handled, and when either queue has an
    // operation due. While it is in the pumping loop that loop is never
    // empty, and its signal ends the current slice at once.
    const platform::RunLoopSourceRef endHandled_;
};
