// Any text as a "Link" header: the parser gives numbers or raises its range
// exception; anything else (another exception, a crash, a bad read) is a bug.
#include "QMFoundation/Networking/QMRESTAPILinkHeaderParser.h"

#include "Platform/Foundation/Exception.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const std::string link(reinterpret_cast<const char*>(bytes), size);
    try {
        const auto parser = QMRESTAPILinkHeaderParser::parserWithHeaderFields(platform::Dictionary{{"Link", link}},
                                                                              "page", "per_page");
        if (parser->numberOfTotalPages() != 0 && link.find("rel=\"") == std::string::npos) {
            std::abort();  // a number can only come from a relation
        }
    } catch (const platform::Exception& exception) {
        if (exception.name() != platform::NSRangeException) {
            std::abort();
        }
    }
    return 0;
}
