// The argument and environment vectors of a program to start, built in full
// before it starts, so that nothing is allocated between fork and exec.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace testsupport {

class CommandLine {
public:
    CommandLine(const std::string& path, const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment)
        : arguments_{path}
    {
        arguments_.insert(arguments_.end(), arguments.begin(), arguments.end());
        for (const auto& [name, value] : environment) {
            environment_.push_back(name + "=" + value);
        }
        // Pointers are taken only once the strings have stopped moving.
        for (auto& argument : arguments_) {
            argv_.push_back(argument.data());
        }
        argv_.push_back(nullptr);
        for (auto& entry : environment_) {
            envp_.push_back(entry.data());
        }
        envp_.push_back(nullptr);
    }
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    const char* path() const { return arguments_.front().c_str(); }
    char* const* argv() const { return argv_.data(); }
    char* const* envp() const { return envp_.data(); }

private:
    std::vector<std::string> arguments_;
    std::vector<std::string> environment_;
    std::vector<char*> argv_;
    std::vector<char*> envp_;
};

}  // namespace testsupport
