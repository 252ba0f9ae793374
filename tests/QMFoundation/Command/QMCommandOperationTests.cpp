#include "QMFoundation/Command/QMCommandOperation.h"

#include "Platform/Foundation/OperationQueue.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"
#include "tests/Support/RunProgram.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <mutex>
#include <thread>

using platform::Data;
using testsupport::Signal;

namespace {

std::string text(const Data& data)
{
    return std::string(data.begin(), data.end());
}

// Records what a command tells its delegate, in order, and where.
class RecordingDelegate final : public QMCommandOperationDelegate {
public:
    void commandDidFailToLaunch(QMCommandOperation&) override { record("failed"); }
    void commandDidTerminate(QMCommandOperation&) override
    {
        record("terminated");
        std::lock_guard lock(mutex_);
        terminatedOn_ = std::this_thread::get_id();
    }
    void commandDidReceiveStandardOutputData(QMCommandOperation&, const Data& data) override
    {
        enterData();
        std::lock_guard lock(mutex_);
        output_ += text(data);
        events_.emplace_back("out");
        dataThreads_.push_back(std::this_thread::get_id());
        leaveData();
        outputArrived.raise();
    }
    void commandDidReceiveStandardErrorData(QMCommandOperation&, const Data& data) override
    {
        enterData();
        std::lock_guard lock(mutex_);
        error_ += text(data);
        events_.emplace_back("err");
        leaveData();
    }

    std::vector<std::string> events() const
    {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::string output() const
    {
        std::lock_guard lock(mutex_);
        return output_;
    }
    std::string error() const
    {
        std::lock_guard lock(mutex_);
        return error_;
    }
    std::thread::id terminatedOn() const
    {
        std::lock_guard lock(mutex_);
        return terminatedOn_;
    }
    bool dataOverlapped() const { return overlapped_.load(); }
    // Adds an event told by someone else (a subclass's hook) to the same record.
    void record(const char* event)
    {
        std::lock_guard lock(mutex_);
        events_.emplace_back(event);
    }

    Signal outputArrived;

private:
    void enterData()
    {
        if (++inData_ != 1) {
            overlapped_.store(true);
        }
    }
    void leaveData() { --inData_; }

    mutable std::mutex mutex_;
    std::vector<std::string> events_;
    std::string output_;
    std::string error_;
    std::thread::id terminatedOn_;
    std::vector<std::thread::id> dataThreads_;
    std::atomic<int> inData_{0};
    std::atomic<bool> overlapped_{false};
};

// A subclass whose hooks note themselves in its delegate's record, so that
// their order against the delegate's callbacks shows, and remember what they
// saw of the command when they ran.
class HookedCommand final : public QMCommandOperation {
public:
    struct Call {
        std::string hook;
        std::thread::id thread;
        bool executing;
        bool finished;
        bool hasTask;
        std::int64_t exitCode;
        bool hasOutputData;
    };

    static std::shared_ptr<HookedCommand> create(const std::string& launchPath, Arguments arguments,
                                                 const std::shared_ptr<RecordingDelegate>& delegate)
    {
        return platform::makeObject<HookedCommand>(launchPath, std::move(arguments), delegate);
    }

    std::vector<Call> calls() const
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

protected:
    void commandWillExecute() override { note("willExecute"); }
    void commandDidFailToLaunch() override { note("didFailToLaunch"); }
    void commandDidTerminate() override { note("didTerminate"); }

private:
    template <class> friend struct platform::ObjectAllocator;
    HookedCommand(const std::string& launchPath, Arguments arguments, const std::shared_ptr<RecordingDelegate>& delegate)
        : QMCommandOperation(launchPath, std::nullopt, std::move(arguments), delegate), recorder_(delegate)
    {
    }

