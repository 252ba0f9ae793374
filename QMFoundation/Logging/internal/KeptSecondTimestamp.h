// A log line's timestamp in local time through the shared date formatter,
// for a pattern that ends in the fraction of the second ("...ss:SSS",
// "...ss:SSSS"). The text up to the fraction is made once per second and
// kept; a line then costs an append and its millisecond digits (and zeros
// for the digits beyond them), which is what the date formatter prints for
// the same date digit for digit.
//
// Safe to use from several threads (the loggers of one formatter run on
// their own queues).
#pragma once

#include "Platform/DateFormatting/DateFormatter.h"
#include "Platform/Foundation/Date.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace qmlogging::internal {

class KeptSecondTimestamp {
public:
    // `pattern` ends in three or more "S" letters.
    explicit KeptSecondTimestamp(std::string pattern);

    // Its settings are fixed: the kept text relies on them.
    const platform::DateFormatterRef& dateFormatter() const { return dateFormatter_; }

    void append(platform::Date date, std::string& line);

private:
    const platform::DateFormatterRef dateFormatter_;
    const std::size_t fractionDigits_;

    std::mutex secondLock_;  // guards the two fields below
    std::int64_t keptSecond_ = INT64_MIN;
    // "2014-03-07 09:15:02:", the text of `keptSecond_` before the fraction.
    std::string keptSecondText_;
};

}  // namespace qmlogging::internal
