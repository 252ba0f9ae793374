// Stands in for the kernel's routing answers while it lives: every address
// gets the flags the test sets (or "could not ask"), and each question is
// recorded. Monitoring then reacts to made-up answers exactly as to real ones.
//
//   testsupport::FakeRoutingAnswers kernel;
//   kernel.answer(platform::kSCNetworkReachabilityFlagsReachable);
#pragma once

#include "Platform/SystemConfiguration/RoutingNetlink.h"
#include "tests/Support/Signal.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

class FakeRoutingAnswers {
public:
    FakeRoutingAnswers()
    {
        previous_ = platform::internal::setAddressFlagsReaderForTesting([this](const sockaddr_storage& address) {
            {
                std::lock_guard lock(mutex_);
                asked_.push_back(address);
            }
            questions_.raise();
            const auto flags = answer_.load();
            return flags < 0 ? std::nullopt
                             : std::optional<platform::SCNetworkReachabilityFlags>(
                                   static_cast<platform::SCNetworkReachabilityFlags>(flags));
        });
    }
    ~FakeRoutingAnswers() { platform::internal::setAddressFlagsReaderForTesting(previous_); }
    FakeRoutingAnswers(const FakeRoutingAnswers&) = delete;
    FakeRoutingAnswers& operator=(const FakeRoutingAnswers&) = delete;

    // Negative: the kernel cannot be asked.
    void answer(long long flags) { answer_.store(flags); }
    int questionCount() const { return questions_.count(); }
    bool waitForQuestions(int count) { return questions_.wait(count); }
    std::vector<sockaddr_storage> asked() const
    {
        std::lock_guard lock(mutex_);
        return asked_;
    }
    // The IPv4 addresses asked about, dotted.
    std::vector<std::string> askedIPv4() const
    {
        std::vector<std::string> texts;
        for (const auto& address : asked()) {
            if (address.ss_family == AF_INET) {
                char text[INET_ADDRSTRLEN] = {};
                inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
                texts.emplace_back(text);
            }
        }
        return texts;
    }

private:
    platform::internal::AddressFlagsReader previous_;
    std::atomic<long long> answer_{0};
    Signal questions_;
    mutable std::mutex mutex_;  // guards `asked_`
    std::vector<sockaddr_storage> asked_;
};

}  // namespace testsupport
