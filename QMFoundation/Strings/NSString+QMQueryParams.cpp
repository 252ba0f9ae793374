#include "QMFoundation/Strings/NSString+QMQueryParams.h"

platform::Dictionary queryParams(std::string_view string)
{
    platform::Dictionary params;
    std::size_t start = 0;
    while (start <= string.size()) {
        auto end = string.find('&', start);
        if (end == std::string_view::npos) {
            end = string.size();
        }
        const auto piece = string.substr(start, end - start);
        const auto equals = piece.find('=');
        if (equals != std::string_view::npos && piece.find('=', equals + 1) == std::string_view::npos) {
            params.set(piece.substr(0, equals), piece.substr(equals + 1));
        }
        start = end + 1;
    }
    return params;
}
