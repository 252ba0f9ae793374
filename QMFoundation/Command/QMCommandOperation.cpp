#include "QMFoundation/Command/QMCommandOperation.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"
#include "QMFoundation/Objects/NSOperationQueue+QMFoundation.h"
#include "QMFoundation/Objects/NSOperationQueue+QMPerformBlock.h"
#include "QMFoundation/Strings/NSData+QMStringDecoding.h"
#include "QMFoundation/Strings/NSString+QMUniqueIdentifier.h"

extern char** environ;

using platform::Data;
using platform::Dictionary;
using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMCommandOperation";
constexpr const char* kErrorDomain = "QMCommandOperation";
constexpr const char* kCancelledKey = "isCancelled";

// Tells the operation's own "isCancelled" observation from anything else.
char cancellationContext;

// The pump's slice: the longest the operation's thread waits before it
// looks at the end flag again.
constexpr double kPumpSlice = 0.01;

Dictionary processEnvironment()
{
    Dictionary environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals != std::string_view::npos) {
            environment.set(text.substr(0, equals), std::string(text.substr(equals + 1)));
        }
    }
    return environment;
}

Value textOf(const Data& data)
{
    return Value(stringUsingBestEncoding(data));
}

// While it lives, the command's serial queues are serviced by the thread
// that made it, which does nothing but wait while the program runs: their
// operations run there, in the queues' order, and no worker thread is woken
// (and handed back from) for each chunk or for the end.
class QueueServicing {
public:
    QueueServicing(std::vector<platform::OperationQueueRef> queues, const platform::RunLoopSourceRef& wake)
        : queues_(std::move(queues))
    {
        for (const auto& queue : queues_) {
            queue->setServicingWaker([wake] { wake->signal(); });
        }
    }
    ~QueueServicing()
    {
        for (const auto& queue : queues_) {
            queue->setServicingWaker(nullptr);  // anything left goes to the worker threads
        }
    }
    QueueServicing(const QueueServicing&) = delete;
    QueueServicing& operator=(const QueueServicing&) = delete;

    // Runs what is due on each queue; true when anything ran.
    [[nodiscard]] bool runPending() const
    {
        bool ran = false;
        for (const auto& queue : queues_) {
            ran = queue->runPendingOperationOnCurrentThread() || ran;
        }
        return ran;
    }

private:
    const std::vector<platform::OperationQueueRef> queues_;
};

// Runs the queues' due operations and the loop in slices until `ended` says
// so, or until the loop has nothing left to run.
template <typename Ended>
void pumpUntil(platform::RunLoop& loop, const QueueServicing& servicing, Ended ended)
{
    while (!ended()) {
        if (servicing.runPending()) {
            continue;
        }
        if (!loop.runModeBeforeDate(platform::NSDefaultRunLoopMode, platform::Date::now().dateByAddingTimeInterval(kPumpSlice))) {
            break;
        }
    }
}

// A failed read ends the stream as end of file would.
template <typename Read>
Data readOrNothing(Read read)
{
    try {
        return read();
    } catch (...) {
        return {};
    }
}

}  // namespace

QMCommandOperation::QMCommandOperation(std::optional<std::string> launchPath, std::optional<std::string> workingDirectory,
                                       Arguments arguments, Delegate delegate)
    : taskNotificationQueue_(serialQueue()),
      fileHandleNotificationQueue_(serialQueue()),
      endHandled_(platform::RunLoopSource::create([] {}))
{
    PLATFORM_PARAMETER_ASSERT(launchPath.has_value(), "launchPath != nil");
    settings_.with([&](Settings& settings) {
        settings.launchPath = std::move(launchPath);
        settings.workingDirectory = std::move(workingDirectory);
        settings.arguments = std::move(arguments);
        settings.delegate = std::move(delegate);
        settings.environment = processEnvironment();
        settings.identifier = uniqueIdentifier();
    });
}

QMCommandOperation::~QMCommandOperation()
{
    try {
        unregisterObservers();
    } catch (const platform::Exception&) {
        // An observation the key-value store already forgot: nothing to undo.
    }
    for (const Stream stream : {Stream::Output, Stream::Error}) {
        if (const auto handle = fileHandleOf(stream)) {
            handle->closeFile();
        }
    }
}

