// Runs a built program as a child process and collects what it wrote, for
// tests that must see a program exactly as its callers do.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace testsupport {

struct ProgramResult {
    std::string standardOutput;
    std::string standardError;
    int exitStatus = -1;  // the exit code, or 128 + signal when a signal ended it
};

// Runs `path` with `arguments` (argv[0] is added) and exactly `environment`,
// feeding `input` on standard input, and waits for it to end.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment, const std::string& input = {});

// Waits for `child` to end: its exit code, or 128 + the signal that ended it.
int waitForExit(int child);

// The path of a program built into the project's bin directory.
std::string builtProgram(const std::string& name);

// A fresh directory under the system's temporary directory, removed with its
// contents when the object goes.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace testsupport
