// Any text as a URL, as the responder meets it in a prompt or an environment
// variable: it is a URL or not, never a crash or a bad read. A URL keeps its
// text, and the text of a URL made from its parts is a URL again.
#include "Platform/Foundation/URL.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    const auto url = platform::URL::fromString(text);
    if (!url) {
        return 0;
    }
    if (url->absoluteString() != text || url->port().value_or(0) > 65535) {
        std::abort();
    }
    const auto again = platform::URL::fromString(url->URLByAppendingPathComponent("x y").absoluteString());
    if (!again || again->host() != url->host() || again->query() != url->query()) {
        std::abort();
    }
    return 0;
}
