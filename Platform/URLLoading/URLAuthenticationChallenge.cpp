#include "Platform/URLLoading/URLAuthenticationChallenge.h"

namespace platform {

URLProtectionSpace::URLProtectionSpace(std::string host, int port, std::string protocol, std::string authenticationMethod,
                                       SecTrustRef serverTrust)
    : host_(std::move(host)),
      port_(port),
      protocol_(std::move(protocol)),
      authenticationMethod_(std::move(authenticationMethod)),
      serverTrust_(std::move(serverTrust))
{
}

URLCredentialRef URLCredential::credentialForTrust(SecTrustRef trust)
{
    return makeObject<URLCredential>(std::move(trust));
}

URLAuthenticationChallenge::URLAuthenticationChallenge(URLProtectionSpace protectionSpace,
                                                       URLAuthenticationChallengeSenderRef sender)
    : protectionSpace_(std::move(protectionSpace)), sender_(std::move(sender))
{
}

bool URLAuthenticationChallenge::answer(Answer answer)
{
    auto none = Answer::None;
    return answer_.compare_exchange_strong(none, answer);
}

}  // namespace platform
