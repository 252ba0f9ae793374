// A test fixture whose default keychain lives in a fresh temporary directory:
// XDG_DATA_HOME points there for the test, so no test ever touches the real
// user's keychain.
#pragma once

#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace testsupport {

// The permission bits of a file; 0 when it is missing.
inline unsigned modeOf(const std::string& path)
{
    struct stat information {};
    if (::stat(path.c_str(), &information) != 0) {
        return 0;
    }
    return information.st_mode & 07777;
}

inline std::string contentsOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Runs SQL on a database file behind the keychain layer's back.
inline void tamper(const std::string& path, const char* sql)
{
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    sqlite3_close(database);
}

class KeychainSandbox : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* previous = std::getenv("XDG_DATA_HOME")) {
            previousDataHome_ = previous;
        }
        ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
        // Files the tests make behind the keychain's back are private, as a
        // keychain must be; tests of the modes set them themselves.
        previousUmask_ = ::umask(077);
    }

    void TearDown() override
    {
        ::umask(previousUmask_);
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
    mode_t previousUmask_ = 022;
};

}  // namespace testsupport
