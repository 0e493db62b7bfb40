#include "demo/hanging/Hang.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>

#include "demo/hanging/HelperProcess.h"
#include "demo/hanging/SlowFile.h"

namespace quorvix::demo {

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

// A function of its own, so that a stack shows what the main thread was at.
[[gnu::noinline]] void computeForAWhile(nanoseconds length) {
    const auto end = steady_clock::now() + length;
    std::uint64_t sum = 1;
    while (steady_clock::now() < end) {
        for (int turn = 0; turn < 1000; ++turn) sum = sum * 6364136223846793005U + 1442695040888963407U;
        asm volatile("" : "+r"(sum));
    }
}

// Works on the main thread without end; sleeps for the rest.
class BusyHang : public Hang {
public:
    using Hang::Hang;
    void impose(nanoseconds left) override {
        computeForAWhile(imposed(left));
        std::this_thread::sleep_for(rest());
    }
};

// Always ready to run, but another process has its processor.
class StarvedHang : public Hang {
public:
    using Hang::Hang;

    std::string prepare() override {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
        const sched_param none{};
        if (sched_setaffinity(0, sizeof one, &one) != 0) return std::strerror(errno);
        hog_ = HelperProcess::start("hog", [busy = imposed(kPeriod), idle = rest()](pid_t) {
            for (;;) {
                computeForAWhile(busy);
                if (idle.count() > 0) std::this_thread::sleep_for(idle);
            }
        });
        // After the fork: the hog is an ordinary process, and the main thread gets what it leaves.
        if (sched_setscheduler(0, SCHED_IDLE, &none) != 0) return std::strerror(errno);
        return hog_ ? "" : std::strerror(errno);
    }
    void impose(nanoseconds left) override { computeForAWhile(left); }

private:
    std::unique_ptr<HelperProcess> hog_;
};

// Waits for a lock that a thread of the same process holds.
class BlockedHang : public Hang {
public:
    using Hang::Hang;
    ~BlockedHang() override {
        holder_.request_stop();
        wanted_.notify_all();
    }

    void impose(nanoseconds left) override {
        if (!holder_.joinable()) holder_ = std::jthread([this](const std::stop_token& stop) { holdWhenAsked(stop); });
        {
            std::unique_lock lock(orders_);
            length_ = imposed(left);
            wanted_.notify_all();
            held_.wait(lock, [this] { return length_.count() == 0; });
        }
        readSettings();
        computeForAWhile(rest());
    }

private:
    [[gnu::noinline]] void readSettings() { const std::lock_guard lock(settings_); }

    void holdWhenAsked(const std::stop_token& stop) {
        prctl(PR_SET_NAME, "settings-writer");
        std::unique_lock lock(orders_);
        while (wanted_.wait(lock, stop, [this] { return length_.count() > 0; })) {
            const std::lock_guard settings(settings_);
            const nanoseconds length = std::exchange(length_, nanoseconds{0});
            held_.notify_all();
            lock.unlock();
            std::this_thread::sleep_for(length);
            lock.lock();
        }
    }

    std::mutex settings_;
    std::mutex orders_;
    std::condition_variable_any wanted_;
    std::condition_variable_any held_;
    nanoseconds length_{0};
    std::jthread holder_;
};

// Reads a file whose file system is slow.
class InputHang : public Hang {
public:
    using Hang::Hang;

    std::string prepare() override { return file_.mount(imposed(kPeriod)); }
    void impose(nanoseconds) override {
        readSlowFile();
        computeForAWhile(rest());
    }

private:
    [[gnu::noinline]] void readSlowFile() { file_.readOneBlock(); }

    SlowFile file_;
};

// Is stopped by a signal of another process, and continued by it.
class StoppedHang : public Hang {
public:
    using Hang::Hang;

    void impose(nanoseconds left) override {
        // In periods the stopper goes on by itself, so that its own start takes no time of any of them.
        if (!stopper_) {
            stopper_ = HelperProcess::start("stopper", [stop = imposed(left), run = rest()](pid_t app) {
                do {
                    if (kill(app, SIGSTOP) != 0) return;
                    std::this_thread::sleep_for(stop);
                    kill(app, SIGCONT);
                    std::this_thread::sleep_for(run);
                } while (run.count() > 0);
            });
        }
        computeForAWhile(std::min<nanoseconds>(left, kPeriod));
    }

private:
    std::unique_ptr<HelperProcess> stopper_;
};

}  // namespace

std::unique_ptr<Hang> makeHang(std::string_view kind, double share) {
    if (kind == "busy") return std::make_unique<BusyHang>(share);
    if (kind == "starved") return std::make_unique<StarvedHang>(share);
    if (kind == "blocked") return std::make_unique<BlockedHang>(share);
    if (kind == "io") return std::make_unique<InputHang>(share);
    if (kind == "stopped") return std::make_unique<StoppedHang>(share);
    return nullptr;
}

}  // namespace quorvix::demo