std::shared_ptr<QMCommandOperation> QMCommandOperation::create()
{
    return create(std::nullopt, std::nullopt, {}, {});
}

std::shared_ptr<QMCommandOperation> QMCommandOperation::create(std::optional<std::string> launchPath,
                                                               std::optional<std::string> workingDirectory,
                                                               Arguments arguments, Delegate delegate)
{
    // Destruction hooks (the observation centre's clean-up) run while the command is still whole.
    return platform::makeObject<QMCommandOperation>(std::move(launchPath), std::move(workingDirectory), std::move(arguments),
                                                    std::move(delegate));
}

std::shared_ptr<QMCommandOperation> QMCommandOperation::commandWithLaunchPath(std::optional<std::string> launchPath,
                                                                              Arguments arguments, Delegate delegate)
{
    return create(std::move(launchPath), std::nullopt, std::move(arguments), std::move(delegate));
}

std::shared_ptr<QMCommandOperation> QMCommandOperation::commandWithLaunchPath(std::optional<std::string> launchPath,
                                                                              std::optional<std::string> workingDirectory,
                                                                              Arguments arguments, Delegate delegate)
{
    return create(std::move(launchPath), std::move(workingDirectory), std::move(arguments), std::move(delegate));
}

bool QMCommandOperation::runCommandWithLaunchPath(const std::string& launchPath, Arguments arguments,
                                                  platform::ErrorRef* error)
{
    return runCommandWithLaunchPath(launchPath, std::nullopt, std::move(arguments), error);
}

bool QMCommandOperation::runCommandWithLaunchPath(const std::string& launchPath,
                                                  std::optional<std::string> workingDirectory, Arguments arguments,
                                                  platform::ErrorRef* error)
{
    const auto command = create(launchPath, std::move(workingDirectory), std::move(arguments), {});
    command->start();
    command->waitUntilFinished();
    if (command->exitCode() == 0) {
        return true;
    }
    Dictionary userInfo;
    if (const auto errorData = command->standardErrorData()) {
        if (const auto reason = stringUsingUTF8Encoding(*errorData)) {
            userInfo.set(platform::NSLocalizedFailureReasonErrorKey, *reason);
        }
    }
    platform::setError(error, platform::Error::create(kErrorDomain, command->exitCode(), std::move(userInfo)));
    return false;
}

// --- Properties: what callers set

QMCommandOperation::Delegate QMCommandOperation::delegate() const
{
    return settings_.with([](const Settings& settings) { return settings.delegate; });
}

void QMCommandOperation::setDelegate(Delegate delegate)
{
    settings_.with([&](Settings& settings) { std::swap(settings.delegate, delegate); });
}

std::string QMCommandOperation::identifier() const
{
    return settings_.with([](const Settings& settings) { return settings.identifier; });
}

void QMCommandOperation::setIdentifier(std::string identifier)
{
    settings_.with([&](Settings& settings) { std::swap(settings.identifier, identifier); });
}

std::optional<std::string> QMCommandOperation::launchPath() const
{
    return settings_.with([](const Settings& settings) { return settings.launchPath; });
}

void QMCommandOperation::setLaunchPath(std::optional<std::string> launchPath)
{
    settings_.with([&](Settings& settings) { std::swap(settings.launchPath, launchPath); });
}

std::optional<std::string> QMCommandOperation::workingDirectory() const
{
    return settings_.with([](const Settings& settings) { return settings.workingDirectory; });
}

void QMCommandOperation::setWorkingDirectory(std::optional<std::string> workingDirectory)
{
    settings_.with([&](Settings& settings) { std::swap(settings.workingDirectory, workingDirectory); });
}

std::vector<std::string> QMCommandOperation::modes() const
{
    return settings_.with([](const Settings& settings) { return settings.modes; });
}

void QMCommandOperation::setModes(std::vector<std::string> modes)
{
    settings_.with([&](Settings& settings) { std::swap(settings.modes, modes); });
}

