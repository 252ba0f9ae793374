// Wipe: overwriting secrets before their memory goes back to the allocator,
// so that no copy of a password outlives its use in freed memory (where a
// core dump or a later bug could show it). The compiler may not drop these
// writes as it may drop a plain memset before a free.
#pragma once

#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform::security {

// Overwrite the whole buffer, then empty it (its capacity is kept).
void wipe(Data& data);
void wipe(std::string& text);

// `text += more` for a string that holds a secret: when the text outgrows
// its buffer, the old buffer is wiped before it is freed.
void appendToSecret(std::string& text, std::string_view more);

// Wipes a secret when the scope that holds it ends, however it ends: every
// return, and an exception. For a std::string, Data, or an optional of
// either (wiped when it holds one; it is left holding the empty buffer).
// What is moved or copied out of the secret before then is not wiped.
//
//   auto password = input.keychainPassword(path);
//   WipedWhenDone passwordWiped(password);
template <typename Secret>
class WipedWhenDone {
public:
    explicit WipedWhenDone(Secret& secret) : secret_(secret) {}
    ~WipedWhenDone() { wipeHeld(secret_); }
    WipedWhenDone(const WipedWhenDone&) = delete;
    WipedWhenDone& operator=(const WipedWhenDone&) = delete;

private:
    template <typename Buffer>
    static void wipeHeld(std::optional<Buffer>& secret)
    {
        if (secret) {
            wipe(*secret);
        }
    }
    template <typename Buffer>
    static void wipeHeld(Buffer& secret)
    {
        wipe(secret);
    }

    Secret& secret_;
};

}  // namespace platform::security