    void note(const char* hook)
    {
        recorder_->record(hook);
        Call call{hook,        std::this_thread::get_id(), isExecuting(), isFinished(), task() != nullptr,
                  exitCode(), standardOutputData().has_value()};
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    const std::shared_ptr<RecordingDelegate> recorder_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

std::shared_ptr<QMCommandOperation> shellCommand(const std::string& script,
                                                 const std::shared_ptr<RecordingDelegate>& delegate = nullptr)
{
    return QMCommandOperation::commandWithLaunchPath("/bin/sh", {"-c", script}, delegate);
}

std::string numbers(int from, int to)
{
    std::string lines;
    for (int number = from; number <= to; ++number) {
        lines += std::to_string(number) + "\n";
    }
    return lines;
}

TEST(QMCommandOperation, ASilentProgramYieldsEmptyDataAndOnlyTheEnd)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = QMCommandOperation::commandWithLaunchPath("/bin/true", {}, delegate);
    EXPECT_FALSE(command->standardOutputData());
    command->start();
    EXPECT_EQ(command->exitCode(), 0);
    ASSERT_TRUE(command->standardOutputData() && command->standardErrorData());
    EXPECT_TRUE(command->standardOutputData()->empty());
    EXPECT_TRUE(command->standardErrorData()->empty());
    EXPECT_EQ(delegate->events(), std::vector<std::string>{"terminated"});
    EXPECT_EQ(delegate->terminatedOn(), std::this_thread::get_id()) << "the end is told on the operation's thread";
    EXPECT_TRUE(command->isFinished());
    EXPECT_FALSE(command->isExecuting());
    EXPECT_TRUE(command->isTaskTerminated());
    EXPECT_EQ(command->task(), nullptr);
    EXPECT_EQ(command->taskObserver(), nullptr);
    EXPECT_TRUE(command->keyPathObservers().empty());
}

TEST(QMCommandOperation, LoudOutputOnBothStreamsArrivesWholeInOrderBeforeTheEnd)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    // Both streams interleaved, each far beyond a pipe's buffer, then a status.
    const auto command = shellCommand("seq 1 60000 & seq 1 40000 >&2; wait; exit 5", delegate);
    command->start();
    const auto expectedOutput = numbers(1, 60000);
    const auto expectedError = numbers(1, 40000);
    EXPECT_EQ(command->exitCode(), 5);
    ASSERT_TRUE(command->standardOutputData() && command->standardErrorData());
    EXPECT_EQ(text(*command->standardOutputData()), expectedOutput);
    EXPECT_EQ(text(*command->standardErrorData()), expectedError);
    EXPECT_EQ(delegate->output(), expectedOutput);
    EXPECT_EQ(delegate->error(), expectedError);
    const auto events = delegate->events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "terminated");
    EXPECT_EQ(std::count(events.begin(), events.end(), "terminated"), 1);
    EXPECT_FALSE(delegate->dataOverlapped()) << "chunks are handed over one at a time";
}

TEST(QMCommandOperation, OutputThatOutlivesTheProgramIsReadAfterItsEnd)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    // The shell ends at once; a child it leaves behind still holds the pipes
    // and writes later, so the rest is read after the end was noticed.
    const auto command = shellCommand("(sleep 0.2; printf late; printf later >&2) & exit 0", delegate);
    command->start();
    EXPECT_EQ(delegate->output(), "late");
    EXPECT_EQ(delegate->error(), "later");
    EXPECT_EQ(text(command->standardOutputData().value_or(Data{})), "late");
    EXPECT_EQ(delegate->events().back(), "terminated");
}

TEST(QMCommandOperation, AMissingProgramFailsToLaunchAndFinishes)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = QMCommandOperation::commandWithLaunchPath("/nonexistent/zarvo-tool", {"x"}, delegate);
    command->start();
    EXPECT_EQ(delegate->events(), std::vector<std::string>{"failed"});
    EXPECT_EQ(command->exitCode(), -1);
    EXPECT_TRUE(command->isFinished());
    EXPECT_FALSE(command->isExecuting());
    EXPECT_EQ(command->task(), nullptr);
    EXPECT_FALSE(command->standardOutputData());
}

