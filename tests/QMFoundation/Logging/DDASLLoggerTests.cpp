// The system logger against receivers of the test's own: a datagram socket
// bound over /dev/log in a private mount namespace for syslog(3), and one at
// a path of its own for journald's native protocol. The namespace must be
// entered while the process has one thread, so this program has its own main.
#include "QMFoundation/Logging/DDASLLogger.h"

#include "QMFoundation/Logging/DDLog.h"

#include "Platform/System/ProcessInfo.h"
#include "tests/QMFoundation/Logging/RecordingLogger.h"
#include "tests/Support/NetworkNamespace.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

// Why /dev/log cannot be ours, or empty when it is.
std::string syslogSkipReason = "not prepared";
std::string savedDevices;  // where the real /dev stays reachable

// Puts an empty /dev (with links to the real device nodes) and an empty
// /run/systemd in place, in this process's own mount namespace, so /dev/log
// is free for the test's receiver and no journald is found.
std::string prepareSystemLogNamespace()
{
    std::string reason = testsupport::enterMountNamespace();
    if (!reason.empty()) {
        return reason;
    }
    char directory[] = "/tmp/zarvo-devices-XXXXXX";
    if (::mkdtemp(directory) == nullptr) {
        return "cannot make a directory for the real /dev";
    }
    savedDevices = directory;
    if (::mount("/dev", directory, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return std::string("cannot keep the real /dev: ") + std::strerror(errno);
    }
    if (::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) {
        return std::string("cannot mount an empty /dev: ") + std::strerror(errno);
    }
    if (DIR* devices = ::opendir(directory)) {
        while (const dirent* entry = ::readdir(devices)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && name != "log") {
                static_cast<void>(::symlink((savedDevices + "/" + name).c_str(), ("/dev/" + name).c_str()));
            }
        }
        ::closedir(devices);
    }
    struct stat status {};
    if (::stat("/run/systemd", &status) == 0 && ::mount("tmpfs", "/run/systemd", "tmpfs", 0, nullptr) != 0) {
        return "cannot hide journald's socket";
    }
    return {};
}

