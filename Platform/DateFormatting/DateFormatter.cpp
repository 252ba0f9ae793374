#include "Platform/DateFormatting/DateFormatter.h"

#include "Platform/DateFormatting/NumericDatePattern.h"
#include "Platform/Foundation/Unicode.h"

#include <unicode/datefmt.h>
#include <unicode/calendar.h>
#include <unicode/locid.h>
#include <unicode/numsys.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/udisplaycontext.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace platform {
namespace {

// Copies kept for later calls; more are made when more threads format at
// once, and the surplus is dropped when they come back.
constexpr std::size_t kPooledCopies = 4;

icu::DateFormat::EStyle icuStyle(DateFormatter::Style style)
{
    switch (style) {
    case DateFormatter::Style::None:
        return icu::DateFormat::kNone;
    case DateFormatter::Style::Short:
        return icu::DateFormat::kShort;
    case DateFormatter::Style::Medium:
        return icu::DateFormat::kMedium;
    case DateFormatter::Style::Long:
        return icu::DateFormat::kLong;
    case DateFormatter::Style::Full:
        return icu::DateFormat::kFull;
    }
    return icu::DateFormat::kNone;
}

// "de_DE.UTF-8@euro" -> "de_DE"; "C" and "POSIX" -> "en_US_POSIX".
std::string localeFromEnvironmentValue(std::string value)
{
    value = value.substr(0, value.find_first_of(".@"));
    if (value.empty() || value == "C" || value == "POSIX") {
        return "en_US_POSIX";
    }
    return value;
}

}  // namespace

// What the settings compile to: the ICU formatter that every lent copy is
// cloned from, never used to format itself (ICU formatters keep per-call state).
// For a numeric pattern also the fast path and the zone it needs; both only
// read once built, which is safe from any number of threads at once.
struct DateFormatter::Prototype {
    std::unique_ptr<icu::DateFormat> format;  // null: nothing formats
    std::string requiredEnding;               // see trailingLiteral
    std::optional<internal::NumericDatePattern> numeric;
    std::unique_ptr<icu::TimeZone> zone;
};

struct DateFormatter::Copy {
    std::unique_ptr<icu::DateFormat> format;
    std::string requiredEnding;
};

struct DateFormatter::Lease {
    std::uint64_t generation = 0;
    std::unique_ptr<Copy> copy;
};

DateFormatterRef DateFormatter::create()
{
    return makeObject<DateFormatter>();
}

DateFormatter::~DateFormatter() = default;

const std::string& DateFormatter::currentLocaleIdentifier()
{
    static const std::string identifier = [] {
        for (const char* name : {"LC_ALL", "LC_TIME", "LANG"}) {
            const char* value = std::getenv(name);
            if (value != nullptr && *value != '\0') {
                return localeFromEnvironmentValue(value);
            }
        }
        return localeFromEnvironmentValue("");
    }();
    return identifier;
}

template <typename Change>
void DateFormatter::change(Change&& change)
{
    std::shared_ptr<const Prototype> stale;
    std::vector<std::unique_ptr<Copy>> copies;
    {
        std::lock_guard lock(stateLock_);
        change(settings_);
        ++generation_;
        stale = std::move(prototype_);
        copies = std::move(pool_);
        pool_.clear();
    }
    // The old prototype and copies are destroyed here, outside the lock.
}

template <typename Read>
auto DateFormatter::read(Read&& read) const
{
    std::lock_guard lock(stateLock_);
    return read(settings_);
}

std::string DateFormatter::dateFormat() const
{
    return read([](const Settings& settings) { return settings.pattern; });
}

void DateFormatter::setDateFormat(std::string pattern)
{
    change([&](Settings& settings) { settings.pattern = std::move(pattern); });
}

DateFormatter::Style DateFormatter::dateStyle() const
{
    return read([](const Settings& settings) { return settings.dateStyle; });
}

void DateFormatter::setDateStyle(Style style)
{
    setStyle(&Settings::dateStyle, style);
}

DateFormatter::Style DateFormatter::timeStyle() const
{
    return read([](const Settings& settings) { return settings.timeStyle; });
}

void DateFormatter::setTimeStyle(Style style)
{
    setStyle(&Settings::timeStyle, style);
}

void DateFormatter::setStyle(Style Settings::*field, Style style)
{
    change([&](Settings& settings) {
        settings.*field = style;
        settings.pattern.clear();
    });
}

bool DateFormatter::doesRelativeDateFormatting() const
{
    return read([](const Settings& settings) { return settings.relative; });
}

