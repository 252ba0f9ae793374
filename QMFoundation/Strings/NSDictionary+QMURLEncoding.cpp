#include "QMFoundation/Strings/NSDictionary+QMURLEncoding.h"

#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

std::string URLEncodedQueryString(const platform::Dictionary& dictionary)
{
    std::string query;
    for (const auto& [key, value] : dictionary) {
        if (!query.empty()) {
            query += '&';
        }
        query += stringByURLEncodingString(key);
        query += '=';
        query += stringByURLEncodingString(value.description());
    }
    return query;
}