TEST(QMCommandOperation, RunningSynchronouslyTurnsAFailureIntoAnError)
{
    platform::ErrorRef error;
    EXPECT_FALSE(QMCommandOperation::runCommandWithLaunchPath("/bin/sh", {"-c", "printf boom >&2; exit 2"}, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "QMCommandOperation");
    EXPECT_EQ(error->code(), 2);
    EXPECT_EQ(error->localizedFailureReason(), "boom");

    platform::ErrorRef untouched;
    EXPECT_TRUE(QMCommandOperation::runCommandWithLaunchPath("/bin/sh", {"-c", "exit 0"}, &untouched));
    EXPECT_EQ(untouched, nullptr);

    // Standard error that is not UTF-8 is left out of the error.
    EXPECT_FALSE(QMCommandOperation::runCommandWithLaunchPath("/bin/sh", {"-c", "printf '\\377' >&2; exit 1"}, &error));
    EXPECT_EQ(error->code(), 1);
    EXPECT_FALSE(error->localizedFailureReason());

    EXPECT_FALSE(QMCommandOperation::runCommandWithLaunchPath("/nonexistent/zarvo-tool", {}, &error));
    EXPECT_EQ(error->code(), -1);

    testsupport::TemporaryDirectory directory;
    EXPECT_TRUE(QMCommandOperation::runCommandWithLaunchPath("/bin/sh", directory.path(), {"-c", "test -d . && : > made"}));
    EXPECT_EQ(::access((directory.path() + "/made").c_str(), F_OK), 0) << "the working directory was not used";
}

TEST(QMCommandOperation, GivesTheProgramItsEnvironmentAndInput)
{
    const auto command = shellCommand("printf '%s/' \"$ZARVO_COMMAND_TEST\"; cat");
    command->setValue("set here", "ZARVO_COMMAND_TEST");
    EXPECT_EQ(command->environment().get("ZARVO_COMMAND_TEST"), platform::Value("set here"));
    const auto input = platform::Pipe::create();
    command->setStandardInput(input);
    input->fileHandleForWriting()->writeData(Data{'i', 'n'});
    input->fileHandleForWriting()->closeFile();
    command->start();
    EXPECT_EQ(text(command->standardOutputData().value_or(Data{})), "set here/in");
}

TEST(QMCommandOperation, CancellingARunningCommandInterruptsItAndEndsAsUsual)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = shellCommand("echo ready; exec sleep 60", delegate);
    const auto queue = platform::OperationQueue::create();
    queue->addOperation(command);
    ASSERT_TRUE(delegate->outputArrived.wait()) << "the program did not start";
    command->cancel();
    command->waitUntilFinished();
    EXPECT_EQ(command->exitCode(), SIGINT);
    EXPECT_EQ(delegate->events().back(), "terminated");
    EXPECT_NE(delegate->terminatedOn(), std::this_thread::get_id()) << "a queue's thread ran the operation";
}

TEST(QMCommandOperation, CancelledBeforeItBeginsItDoesNothing)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = HookedCommand::create("/bin/true", {}, delegate);
    command->cancel();
    command->start();
    EXPECT_TRUE(command->isFinished());
    EXPECT_TRUE(delegate->events().empty());
    EXPECT_TRUE(command->calls().empty()) << "no hook runs either";
    EXPECT_EQ(command->exitCode(), 0);
    EXPECT_FALSE(command->standardOutputData());
}

TEST(QMCommandOperation, ALaunchPathIsRequired)
{
    const auto failure = testsupport::captureAssertion([] { QMCommandOperation::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: launchPath != nil");
    EXPECT_EQ(failure.file, "QMFoundation/QMCommandOperation");
}

TEST(QMCommandOperation, DescribesItsCallAndItself)
{
    EXPECT_EQ(QMCommandOperation::commandWithLaunchPath("/bin/echo", {"a", "b"})->commandCall(), "/bin/echo a b");
    EXPECT_EQ(QMCommandOperation::commandWithLaunchPath("/bin/echo", {})->commandCall(), "/bin/echo ");
    const auto command = QMCommandOperation::commandWithLaunchPath("/bin/echo", {"hi"});
    EXPECT_EQ(command->identifier().size(), 36U);
    command->start();
    const auto description = command->description();
    EXPECT_NE(description.find("QMCommandOperation <0x"), std::string::npos);
    EXPECT_NE(description.find("launchPath: /bin/echo, workingDirectory: (null), arguments: "), std::string::npos);
    // The collected output moved to the data properties; the buffers were replaced.
    EXPECT_NE(description.find("exitCode: 0, environment: "), std::string::npos);
    EXPECT_NE(description.find(", standardOutput: , standardError:  }"), std::string::npos) << description;
    EXPECT_EQ(text(command->standardOutputData().value_or(Data{})), "hi\n");
}

TEST(QMCommandOperation, AnnouncesItsStateUnderItsOwnKeysOnly)
{
    const auto command = QMCommandOperation::commandWithLaunchPath("/bin/true", {});
    const auto recorder = testsupport::ChangeRecorder::create();
    const std::vector<std::string> keys{"isExecuting", "isFinished", "executingValue", "finishedValue"};
    for (const auto& key : keys) {
        command->addObserver(recorder, key, platform::NSKeyValueObservingOptionNew);
    }
    command->start();
    EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"executingValue=1", "executingValue=0", "finishedValue=1"}));
    for (const auto& key : keys) {
        command->removeObserver(*recorder, key);
    }
}