void DateFormatter::setDoesRelativeDateFormatting(bool relative)
{
    change([&](Settings& settings) { settings.relative = relative; });
}

std::string DateFormatter::localeIdentifier() const
{
    return read([](const Settings& settings) { return settings.locale.value_or(currentLocaleIdentifier()); });
}

void DateFormatter::setLocaleIdentifier(std::optional<std::string> identifier)
{
    change([&](Settings& settings) { settings.locale = std::move(identifier); });
}

TimeZone DateFormatter::timeZone() const
{
    return read([](const Settings& settings) { return settings.zone.value_or(TimeZone::local()); });
}

void DateFormatter::setTimeZone(std::optional<TimeZone> zone)
{
    change([&](Settings& settings) { settings.zone = std::move(zone); });
}

bool DateFormatter::isLenient() const
{
    return read([](const Settings& settings) { return settings.lenient; });
}

void DateFormatter::setLenient(bool lenient)
{
    change([&](Settings& settings) { settings.lenient = lenient; });
}

namespace {

std::unique_ptr<icu::TimeZone> icuZone(const TimeZone& zone)
{
    return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone.identifier())));
}

std::unique_ptr<icu::DateFormat> makeFormat(const std::string& pattern, DateFormatter::Style dateStyle,
                                            DateFormatter::Style timeStyle, bool relative, const icu::Locale& locale)
{
    std::unique_ptr<icu::DateFormat> format;
    UErrorCode status = U_ZERO_ERROR;
    if (!pattern.empty()) {
        format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), locale, status);
    } else if (dateStyle != DateFormatter::Style::None || timeStyle != DateFormatter::Style::None) {
        auto icuDateStyle = icuStyle(dateStyle);
        if (relative && dateStyle != DateFormatter::Style::None) {
            icuDateStyle = static_cast<icu::DateFormat::EStyle>(icuDateStyle | icu::DateFormat::kRelative);
        }
        format.reset(icu::DateFormat::createDateTimeInstance(icuDateStyle, icuStyle(timeStyle), locale));
        if (format && relative) {
            // "Today" as a label on its own, as the platform shows it.
            format->setContext(UDISPCTX_CAPITALIZATION_FOR_STANDALONE, status);
        }
    }
    if (!format || U_FAILURE(status)) {
        return nullptr;
    }
    return format;
}

// The literal text a pattern ends with ("Z" for "ss'.'SSS'Z'"), or "" when it
// ends with a field. Strict parsing requires it: ICU, even strict, accepts
// text that stops where a closing literal should begin.
std::string trailingLiteral(std::string_view pattern)
{
    std::string literal;
    bool quoted = false;
    for (std::size_t index = 0; index < pattern.size(); ++index) {
        const char c = pattern[index];
        if (c == '\'') {
            if (index + 1 < pattern.size() && pattern[index + 1] == '\'') {
                literal += '\'';  // '' is a quote, inside quotes or out
                ++index;
            } else {
                quoted = !quoted;
            }
        } else if (!quoted && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) {
            literal.clear();
        } else {
            literal += c;
        }
    }
    return literal;
}

// Whether numeric fields in `locale` are the fast path's: Gregorian years,
// months and days written in ASCII digits.
bool printsNumericFieldsPlainly(const icu::Locale& locale)
{
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(locale, status));
    if (U_FAILURE(status) || !calendar || std::string_view(calendar->getType()) != "gregorian") {
        return false;
    }
    std::unique_ptr<icu::NumberingSystem> numbering(icu::NumberingSystem::createInstance(locale, status));
    return U_SUCCESS(status) && numbering && std::string_view(numbering->getName()) == "latn";
}

}  // namespace

std::shared_ptr<const DateFormatter::Prototype> DateFormatter::buildPrototype(const Settings& settings)
{
    auto built = std::make_shared<Prototype>();
    const icu::Locale locale(settings.locale.value_or(currentLocaleIdentifier()).c_str());
    const auto zone = settings.zone.value_or(TimeZone::local());
    built->format = makeFormat(settings.pattern, settings.dateStyle, settings.timeStyle, settings.relative, locale);
    if (built->format) {
        built->format->adoptTimeZone(icuZone(zone).release());
        built->format->setLenient(settings.lenient);
        if (!settings.lenient) {
            built->requiredEnding = trailingLiteral(settings.pattern);
        }
        if (!settings.icuOnly && !settings.pattern.empty() && printsNumericFieldsPlainly(locale)) {
            built->numeric = internal::NumericDatePattern::compile(settings.pattern);
            built->zone = icuZone(zone);
        }
    }
    return built;
}