class DatagramReceiver {
public:
    explicit DatagramReceiver(const std::string& path) : path_(path)
    {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ::unlink(path.c_str());
        bound_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        // Room for the large entries.
        const int size = 4 << 20;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    ~DatagramReceiver()
    {
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    bool isBound() const { return bound_; }
    void close()
    {
        ::close(fd_);
        fd_ = -1;
        ::unlink(path_.c_str());
    }

    // The next datagram, or the contents of the memory file it passes;
    // nothing when none comes (a hang guard, not an expected outcome).
    std::optional<std::string> receive()
    {
        pollfd readable{fd_, POLLIN, 0};
        if (::poll(&readable, 1, 20000) != 1) {
            return std::nullopt;
        }
        std::string data(256 * 1024, '\0');
        iovec piece{data.data(), data.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t count = ::recvmsg(fd_, &message, MSG_CMSG_CLOEXEC);
        if (count < 0) {
            return std::nullopt;
        }
        data.resize(static_cast<std::size_t>(count));
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
                int file = -1;
                std::memcpy(&file, CMSG_DATA(header), sizeof file);
                data.clear();
                char buffer[65536];
                ssize_t read = 0;
                while ((read = ::pread(file, buffer, sizeof buffer, static_cast<off_t>(data.size()))) > 0) {
                    data.append(buffer, static_cast<std::size_t>(read));
                }
                ::close(file);
            }
        }
        return data;
    }

private:
    std::string path_;
    int fd_ = -1;
    bool bound_ = false;
};

// Journald's native fields: NAME=value lines, or NAME, a line end, a 64-bit
// little-endian length and that many bytes, and a line end.
std::map<std::string, std::string> parseJournalEntry(const std::string& entry)
{
    std::map<std::string, std::string> fields;
    std::size_t at = 0;
    while (at < entry.size()) {
        const auto end = entry.find_first_of("=\n", at);
        if (end == std::string::npos) {
            ADD_FAILURE() << "field without an end";
            break;
        }
        const std::string name = entry.substr(at, end - at);
        if (entry[end] == '=') {
            const auto lineEnd = entry.find('\n', end);
            fields[name] = entry.substr(end + 1, lineEnd - end - 1);
            at = lineEnd + 1;
            continue;
        }
        std::uint64_t length = 0;
        for (int i = 7; i >= 0; --i) {
            length = (length << 8) | static_cast<unsigned char>(entry[end + 1 + static_cast<std::size_t>(i)]);
        }
        const std::size_t start = end + 9;
        fields[name] = entry.substr(start, length);
        EXPECT_EQ(entry[start + length], '\n');
        at = start + length + 1;
    }
    return fields;
}

class DDASLLoggerTest : public logtest::LoggingTest {
protected:
    static void logSync(int flag, const std::string& text)
    {
        DDLog::log(false, DDLogLevelAll, flag, 0, "/src/Sender.cpp", "sendAll", 77, {}, "%s", text.c_str());
    }
};

TEST_F(DDASLLoggerTest, LinesReachSyslogWithTheUserFacilityAndTheirPriority)
{
    if (!syslogSkipReason.empty()) {
        GTEST_SKIP() << "no /dev/log of our own: " << syslogSkipReason;
    }
    DatagramReceiver receiver("/dev/log");
    ASSERT_TRUE(receiver.isBound());
    const auto& logger = DDASLLogger::sharedInstance();
    EXPECT_EQ(logger->loggerQueue()->label(), "cocoa.velmora.aslLogger");
    DDLog::addLogger(logger);
    // By the flag's value, not its bits: 3 is neither an error nor a warning.
    const std::vector<std::pair<int, int>> sent = {{1, 1}, {2, 2}, {3, 5}, {4, 3}, {8, 4}, {16, 5}};
    for (const auto& [flag, priority] : sent) {
        logSync(flag, "flag " + std::to_string(flag) + " 100%s");
    }
    for (const auto& [flag, priority] : sent) {
        SCOPED_TRACE("flag " + std::to_string(flag));
        const auto datagram = receiver.receive();
        ASSERT_TRUE(datagram.has_value());
        // <facility * 8 + priority>, the user facility being 1.
        EXPECT_TRUE(datagram->starts_with("<" + std::to_string(8 + priority) + ">")) << *datagram;
        // The text goes through "%s": a "%s" in it stays as it is.
        EXPECT_TRUE(datagram->ends_with("flag " + std::to_string(flag) + " 100%s")) << *datagram;
    }
}

TEST_F(DDASLLoggerTest, JournalEntriesCarryTheTextWholeWithItsSource)
{
    const std::string path = "/tmp/zarvo-journal-" + std::to_string(::getpid());
    DatagramReceiver journal(path);
    ASSERT_TRUE(journal.isBound());
    const auto logger = DDASLLogger::makeWithJournalSocket(path);
    DDLog::addLogger(logger);

    logSync(DDLogFlagWarning, "two\nlines");
    auto entry = journal.receive();
    ASSERT_TRUE(entry.has_value());
    auto fields = parseJournalEntry(*entry);
    EXPECT_EQ(fields["MESSAGE"], "two\nlines");
    EXPECT_EQ(fields["PRIORITY"], "2");
    EXPECT_EQ(fields["SYSLOG_FACILITY"], "1");
    EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], platform::ProcessInfo::processName());
    EXPECT_EQ(fields["CODE_FILE"], "/src/Sender.cpp");
    EXPECT_EQ(fields["CODE_LINE"], "77");
    EXPECT_EQ(fields["CODE_FUNC"], "sendAll");

    // Too big for one datagram: handed over in a memory file.
    std::string big(1 << 20, 'z');
    big[1000] = '\n';
    logSync(DDLogFlagDebug, big);
    entry = journal.receive();
    ASSERT_TRUE(entry.has_value());
    fields = parseJournalEntry(*entry);
    EXPECT_EQ(fields["MESSAGE"].size(), big.size());
    EXPECT_TRUE(fields["MESSAGE"] == big);
    EXPECT_EQ(fields["PRIORITY"], "4");
}

// A journal socket that went away, or a path that is no socket at all (a
// plain file): the lines go to syslog instead.
TEST_F(DDASLLoggerTest, WithoutAJournalToTalkToTheLinesGoToSyslog)
{
    if (!syslogSkipReason.empty()) {
        GTEST_SKIP() << "no /dev/log of our own: " << syslogSkipReason;
    }
    DatagramReceiver syslog("/dev/log");
    ASSERT_TRUE(syslog.isBound());
    const std::string gonePath = "/tmp/zarvo-journal-gone-" + std::to_string(::getpid());
    DatagramReceiver gone(gonePath);
    DDLog::addLogger(DDASLLogger::makeWithJournalSocket(gonePath));
    gone.close();
    DDLog::addLogger(DDASLLogger::makeWithJournalSocket(savedDevices + "/null"));

    logSync(DDLogFlagError, "still told");
    for (const char* logger : {"journal gone", "no socket"}) {
        SCOPED_TRACE(logger);
        const auto datagram = syslog.receive();
        ASSERT_TRUE(datagram.has_value());
        EXPECT_TRUE(datagram->starts_with("<9>")) << *datagram;
        EXPECT_TRUE(datagram->ends_with("still told")) << *datagram;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    syslogSkipReason = prepareSystemLogNamespace();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (!savedDevices.empty()) {
        ::umount2(savedDevices.c_str(), MNT_DETACH);
        ::rmdir(savedDevices.c_str());
    }
    return result;
}
