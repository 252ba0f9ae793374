// A test fixture whose default keychain lives in a fresh temporary directory:
// XDG_DATA_HOME points there for the test, so no test ever touches the real
// user's keychain.
#pragma once

#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace testsupport {

class KeychainSandbox : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* previous = std::getenv("XDG_DATA_HOME")) {
            previousDataHome_ = previous;
        }
        ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
    }

    void TearDown() override
    {
        if (previousDataHome_) {
            ::setenv("XDG_DATA_HOME", previousDataHome_->c_str(), 1);
        } else {
            ::unsetenv("XDG_DATA_HOME");
        }
    }

    const std::string& dataHome() const { return directory_.path(); }
    std::string defaultKeychainPath() const { return directory_.path() + "/keychains/login.keychain-db"; }
    // A path for an extra keychain file in the sandbox.
    std::string sandboxPath(const std::string& name) const { return directory_.path() + "/" + name; }

private:
    TemporaryDirectory directory_;
    std::optional<std::string> previousDataHome_;
};

}  // namespace testsupport
