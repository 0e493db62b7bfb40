#include "platform/linux/JournalLog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/linux/MessageIds.h"

namespace quorvix::linuxos {

namespace {

constexpr int kLongestWaitMs = 10;
constexpr std::int64_t kNoWaitAgainNs = 1'000'000'000;
// What a pipe that polls as writable takes without waiting.
constexpr std::size_t kPieceBytes = 4096;

std::int64_t monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::string_view priorityOf(LogLevel level) {
    switch (level) {
        case LogLevel::standard: return "5";  // notice
        case LogLevel::info: return "6";
        case LogLevel::debug: return "7";
    }
    return "5";
}

std::string_view wordOf(LogLevel level) {
    switch (level) {
        case LogLevel::standard: return "default";
        case LogLevel::info: return "info";
        case LogLevel::debug: return "debug";
    }
    return "default";
}

// "NAME=value\n", or for a value with line feeds "NAME\n", its length in 64 bits little-endian, the value and "\n".
void appendField(std::string& entry, std::string_view name, std::string_view value) {
    entry += name;
    if (value.find('\n') == std::string_view::npos) {
        entry += '=';
    } else {
        entry += '\n';
        for (int shift = 0; shift < 64; shift += 8) {
            entry += static_cast<char>(static_cast<std::uint64_t>(value.size()) >> shift & 0xFF);
        }
    }
    entry += value;
    entry += '\n';
}

void appendEscaped(std::string& line, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            line += escape;
        } else {
            line += c;
        }
    }
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

}  // namespace

JournalLog::JournalLog(Places places)
    : places_(std::move(places)),
      socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      levels_(places_.levels, places_.levelsCheckInterval,
              [this](const std::string& text) { write("com.norvane.quorvix", "platform", LogLevel::standard, text); }) {
    // What bounds the wait for a reader whose queue is full.
    const timeval wait{0, suseconds_t{kLongestWaitMs} * 1000};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

bool JournalLog::enabled(std::string_view subsystem, std::string_view category, LogLevel level) noexcept {
    return levels_.enabled(subsystem, category, level);
}

void JournalLog::write(std::string_view subsystem, std::string_view category, LogLevel level, std::string_view text) {
    writeEvent({}, subsystem, category, level, text);
}

void JournalLog::writeEvent(const LogEvent& event, std::string_view subsystem, std::string_view category,
                            LogLevel level, std::string_view text) {
    std::string entry;
    entry.reserve(text.size() + 240);
    appendField(entry, "MESSAGE", text);
    appendField(entry, "PRIORITY", priorityOf(level));
    appendField(entry, "SYSLOG_IDENTIFIER", places_.identifier);
    appendField(entry, "QUORVIX_SUBSYSTEM", subsystem);
    appendField(entry, "QUORVIX_CATEGORY", category);
    if (event.kind != LogEventKind::none) appendField(entry, "MESSAGE_ID", messageIdOf(event.kind));
    if (!event.reason.empty()) appendField(entry, "QUORVIX_REASON", event.reason);
    if (sendToJournal(entry) == Sent::yes) {
        ++journalLines_;
    } else {
        writeToStandardError(category, level, text);
    }
}

JournalLog::Sent JournalLog::sendToJournal(std::string_view entry) {
    Sent sent = sendDatagram(entry, MSG_DONTWAIT);
    if (sent == Sent::tooLong) return sendAsMemoryFile(entry) ? Sent::yes : Sent::no;
    if (sent != Sent::stuck) return sent;
    if (monotonicNow() >= noWaitUntilNs_) {
        sent = sendDatagram(entry, 0);
        if (sent != Sent::stuck) return sent;
        noWaitUntilNs_ = monotonicNow() + kNoWaitAgainNs;
    }
    ++stuckJournal_;
    return Sent::stuck;
}

JournalLog::Sent JournalLog::sendDatagram(std::string_view entry, int flags) {
    // Not connected: the journal may come, go and come back.
    const sockaddr_un address = addressOf(places_.journalSocket);
    for (;;) {
        const ssize_t count = ::sendto(socket_.get(), entry.data(), entry.size(), flags | MSG_NOSIGNAL,
                                       reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (count >= 0) return Sent::yes;
        switch (errno) {
            case EINTR: continue;
            case EMSGSIZE:
            case ENOBUFS: return Sent::tooLong;
            case EAGAIN: return Sent::stuck;
            default: return Sent::no;
        }
    }
}

bool JournalLog::sendAsMemoryFile(std::string_view entry) {
    const Descriptor file(::memfd_create("quorvix-log", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file) return false;
    while (!entry.empty()) {
        const ssize_t count = ::write(file.get(), entry.data(), entry.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        entry.remove_prefix(static_cast<std::size_t>(count));
    }
    // The journal takes a memory file only when nobody can change it any more.
    if (::fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0) return false;

    sockaddr_un address = addressOf(places_.journalSocket);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = file.get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    // Not waiting: such a line is rare, and standard error takes it.
    if (::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return false;
    ++memoryFileLines_;
    return true;
}

void JournalLog::writeToStandardError(std::string_view category, LogLevel level, std::string_view text) {
    std::string line;
    line.reserve(text.size() + 32);
    line.append("<").append(wordOf(level)).append("> ");
    if (!category.empty()) {
        line += '[';
        appendEscaped(line, category);
        line += "] ";
    }
    appendEscaped(line, text);
    line += '\n';

    const std::lock_guard lock(standardErrorMutex_);
    if (lineIsOpen_) line.insert(line.begin(), '\n');
    std::string_view left = line;
    while (!left.empty()) {
        pollfd writable{places_.standardError, POLLOUT, 0};
        const int waitMs = monotonicNow() >= noStandardErrorWaitUntilNs_ ? kLongestWaitMs : 0;
        const int ready = ::poll(&writable, 1, waitMs);
        if (ready == 0 && waitMs > 0) noStandardErrorWaitUntilNs_ = monotonicNow() + kNoWaitAgainNs;
        if (ready < 0 && errno == EINTR) continue;
        // A reader that is gone shows here: writing to it would raise a signal.
        if (ready <= 0 || (writable.revents & (POLLERR | POLLNVAL)) != 0) break;
        const ssize_t count = ::write(places_.standardError, left.data(), std::min(left.size(), kPieceBytes));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        left.remove_prefix(static_cast<std::size_t>(count));
    }
    if (left.empty()) {
        lineIsOpen_ = false;
        ++standardErrorLines_;
    } else {
        // Where nothing of the line went out, a line that was open before stays open.
        lineIsOpen_ = lineIsOpen_ || left.size() < line.size();
        ++droppedLines_;
    }
}

JsonObject JournalLog::selfCounters() const {
    return {{"journalLines", journalLines_.load()},
            {"memoryFileLines", memoryFileLines_.load()},
            {"standardErrorLines", standardErrorLines_.load()},
            {"stuckJournal", stuckJournal_.load()},
            {"droppedLines", droppedLines_.load()},
            {"levelReloads", levels_.reloads()}};
}

}  // namespace quorvix::linuxos
