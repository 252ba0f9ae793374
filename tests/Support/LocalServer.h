// Runs a test server as a child process for as long as the object lives: the
// server prints the port it listens on as its first line of output. Its
// standard input is a pipe whose only write end this object holds and never
// writes to: a server should end when it reads end of input there, which
// comes when the object goes and also when the test process dies without
// running its destructors (an abort, a sanitizer report), so that no server
// outlives its test holding the test's output.
//
//   testsupport::LocalServer server({"python3", "tests/.../server.py"});
//   const auto url = "http://127.0.0.1:" + std::to_string(server.port()) + "/echo";
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

class LocalServer {
public:
    // Throws when the server cannot be started or names no port.
    explicit LocalServer(const std::vector<std::string>& command);
    // Terminates the server and waits for it.
    ~LocalServer();
    LocalServer(const LocalServer&) = delete;
    LocalServer& operator=(const LocalServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:PORT" followed by `path`.
    std::string url(const std::string& path) const;

private:
    pid_t child_ = -1;
    int port_ = 0;
    int lifeline_ = -1;  // the write end of the server's standard input
};

// A TCP socket bound to a port of 127.0.0.1 that nobody else has; writes the
// port. The caller listens on it, or closes it to have a port that refuses.
int bindLoopbackSocket(int& port);

// The absolute path of a file in the source tree, from its path relative to
// the repository's root.
std::string sourceFile(const std::string& relativePath);

}  // namespace testsupport
