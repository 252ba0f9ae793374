#include "QMFoundation/Logging/DDLog.h"

#include "QMFoundation/Logging/DDLoggerNode.h"
#include "QMFoundation/Logging/internal/DDLogTesting.h"
#include "QMFoundation/Logging/internal/MessageBound.h"

#include "Platform/Dispatch/DispatchGroup.h"
#include "Platform/System/ProcessInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

// The logging queue's identity: its address is the queue-specific key.
const char kGlobalLoggingQueueIdentityKey = 0;

constexpr long kMaximumMessagesInFlight = 1000;
// Producers that found the pipeline full are woken when it has drained to
// this many: one wake-up per 250 messages instead of one per message.
constexpr long kWakeProducersAt = 750;

void exitHandler();

struct Core {
    Core()
        : queue(platform::DispatchQueue::create("cocoa.velmora")),
          group(platform::DispatchGroup::create()),
          inFlight(kMaximumMessagesInFlight, kWakeProducersAt),
          processorCount(std::max<std::size_t>(platform::ProcessInfo::processorCount(), 1))
    {
        loggers.reserve(4);
        queue->setSpecific(&kGlobalLoggingQueueIdentityKey, const_cast<char*>(&kGlobalLoggingQueueIdentityKey));
    }

    // Everything below `loggers` is fixed at creation, except the processor
    // count, which only the test seam changes and which is read and written
    // on the logging queue only, like the list.
    std::vector<DDLoggerNodeRef> loggers;
    const platform::DispatchQueueRef queue;
    const platform::DispatchGroupRef group;
    qmlogging::internal::MessageBound inFlight;
    std::size_t processorCount;
};

// Never destroyed: the exit handler and threads still logging during the
// process's end use it after static destruction has begun.
Core& core()
{
    static Core* const instance = [] {
        auto* made = new Core;
        // There is no application object to announce termination on Linux;
        // the exit handler stands for it.
        std::atexit(exitHandler);
        return made;
    }();
    return *instance;
}

void lt_log(const DDLogMessage& message)
{
    Core& state = core();
    if (state.processorCount < 2) {
        for (const auto& node : state.loggers) {
            if (message.logFlag() <= node->logLevel()) {
                DDLogger* logger = node->logger().get();
                node->loggerQueue()->sync([logger, &message] { logger->logMessage(message); });
            }
        }
    } else {
        // Every admitting logger but the last writes on its own queue under
        // the group; the last one's queue is entered right here, which on an
        // idle queue runs it on this thread: the same order and parallelism,
        // without a hand-over to another thread and back when one logger is
        // all there is.
        const DDLoggerNode* last = nullptr;
        bool grouped = false;
        for (const auto& node : state.loggers) {
            if (message.logFlag() > node->logLevel()) {
                continue;
            }
            if (last != nullptr) {
                DDLogger* logger = last->logger().get();
                const DDLogMessage* shared = &message;
                // The nodes hold the loggers, and the message lives on this
                // stack, until the wait below returns.
                state.group->async(last->loggerQueue(), [logger, shared] { logger->logMessage(*shared); });
                grouped = true;
            }
            last = node.get();
        }
        if (last != nullptr) {
            DDLogger* logger = last->logger().get();
            last->loggerQueue()->sync([logger, &message] { logger->logMessage(message); });
        }
        if (grouped) {
            state.group->wait();
        }
    }
    state.inFlight.giveBack();
}

void lt_addLogger(DDLoggerRef logger, int logLevel)
{
    platform::DispatchQueueRef queue = logger->loggerQueue();
    if (!queue) {
        queue = platform::DispatchQueue::create(logger->loggerName());
    }
    auto node = DDLoggerNode::nodeWithLogger(std::move(logger), std::move(queue), logLevel);
    core().loggers.push_back(node);
    node->loggerQueue()->async([node] { node->logger()->didAddLogger(); });
}

void lt_removeLogger(const DDLoggerRef& logger)
{
    auto& loggers = core().loggers;
    const auto found =
        std::find_if(loggers.begin(), loggers.end(), [&](const DDLoggerNodeRef& node) { return node->logger() == logger; });
    if (found == loggers.end()) {
        return;
    }
    DDLoggerNodeRef node = *found;
    loggers.erase(found);
    node->loggerQueue()->async([node] { node->logger()->willRemoveLogger(); });
}

void lt_removeAllLoggers()
{
    auto& loggers = core().loggers;
    for (const auto& node : loggers) {
        node->loggerQueue()->async([node] { node->logger()->willRemoveLogger(); });
    }
    loggers.clear();
}

