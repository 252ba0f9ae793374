#include "QMFoundation/Dates/QMTimer.h"

using platform::Date;
using platform::Value;

QMTimerRef QMTimer::timer()
{
    auto timer = platform::makeObject<QMTimer>();
    timer->start();
    return timer;
}

void QMTimer::start()
{
    startDate_ = Date::now();
    endDate_.reset();
}

void QMTimer::stop()
{
    if (!endDate_) {
        endDate_ = Date::now();
    }
}

double QMTimer::timeElapsedInSeconds() const
{
    return endDate_ ? endDate_->timeIntervalSinceDate(startDate_) : 0.0;
}

double QMTimer::timeElapsedInMilliseconds() const
{
    return timeElapsedInSeconds() * 1000.0;
}

double QMTimer::stopAndTimeElapsedInSeconds()
{
    stop();
    return timeElapsedInSeconds();
}

double QMTimer::stopAndTimeElapsedInMilliseconds()
{
    stop();
    return timeElapsedInMilliseconds();
}

const platform::PropertyTable& QMTimer::propertyTable() const
{
    static const auto table = platform::PropertyTable::extending<QMTimer>(Object::propertyTable(), {
        {"startDate", [](const QMTimer& self) { return Value(self.startDate()); }},
        {"endDate", [](const QMTimer& self) { return Value(self.endDate()); }},
    });
    return table;
}
