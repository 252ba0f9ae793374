// KeychainCrypto: the keys of password-protected keychains and the sealing of
// their secrets. Private to Platform/Security.
//
// A key is derived with Argon2id from the password and the file's salt. Each
// secret is sealed with XChaCha20-Poly1305 under a fresh random nonce, with
// the item's identity (its class and primary-key attributes) as associated
// data, so a sealed secret copied onto another item no longer opens.
//
// Keys of unlocked keychains live in a process-wide registry, in memory that
// is locked against swapping and wiped when freed.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecBase.h"
#include "Platform/Security/Wipe.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace platform::security {

struct KeyDerivation {
    Data salt;
    std::uint64_t opsLimit = 0;
    std::uint64_t memLimit = 0;

    // Fresh salt and the interactive cost of Argon2id.
    static KeyDerivation generate();
    // Whether the costs are ones this code would ever choose, so a damaged
    // or hostile file cannot make an unlock take unbounded time or memory.
    bool isPlausible() const;
};

class SecretKey {
public:
    ~SecretKey();
    SecretKey(const SecretKey&) = delete;
    SecretKey& operator=(const SecretKey&) = delete;

    // Nothing when the derivation could not get its memory.
    static std::shared_ptr<const SecretKey> derive(std::string_view password, const KeyDerivation& derivation);

    const unsigned char* bytes() const { return bytes_; }

private:
    SecretKey();
    unsigned char* bytes_;
};
using SecretKeyRef = std::shared_ptr<const SecretKey>;

// A version byte, the nonce, then the ciphertext with its tag.
Data sealSecret(const SecretKey& key, const Data& plaintext, std::string_view associatedData);
// False when the sealed bytes are damaged or belong to another key or item.
bool openSecret(const SecretKey& key, const Data& sealed, std::string_view associatedData, Data* plaintext);

// Random bytes as lower-case hexadecimal text.
std::string randomIdentity();

// The process-wide registry of unlocked keychains, by file identity.
void rememberKey(const std::string& fileIdentity, SecretKeyRef key);
SecretKeyRef rememberedKey(const std::string& fileIdentity);
void forgetKey(const std::string& fileIdentity);

}  // namespace platform::security
