#pragma once

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "bench/Bench.h"

namespace quorvix::bench {

// Two processes that hand a byte to and fro: two switches and one or two wakings a round, and as good as nothing else.
class PingPong {
public:
    PingPong() {
        require(pipe(to_) == 0 && pipe(from_) == 0, "pipe");
        child_ = fork();
        require(child_ >= 0, "fork");
        if (child_ == 0) {
            ::close(to_[1]);
            ::close(from_[0]);
            char byte = 0;
            while (read(to_[0], &byte, 1) == 1 && write(from_[1], &byte, 1) == 1) continue;
            _exit(0);
        }
        ::close(to_[0]);
        ::close(from_[1]);
    }
    ~PingPong() {
        ::close(to_[1]);
        ::close(from_[0]);
        waitpid(child_, nullptr, 0);
    }
    PingPong(const PingPong&) = delete;
    PingPong& operator=(const PingPong&) = delete;

    void run(int rounds) {
        char byte = 0;
        for (int round = 0; round < rounds; ++round) {
            require(write(to_[1], &byte, 1) == 1 && read(from_[0], &byte, 1) == 1, "ping-pong");
        }
    }

    // The processor time of both processes until now: what others do on the CPU is not in it.
    double cpuNs() const {
        clockid_t clock{};
        timespec child{}, own{};
        require(clock_getcpuclockid(child_, &clock) == 0 && clock_gettime(clock, &child) == 0, "the other's time");
        require(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own) == 0, "own time");
        return static_cast<double>(child.tv_sec + own.tv_sec) * 1e9 + static_cast<double>(child.tv_nsec + own.tv_nsec);
    }

private:
    int to_[2] = {};
    int from_[2] = {};
    pid_t child_ = -1;
};

}  // namespace quorvix::bench
