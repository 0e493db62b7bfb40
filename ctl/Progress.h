#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// Tells an operator at a terminal what takes its time: after a second a line on standard error with the seconds gone,
// which goes again with the object. Elsewhere it does nothing. While it lives, nobody else writes to standard error.
class Progress {
public:
    static constexpr std::chrono::milliseconds kStep{1000};

    // `what`: "Taking a memory snapshot"; printable.
    Progress(const ToolServices& services, std::string what, std::chrono::milliseconds step = kStep);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void show();

    const ToolServices& services_;
    const std::string what_;
    const std::chrono::milliseconds step_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool end_ = false;
    std::thread thread_;
};

}  // namespace quorvix::ctl
