#include "Platform/Security/Wipe.h"

#include <sodium.h>

#include <algorithm>

namespace platform::security {

void wipe(Data& data)
{
    sodium_memzero(data.data(), data.size());
    data.clear();
}

void wipe(std::string& text)
{
    sodium_memzero(text.data(), text.size());
    text.clear();
}

void appendToSecret(std::string& text, std::string_view more)
{
    if (text.size() + more.size() > text.capacity()) {
        std::string larger;
        larger.reserve(std::max(2 * text.capacity(), text.size() + more.size()));
        larger.append(text);
        wipe(text);
        text.swap(larger);
    }
    text.append(more);
}

}  // namespace platform::security
