#include "Platform/Security/KeychainCrypto.h"

#include <sodium.h>

#include <map>
#include <mutex>
#include <new>

namespace platform::security {
namespace {

constexpr unsigned char kSealVersion = 1;

void ensureSodium()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (sodium_init() < 0) {
            throw std::bad_alloc();  // only when the system has no randomness to give
        }
    });
}

struct KeyRegistry {
    std::mutex mutex;  // guards keys
    std::map<std::string, SecretKeyRef> keys;
};

KeyRegistry& registry()
{
    static auto* keys = new KeyRegistry();  // lives until exit, like the keys it holds
    return *keys;
}

}  // namespace

KeyDerivation KeyDerivation::generate()
{
    ensureSodium();
    KeyDerivation derivation;
    derivation.salt.resize(crypto_pwhash_SALTBYTES);
    randombytes_buf(derivation.salt.data(), derivation.salt.size());
    derivation.opsLimit = crypto_pwhash_OPSLIMIT_INTERACTIVE;
    derivation.memLimit = crypto_pwhash_MEMLIMIT_INTERACTIVE;
    return derivation;
}

bool KeyDerivation::isPlausible() const
{
    return salt.size() == crypto_pwhash_SALTBYTES && opsLimit >= crypto_pwhash_OPSLIMIT_MIN &&
           opsLimit <= crypto_pwhash_OPSLIMIT_SENSITIVE && memLimit >= crypto_pwhash_MEMLIMIT_MIN &&
           memLimit <= crypto_pwhash_MEMLIMIT_SENSITIVE;
}

SecretKey::SecretKey() : bytes_(static_cast<unsigned char*>(sodium_malloc(crypto_aead_xchacha20poly1305_ietf_KEYBYTES)))
{
    if (bytes_ == nullptr) {
        throw std::bad_alloc();
    }
}

SecretKey::~SecretKey()
{
    sodium_free(bytes_);
}

SecretKeyRef SecretKey::derive(std::string_view password, const KeyDerivation& derivation)
{
    ensureSodium();
    std::shared_ptr<SecretKey> key(new SecretKey());
    // An empty password may come without any bytes at all.
    const char* passwordBytes = password.empty() ? "" : password.data();
    if (crypto_pwhash(key->bytes_, crypto_aead_xchacha20poly1305_ietf_KEYBYTES, passwordBytes, password.size(),
                      derivation.salt.data(), derivation.opsLimit, static_cast<std::size_t>(derivation.memLimit),
                      crypto_pwhash_ALG_ARGON2ID13) != 0) {
        return nullptr;
    }
    return key;
}

Data sealSecret(const SecretKey& key, const Data& plaintext, std::string_view associatedData)
{
    ensureSodium();
    constexpr std::size_t nonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
    Data sealed(1 + nonceSize + plaintext.size() + crypto_aead_xchacha20poly1305_ietf_ABYTES);
    sealed[0] = kSealVersion;
    unsigned char* nonce = sealed.data() + 1;
    randombytes_buf(nonce, nonceSize);
    unsigned long long sealedLength = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt(
        nonce + nonceSize, &sealedLength, plaintext.data(), plaintext.size(),
        reinterpret_cast<const unsigned char*>(associatedData.data()), associatedData.size(), nullptr, nonce,
        key.bytes());
    sealed.resize(1 + nonceSize + sealedLength);
    return sealed;
}

bool openSecret(const SecretKey& key, const Data& sealed, std::string_view associatedData, Data* plaintext)
{
    ensureSodium();
    constexpr std::size_t nonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
    constexpr std::size_t overhead = 1 + nonceSize + crypto_aead_xchacha20poly1305_ietf_ABYTES;
    if (sealed.size() < overhead || sealed[0] != kSealVersion) {
        return false;
    }
    const unsigned char* nonce = sealed.data() + 1;
    Data opened(sealed.size() - overhead);
    unsigned long long openedLength = 0;
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(
            opened.data(), &openedLength, nullptr, nonce + nonceSize, sealed.size() - 1 - nonceSize,
            reinterpret_cast<const unsigned char*>(associatedData.data()), associatedData.size(), nonce,
            key.bytes()) != 0) {
        return false;
    }
    opened.resize(openedLength);
    *plaintext = std::move(opened);
    return true;
}

std::string randomIdentity()
{
    ensureSodium();
    unsigned char bytes[16];
    randombytes_buf(bytes, sizeof bytes);
    char hex[sizeof bytes * 2 + 1];
    sodium_bin2hex(hex, sizeof hex, bytes, sizeof bytes);
    return hex;
}

void rememberKey(const std::string& fileIdentity, SecretKeyRef key)
{
    auto& keys = registry();
    std::lock_guard lock(keys.mutex);
    keys.keys[fileIdentity] = std::move(key);
}

SecretKeyRef rememberedKey(const std::string& fileIdentity)
{
    auto& keys = registry();
    std::lock_guard lock(keys.mutex);
    const auto found = keys.keys.find(fileIdentity);
    return found == keys.keys.end() ? nullptr : found->second;
}

void forgetKey(const std::string& fileIdentity)
{
    auto& keys = registry();
    std::lock_guard lock(keys.mutex);
    keys.keys.erase(fileIdentity);
}

}  // namespace platform::security
