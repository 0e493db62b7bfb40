#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/Json.h"
#include "platform/SystemLog.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/LogLevels.h"

namespace quorvix::linuxos {

// The system log as the journal, in its native datagram protocol; without a journal, one line to standard error:
//
//   <LEVEL> [category] text            LEVEL: default, info, debug; no brackets for the empty category
//
// where control characters of the text are escaped, so that an entry is one line whatever a client put into it. A line
// never waits for a stuck reader longer than 10 ms, and after such a wait none waits again for a second: it goes to
// standard error, and where that is stuck too it is dropped. All of it is counted. A text that is too long for a
// datagram goes as a sealed memory file. An event's line carries the event's MESSAGE_ID, under which the journal's
// catalogue explains it; standard error has no place for that. Callable from any thread; lines are never held back for
// later.
class JournalLog final : public SystemLog {
public:
    struct Places {
        std::string journalSocket = "/run/systemd/journal/socket";
        std::string levels = std::string(LogLevels::kPath);
        std::string identifier = "quorvixd";
        int standardError = 2;
        std::chrono::nanoseconds levelsCheckInterval = std::chrono::seconds(1);
    };

    JournalLog() : JournalLog(Places{}) {}
    explicit JournalLog(Places places);

    bool enabled(std::string_view subsystem, std::string_view category, LogLevel level) noexcept override;
    void write(std::string_view subsystem, std::string_view category, LogLevel level, std::string_view text) override;
    void writeEvent(const LogEvent& event, std::string_view subsystem, std::string_view category, LogLevel level,
                    std::string_view text) override;

    JsonObject selfCounters() const;

private:
    enum class Sent { yes, tooLong, stuck, no };

    Sent sendToJournal(std::string_view entry);
    Sent sendDatagram(std::string_view entry, int flags);
    bool sendAsMemoryFile(std::string_view entry);
    void writeToStandardError(std::string_view category, LogLevel level, std::string_view text);

    const Places places_;
    Descriptor socket_;
    LogLevels levels_;
    // CLOCK_MONOTONIC, nanoseconds: until then no line waits for the journal.
    std::atomic<std::int64_t> noWaitUntilNs_{0};
    std::atomic<std::int64_t> noStandardErrorWaitUntilNs_{0};
    std::mutex standardErrorMutex_;
    // The last line was cut in the middle: the next begins with a line feed. Guarded by standardErrorMutex_.
    bool lineIsOpen_ = false;

    std::atomic<std::uint64_t> journalLines_{0};
    std::atomic<std::uint64_t> memoryFileLines_{0};
    std::atomic<std::uint64_t> standardErrorLines_{0};
    std::atomic<std::uint64_t> stuckJournal_{0};
    std::atomic<std::uint64_t> droppedLines_{0};
};

}  // namespace quorvix::linuxos
