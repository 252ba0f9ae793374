// A format string from outside with up to 12 arguments: formatting never
// reads beyond the arguments, returns the format itself without arguments,
// and refuses more than ten with its assertion.
#include "QMFoundation/Errors/NSString+QMFormat.h"

#include "Platform/Foundation/Exception.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::size_t count = bytes[0] % 13;
    const std::string_view format(reinterpret_cast<const char*>(bytes + 1), size - 1);
    platform::Array arguments;
    for (std::size_t index = 0; index < count; ++index) {
        // Arguments that look like specifiers themselves must come out as text.
        arguments.emplace_back(index % 2 == 0 ? platform::Value("%@%1$@") : platform::Value(static_cast<int>(index)));
    }
    try {
        const auto text = stringWithFormat(format, arguments);
        if (count == 0 && text != format) {
            std::abort();
        }
    } catch (const platform::Exception& exception) {
        if (count <= 10 || exception.reason() != "Only 10 string format arguments supported.") {
            std::abort();
        }
    }
    return 0;
}
