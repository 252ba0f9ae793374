// SecTrust: whether a server's certificate chain is to be trusted for the
// host it was reached as, evaluated with OpenSSL against the system's CA
// store, and the trust exceptions a user can grant for one server.
//
//   auto trust = SecTrustCreateWithCertificates(chain, "api.example.com");
//   if (cookie) SecTrustSetExceptions(trust, *cookie);
//   SecTrustResultType result;
//   if (SecTrustEvaluate(trust, &result) == errSecSuccess) accept();
//
// Contract:
// - A chain the system trusts for the host (CA store, validity dates, host
//   name or IP address in the leaf) evaluates to errSecSuccess with
//   kSecTrustResultUnspecified, exceptions or not.
// - Exceptions are an opaque cookie from SecTrustCopyExceptions. It names
//   the host and the leaf certificate's public key, nothing else. Once any
//   cookie has been set on a trust, an untrusted chain evaluates to
//   errSecSuccess with kSecTrustResultProceed only when the cookie names
//   exactly that host and key, and otherwise fails with errSecNotTrusted; a
//   cookie that is not one of ours matches nothing.
// - With no cookie set, an untrusted chain evaluates to errSecSuccess with
//   kSecTrustResultRecoverableTrustFailure: the evaluation ran, and the
//   result says the system would not trust the chain.
// - A trust is immutable apart from its exceptions; it is not synchronised.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecBase.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

inline constexpr OSStatus errSecNotTrusted = -67843;

enum SecTrustResultType : std::uint32_t {
    kSecTrustResultInvalid = 0,
    kSecTrustResultProceed = 1,
    kSecTrustResultDeny = 3,
    kSecTrustResultUnspecified = 4,
    kSecTrustResultRecoverableTrustFailure = 5,
    kSecTrustResultFatalTrustFailure = 6,
    kSecTrustResultOtherError = 7,
};

class SecTrust;
using SecTrustRef = std::shared_ptr<SecTrust>;

class SecTrust final : public Object {
public:
    // The chain as the server presented it, leaf first, each certificate in
    // DER; `host` is the name (or IP address) the server was reached as.
    SecTrust(std::vector<Data> certificates, std::string host);

    const std::vector<Data>& certificates() const { return certificates_; }
    const std::string& host() const { return host_; }

    std::string className() const override { return "SecTrust"; }

private:
    friend OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result);
    friend bool SecTrustSetExceptions(const SecTrustRef& trust, const std::optional<Data>& exceptions);

    std::vector<Data> certificates_;
    std::string host_;
    std::optional<Data> exceptions_;
};

// Nothing when the chain is empty.
SecTrustRef SecTrustCreateWithCertificates(std::vector<Data> certificates, std::string host);
[[nodiscard]] OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result);
// The cookie that makes this host's current leaf key acceptable; nothing for
// a chain without a readable leaf.
std::optional<Data> SecTrustCopyExceptions(const SecTrustRef& trust);
// Sets (or, with nothing, clears) the exceptions; false when the cookie is
// not one of ours, which then matches no chain.
bool SecTrustSetExceptions(const SecTrustRef& trust, const std::optional<Data>& exceptions);

}  // namespace platform
