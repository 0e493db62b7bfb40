#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "swivex/EventDecoder.h"
#include "swivex/RingPage.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::swivex::tests {

// Two pages of a ring as a 6.18 kernel left them, the text that the same kernel made of them, and its format files.
inline std::string recorded(const std::string& name) {
    return quorvix::tests::readWholeFile(std::string(QUORVIX_SWIVEX_TEST_DATA) + "/" + name);
}

inline EventDecoder recordedDecoder() {
    EventDecoder decoder;
    for (const char* name :
         {"sched_switch", "sched_waking", "sched_wakeup_new", "sched_process_fork", "sched_process_exec",
          "sched_process_exit", "task_newtask", "task_rename", "signal_generate", "block_rq_issue", "print"}) {
        decoder.add(parseEventFormat(recorded(std::string(name) + ".format")).value());
    }
    return decoder;
}

struct RecordedPage {
    std::string bytes;
    std::uint64_t timeNs = 0;
    std::size_t length = 0;  // of the records

    std::span<const std::uint8_t> data() const {
        return {reinterpret_cast<const std::uint8_t*>(bytes.data()) + 16, length};
    }
};

inline std::vector<RecordedPage> recordedPages() {
    constexpr std::size_t kPage = 4096;
    const std::string all = recorded("ring.pages");
    std::vector<RecordedPage> pages(all.size() / kPage);
    for (std::size_t index = 0; index < pages.size(); ++index) {
        RecordedPage& page = pages[index];
        page.bytes = all.substr(index * kPage, kPage);
        std::uint64_t commit = 0;
        std::memcpy(&page.timeNs, page.bytes.data(), 8);
        std::memcpy(&commit, page.bytes.data() + 8, 8);
        page.length = commit & 0xfffff;
    }
    return pages;
}

}  // namespace quorvix::swivex::tests
