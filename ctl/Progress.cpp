#include "ctl/Progress.h"

#include <ostream>
#include <utility>

namespace quorvix::ctl {

Progress::Progress(const ToolServices& services, std::string what, std::chrono::milliseconds step)
    : services_(services), what_(std::move(what)), step_(step) {
    if (services_.progress) thread_ = std::thread([this] { show(); });
}

Progress::~Progress() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        end_ = true;
    }
    ended_.notify_one();
    thread_.join();
}

void Progress::show() {
    std::unique_lock lock(mutex_);
    int steps = 0;
    while (!ended_.wait_for(lock, step_, [this] { return end_; })) {
        services_.error << "\r" << what_ << " ... " << ++steps << " s" << std::flush;
    }
    // To the beginning of the line, and what is on it goes.
    if (steps > 0) services_.error << "\r\033[K" << std::flush;
}

}  // namespace quorvix::ctl
