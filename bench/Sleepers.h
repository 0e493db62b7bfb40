#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "bench/Bench.h"

namespace quorvix::bench {

// Processes that sleep, ended with the benchmark. To be made before it has threads or much memory of its own.
class Sleepers {
public:
    Sleepers(int processes, int threads) {
        for (int i = 0; i < processes; ++i) {
            const pid_t child = fork();
            require(child >= 0, "fork");
            if (child == 0) {
                for (int thread = 1; thread < threads; ++thread) {
                    std::thread([] {
                        for (;;) pause();
                    }).detach();
                }
                for (;;) pause();
            }
            pids_.push_back(child);
        }
        usleep(500'000);  // until their threads exist
    }
    ~Sleepers() {
        for (const pid_t pid : pids_) kill(pid, SIGKILL);
        for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;

private:
    std::vector<pid_t> pids_;
};

}  // namespace quorvix::bench
