#include "Platform/Security/SecTrust.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <memory>
#include <string_view>

namespace platform {
namespace {

// "zarvo-trust-exception 1 <host> <SHA-256 of the leaf's public key, hex>"
constexpr std::string_view kCookiePrefix = "zarvo-trust-exception 1 ";

struct X509Deleter {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct StackDeleter {
    void operator()(STACK_OF(X509)* stack) const { sk_X509_pop_free(stack, X509_free); }
};
struct StoreDeleter {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
struct StoreContextDeleter {
    void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};
using X509Pointer = std::unique_ptr<X509, X509Deleter>;

X509Pointer parse(const Data& der)
{
    const unsigned char* bytes = der.data();
    return X509Pointer(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
}

bool isIPAddress(const std::string& host)
{
    unsigned char address[16];
    return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// Whether the system trusts the chain for the host: the CA store, dates,
// purpose and the host name or address in the leaf.
bool systemTrusts(const SecTrust& trust)
{
    const auto leaf = parse(trust.certificates().front());
    if (!leaf) {
        return false;
    }
    std::unique_ptr<STACK_OF(X509), StackDeleter> intermediates(sk_X509_new_null());
    for (std::size_t index = 1; index < trust.certificates().size(); ++index) {
        if (auto certificate = parse(trust.certificates()[index])) {
            sk_X509_push(intermediates.get(), certificate.release());
        }
    }
    // The system's store is read once; OpenSSL's store is safe to share
    // between threads once filled.
    static X509_STORE* const store = [] {
        X509_STORE* made = X509_STORE_new();
        X509_STORE_set_default_paths(made);
        return made;
    }();
    std::unique_ptr<X509_STORE_CTX, StoreContextDeleter> context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, leaf.get(), intermediates.get()) != 1) {
        return false;
    }
    X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_purpose(parameters, X509_PURPOSE_SSL_SERVER);
    if (isIPAddress(trust.host())) {
        X509_VERIFY_PARAM_set1_ip_asc(parameters, trust.host().c_str());
    } else {
        X509_VERIFY_PARAM_set1_host(parameters, trust.host().c_str(), trust.host().size());
    }
    return X509_verify_cert(context.get()) == 1;
}

std::optional<std::string> leafKeyDigest(const SecTrust& trust)
{
    const auto leaf = parse(trust.certificates().front());
    if (!leaf) {
        return std::nullopt;
    }
    unsigned char* key = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(leaf.get()), &key);
    if (length <= 0) {
        return std::nullopt;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    const bool digested = EVP_Digest(key, static_cast<std::size_t>(length), digest, &digestLength, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(key);
    if (!digested) {
        return std::nullopt;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int index = 0; index < digestLength; ++index) {
        text += kHex[digest[index] >> 4];
        text += kHex[digest[index] & 0xF];
    }
    return text;
}

std::optional<std::string> cookieFor(const SecTrust& trust)
{
    const auto digest = leafKeyDigest(trust);
    return digest ? std::optional<std::string>(std::string(kCookiePrefix) + trust.host() + " " + *digest) : std::nullopt;
}

}  // namespace

SecTrust::SecTrust(std::vector<Data> certificates, std::string host)
    : certificates_(std::move(certificates)), host_(std::move(host))
{
}

SecTrustRef SecTrustCreateWithCertificates(std::vector<Data> certificates, std::string host)
{
    if (certificates.empty()) {
        return nullptr;
    }
    return makeObject<SecTrust>(std::move(certificates), std::move(host));
}

OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result)
{
    SecTrustResultType outcome = kSecTrustResultInvalid;
    OSStatus status = errSecSuccess;
    if (!trust) {
        status = errSecParam;
    } else if (systemTrusts(*trust)) {
        outcome = kSecTrustResultUnspecified;
    } else if (!trust->exceptions_) {
        outcome = kSecTrustResultRecoverableTrustFailure;
    } else {
        const auto expected = cookieFor(*trust);
        const bool excepted = expected && std::string(trust->exceptions_->begin(), trust->exceptions_->end()) == *expected;
        outcome = excepted ? kSecTrustResultProceed : kSecTrustResultRecoverableTrustFailure;
        status = excepted ? errSecSuccess : errSecNotTrusted;
    }
    if (result != nullptr) {
        *result = outcome;
    }
    return status;
}

std::optional<Data> SecTrustCopyExceptions(const SecTrustRef& trust)
{
    const auto cookie = trust ? cookieFor(*trust) : std::nullopt;
    return cookie ? std::optional<Data>(Data(cookie->begin(), cookie->end())) : std::nullopt;
}

bool SecTrustSetExceptions(const SecTrustRef& trust, const std::optional<Data>& exceptions)
{
    if (!trust) {
        return false;
    }
    trust->exceptions_ = exceptions;
    return !exceptions || std::string_view(reinterpret_cast<const char*>(exceptions->data()), exceptions->size()).starts_with(kCookiePrefix);
}

}  // namespace platform
