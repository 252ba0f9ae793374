#include "Platform/Foundation/StringFormat.h"

#include <optional>
#include <utility>

namespace platform {
namespace {

// "%N$@" at `index`: the argument number N (from 1) and the specifier's length.
// N has at most six digits, so reading it cannot overflow; a longer one is no
// specifier and is copied as text.
std::optional<std::pair<std::size_t, std::size_t>> positionalSpecifier(std::string_view format, std::size_t index)
{
    std::size_t position = 0;
    std::size_t cursor = index + 1;
    while (cursor < format.size() && format[cursor] >= '0' && format[cursor] <= '9' && cursor - index <= 6) {
        position = position * 10 + static_cast<std::size_t>(format[cursor] - '0');
        ++cursor;
    }
    if (cursor == index + 1 || position == 0 || cursor + 1 >= format.size() || format[cursor] != '$'
        || format[cursor + 1] != '@') {
        return std::nullopt;
    }
    return std::pair{position, cursor + 2 - index};
}

}  // namespace

std::string formatWithObjects(std::string_view format, const Array& arguments)
{
    std::string result;
    result.reserve(format.size());
    std::size_t next = 0;
    for (std::size_t index = 0; index < format.size(); ++index) {
        if (format[index] == '%' && index + 1 < format.size()) {
            if (format[index + 1] == '@') {
                result += next < arguments.size() ? arguments[next].description() : Value().description();
                ++next;
                ++index;
                continue;
            }
            if (format[index + 1] == '%') {
                result += '%';
                ++index;
                continue;
            }
            if (const auto positional = positionalSpecifier(format, index)) {
                const auto [position, length] = *positional;
                result += position <= arguments.size() ? arguments[position - 1].description() : Value().description();
                index += length - 1;
                continue;
            }
        }
        result += format[index];
    }
    return result;
}

}  // namespace platform
