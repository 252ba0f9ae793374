#include "QMFoundation/Strings/NSURL+QMQueryParams.h"

#include "QMFoundation/Strings/NSString+QMQueryParams.h"

std::optional<platform::Dictionary> queryParams(const platform::URL& url)
{
    if (!url.query()) {
        return std::nullopt;
    }
    return queryParams(std::string_view(*url.query()));
}