QMCommandOperation::Arguments QMCommandOperation::arguments() const
{
    return settings_.with([](const Settings& settings) { return settings.arguments; });
}

void QMCommandOperation::setArguments(Arguments arguments)
{
    settings_.with([&](Settings& settings) { std::swap(settings.arguments, arguments); });
}

Dictionary QMCommandOperation::environment() const
{
    return settings_.with([](const Settings& settings) { return settings.environment; });
}

void QMCommandOperation::setEnvironment(Dictionary environment)
{
    settings_.with([&](Settings& settings) { std::swap(settings.environment, environment); });
}

platform::ObjectRef QMCommandOperation::standardInput() const
{
    return settings_.with([](const Settings& settings) { return settings.standardInput; });
}

void QMCommandOperation::setStandardInput(platform::ObjectRef standardInput)
{
    settings_.with([&](Settings& settings) { std::swap(settings.standardInput, standardInput); });
}

platform::PipeRef QMCommandOperation::standardOutput() const
{
    return settings_.with([](const Settings& settings) { return settings.standardOutput; });
}

void QMCommandOperation::setStandardOutput(platform::PipeRef pipe)
{
    settings_.with([&](Settings& settings) { std::swap(settings.standardOutput, pipe); });
}

platform::PipeRef QMCommandOperation::standardError() const
{
    return settings_.with([](const Settings& settings) { return settings.standardError; });
}

void QMCommandOperation::setStandardError(platform::PipeRef pipe)
{
    settings_.with([&](Settings& settings) { std::swap(settings.standardError, pipe); });
}

// --- Properties: what a run changes

std::optional<Data> QMCommandOperation::standardOutputData() const
{
    return run_.with([](const RunState& run) { return run.standardOutputData; });
}

std::optional<Data> QMCommandOperation::standardErrorData() const
{
    return run_.with([](const RunState& run) { return run.standardErrorData; });
}

std::int64_t QMCommandOperation::exitCode() const
{
    return run_.with([](const RunState& run) { return run.exitCode; });
}

platform::TaskRef QMCommandOperation::task() const
{
    return run_.with([](const RunState& run) { return run.task; });
}

Data QMCommandOperation::standardOutputBuffer() const
{
    return run_.with([](const RunState& run) { return run.output.buffer; });
}

Data QMCommandOperation::standardErrorBuffer() const
{
    return run_.with([](const RunState& run) { return run.error.buffer; });
}

bool QMCommandOperation::isStandardOutputClosed() const
{
    return run_.with([](const RunState& run) { return run.output.closed; });
}

bool QMCommandOperation::isStandardErrorClosed() const
{
    return run_.with([](const RunState& run) { return run.error.closed; });
}

bool QMCommandOperation::isTaskTerminated() const
{
    return run_.with([](const RunState& run) { return run.taskTerminated; });
}

std::vector<std::string> QMCommandOperation::keyPathObservers() const
{
    return run_.with([](const RunState& run) { return run.keyPathObservers; });
}

bool QMCommandOperation::executingValue() const
{
    return run_.with([](const RunState& run) { return run.executing; });
}

bool QMCommandOperation::finishedValue() const
{
    return run_.with([](const RunState& run) { return run.finished; });
}

platform::FileHandleRef QMCommandOperation::fileHandleOf(Stream stream) const
{
    return run_.with([stream](const RunState& run) { return run.of(stream).fileHandle.lock(); });
}

platform::FileHandleRef QMCommandOperation::standardOutputFileHandle() const
{
    return fileHandleOf(Stream::Output);
}

platform::FileHandleRef QMCommandOperation::standardErrorFileHandle() const
{
    return fileHandleOf(Stream::Error);
}

platform::ObjectRef QMCommandOperation::taskObserver() const
{
    return run_.with([](const RunState& run) { return run.taskObserver; });
}

// Announced outside the lock: observers may read the command's state.
void QMCommandOperation::setExecutingValue(bool executing)
{
    willChangeValueForKey("executingValue");
    run_.with([executing](RunState& run) { run.executing = executing; });
    didChangeValueForKey("executingValue");
}

