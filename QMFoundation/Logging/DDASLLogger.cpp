#include "QMFoundation/Logging/DDASLLogger.h"

#include "QMFoundation/Logging/DDLogMessage.h"

#include "Platform/System/ProcessInfo.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr const char* kJournalSocketPath = "/run/systemd/journal/socket";

// A field whose value may hold any bytes, line ends included: the name, a
// line end, the length as 64-bit little-endian, the bytes, a line end.
void appendBinaryField(std::string& datagram, const char* name, const std::string& value)
{
    datagram += name;
    datagram += '\n';
    std::uint64_t length = value.size();
    for (int i = 0; i < 8; ++i) {
        datagram += static_cast<char>(length & 0xFF);
        length >>= 8;
    }
    datagram += value;
    datagram += '\n';
}

// A field whose value has no line end.
void appendField(std::string& datagram, const char* name, const std::string& value)
{
    if (value.find('\n') != std::string::npos) {
        appendBinaryField(datagram, name, value);
        return;
    }
    datagram += name;
    datagram += '=';
    datagram += value;
    datagram += '\n';
}

// Hands a payload too big for a datagram over in a sealed memory file.
bool sendInMemoryFile(int socket, const std::string& datagram)
{
    const int file = ::memfd_create("journal-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) {
        return false;
    }
    bool sent = false;
    std::size_t done = 0;
    while (done < datagram.size()) {
        const ssize_t written = ::write(file, datagram.data() + done, datagram.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        done += static_cast<std::size_t>(written);
    }
    if (done == datagram.size() &&
        ::fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &file, sizeof(int));
        ssize_t result = 0;
        do {
            result = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        } while (result < 0 && errno == EINTR);
        sent = result >= 0;
    }
    ::close(file);
    return sent;
}

}  // namespace

const DDASLLoggerRef& DDASLLogger::sharedInstance()
{
    // Never destroyed: the flush at exit may still reach it.
    static const auto* const instance = new DDASLLoggerRef(platform::makeObject<DDASLLogger>(kJournalSocketPath));
    return *instance;
}

DDASLLoggerRef DDASLLogger::makeWithJournalSocket(const std::string& journalSocketPath)
{
    return platform::makeObject<DDASLLogger>(journalSocketPath);
}

DDASLLogger::DDASLLogger(const std::string& journalSocketPath) : identifier_(platform::ProcessInfo::processName())
{
    // libsystemd's sender reports success when nobody listens, so the socket
    // is looked for here, once.
    struct stat status {};
    sockaddr_un address{};
    if (::stat(journalSocketPath.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
        journalSocketPath.size() >= sizeof address.sun_path) {
        return;
    }
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, journalSocketPath.c_str(), journalSocketPath.size() + 1);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        return;
    }
    journal_ = socket;
}

DDASLLogger::~DDASLLogger()
{
    if (journal_ >= 0) {
        ::close(journal_);
    }
}

int DDASLLogger::priorityForFlag(int flag)
{
    switch (flag) {
    case 1:
        return LOG_ALERT;
    case 2:
        return LOG_CRIT;
    case 4:
        return LOG_ERR;
    case 8:
        return LOG_WARNING;
    default:
        return LOG_NOTICE;
    }
}

bool DDASLLogger::sendToJournal(const DDLogMessage& logMessage, const std::string& text, int priority)
{
    std::string datagram;
    datagram.reserve(text.size() + 160);
    appendField(datagram, "PRIORITY", std::to_string(priority));
    appendField(datagram, "SYSLOG_FACILITY", std::to_string(LOG_USER >> 3));
    appendField(datagram, "SYSLOG_IDENTIFIER", identifier_);
    if (logMessage.file() != nullptr) {
        appendField(datagram, "CODE_FILE", logMessage.file());
        appendField(datagram, "CODE_LINE", std::to_string(logMessage.lineNumber()));
    }
    if (logMessage.function() != nullptr) {
        appendField(datagram, "CODE_FUNC", logMessage.function());
    }
    appendBinaryField(datagram, "MESSAGE", text);

    ssize_t result = 0;
    do {
        result = ::send(journal_, datagram.data(), datagram.size(), MSG_NOSIGNAL);
    } while (result < 0 && errno == EINTR);
    if (result >= 0) {
        return true;
    }
    return (errno == EMSGSIZE || errno == ENOBUFS) && sendInMemoryFile(journal_, datagram);
}

void DDASLLogger::logMessage(const DDLogMessage& logMessage)
{
    std::string line;
    const std::string* text = textToWrite(logMessage, line);
    if (text == nullptr) {
        return;
    }
    const int priority = priorityForFlag(logMessage.logFlag());
    if (journal_ >= 0 && sendToJournal(logMessage, *text, priority)) {
        return;
    }
    ::syslog(LOG_USER | priority, "%s", text->c_str());
}