void lt_flush()
{
    Core& state = core();
    for (const auto& node : state.loggers) {
        DDLogger* logger = node->logger().get();
        state.group->async(node->loggerQueue(), [logger] { logger->flush(); });
    }
    state.group->wait();
}

void exitHandler()
{
    DDLog::applicationWillTerminate({});
}

}  // namespace

const platform::DispatchQueueRef& DDLog::loggingQueue()
{
    return core().queue;
}

bool DDLog::isOnLoggingQueue()
{
    return platform::DispatchQueue::getSpecific(&kGlobalLoggingQueueIdentityKey) != nullptr;
}

void DDLog::addLogger(DDLoggerRef logger, int logLevel)
{
    if (!logger) {
        return;
    }
    loggingQueue()->async([logger = std::move(logger), logLevel]() mutable { lt_addLogger(std::move(logger), logLevel); });
}

void DDLog::removeLogger(const DDLoggerRef& logger)
{
    if (!logger) {
        return;
    }
    loggingQueue()->async([logger] { lt_removeLogger(logger); });
}

void DDLog::removeAllLoggers()
{
    loggingQueue()->async([] { lt_removeAllLoggers(); });
}

void DDLog::log(bool asynchronous, int level, int flag, int context, const char* file, const char* function, int line,
                const platform::Value& tag, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    log(asynchronous, level, flag, context, file, function, line, tag, format, args);
    va_end(args);
}

void DDLog::log(bool asynchronous, int level, int flag, int context, const char* file, const char* function, int line,
                const platform::Value& tag, const char* format, va_list args)
{
    if (format == nullptr) {
        return;
    }
    // Most messages fit the stack buffer; a longer one is formatted again
    // into a string of its exact size.
    char buffer[512];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, args);
    std::string text;
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof buffer) {
        text.assign(buffer, static_cast<std::size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    queueLogMessage(DDLogMessage(std::move(text), level, flag, context, file, function, line, tag, 0), asynchronous);
}

void DDLog::queueLogMessage(DDLogMessage logMessage, bool asynchronously)
{
    Core& state = core();
    // The bound: taken here, on the producer's thread, and given back when
    // every logger has written the message.
    state.inFlight.take();
    if (asynchronously) {
        state.queue->async([message = std::move(logMessage)] { lt_log(message); });
    } else {
        state.queue->sync([&logMessage] { lt_log(logMessage); });
    }
}

void DDLog::flushLog()
{
    loggingQueue()->sync([] { lt_flush(); });
}

void DDLog::applicationWillTerminate(const platform::Value& notification)
{
    static_cast<void>(notification);
    if (isOnLoggingQueue()) {
        // exit() called from work on the logging queue itself: everything
        // queued before is already behind us.
        lt_flush();
        return;
    }
    flushLog();
}

bool DDLog::isRegisteredClass(const platform::Class& cls)
{
    return cls.operation<int()>("ddLogLevel") != nullptr && cls.operation<void(int)>("ddSetLogLevel:") != nullptr;
}

std::vector<const platform::Class*> DDLog::registeredClasses()
{
    std::vector<const platform::Class*> result;
    for (const platform::Class* cls : platform::classList()) {
        if (isRegisteredClass(*cls)) {
            result.push_back(cls);
        }
    }
    return result;
}

std::vector<std::string> DDLog::registeredClassNames()
{
    std::vector<std::string> names;
    for (const platform::Class* cls : registeredClasses()) {
        names.push_back(cls->name());
    }
    return names;
}

int DDLog::logLevelForClass(const platform::Class* cls)
{
    if (cls == nullptr || !isRegisteredClass(*cls)) {
        return -1;
    }
    return (*cls->operation<int()>("ddLogLevel"))();
}

int DDLog::logLevelForClassWithName(std::string_view className)
{
    return logLevelForClass(platform::classFromString(className));
}

void DDLog::setLogLevel(int logLevel, const platform::Class* forClass)
{
    if (forClass == nullptr || !isRegisteredClass(*forClass)) {
        return;
    }
    (*forClass->operation<void(int)>("ddSetLogLevel:"))(logLevel);
}

void DDLog::setLogLevel(int logLevel, std::string_view forClassWithName)
{
    setLogLevel(logLevel, platform::classFromString(forClassWithName));
}

std::size_t ddlog_internal::setProcessorCount(std::size_t count)
{
    std::size_t previous = 0;
    DDLog::loggingQueue()->sync([&] {
        previous = core().processorCount;
        core().processorCount = std::max<std::size_t>(count, 1);
    });
    return previous;
}
