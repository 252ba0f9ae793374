// A scratch nginx (Debian's nginx-light) on 127.0.0.1 for the HTTP
// benchmarks: keep-alive without limit, every request answered with six
// bytes. It lives as long as the object.
#pragma once

#include "bench/BenchmarkSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

extern char** environ;

namespace bench {

inline int freePort()
{
    int port = 0;
    close(bindLoopbackSocket(port));
    return port;
}

inline bool accepts(int port)
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return connected;
}

class LocalNginx {
public:
    LocalNginx() : port_(freePort())
    {
        char pattern[] = "/tmp/zarvo-bench-nginx-XXXXXX";
        prefix_ = mkdtemp(pattern);
        std::ofstream(prefix_ + "/nginx.conf")
            << "worker_processes 1;\nerror_log stderr error;\npid " << prefix_ << "/nginx.pid;\n"
            << "events { worker_connections 64; }\n"
            << "http { access_log off; keepalive_requests 1000000;\n"
            << "  server { listen 127.0.0.1:" << port_ << "; location / { return 200 \"hello\\n\"; } } }\n";
        const std::string configuration = prefix_ + "/nginx.conf";
        char* const argv[] = {const_cast<char*>("nginx"), const_cast<char*>("-p"), prefix_.data(), const_cast<char*>("-c"),
                              const_cast<char*>(configuration.c_str()), const_cast<char*>("-g"),
                              const_cast<char*>("daemon off;"), nullptr};
        if (posix_spawnp(&child_, "nginx", nullptr, nullptr, argv, environ) != 0) {
            std::fprintf(stderr, "nginx is not installed (Debian's nginx-light)\n");
            std::exit(2);
        }
        for (int attempt = 0; attempt < 500 && !accepts(port_); ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~LocalNginx()
    {
        kill(child_, SIGQUIT);
        waitpid(child_, nullptr, 0);
        std::filesystem::remove_all(prefix_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

private:
    int port_;
    std::string prefix_;
    pid_t child_ = -1;
};
}  // namespace bench
