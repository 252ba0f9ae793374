// ChangeRecorder: a key-value observer for tests that notes "key=new value"
// for every change it hears of, from any thread.
//
//   const auto recorder = testsupport::ChangeRecorder::create();
//   operation->addObserver(recorder, "isFinished", platform::NSKeyValueObservingOptionNew);
//   ...
//   EXPECT_EQ(recorder->seen(), std::vector<std::string>{"isFinished=1"});
#pragma once

#include "Platform/Foundation/Object.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class ChangeRecorder final : public platform::Object {
public:
    static std::shared_ptr<ChangeRecorder> create() { return platform::makeObject<ChangeRecorder>(); }

    void observeValueForKeyPath(const std::string& keyPath, const platform::ObjectRef&, const platform::Dictionary& change,
                                void*) override
    {
        std::lock_guard lock(mutex_);
        seen_.push_back(keyPath + "=" + change.get(platform::NSKeyValueChangeNewKey).description());
    }
    std::vector<std::string> seen() const
    {
        std::lock_guard lock(mutex_);
        return seen_;
    }

private:
    template <class> friend struct platform::ObjectAllocator;
    ChangeRecorder() = default;
    mutable std::mutex mutex_;
    std::vector<std::string> seen_;
};

}  // namespace testsupport
