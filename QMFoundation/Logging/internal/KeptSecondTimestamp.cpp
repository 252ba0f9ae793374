#include "QMFoundation/Logging/internal/KeptSecondTimestamp.h"

#include <cmath>

namespace qmlogging::internal {
namespace {

std::size_t trailingFractionLetters(const std::string& pattern)
{
    std::size_t count = 0;
    while (count < pattern.size() && pattern[pattern.size() - 1 - count] == 'S') {
        ++count;
    }
    return count;
}

}  // namespace

KeptSecondTimestamp::KeptSecondTimestamp(std::string pattern)
    : dateFormatter_(platform::DateFormatter::create()), fractionDigits_(trailingFractionLetters(pattern))
{
    dateFormatter_->setDateFormat(std::move(pattern));
}

void KeptSecondTimestamp::append(platform::Date date, std::string& line)
{
    const auto milliseconds = platform::DateFormatter::printedMilliseconds(date);
    if (!milliseconds) {
        return;  // a date no formatter prints
    }
    const auto whole = static_cast<std::int64_t>(std::floor(*milliseconds));
    const std::int64_t second = whole >= 0 ? whole / 1000 : -((-whole + 999) / 1000);
    const auto millisecond = static_cast<int>(whole - second * 1000);
    {
        std::lock_guard lock(secondLock_);
        if (second != keptSecond_) {
            // Time zone offsets change on whole seconds, so the text before
            // the fraction is the same for the whole second.
            std::string text = dateFormatter_->stringFromDate(platform::Date(static_cast<double>(second)));
            if (fractionDigits_ < 3 || text.size() < fractionDigits_) {
                line += dateFormatter_->stringFromDate(date);
                return;
            }
            text.resize(text.size() - fractionDigits_);
            keptSecondText_ = std::move(text);
            keptSecond_ = second;
        }
        line += keptSecondText_;
    }
    const char digits[3] = {static_cast<char>('0' + millisecond / 100), static_cast<char>('0' + millisecond / 10 % 10),
                            static_cast<char>('0' + millisecond % 10)};
    line.append(digits, 3);
    line.append(fractionDigits_ - 3, '0');
}

}  // namespace qmlogging::internal