void QMCommandOperation::setFinishedValue(bool finished)
{
    willChangeValueForKey("finishedValue");
    run_.with([finished](RunState& run) { run.finished = finished; });
    didChangeValueForKey("finishedValue");
}

void QMCommandOperation::setExecuting(bool executing)
{
    if (executingValue() != executing) {
        setExecutingValue(executing);
    }
}

void QMCommandOperation::setFinished(bool finished)
{
    if (finishedValue() != finished) {
        setFinishedValue(finished);
    }
}

bool QMCommandOperation::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    // The executing and finished state is announced under the names of the
    // fields that hold it, and only there.
    if (key == "isExecuting" || key == "isFinished") {
        return false;
    }
    return Operation::automaticallyNotifiesObserversForKey(key);
}

const platform::PropertyTable& QMCommandOperation::propertyTable() const
{
    using Command = QMCommandOperation;
    static const auto table = platform::PropertyTable::extending<Command>(Operation::propertyTable(), {
        {"identifier", [](const Command& command) { return Value(command.identifier()); }},
        {"launchPath", [](const Command& command) { return Value(command.launchPath()); }},
        {"workingDirectory", [](const Command& command) { return Value(command.workingDirectory()); }},
        {"arguments",
         [](const Command& command) {
             platform::Array arguments;
             for (const auto& argument : command.arguments()) {
                 arguments.emplace_back(argument);
             }
             return Value(std::move(arguments));
         }},
        {"environment", [](const Command& command) { return Value(command.environment()); }},
        {"exitCode", [](const Command& command) { return Value(command.exitCode()); }},
        {"executingValue", [](const Command& command) { return Value(command.executingValue()); }},
        {"finishedValue", [](const Command& command) { return Value(command.finishedValue()); }},
        {"taskTerminated", [](const Command& command) { return Value(command.isTaskTerminated()); }},
    });
    return table;
}

// --- Other operations

void QMCommandOperation::setValue(const std::string& value, const std::string& forEnvironmentVariable)
{
    settings_.with([&](Settings& settings) { settings.environment.set(forEnvironmentVariable, value); });
}

std::string QMCommandOperation::commandCall() const
{
    return settings_.with([](const Settings& settings) {
        std::string joined;
        for (std::size_t index = 0; index < settings.arguments.size(); ++index) {
            if (index > 0) {
                joined += ' ';
            }
            joined += settings.arguments[index];
        }
        return settings.launchPath.value_or("(null)") + " " + joined;
    });
}

std::string QMCommandOperation::description() const
{
    const platform::Array items{
        "launchPath",
        "workingDirectory",
        "arguments",
        "exitCode",
        "environment",
        Dictionary{{"standardOutput", textOf(standardOutputBuffer())}},
        Dictionary{{"standardError", textOf(standardErrorBuffer())}},
    };
    return prettyDescriptionWithItems(*this, items);
}

// --- Running

void QMCommandOperation::start()
{
    // The base class does not call `main` for an operation cancelled before
    // it starts; such a command still ends finished, as `main` would leave it.
    if (isCancelled()) {
        setFinished(true);
    }
    Operation::start();
}

void QMCommandOperation::main()
{
    if (isCancelled()) {
        setFinished(true);
        return;
    }
    setExecuting(true);
    commandWillExecute();
    const auto loop = platform::RunLoop::currentRunLoop();
    loop->addSource(endHandled_, platform::NSDefaultRunLoopMode);
    const QueueServicing servicing({fileHandleNotificationQueue_, taskNotificationQueue_}, endHandled_);
    const bool launched = launchTask();
    if (launched) {
        pumpUntil(*loop, servicing, [this] { return isTaskTerminated(); });
    }
    loop->removeSource(endHandled_, platform::NSDefaultRunLoopMode);
    if (launched) {
        operationDidFinish();
    } else {
        taskDidFailToLaunch();
    }
}

bool QMCommandOperation::launchTask()
{
    try {
        initializeTask();
        registerObservers();
        task()->launch();
        return true;
    } catch (...) {
        // A program that cannot start is an outcome, not an error of ours.
        return false;
    }
}

