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

}  // namespace

QMCommandOperation::QMCommandOperation(std::optional<std::string> launchPath, std::optional<std::string> workingDirectory,
                                       Arguments arguments, Delegate delegate)
    : taskNotificationQueue_(serialQueue()), fileHandleNotificationQueue_(serialQueue())
{
    PLATFORM_PARAMETER_ASSERT(launchPath.has_value(), "launchPath != nil");
    launchPath_ = std::move(launchPath);
    workingDirectory_ = std::move(workingDirectory);
    arguments_ = std::move(arguments);
    delegate_.set(std::move(delegate));
    environment_ = processEnvironment();
    identifier_.set(uniqueIdentifier());
}

QMCommandOperation::~QMCommandOperation()
{
    try {
        unregisterObservers();
    } catch (const platform::Exception&) {
        // An observation the key-value store already forgot: nothing to undo.
    }
    for (const auto* state : {&output_, &error_}) {
        if (const auto handle = state->fileHandle.lock()) {
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
    return std::shared_ptr<QMCommandOperation>(
        new QMCommandOperation(std::move(launchPath), std::move(workingDirectory), std::move(arguments), std::move(delegate)),
        platform::ObjectDeleter());
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

// --- Properties

QMCommandOperation::Delegate QMCommandOperation::delegate() const
{
    return delegate_.get();
}

void QMCommandOperation::setDelegate(Delegate delegate)
{
    delegate_.set(std::move(delegate));
}

std::string QMCommandOperation::identifier() const
{
    return identifier_.get();
}

void QMCommandOperation::setIdentifier(std::string identifier)
{
    identifier_.set(std::move(identifier));
}

std::optional<std::string> QMCommandOperation::launchPath() const
{
    return platform::copyUnder(mutex_, launchPath_);
}

void QMCommandOperation::setLaunchPath(std::optional<std::string> launchPath)
{
    platform::storeUnder(mutex_, launchPath_, std::move(launchPath));
}

std::optional<std::string> QMCommandOperation::workingDirectory() const
{
    return platform::copyUnder(mutex_, workingDirectory_);
}

void QMCommandOperation::setWorkingDirectory(std::optional<std::string> workingDirectory)
{
    platform::storeUnder(mutex_, workingDirectory_, std::move(workingDirectory));
}

std::vector<std::string> QMCommandOperation::modes() const
{
    return modes_.get();
}

void QMCommandOperation::setModes(std::vector<std::string> modes)
{
    modes_.set(std::move(modes));
}

QMCommandOperation::Arguments QMCommandOperation::arguments() const
{
    return platform::copyUnder(mutex_, arguments_);
}

void QMCommandOperation::setArguments(Arguments arguments)
{
    platform::storeUnder(mutex_, arguments_, std::move(arguments));
}

Dictionary QMCommandOperation::environment() const
{
    return platform::copyUnder(mutex_, environment_);
}

void QMCommandOperation::setEnvironment(Dictionary environment)
{
    platform::storeUnder(mutex_, environment_, std::move(environment));
}

platform::ObjectRef QMCommandOperation::standardInput() const
{
    return platform::copyUnder(mutex_, standardInput_);
}

void QMCommandOperation::setStandardInput(platform::ObjectRef standardInput)
{
    platform::storeUnder(mutex_, standardInput_, std::move(standardInput));
}

platform::PipeRef QMCommandOperation::standardOutput() const
{
    return standardOutput_.get();
}

void QMCommandOperation::setStandardOutput(platform::PipeRef pipe)
{
    standardOutput_.set(std::move(pipe));
}

platform::PipeRef QMCommandOperation::standardError() const
{
    return standardError_.get();
}

void QMCommandOperation::setStandardError(platform::PipeRef pipe)
{
    standardError_.set(std::move(pipe));
}

std::optional<Data> QMCommandOperation::standardOutputData() const
{
    return platform::copyUnder(mutex_, standardOutputData_);
}

std::optional<Data> QMCommandOperation::standardErrorData() const
{
    return platform::copyUnder(mutex_, standardErrorData_);
}

std::int64_t QMCommandOperation::exitCode() const
{
    return platform::copyUnder(mutex_, exitCode_);
}

platform::TaskRef QMCommandOperation::task() const
{
    return platform::copyUnder(mutex_, task_);
}

Data QMCommandOperation::standardOutputBuffer() const
{
    return platform::copyUnder(mutex_, output_.buffer);
}

Data QMCommandOperation::standardErrorBuffer() const
{
    return platform::copyUnder(mutex_, error_.buffer);
}

bool QMCommandOperation::isStandardOutputClosed() const
{
    return platform::copyUnder(mutex_, output_.closed);
}

bool QMCommandOperation::isStandardErrorClosed() const
{
    return platform::copyUnder(mutex_, error_.closed);
}

std::vector<std::string> QMCommandOperation::keyPathObservers() const
{
    return platform::copyUnder(mutex_, keyPathObservers_);
}

platform::FileHandleRef QMCommandOperation::standardOutputFileHandle() const
{
    std::lock_guard lock(mutex_);
    return output_.fileHandle.lock();
}

platform::FileHandleRef QMCommandOperation::standardErrorFileHandle() const
{
    std::lock_guard lock(mutex_);
    return error_.fileHandle.lock();
}

platform::ObjectRef QMCommandOperation::taskObserver() const
{
    return platform::copyUnder(mutex_, taskObserver_);
}

void QMCommandOperation::setExecutingValue(bool executing)
{
    willChangeValueForKey("executingValue");
    executingValue_.store(executing);
    didChangeValueForKey("executingValue");
}

void QMCommandOperation::setFinishedValue(bool finished)
{
    willChangeValueForKey("finishedValue");
    finishedValue_.store(finished);
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
    std::lock_guard lock(mutex_);
    Dictionary environment = environment_;
    environment.set(forEnvironmentVariable, value);
    environment_ = std::move(environment);
}

std::string QMCommandOperation::commandCall() const
{
    std::lock_guard lock(mutex_);
    std::string joined;
    for (std::size_t index = 0; index < arguments_.size(); ++index) {
        if (index > 0) {
            joined += ' ';
        }
        joined += arguments_[index];
    }
    return launchPath_.value_or("(null)") + " " + joined;
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
    // Signalled when the end has been handled, and when either queue has an
    // operation due. While it is in the loop the loop is never empty, and
    // its signal ends the current slice at once rather than when it runs out.
    const auto loop = platform::RunLoop::currentRunLoop();
    const auto endHandled = platform::RunLoopSource::create([] {});
    loop->addSource(endHandled, platform::NSDefaultRunLoopMode);
    {
        std::lock_guard lock(mutex_);
        endHandled_ = endHandled;
    }
    // This thread does nothing but wait while the program runs, so it
    // services both serial queues itself: their operations run here, in the
    // queues' order, and no worker thread is woken (and handed back from) for
    // each chunk or for the end.
    struct Servicing {
        const std::vector<platform::OperationQueueRef> queues;
        explicit Servicing(std::vector<platform::OperationQueueRef> serviced, const platform::RunLoopSourceRef& wake)
            : queues(std::move(serviced))
        {
            for (const auto& queue : queues) {
                queue->setServicingWaker([wake] { wake->signal(); });
            }
        }
        ~Servicing()
        {
            for (const auto& queue : queues) {
                queue->setServicingWaker(nullptr);  // anything left goes to the worker threads
            }
        }
        bool runPending() const
        {
            bool ran = false;
            for (const auto& queue : queues) {
                ran = queue->runPendingOperationOnCurrentThread() || ran;
            }
            return ran;
        }
    } servicing({fileHandleNotificationQueue_, taskNotificationQueue_}, endHandled);

    try {
        initializeTask();
        registerObservers();
        task()->launch();
    } catch (...) {
        // A program that cannot start is an outcome, not an error of ours.
        loop->removeSource(endHandled, platform::NSDefaultRunLoopMode);
        taskDidFailToLaunch();
        return;
    }
    while (!isTaskTerminated()) {
        if (servicing.runPending()) {
            continue;
        }
        if (!loop->runModeBeforeDate(platform::NSDefaultRunLoopMode,
                                     platform::Date::now().dateByAddingTimeInterval(kPumpSlice))) {
            break;
        }
    }
    loop->removeSource(endHandled, platform::NSDefaultRunLoopMode);
    operationDidFinish();
}

void QMCommandOperation::initializeTask()
{
    auto task = platform::Task::create();
    auto errorPipe = platform::Pipe::create();
    auto outputPipe = platform::Pipe::create();
    if (!errorPipe || !outputPipe) {
        platform::Exception::raise(platform::NSGenericException, "no descriptors left for the command's pipes");
    }
    std::lock_guard lock(mutex_);
    task->setLaunchPath(launchPath_);
    task->setArguments(arguments_);
    task->setStandardInput(standardInput_ ? standardInput_ : platform::FileHandle::fileHandleWithNullDevice());
    task->setStandardError(errorPipe);
    task->setStandardOutput(outputPipe);
    if (workingDirectory_) {
        task->setCurrentDirectoryPath(workingDirectory_);
    }
    task->setEnvironment(environment_);
    task_ = task;
    output_.fileHandle = outputPipe->fileHandleForReading();
    error_.fileHandle = errorPipe->fileHandleForReading();
}

void QMCommandOperation::registerObservers()
{
    const auto task = this->task();
    PLATFORM_ASSERT(task != nullptr, "Task needs to be initialized before registering observers");
    const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
    const std::weak_ptr<QMCommandOperation> weak = self;

    {
        std::lock_guard lock(readersMutex_);
        readersActive_ = true;
    }
    for (const Stream stream : {Stream::Output, Stream::Error}) {
        std::shared_ptr<platform::FileHandle> handle;
        {
            std::lock_guard lock(mutex_);
            handle = stateOf(stream).fileHandle.lock();
        }
        if (handle) {
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
    {
        std::lock_guard lock(mutex_);
        taskObserver_ = std::move(token);
    }

    addObserver(self, kCancelledKey, platform::NSKeyValueObservingOptionNew, &cancellationContext);
    std::lock_guard lock(mutex_);
    keyPathObservers_.emplace_back(kCancelledKey);
}

void QMCommandOperation::stopReaders()
{
    {
        std::unique_lock lock(readersMutex_);
        readersActive_ = false;
        readersIdle_.wait(lock, [this] { return readersRunning_ == 0; });
    }
    for (const Stream stream : {Stream::Output, Stream::Error}) {
        std::shared_ptr<platform::FileHandle> handle;
        {
            std::lock_guard lock(mutex_);
            handle = stateOf(stream).fileHandle.lock();
        }
        if (handle) {
            handle->setReadabilityHandler(nullptr);
        }
    }
}

void QMCommandOperation::unregisterObservers()
{
    stopReaders();
    platform::ObjectRef token;
    std::vector<std::string> keyPaths;
    {
        std::lock_guard lock(mutex_);
        token = std::move(taskObserver_);
        taskObserver_ = nullptr;
        keyPaths.swap(keyPathObservers_);
    }
    if (token) {
        platform::NotificationCenter::defaultCenter()->removeObserver(token);
    }
    for (const auto& keyPath : keyPaths) {
        removeObserver(*this, keyPath, &cancellationContext);
    }
}

void QMCommandOperation::readabilityChanged(Stream stream, platform::FileHandle& handle)
{
    {
        std::lock_guard lock(readersMutex_);
        if (!readersActive_) {
            // The end is being handled and will read the rest. Letting go of
            // the handler here stops it being called again and again for data
            // it must not read, which would starve the end handling itself.
            handle.setReadabilityHandler(nullptr);
            return;
        }
        ++readersRunning_;
    }
    Data chunk;
    try {
        chunk = handle.availableData();
    } catch (...) {
        chunk.clear();  // a failed read ends the stream like end of file
    }
    if (chunk.empty()) {
        handle.setReadabilityHandler(nullptr);
    }
    const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
    performBlock(*fileHandleNotificationQueue_, [self, stream, chunk = std::move(chunk)] { self->appendData(stream, chunk); });
    std::lock_guard lock(readersMutex_);
    --readersRunning_;
    readersIdle_.notify_all();
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
    if (!data.empty()) {
        {
            std::lock_guard lock(mutex_);
            auto& buffer = stateOf(stream).buffer;
            buffer.insert(buffer.end(), data.begin(), data.end());
        }
        tellDelegate([&](QMCommandOperationDelegate& delegate) {
            if (stream == Stream::Output) {
                delegate.commandDidReceiveStandardOutputData(*this, data);
            } else {
                delegate.commandDidReceiveStandardErrorData(*this, data);
            }
        });
        return;
    }
    std::shared_ptr<platform::FileHandle> handle;
    {
        std::lock_guard lock(mutex_);
        auto& state = stateOf(stream);
        state.closed = true;
        handle = state.fileHandle.lock();
    }
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
    std::shared_ptr<platform::FileHandle> handle;
    {
        std::lock_guard lock(mutex_);
        const auto& state = stateOf(stream);
        if (state.closed) {
            return;
        }
        handle = state.fileHandle.lock();
    }
    Data rest;
    if (handle) {
        try {
            rest = handle->readDataToEndOfFile();
        } catch (...) {
            rest.clear();
        }
    }
    appendData(stream, rest);
}

void QMCommandOperation::taskDidTerminate(const platform::Notification& notification)
{
    static_cast<void>(notification);
    unregisterObservers();
    // Chunks already handed over go first, then whatever is left in the pipes.
    fileHandleNotificationQueue_->waitUntilAllOperationsAreFinished();
    // A stream already at its end has no rest to read; when both are, the
    // round trip through the queue would only do nothing, so it is skipped.
    if (!isStandardOutputClosed() || !isStandardErrorClosed()) {
        const auto self = std::static_pointer_cast<QMCommandOperation>(shared_from_this());
        performBlock(*fileHandleNotificationQueue_, [self] { self->readRestOf(Stream::Output); });
        performBlock(*fileHandleNotificationQueue_, [self] { self->readRestOf(Stream::Error); });
        fileHandleNotificationQueue_->waitUntilAllOperationsAreFinished();
    }

    platform::RunLoopSourceRef endHandled;
    {
        std::lock_guard lock(mutex_);
        standardOutputData_ = std::exchange(output_.buffer, Data());
        standardErrorData_ = std::exchange(error_.buffer, Data());
        exitCode_ = task_ ? task_->terminationStatus() : exitCode_;
        endHandled = endHandled_;
    }
    taskTerminated_.store(true);
    if (endHandled) {
        endHandled->signal();
    }
}

void QMCommandOperation::taskDidFailToLaunch()
{
    unregisterObservers();
    finishOperation();
    {
        std::lock_guard lock(mutex_);
        exitCode_ = -1;
    }
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
    {
        std::lock_guard lock(mutex_);
        task_.reset();
    }
    setExecuting(false);
    setFinished(true);
}
