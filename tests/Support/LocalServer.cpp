#include "tests/Support/LocalServer.h"

#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testsupport {
namespace {

// The first line the child writes, read byte by byte so that nothing after
// it is taken from the pipe.
std::string readFirstLine(int fd)
{
    std::string line;
    char byte = 0;
    while (read(fd, &byte, 1) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

}  // namespace

LocalServer::LocalServer(const std::vector<std::string>& command)
{
    int output[2];
    int input[2];
    if (pipe2(output, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    if (pipe2(input, O_CLOEXEC) != 0) {
        close(output[0]);
        close(output[1]);
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> argv;
    for (const auto& argument : command) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    const int failure = posix_spawnp(&child_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    close(input[0]);
    lifeline_ = input[1];
    if (failure != 0) {
        close(lifeline_);
        close(output[0]);
        throw std::runtime_error("cannot start " + command.front());
    }
    const auto line = readFirstLine(output[0]);
    close(output[0]);
    port_ = line.empty() ? 0 : std::stoi(line);
    if (port_ <= 0) {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        close(lifeline_);
        throw std::runtime_error("the server named no port: " + command.back());
    }
}

LocalServer::~LocalServer()
{
    kill(child_, SIGTERM);
    int status = 0;
    waitpid(child_, &status, 0);
    close(lifeline_);
}

std::string LocalServer::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

int bindLoopbackSocket(int& port)
{
    const int bound = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bound < 0 || bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || getsockname(bound, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no port of 127.0.0.1 to bind");
    }
    port = ntohs(address.sin_port);
    return bound;
}

std::string sourceFile(const std::string& relativePath)
{
    return std::string(ZARVO_SOURCE_DIR) + "/" + relativePath;
}

}  // namespace testsupport
