#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "bench/Bench.h"
#include "swivex/FlightRecorder.h"

namespace quorvix::bench {

// A recorder of this benchmark's own, in a tracing file system that is mounted for this process alone; gone with it.
class RecorderInstance {
public:
    RecorderInstance() : recorder_(instance_) {
        require(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
                "mounts of its own (needs root)");
        if (access("/sys/kernel/tracing/instances", F_OK) != 0) {
            require(mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) == 0, "tracefs");
        }
    }
    ~RecorderInstance() { (void)!!recorder_.disarm(); }
    RecorderInstance(const RecorderInstance&) = delete;
    RecorderInstance& operator=(const RecorderInstance&) = delete;

    void on() { require(static_cast<bool>(recorder_.arm({})), "switching the recorder on"); }
    void off() { require(static_cast<bool>(recorder_.disarm()), "switching the recorder off"); }
    const swivex::TraceInstance& instance() const { return instance_; }

    // Events that were written since it was switched on.
    double events() const {
        double sum = 0;
        for (const unsigned cpu : instance_.cpus()) {
            sum += static_cast<double>(instance_.count(cpu, "entries") + instance_.count(cpu, "overrun"));
        }
        return sum;
    }

private:
    swivex::TraceInstance instance_{.name = "quorvix-bench-" + std::to_string(getpid())};
    swivex::FlightRecorder recorder_;
};

}  // namespace quorvix::bench
