#include "platform/linux/Console.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace quorvix::linuxos {

namespace {

// What a pipe that polls as writable takes without waiting.
constexpr std::size_t kPieceBytes = 4096;

}  // namespace

LinuxConsole::Places LinuxConsole::ownPlaces() {
    Places places;
    if (const char* const stream = std::getenv("JOURNAL_STREAM")) places.journalStream = stream;
    return places;
}

void LinuxConsole::log(std::string_view text) {
    log_.write("com.norvane.quorvix", "", LogLevel::standard, text);
    if (logShowsOnStandardError()) return;
    std::string line(text);
    if (!line.ends_with('\n')) line += '\n';
    write(places_.standardError, line);
}

void LinuxConsole::print(std::string_view text) { write(places_.standardOutput, text); }

bool LinuxConsole::logShowsOnStandardError() const {
    if (::access(places_.journalSocket.c_str(), F_OK) != 0) return true;
    struct stat status {};
    if (places_.journalStream.empty() || ::fstat(places_.standardError, &status) != 0) return false;
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == places_.journalStream;
}

void LinuxConsole::write(int descriptor, std::string_view text) {
    const std::lock_guard lock(mutex_);
    while (!text.empty()) {
        pollfd writable{descriptor, POLLOUT, 0};
        const int ready = ::poll(&writable, 1, places_.longestWaitMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0 || (writable.revents & (POLLERR | POLLNVAL)) != 0) break;
        const ssize_t count = ::write(descriptor, text.data(), std::min(text.size(), kPieceBytes));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    if (!text.empty()) ++cutTexts_;
}

}  // namespace quorvix::linuxos
