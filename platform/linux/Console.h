#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/Json.h"
#include "platform/Signposts.h"
#include "platform/SystemLog.h"

namespace quorvix::linuxos {

// The process's standard output and the console logging call, which is a line of the log in the system's own texts,
// echoed to standard error unless the log shows there anyway: where there is no journal, or standard error leads to it.
// A text whose reader is stuck for longer than the wait loses its rest, which is counted. Callable from any thread.
class LinuxConsole final : public Console {
public:
    static constexpr int kWaitForEver = -1;

    struct Places {
        int standardOutput = 1;
        int standardError = 2;
        std::string journalSocket = "/run/systemd/journal/socket";
        // Device and inode of the journal's stream as a service manager names them ("8:1234"), empty without one.
        std::string journalStream;
        // A daemon waits for no reader for long; a tool whose output goes through a pager does.
        int longestWaitMs = 10;
    };
    // The places of this process.
    static Places ownPlaces();

    explicit LinuxConsole(SystemLog& log) : LinuxConsole(log, ownPlaces()) {}
    LinuxConsole(SystemLog& log, Places places) : log_(log), places_(std::move(places)) {}

    void log(std::string_view text) override;
    void print(std::string_view text) override;

    JsonObject selfCounters() const { return {{"cutTexts", cutTexts_.load()}}; }

private:
    bool logShowsOnStandardError() const;
    void write(int descriptor, std::string_view text);

    SystemLog& log_;
    const Places places_;
    // Texts of several threads do not mix.
    std::mutex mutex_;
    std::atomic<std::uint64_t> cutTexts_{0};
};

}  // namespace quorvix::linuxos
