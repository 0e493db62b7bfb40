#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/swivex.h"

namespace quorvix {

// The trace library, loaded once on first need. Where it is absent the daemon runs on and writes no reports. Owned by
// the hang state; used on daemonQueue.
class TraceLibrary {
public:
    // Loads the library when that was not tried yet. True: it can dump.
    bool usable();

    // Has the library write a trace of [startTime, endTime] (ticks) to fd, without symbol names. reasonText: JSON.
    // Blocks until it is written. False: nothing usable was written.
    [[nodiscard]] bool writeSwivexData(int fd, std::uint64_t startTime, std::uint64_t endTime,
                                       const std::string& reasonText);

private:
    void loadSwivexLibrary();

    std::once_flag loaded_;
    swivex_dump_function* dump_ = nullptr;
    // The option keys; nullptr where the library has none: it is then used without that option.
    const char* reasonStringKey_ = nullptr;
    const char* noSymbolicateKey_ = nullptr;
    const char* minTimestampKey_ = nullptr;
    const char* maxTimestampKey_ = nullptr;
};

}  // namespace quorvix
