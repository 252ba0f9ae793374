// ServerTrustChallenge: the trust question of one TLS handshake, put to the
// connection's delegate from OpenSSL's certificate check.
#pragma once

#include "Platform/URLLoading/URLConnection.h"

#include <openssl/x509_vfy.h>

#include <functional>
#include <string>

namespace platform::urlloading_internal {

enum class TrustDecision { Accept, Reject, Cancel };

// Puts the chain the server presented to `host` to the delegate through
// `ask` and says whether the handshake may go on. Called from inside curl.
TrustDecision decideServerTrust(const std::function<void(const URLAuthenticationChallengeRef&)>& ask,
                                X509_STORE_CTX* chain, const std::string& host, int port);

}  // namespace platform::urlloading_internal
