// URLAuthenticationChallenge: a question a load puts to its delegate before
// it goes on. The one asked here is server trust: the server's certificate
// chain, for the host the load reaches, as a SecTrust.
//
//   void connectionWillSendRequestForAuthenticationChallenge(const URLConnectionRef&,
//                                                            const URLAuthenticationChallengeRef& challenge) override
//   {
//       const auto& space = challenge->protectionSpace();
//       if (space.authenticationMethod() != NSURLAuthenticationMethodServerTrust) {
//           challenge->sender()->performDefaultHandlingForAuthenticationChallenge(challenge);
//       } else if (userTrusts(space.serverTrust())) {
//           challenge->sender()->useCredential(URLCredential::credentialForTrust(space.serverTrust()), challenge);
//       } else {
//           challenge->sender()->cancelAuthenticationChallenge(challenge);
//       }
//   }
//
// Contract:
// - The delegate answers while it handles the challenge, before it returns;
//   a challenge left unanswered is cancelled. The first answer counts.
// - Using a credential for the challenge's own trust accepts the server.
//   Default handling accepts it only when the system trusts the chain for
//   the host. Cancelling fails the load with NSURLErrorCancelled.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Security/SecTrust.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view NSURLAuthenticationMethodServerTrust = "NSURLAuthenticationMethodServerTrust";

class URLCredential;
class URLAuthenticationChallenge;
class URLAuthenticationChallengeSender;
using URLCredentialRef = std::shared_ptr<const URLCredential>;
using URLAuthenticationChallengeRef = std::shared_ptr<URLAuthenticationChallenge>;
using URLAuthenticationChallengeSenderRef = std::shared_ptr<URLAuthenticationChallengeSender>;

class URLProtectionSpace {
public:
    URLProtectionSpace(std::string host, int port, std::string protocol, std::string authenticationMethod, SecTrustRef serverTrust);

    const std::string& host() const { return host_; }
    int port() const { return port_; }
    const std::string& protocol() const { return protocol_; }
    const std::string& authenticationMethod() const { return authenticationMethod_; }
    const SecTrustRef& serverTrust() const { return serverTrust_; }

private:
    std::string host_;
    int port_;
    std::string protocol_;
    std::string authenticationMethod_;
    SecTrustRef serverTrust_;
};

class URLCredential final : public Object {
public:
    static URLCredentialRef credentialForTrust(SecTrustRef trust);
    const SecTrustRef& trust() const { return trust_; }
    std::string className() const override { return "NSURLCredential"; }

private:
    template <class> friend struct ObjectAllocator;
    explicit URLCredential(SecTrustRef trust) : trust_(std::move(trust)) {}
    SecTrustRef trust_;
};

class URLAuthenticationChallengeSender {
public:
    virtual ~URLAuthenticationChallengeSender() = default;
    virtual void useCredential(const URLCredentialRef& credential, const URLAuthenticationChallengeRef& challenge) = 0;
    virtual void performDefaultHandlingForAuthenticationChallenge(const URLAuthenticationChallengeRef& challenge) = 0;
    virtual void cancelAuthenticationChallenge(const URLAuthenticationChallengeRef& challenge) = 0;
};

class URLAuthenticationChallenge final : public Object {
public:
    enum class Answer { None, UseCredential, DefaultHandling, Cancel };

    URLAuthenticationChallenge(URLProtectionSpace protectionSpace, URLAuthenticationChallengeSenderRef sender);

    const URLProtectionSpace& protectionSpace() const { return protectionSpace_; }
    const URLAuthenticationChallengeSenderRef& sender() const { return sender_; }

    // What the delegate said, for the transport.
    Answer answer() const { return answer_.load(); }
    // The first answer sticks; false for any later one.
    bool answer(Answer answer);

    std::string className() const override { return "NSURLAuthenticationChallenge"; }

private:
    URLProtectionSpace protectionSpace_;
    URLAuthenticationChallengeSenderRef sender_;
    std::atomic<Answer> answer_{Answer::None};
};

}  // namespace platform
