// QMTimer: a stopwatch. The elapsed time is read from the end date only, so
// while the watch runs it reads 0, not the time so far: stop it first, or use
// the stop-and-read operations.
//
//   auto timer = QMTimer::timer();
//   work();
//   double milliseconds = timer->stopAndTimeElapsedInMilliseconds();
//
// Times are wall-clock dates. Not safe for use from several threads at once;
// it takes no lock.
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Object.h"

#include <memory>
#include <optional>

class QMTimer;
using QMTimerRef = std::shared_ptr<QMTimer>;

class QMTimer : public platform::Object {
public:
    // A new stopwatch, already started.
    static QMTimerRef timer();

    platform::Date startDate() const { return startDate_; }
    std::optional<platform::Date> endDate() const { return endDate_; }

    // Restarts: the start is now and there is no end.
    void start();
    // Ends the measurement, once: a second stop keeps the first end.
    void stop();

    double timeElapsedInSeconds() const;
    double timeElapsedInMilliseconds() const;
    double stopAndTimeElapsedInSeconds();
    double stopAndTimeElapsedInMilliseconds();

    std::string className() const override { return "QMTimer"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    QMTimer() = default;

    platform::Date startDate_;
    std::optional<platform::Date> endDate_;
};