void QMCommandOperation::initializeTask()
{
    auto task = platform::Task::create();
    auto errorPipe = platform::Pipe::create();
    auto outputPipe = platform::Pipe::create();
    if (!errorPipe || !outputPipe) {
        platform::Exception::raise(platform::NSGenericException, "no descriptors left for the command's pipes");
    }
    settings_.with([&](const Settings& settings) {
        task->setLaunchPath(settings.launchPath);
        task->setArguments(settings.arguments);
        task->setStandardInput(settings.standardInput ? settings.standardInput
                                                      : platform::FileHandle::fileHandleWithNullDevice());
        if (settings.workingDirectory) {
            task->setCurrentDirectoryPath(settings.workingDirectory);
        }
        task->setEnvironment(settings.environment);
    });
    task->setStandardError(errorPipe);
    task->setStandardOutput(outputPipe);
    run_.with([&](RunState& run) {
        run.task = task;
        run.output.fileHandle = outputPipe->fileHandleForReading();
        run.error.fileHandle = errorPipe->fileHandleForReading();
    });
}

void QMCommandOperation::registerObservers()
{
    const auto task = this->task();
    PLATFORM_ASSERT(task != nullptr, "Task needs to be initialized before registering observers");
    const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
    const std::weak_ptr<QMCommandOperation> weak = self;

    run_.with([](RunState& run) { run.readersActive = true; });
    for (const Stream stream : {Stream::Output, Stream::Error}) {
        if (const auto handle = fileHandleOf(stream)) {
            handle->setReadabilityHandler([weak, stream](platform::FileHandle& readable) {
                if (const auto command = weak.lock()) {
                    command->readabilityChanged(stream, readable);
                }
            });
        }
    }

    auto token = platform::NotificationCenter::defaultCenter()->addObserverForName(
        std::string(platform::NSTaskDidTerminateNotification), task, taskNotificationQueue_,
        [weak](const platform::Notification& notification) {
            if (const auto command = weak.lock()) {
                command->taskDidTerminate(notification);
            }
        });
    run_.with([&](RunState& run) { run.taskObserver = std::move(token); });

    addObserver(self, kCancelledKey, platform::NSKeyValueObservingOptionNew, &cancellationContext);
    run_.with([](RunState& run) { run.keyPathObservers.emplace_back(kCancelledKey); });
}

void QMCommandOperation::stopReaders()
{
    // A reader holds the lock while it reads and hands over, so once this
    // has the lock none is under way, and none starts again.
    run_.with([](RunState& run) { run.readersActive = false; });
    for (const Stream stream : {Stream::Output, Stream::Error}) {
        if (const auto handle = fileHandleOf(stream)) {
            handle->setReadabilityHandler(nullptr);
        }
    }
}

void QMCommandOperation::unregisterObservers()
{
    stopReaders();
    auto [token, keyPaths] = run_.with([](RunState& run) {
        return std::pair{std::exchange(run.taskObserver, nullptr), std::exchange(run.keyPathObservers, {})};
    });
    if (token) {
        platform::NotificationCenter::defaultCenter()->removeObserver(token);
    }
    for (const auto& keyPath : keyPaths) {
        removeObserver(*this, keyPath, &cancellationContext);
    }
}

void QMCommandOperation::readabilityChanged(Stream stream, platform::FileHandle& handle)
{
    const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
    run_.with([&](const RunState& run) {
        if (!run.readersActive) {
            // The end is being handled and will read the rest. Letting go of
            // the handler here stops it being called again and again for data
            // it must not read, which would starve the end handling itself.
            handle.setReadabilityHandler(nullptr);
            return;
        }
        Data chunk = readOrNothing([&] { return handle.availableData(); });
        if (chunk.empty()) {
            handle.setReadabilityHandler(nullptr);
        }
        performBlock(*fileHandleNotificationQueue_,
                     [self, stream, chunk = std::move(chunk)] { self->appendData(stream, chunk); });
    });
}

template <typename Call>
void QMCommandOperation::tellDelegate(Call call)
{
    if (const auto delegate = this->delegate().lock()) {
        call(*delegate);
    }
}

