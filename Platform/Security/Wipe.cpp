#include "Platform/Security/Wipe.h"

#include <sodium.h>

#include <algorithm>

namespace platform::security {

// The whole buffer, not only what it holds now: a secret that was shortened
// in place (an erase, a pop_back) left its old bytes past the end. Growing
// to the capacity reaches them without moving the buffer.
void wipe(Data& data)
{
    data.resize(data.capacity());
    sodium_memzero(data.data(), data.size());
    data.clear();
}

void wipe(std::string& text)
{
    text.resize(text.capacity());
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
