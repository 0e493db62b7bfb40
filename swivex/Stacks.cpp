#include "swivex/Stacks.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "swivex/Descriptor.h"
#include "swivex/stacks/CaptureRecords.h"
#include "swivex/stacks/StackWorker.h"

namespace quorvix::swivex {

namespace {

using Clock = std::chrono::steady_clock;

// The kernel may need a moment to end a process, and another to run its caller.
constexpr std::chrono::milliseconds kToEnd{20};
// Workers that were killed and did not end: the kernel waits for somebody on their behalf. More than that many captures
// in a row that end so, and no further one is begun.
constexpr std::size_t kMostUnended = 4;

// By its descriptor and never by its number, which may be another process's when others wait for children here.
bool reap(int child) {
    siginfo_t information{};
    const int result =
        ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(child), &information, WEXITED | WNOHANG);
    return result == 0 ? information.si_pid != 0 : errno == ECHILD;
}

// True: it has ended.
bool waitForEnd(int child, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd watched{child, POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(std::clamp<long long>(left, 0, 60'000)));
        if (ready > 0) return true;
        if (ready == 0 && Clock::now() >= deadline) return false;
        if (ready < 0 && errno != EINTR) return false;
    }
}

using stacks::ReadCapture;
using stacks::RecordRegion;
using stacks::StackRequest;

class Unended {
public:
    void add(Descriptor child) { children_.push_back(std::move(child)); }
    std::size_t reapAll() {
        std::erase_if(children_, [](const Descriptor& child) { return reap(child.get()); });
        return children_.size();
    }

private:
    std::vector<Descriptor> children_;
};

StackCapture failed(const char* problem) {
    StackCapture capture;
    capture.problem = problem;
    return capture;
}

}  // namespace

// A child that begins when it is told to: until then it can't end and be reaped by somebody else, and its number can't
// become another process's. Null: it could not be started.
Descriptor start(const StackRequest& request, RecordRegion& region) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return {};
    Descriptor readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    const pid_t caller = ::getpid();
    const pid_t worker = ::fork();
    if (worker == 0) {
        writeEnd.reset();
        char go = 0;
        if (::read(readEnd.get(), &go, 1) != 1) ::_exit(1);
        stacks::runStackWorker(request, region, caller);
    }
    readEnd.reset();
    if (worker < 0) return {};
    Descriptor child(static_cast<int>(::syscall(SYS_pidfd_open, worker, 0)));
    if (!child) {
        // Without the word it ends at once.
        writeEnd.reset();
        while (::waitpid(worker, nullptr, 0) < 0 && errno == EINTR) {
        }
        return {};
    }
    constexpr char kGo = 1;
    (void)!::write(writeEnd.get(), &kGo, 1);
    return child;
}

StackCapture captureStacks(pid_t pid, Clock::time_point deadline, bool kernelSymbols, StackRoute route) {
    static std::mutex oneAtATime;
    static Unended unended;
    const std::lock_guard lock(oneAtATime);
    if (unended.reapAll() >= kMostUnended) return failed("earlier captures have not ended yet");
    if (pid <= 0) return failed("no such process");
    if (deadline - kToEnd <= Clock::now()) return failed("no time left");
    RecordRegion region;
    if (!region.isMapped()) return failed("no memory");
    const StackRequest request{pid, deadline - kToEnd, kernelSymbols, route};
    Descriptor child = start(request, region);
    if (!child) return failed("no process can be started");
    bool isKilled = false;
    if (!waitForEnd(child.get(), request.deadline)) {
        isKilled = true;
        ::syscall(SYS_pidfd_send_signal, child.get(), SIGKILL, nullptr, 0);
        waitForEnd(child.get(), deadline);
    }
    if (!reap(child.get())) unended.add(std::move(child));
    ReadCapture read = stacks::readCapture(region.published());
    if (!read.isComplete && read.capture.problem.empty()) {
        read.capture.problem = isKilled ? "took too long" : "the worker ended too early";
    }
    return std::move(read.capture);
}

}  // namespace quorvix::swivex
