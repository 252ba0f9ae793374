#include "QMFoundation/Strings/NSData+QMBinaryDetection.h"

#include <algorithm>

namespace {
constexpr std::size_t kInspectedLength = 2048;
constexpr std::size_t kZeroRunLength = 3;
}  // namespace

bool isBinaryData(const platform::Data& data)
{
    const auto inspected = std::min(data.size(), kInspectedLength);
    std::size_t zeros = 0;
    for (std::size_t index = 0; index < inspected; ++index) {
        zeros = data[index] == 0 ? zeros + 1 : 0;
        if (zeros == kZeroRunLength) {
            return true;
        }
    }
    return false;
}