TEST(QMCommandOperationHooks, FrameARunOnTheOperationsThreadAroundEveryDelegateCallback)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = HookedCommand::create("/bin/sh", {"-c", "printf x; exit 3"}, delegate);
    command->start();
    EXPECT_EQ(delegate->events(), (std::vector<std::string>{"willExecute", "out", "didTerminate", "terminated"}));
    const auto calls = command->calls();
    ASSERT_EQ(calls.size(), 2U);

    const auto& willExecute = calls[0];
    EXPECT_EQ(willExecute.thread, std::this_thread::get_id());
    EXPECT_TRUE(willExecute.executing) << "the hook runs once the command is executing";
    EXPECT_FALSE(willExecute.finished);
    EXPECT_FALSE(willExecute.hasTask) << "the hook runs before the program is set up";

    const auto& didTerminate = calls[1];
    EXPECT_EQ(didTerminate.thread, std::this_thread::get_id());
    EXPECT_FALSE(didTerminate.executing);
    EXPECT_TRUE(didTerminate.finished) << "the hook runs once the command has finished";
    EXPECT_FALSE(didTerminate.hasTask);
    EXPECT_EQ(didTerminate.exitCode, 3) << "the hook sees the program's status";
    EXPECT_TRUE(didTerminate.hasOutputData) << "the hook sees the collected output";
}

TEST(QMCommandOperationHooks, RunOnTheQueuesThreadWhenAQueueRunsTheCommand)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = HookedCommand::create("/bin/true", {}, delegate);
    const auto queue = platform::OperationQueue::create();
    queue->addOperation(command);
    command->waitUntilFinished();
    EXPECT_EQ(delegate->events(), (std::vector<std::string>{"willExecute", "didTerminate", "terminated"}));
    const auto calls = command->calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].thread, delegate->terminatedOn()) << "both hooks and the end share the operation's thread";
    EXPECT_EQ(calls[1].thread, delegate->terminatedOn());
}

TEST(QMCommandOperationHooks, AProgramThatCannotStartGetsTheFailureHookBeforeTheDelegate)
{
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto command = HookedCommand::create("/nonexistent/zarvo-tool", {}, delegate);
    command->start();
    EXPECT_EQ(delegate->events(), (std::vector<std::string>{"willExecute", "didFailToLaunch", "failed"}));
    const auto calls = command->calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[1].thread, std::this_thread::get_id());
    EXPECT_TRUE(calls[1].finished);
    EXPECT_EQ(calls[1].exitCode, -1) << "the hook sees the failed launch's exit code";
}

TEST(QMCommandOperation, ManyCommandsAtOnceEachKeepTheirOwnOutput)
{
    const auto queue = platform::OperationQueue::create();
    queue->setMaxConcurrentOperationCount(6);
    std::vector<std::shared_ptr<QMCommandOperation>> commands;
    for (int index = 0; index < 12; ++index) {
        commands.push_back(shellCommand("seq " + std::to_string(index) + " 3000; exit " + std::to_string(index)));
        queue->addOperation(commands.back());
    }
    queue->waitUntilAllOperationsAreFinished();
    for (int index = 0; index < 12; ++index) {
        const auto& command = commands[static_cast<std::size_t>(index)];
        EXPECT_EQ(command->exitCode(), index);
        EXPECT_EQ(text(command->standardOutputData().value_or(Data{})), numbers(index, 3000));
    }
}

}  // namespace
