// DateFormatter: dates to text and back, in a locale and a time zone, on ICU.
//
// A formatter renders either a fixed pattern of Unicode date-field letters
// ("yyyy-MM-dd HH:mm:ss.SSS", text in single quotes is literal) or the
// locale's own date and time styles, optionally with relative dates ("today",
// "yesterday" in the locale's words, capitalised as standalone text). It has
// one behaviour, the one the library's design calls 10.4.
//
//   auto formatter = DateFormatter::create();
//   formatter->setDateFormat("yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSS'Z'");
//   formatter->setTimeZone(TimeZone::utc());
//   formatter->stringFromDate(Date(0));                   // "1970-01-01T00:00:00.000Z"
//   formatter->dateFromString("2014-03-05T10:11:12Z");    // nothing: no fraction
//
// Contract:
// - Every member may be called from any thread at any time, also while other
//   threads format or parse with the same formatter: shared formatters made
//   once per process are meant to be used so. A setting changed while another
//   thread formats applies to that thread's next call.
// - ICU's formatters are not safe to share, so each call borrows a private
//   copy from a small pool kept by the formatter (made on demand, returned
//   after the call); threads never wait for one another's formatting.
//   Patterns made only of numeric fields (y, M, MM, d, H, m, s, S) and
//   literals, in a locale with a Gregorian calendar and ASCII digits, print
//   without ICU's formatter and give the same text (NumericDatePattern.h):
//   that is what makes a timestamp per log line cheap.
// - The calendar is the locale's (most locales: Gregorian). Dates carry
//   sub-millisecond precision, but fields are computed in whole milliseconds,
//   as the platform's formatter does: "SSSS" prints the milliseconds and a 0.
// - With no locale set, the current locale applies: the first of `LC_ALL`,
//   `LC_TIME` and `LANG` that is set, read once per process ("C", "POSIX" or
//   none at all mean "en_US_POSIX"). Its digits and calendar apply to fixed
//   patterns too; text exchanged with machines should set "en_US_POSIX".
// - With no time zone set, TimeZone::local() applies.
// - Parsing is strict unless `setLenient(true)`: the whole text must match the
//   pattern, literals included, and the fields must name a real moment
//   ("2014-02-30" does not). Text that is not UTF-8 never parses.
// - A pattern is a format, never an error: letters ICU does not know print as
//   nothing. With no pattern and both styles None, every date formats as ""
//   and nothing parses.
#pragma once

#include "Platform/DateFormatting/TimeZone.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Object.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class DateFormatter;
namespace internal {
// For tests only: sends every pattern through ICU's formatter, so the fast
// path can be compared with it.
struct DateFormatterTesting {
    static void useICUForEveryPattern(DateFormatter& formatter);
};
}  // namespace internal

using DateFormatterRef = std::shared_ptr<DateFormatter>;

class DateFormatter : public Object {
public:
    enum class Style { None, Short, Medium, Long, Full };

    static DateFormatterRef create();
    ~DateFormatter() override;

    // A fixed pattern; it wins over the styles while it is not empty.
    std::string dateFormat() const;
    void setDateFormat(std::string pattern);
    // Setting a style clears the fixed pattern, so the styles apply.
    Style dateStyle() const;
    void setDateStyle(Style style);
    Style timeStyle() const;
    void setTimeStyle(Style style);
    // Applies to the date style only; a fixed pattern is never relative.
    bool doesRelativeDateFormatting() const;
    void setDoesRelativeDateFormatting(bool relative);

    // An ICU / POSIX locale name ("de_DE", "en_US_POSIX", "fr-CA"); nothing
    // returns to the current locale.
    std::string localeIdentifier() const;
    void setLocaleIdentifier(std::optional<std::string> identifier);
    // Nothing returns to the local zone.
    TimeZone timeZone() const;
    void setTimeZone(std::optional<TimeZone> zone);
    bool isLenient() const;
    void setLenient(bool lenient);

    // "" for a date that is not finite or lies more than 10^14 seconds (about
    // three million years) from 1970.
    std::string stringFromDate(Date date) const;
    // The milliseconds since 1970 whose floor every field is computed from
    // (a date a hair under a whole millisecond counts as that millisecond),
    // or nothing for a date that formats as "". For callers that keep the
    // text of a whole second and add the fraction themselves.
    static std::optional<double> printedMilliseconds(Date date);
    [[nodiscard]] std::optional<Date> dateFromString(std::string_view text) const;

    // The current locale as described above.
    static const std::string& currentLocaleIdentifier();

private:
    struct Settings {
        std::string pattern;
        Style dateStyle = Style::None;
        Style timeStyle = Style::None;
        bool relative = false;
        std::optional<std::string> locale;
        std::optional<TimeZone> zone;
        bool lenient = false;
        bool icuOnly = false;
    };
    friend struct internal::DateFormatterTesting;
    struct Prototype;
    struct Copy;  // one ICU formatter, lent to one call at a time
    struct Lease;

    template <class> friend struct ObjectAllocator;
    DateFormatter() = default;

    template <typename Read>
    auto read(Read&& read) const;
    template <typename Change>
    void change(Change&& change);
    void setStyle(Style Settings::*field, Style style);
    static std::shared_ptr<const Prototype> buildPrototype(const Settings& settings);
    std::shared_ptr<const Prototype> currentPrototype() const;
    Lease borrow() const;
    void giveBack(Lease lease) const;

    // Guards the settings, the prototype built from them and the pool of
    // copies lent to formatting threads; never held while ICU formats.
    mutable std::mutex stateLock_;
    Settings settings_;
    // Bumped by every change of the settings; copies of older generations are
    // dropped when they come back.
    std::uint64_t generation_ = 0;
    mutable std::shared_ptr<const Prototype> prototype_;
    mutable std::vector<std::unique_ptr<Copy>> pool_;
};

}  // namespace platform
