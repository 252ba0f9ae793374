#include "QMFoundation/Strings/NSData+QMSeparator.h"

#include <algorithm>

std::vector<platform::Data> componentsSeparatedByChar(const platform::Data& data, std::uint8_t separator)
{
    std::vector<platform::Data> components;
    auto start = data.begin();
    while (start != data.end()) {
        const auto end = std::find(start, data.end(), separator);
        if (end != start) {
            components.emplace_back(start, end);
        }
        start = end == data.end() ? end : end + 1;
    }
    return components;
}

std::vector<platform::Data> componentsSeparatedByNULByte(const platform::Data& data)
{
    return componentsSeparatedByChar(data, 0);
}
