#include "tests/Support/RunProgram.h"

#include "tests/Support/CommandLine.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {
namespace {

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        read = ends[0];
        write = ends[1];
    }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    void closeRead()
    {
        if (read >= 0) {
            close(read);
            read = -1;
        }
    }
    void closeWrite()
    {
        if (write >= 0) {
            close(write);
            write = -1;
        }
    }
};

// Moves bytes both ways until the child has closed its outputs: input is fed
// as the child reads it, so a large input cannot deadlock against output.
void pump(Pipe& input, const std::string& bytes, Pipe& output, Pipe& error, ProgramResult& result)
{
    std::size_t written = 0;
    if (bytes.empty()) {
        input.closeWrite();
    }
    char buffer[65536];
    while (output.read >= 0 || error.read >= 0) {
        pollfd descriptors[3] = {{output.read, POLLIN, 0}, {error.read, POLLIN, 0}, {input.write, POLLOUT, 0}};
        if (poll(descriptors, 3, -1) < 0 && errno != EINTR) {
            throw std::runtime_error("poll failed");
        }
        if (descriptors[2].revents != 0) {
            const auto count = ::write(input.write, bytes.data() + written, bytes.size() - written);
            if (count > 0) {
                written += static_cast<std::size_t>(count);
            }
            if (count < 0 || written == bytes.size()) {
                input.closeWrite();
            }
        }
        for (auto [pipe, text] : {std::pair{&output, &result.standardOutput}, std::pair{&error, &result.standardError}}) {
            const int index = pipe == &output ? 0 : 1;
            if (descriptors[index].revents == 0) {
                continue;
            }
            const auto count = ::read(pipe->read, buffer, sizeof buffer);
            if (count > 0) {
                text->append(buffer, static_cast<std::size_t>(count));
            } else {
                pipe->closeRead();
            }
        }
    }
}

}  // namespace

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment, const std::string& input)
{
    const CommandLine command(path, arguments, environment);
    Pipe standardInput, standardOutput, standardError;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, standardInput.read, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, standardOutput.write, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, standardError.write, STDERR_FILENO);
    pid_t child = 0;
    const int failure = posix_spawn(&child, command.path(), &actions, nullptr, command.argv(), command.envp());
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        throw std::runtime_error("cannot start " + path);
    }
    standardInput.closeRead();
    standardOutput.closeWrite();
    standardError.closeWrite();

    // A child that exits without reading its input must not kill the test.
    signal(SIGPIPE, SIG_IGN);
    ProgramResult result;
    pump(standardInput, input, standardOutput, standardError, result);
    result.exitStatus = waitForExit(child);
    return result;
}

int waitForExit(int child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string builtProgram(const std::string& name)
{
    const char* directory = std::getenv("ZARVO_BINARY_DIR");
    if (directory == nullptr) {
        throw std::runtime_error("ZARVO_BINARY_DIR is not set; run the tests through ctest");
    }
    return std::string(directory) + "/" + name;
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "zarvo-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace testsupport
