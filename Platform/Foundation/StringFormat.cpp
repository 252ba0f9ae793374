#include "Platform/Foundation/StringFormat.h"

namespace platform {

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
        }
        result += format[index];
    }
    return result;
}

}  // namespace platform
