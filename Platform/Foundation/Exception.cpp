#include "Platform/Foundation/Exception.h"

#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <memory>
#include <mutex>

namespace platform {
namespace {

std::mutex observerMutex;  // guards `assertionObserver`
AssertionHandler::Observer assertionObserver;

void reportUncaughtException()
{
    if (const auto current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const Exception& exception) {
            std::fprintf(stderr, "*** Terminating app due to uncaught exception '%s', reason: '%s'\n",
                         exception.name().c_str(), exception.reason().c_str());
        } catch (const std::exception& exception) {
            std::fprintf(stderr, "*** Terminating app due to uncaught exception, reason: '%s'\n", exception.what());
        } catch (...) {
            std::fprintf(stderr, "*** Terminating app due to uncaught exception\n");
        }
    }
    std::abort();
}

}  // namespace

Exception::Exception(std::string_view name, std::string reason, Dictionary userInfo)
    : name_(name), reason_(std::move(reason)), userInfo_(std::move(userInfo))
{
}

void Exception::raise(std::string_view name, std::string reason, Dictionary userInfo)
{
    Exception exception(name, std::move(reason), std::move(userInfo));
    void* frames[64];
    const int count = backtrace(frames, 64);
    const std::unique_ptr<char*, decltype(&std::free)> symbols(backtrace_symbols(frames, count), &std::free);
    if (symbols) {
        // Frame 0 is this function; the stack starts at its caller.
        for (int index = 1; index < count; ++index) {
            exception.callStackSymbols_.emplace_back(symbols.get()[index]);
        }
    }
    throw exception;
}

AssertionHandler::Observer AssertionHandler::setObserver(Observer observer)
{
    std::lock_guard lock(observerMutex);
    std::swap(assertionObserver, observer);
    return observer;
}

void AssertionHandler::handleFailure(AssertionFailure failure)
{
    Observer observer;
    {
        std::lock_guard lock(observerMutex);
        observer = assertionObserver;
    }
    if (observer) {
        observer(failure);
    }
    Dictionary userInfo{{"method", failure.method}, {"file", failure.file}, {"line", failure.line}};
    if (!failure.object.empty()) {
        userInfo.set("object", failure.object);
    }
    Exception::raise(NSInternalInconsistencyException, failure.description, std::move(userInfo));
}

void AssertionHandler::handleParameterFailure(std::string method, std::string file, int line, std::string_view condition)
{
    handleFailure({std::move(method), std::move(file), line, "Invalid parameter not satisfying: " + std::string(condition)});
}

void installUncaughtExceptionReporter()
{
    std::set_terminate(reportUncaughtException);
}

}  // namespace platform