std::shared_ptr<const DateFormatter::Prototype> DateFormatter::currentPrototype() const
{
    std::lock_guard lock(stateLock_);
    if (!prototype_) {
        prototype_ = buildPrototype(settings_);
    }
    return prototype_;
}

DateFormatter::Lease DateFormatter::borrow() const
{
    std::shared_ptr<const Prototype> prototype;
    Lease lease;
    {
        std::lock_guard lock(stateLock_);
        lease.generation = generation_;
        if (!pool_.empty()) {
            lease.copy = std::move(pool_.back());
            pool_.pop_back();
            return lease;
        }
        if (!prototype_) {
            // Built under the lock, once per change of the settings, so that
            // threads starting together do not each build one.
            prototype_ = buildPrototype(settings_);
        }
        prototype = prototype_;
    }
    // Cloning only reads the prototype, which nothing changes once built.
    if (prototype->format) {
        lease.copy = std::make_unique<Copy>(
            Copy{std::unique_ptr<icu::DateFormat>(prototype->format->clone()), prototype->requiredEnding});
    }
    return lease;
}

void DateFormatter::giveBack(Lease lease) const
{
    if (!lease.copy) {
        return;
    }
    std::lock_guard lock(stateLock_);
    if (lease.generation == generation_ && pool_.size() < kPooledCopies) {
        pool_.push_back(std::move(lease.copy));
    }
    // Otherwise the copy is destroyed with the lease; a copy is small, and
    // this happens only after a change of settings or a burst of threads.
}

std::optional<double> DateFormatter::printedMilliseconds(Date date)
{
    // ICU's calendar holds about 5.8 million years either side of 1970 and
    // prints nonsense beyond; three million years is far enough for anyone.
    constexpr double kLargestSeconds = 1e14;
    const double seconds = date.timeIntervalSince1970();
    if (!std::isfinite(seconds) || std::abs(seconds) > kLargestSeconds) {
        return std::nullopt;
    }
    // ICU takes the millisecond below; a date made from whole milliseconds
    // (as parsing makes them) can come back a hair under one after the
    // scaling, and must not print as the millisecond before.
    double milliseconds = seconds * 1000.0;
    const double nearest = std::round(milliseconds);
    if (std::abs(milliseconds - nearest) <= std::max(1e-4, std::abs(milliseconds) * 4 * DBL_EPSILON)) {
        milliseconds = nearest;
    }
    return milliseconds;
}

std::string DateFormatter::stringFromDate(Date date) const
{
    const auto printable = printedMilliseconds(date);
    if (!printable) {
        return {};
    }
    const double milliseconds = *printable;
    if (const auto prototype = currentPrototype(); prototype->numeric) {
        std::int32_t raw = 0;
        std::int32_t daylight = 0;
        UErrorCode status = U_ZERO_ERROR;
        prototype->zone->getOffset(milliseconds, false, raw, daylight, status);
        std::string result;
        if (U_SUCCESS(status)
            && prototype->numeric->format(static_cast<std::int64_t>(std::floor(milliseconds)),
                                          std::int64_t{raw} + daylight, result)) {
            return result;
        }
    }
    auto lease = borrow();
    if (!lease.copy) {
        return {};
    }
    icu::UnicodeString text;
    icu::FieldPosition position;
    UErrorCode status = U_ZERO_ERROR;
    lease.copy->format->format(milliseconds, text, position, status);
    giveBack(std::move(lease));
    std::string result;
    if (U_SUCCESS(status)) {
        text.toUTF8String(result);
    }
    return result;
}

std::optional<Date> DateFormatter::dateFromString(std::string_view text) const
{
    if (text.empty() || text.size() > INT32_MAX || !isValidUTF8(text)) {
        return std::nullopt;
    }
    auto lease = borrow();
    if (!lease.copy) {
        return std::nullopt;
    }
    const auto unicode = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
    icu::ParsePosition position(0);
    const UDate milliseconds = lease.copy->format->parse(unicode, position);
    const bool endsAsRequired = text.ends_with(lease.copy->requiredEnding);
    giveBack(std::move(lease));
    // ICU stops at the end of what matched; the rest must not be left over.
    if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length() || !endsAsRequired) {
        return std::nullopt;
    }
    return Date(milliseconds / 1000.0);
}

void internal::DateFormatterTesting::useICUForEveryPattern(DateFormatter& formatter)
{
    formatter.change([](DateFormatter::Settings& settings) { settings.icuOnly = true; });
}

}  // namespace platform
