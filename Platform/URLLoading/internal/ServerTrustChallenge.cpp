#include "Platform/URLLoading/internal/ServerTrustChallenge.h"

#include <openssl/x509.h>

namespace platform::urlloading_internal {
namespace {

// Answers go straight into the challenge; the handshake reads them there.
class ChallengeSender final : public URLAuthenticationChallengeSender {
public:
    void useCredential(const URLCredentialRef& credential, const URLAuthenticationChallengeRef& challenge) override
    {
        // Only a credential for this very trust vouches for this server.
        const bool forThisTrust = credential && credential->trust() == challenge->protectionSpace().serverTrust();
        challenge->answer(forThisTrust ? URLAuthenticationChallenge::Answer::UseCredential
                                       : URLAuthenticationChallenge::Answer::DefaultHandling);
    }
    void performDefaultHandlingForAuthenticationChallenge(const URLAuthenticationChallengeRef& challenge) override
    {
        challenge->answer(URLAuthenticationChallenge::Answer::DefaultHandling);
    }
    void cancelAuthenticationChallenge(const URLAuthenticationChallengeRef& challenge) override
    {
        challenge->answer(URLAuthenticationChallenge::Answer::Cancel);
    }
};

std::optional<Data> der(X509* certificate)
{
    unsigned char* bytes = nullptr;
    const int length = i2d_X509(certificate, &bytes);
    if (length <= 0) {
        return std::nullopt;
    }
    Data encoded(bytes, bytes + length);
    OPENSSL_free(bytes);
    return encoded;
}

// The chain as presented, leaf first.
std::vector<Data> presentedChain(X509_STORE_CTX* context)
{
    std::vector<Data> chain;
    X509* leaf = X509_STORE_CTX_get0_cert(context);
    if (auto encoded = der(leaf)) {
        chain.push_back(std::move(*encoded));
    }
    STACK_OF(X509)* presented = X509_STORE_CTX_get0_untrusted(context);
    for (int index = 0; presented != nullptr && index < sk_X509_num(presented); ++index) {
        X509* certificate = sk_X509_value(presented, index);
        if (X509_cmp(certificate, leaf) != 0) {
            if (auto encoded = der(certificate)) {
                chain.push_back(std::move(*encoded));
            }
        }
    }
    return chain;
}

bool systemTrusts(const SecTrustRef& trust)
{
    const auto evaluated = SecTrustCreateWithCertificates(trust->certificates(), trust->host());
    SecTrustResultType result = kSecTrustResultInvalid;
    return SecTrustEvaluate(evaluated, &result) == errSecSuccess
        && (result == kSecTrustResultUnspecified || result == kSecTrustResultProceed);
}

}  // namespace

TrustDecision decideServerTrust(const std::function<void(const URLAuthenticationChallengeRef&)>& ask,
                                X509_STORE_CTX* chain, const std::string& host, int port)
{
    static const auto sender = std::make_shared<ChallengeSender>();
    const auto trust = SecTrustCreateWithCertificates(presentedChain(chain), host);
    if (!trust) {
        return TrustDecision::Reject;
    }
    const auto challenge = makeObject<URLAuthenticationChallenge>(
        URLProtectionSpace(host, port, "https", std::string(NSURLAuthenticationMethodServerTrust), trust), sender);
    ask(challenge);
    switch (challenge->answer()) {
    case URLAuthenticationChallenge::Answer::UseCredential: return TrustDecision::Accept;
    case URLAuthenticationChallenge::Answer::DefaultHandling:
        return systemTrusts(trust) ? TrustDecision::Accept : TrustDecision::Reject;
    case URLAuthenticationChallenge::Answer::Cancel:
    case URLAuthenticationChallenge::Answer::None: break;
    }
    return TrustDecision::Cancel;
}

}  // namespace platform::urlloading_internal
