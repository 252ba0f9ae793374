// NumericDatePattern: the date formatter's fast path, internal to it.
//
// Log lines and protocol timestamps use patterns made only of numeric
// Gregorian fields and literal text ("yyyy-MM-dd HH:mm:ss:SSSS"). Such a
// pattern is compiled here once and printed without ICU's formatter, which
// spends most of its time on machinery these fields do not need. The output
// is ICU's, digit for digit (DateFormatterTests compares the two over many
// dates, zones and patterns); whatever this cannot print the same way is left
// to ICU: `compile` gives nothing, or `format` gives false.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::internal {

class NumericDatePattern {
public:
    // Nothing unless every field of `pattern` is one of y (year), M (month,
    // one or two letters), d, H, m, s and S, and every quote is closed.
    [[nodiscard]] static std::optional<NumericDatePattern> compile(std::string_view pattern);

    // Appends the text for `milliseconds` since 1970 shifted by the zone's
    // `offsetMilliseconds`. False, leaving `text` alone, for dates this does
    // not print: local years outside 1583-9999 (ICU's calendar is Julian
    // before 1582; the range also keeps the arithmetic far from overflow).
    [[nodiscard]] bool format(std::int64_t milliseconds, std::int64_t offsetMilliseconds, std::string& text) const;

private:
    struct Step {
        char field = 0;  // 0: the literal
        int width = 0;
        std::string literal;
    };

    std::vector<Step> steps_;
};

}  // namespace platform::internal
