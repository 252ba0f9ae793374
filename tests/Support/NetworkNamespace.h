// A network of the process's own: a new user, network and mount namespace,
// entered while the process still has one thread (the kernel refuses a new
// user namespace to a threaded process), and iproute2 to shape it.
//
//   int main(int argc, char** argv)
//   {
//       const auto entered = testsupport::enterNetworkNamespace("10.20.1.1 gateway.test\n");
//       ...
//       if (!entered.skipReason.empty()) GTEST_SKIP() << entered.skipReason;
//       testsupport::ip("link add v0 type veth peer name v1");
//   }
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace testsupport {

struct NetworkNamespace {
    std::string skipReason;  // empty when the namespaces are ours
    bool ownHostsFile = false;  // /etc/hosts shows the text given, in this process only
};

namespace detail {

inline std::string& ipProgram()
{
    static std::string path;
    return path;
}

inline bool writeWhole(int fd, const std::string& text)
{
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

inline bool writeFile(const char* path, const std::string& text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = writeWhole(fd, text);
    ::close(fd);
    return written;
}

// Enters a new user namespace, mapped to the caller, together with the
// namespaces in `flags`; an empty answer on success, else why not.
inline std::string enterUserNamespace(int flags)
{
    const auto uid = ::getuid();
    const auto gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | flags) != 0) {
        return std::string("the kernel refuses an unprivileged user namespace: ") + std::strerror(errno);
    }
    if (!writeFile("/proc/self/setgroups", "deny") || !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return "cannot map this user into the new namespace";
    }
    return {};
}

}  // namespace detail

// Enters the namespaces; with `hosts`, also mounts a hosts file holding it
// over /etc/hosts (where that fails the file is simply not ours).
inline NetworkNamespace enterNetworkNamespace(const std::string& hosts = {})
{
    NetworkNamespace result;
    for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
        if (::access(candidate, X_OK) == 0) {
            detail::ipProgram() = candidate;
            break;
        }
    }
    if (detail::ipProgram().empty()) {
        result.skipReason = "iproute2's ip is not installed";
        return result;
    }
    result.skipReason = detail::enterUserNamespace(CLONE_NEWNET | CLONE_NEWNS);
    if (!result.skipReason.empty()) {
        return result;
    }
    if (!hosts.empty()) {
        char path[] = "/tmp/zarvo-hosts-XXXXXX";
        const int fd = ::mkstemp(path);
        if (fd >= 0) {
            const bool written = detail::writeWhole(fd, hosts);
            ::close(fd);
            result.ownHostsFile = written && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                  ::mount(path, "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
            ::unlink(path);  // the mount keeps the file
        }
    }
    return result;
}

// Enters a user and mount namespace of the process's own, with every mount
// made private, so what the process mounts is seen by it alone. Call it
// while the process has one thread. An empty answer on success, else why not.
inline std::string enterMountNamespace()
{
    std::string reason = detail::enterUserNamespace(CLONE_NEWNS);
    if (reason.empty() && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        reason = std::string("cannot make the mounts private: ") + std::strerror(errno);
    }
    return reason;
}

// Runs iproute2's ip with `arguments` (one shell word list); true on success.
inline bool ip(const std::string& arguments)
{
    const std::string command = detail::ipProgram() + " " + arguments;
    return std::system(command.c_str()) == 0;
}

}  // namespace testsupport