void QMCommandOperation::appendData(Stream stream, const Data& data)
{
    if (data.empty()) {
        closeStream(stream);
        return;
    }
    run_.with([&](RunState& run) {
        auto& buffer = run.of(stream).buffer;
        buffer.insert(buffer.end(), data.begin(), data.end());
    });
    tellDelegate([&](QMCommandOperationDelegate& delegate) {
        if (stream == Stream::Output) {
            delegate.commandDidReceiveStandardOutputData(*this, data);
        } else {
            delegate.commandDidReceiveStandardErrorData(*this, data);
        }
    });
}

void QMCommandOperation::closeStream(Stream stream)
{
    const auto handle = run_.with([stream](RunState& run) {
        auto& state = run.of(stream);
        state.closed = true;
        return state.fileHandle.lock();
    });
    if (handle) {
        handle->setReadabilityHandler(nullptr);
        handle->closeFile();
    }
}

void QMCommandOperation::appendStandardOutputData(const Data& data)
{
    appendData(Stream::Output, data);
}

void QMCommandOperation::appendStandardErrorData(const Data& data)
{
    appendData(Stream::Error, data);
}

void QMCommandOperation::readRestOf(Stream stream)
{
    const auto [closed, handle] = run_.with([stream](const RunState& run) {
        return std::pair{run.of(stream).closed, run.of(stream).fileHandle.lock()};
    });
    if (closed) {
        return;
    }
    appendData(stream, handle ? readOrNothing([&] { return handle->readDataToEndOfFile(); }) : Data());
}

void QMCommandOperation::taskDidTerminate(const platform::Notification& notification)
{
    static_cast<void>(notification);
    unregisterObservers();
    deliverRestOfOutput();
    recordEnd();
    endHandled_->signal();
}

void QMCommandOperation::deliverRestOfOutput()
{
    // Chunks already handed over go first, then whatever is left in the pipes.
    fileHandleNotificationQueue_->waitUntilAllOperationsAreFinished();
    // A stream already at its end has no rest to read; when both are, the
    // round trip through the queue would only do nothing, so it is skipped.
    if (isStandardOutputClosed() && isStandardErrorClosed()) {
        return;
    }
    const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
    performBlock(*fileHandleNotificationQueue_, [self] { self->readRestOf(Stream::Output); });
    performBlock(*fileHandleNotificationQueue_, [self] { self->readRestOf(Stream::Error); });
    fileHandleNotificationQueue_->waitUntilAllOperationsAreFinished();
}

void QMCommandOperation::recordEnd()
{
    run_.with([](RunState& run) {
        run.standardOutputData = std::exchange(run.output.buffer, Data());
        run.standardErrorData = std::exchange(run.error.buffer, Data());
        if (run.task) {
            run.exitCode = run.task->terminationStatus();
        }
        run.taskTerminated = true;
    });
}

void QMCommandOperation::taskDidFailToLaunch()
{
    unregisterObservers();
    finishOperation();
    run_.with([](RunState& run) { run.exitCode = -1; });
    commandDidFailToLaunch();
    tellDelegate([&](QMCommandOperationDelegate& delegate) { delegate.commandDidFailToLaunch(*this); });
}

void QMCommandOperation::observeValueForKeyPath(const std::string& keyPath, const platform::ObjectRef& object,
                                                const Dictionary& change, void* context)
{
    if (context != &cancellationContext) {
        Operation::observeValueForKeyPath(keyPath, object, change, context);
        return;
    }
    if (keyPath == kCancelledKey && change.get(platform::NSKeyValueChangeNewKey).boolValue().value_or(false)) {
        operationDidCancel();
    }
}

void QMCommandOperation::operationDidCancel()
{
    if (const auto task = this->task(); task && task->isRunning()) {
        task->interrupt();
    }
}

void QMCommandOperation::operationDidFinish()
{
    finishOperation();
    commandDidTerminate();
    tellDelegate([&](QMCommandOperationDelegate& delegate) { delegate.commandDidTerminate(*this); });
}

void QMCommandOperation::finishOperation()
{
    // The task is let go of after the lock.
    const auto released = run_.with([](RunState& run) { return std::exchange(run.task, nullptr); });
    setExecuting(false);
    setFinished(true);
}
