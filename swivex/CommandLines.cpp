#include "swivex/CommandLines.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "swivex/Descriptor.h"
#include "swivex/RecorderText.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

// Of one process; what is longer is cut.
constexpr std::size_t kLongestLine = 2048;
// Of all; the child stops when it is full.
constexpr std::size_t kArena = std::size_t{4} << 20;

// Memory that the child fills and the parent reads meanwhile: entry after entry, told by `done` when complete.
struct Shared {
    std::atomic<std::uint32_t> done;  // bytes of complete entries
    std::uint8_t bytes[kArena];
};
struct EntryHead {
    std::int32_t pid;
    std::uint32_t length;
};

class SharedMemory {
public:
    SharedMemory() {
        void* const address =
            ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (address != MAP_FAILED) shared_ = static_cast<Shared*>(address);
    }
    ~SharedMemory() {
        if (shared_) ::munmap(shared_, sizeof(Shared));
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    Shared* get() const { return shared_; }

private:
    Shared* shared_ = nullptr;
};

// In the child, beside whose memory other threads were stopped at any point: system calls alone.
void readAll(int proc, const std::vector<pid_t>& pids, Shared& shared) {
    // The caller's files: one that waits for ever would keep its connections open.
    const auto kept = static_cast<unsigned>(proc);
    if (kept > 0) ::syscall(SYS_close_range, 0U, kept - 1, 0U);
    ::syscall(SYS_close_range, kept + 1, ~0U, 0U);
    std::uint32_t used = 0;
    for (const pid_t pid : pids) {
        if (used + sizeof(EntryHead) + kLongestLine > kArena) return;
        char path[32];
        char* const end = std::to_chars(path, path + 16, pid).ptr;
        std::memcpy(end, "/cmdline", sizeof "/cmdline");
        const int file = ::openat(proc, path, O_RDONLY | O_CLOEXEC);
        if (file < 0) continue;
        const ssize_t count = ::read(file, shared.bytes + used + sizeof(EntryHead), kLongestLine);
        ::close(file);
        if (count <= 0) continue;
        const EntryHead head{pid, static_cast<std::uint32_t>(count)};
        std::memcpy(shared.bytes + used, &head, sizeof head);
        used += static_cast<std::uint32_t>(sizeof head + static_cast<std::size_t>(count));
        shared.done.store(used, std::memory_order_release);
    }
}

// A child without an exit signal: the caller's own handling of children does not see it. -1: none.
pid_t startChild(int& pidfd) {
    clone_args arguments{};
    arguments.flags = CLONE_PIDFD;
    arguments.pidfd = reinterpret_cast<std::uint64_t>(&pidfd);
    return static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
}

// The kernel may need a moment to end a process.
constexpr std::chrono::milliseconds kToEnd{100};

// Children that did not die when told to, since they wait in the kernel: looked after at the next dump.
std::vector<pid_t>& leftBehind() {
    static std::vector<pid_t> pids;
    return pids;
}

// True: it has ended.
bool waitForEnd(int pidfd, const Deadline& deadline) {
    pollfd end{pidfd, POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&end, 1, static_cast<int>(deadline.left().count()));
    } while (ready < 0 && errno == EINTR && !deadline.passed());
    return ready > 0;
}

bool reaped(pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG | __WALL) != 0; }

}  // namespace

std::string readCommandLines(ProcessList& list, const std::string& procFolder, const Deadline& deadline) {
    static std::mutex oneAtATime;
    const std::lock_guard lock(oneAtATime);
    std::erase_if(leftBehind(), reaped);
    // One that hangs says enough; more of them would pile up.
    if (!leftBehind().empty()) return "a reader of command lines still waits for one of an earlier dump";
    const Descriptor proc(::open(procFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!proc) return errorText(procFolder, errno);
    const SharedMemory memory;
    if (!memory.get()) return errorText("memory for command lines", errno);
    std::vector<pid_t> pids;
    for (const ProcessEntry& process : list.processes) {
        if (process.hasMemory) pids.push_back(process.pid);
    }

    int pidfdNumber = -1;
    const pid_t parent = ::getpid();
    const pid_t child = startChild(pidfdNumber);
    if (child < 0) return errorText("a reader of command lines", errno);
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() == parent) readAll(proc.get(), pids, *memory.get());
        ::_exit(0);
    }
    const Descriptor pidfd(pidfdNumber);
    const bool inTime = waitForEnd(pidfd.get(), deadline);
    if (!inTime) {
        ::kill(child, SIGKILL);
        waitForEnd(pidfd.get(), Deadline::in(kToEnd));
    }
    if (!reaped(child)) leftBehind().push_back(child);

    const std::uint32_t done = memory.get()->done.load(std::memory_order_acquire);
    std::size_t index = 0;
    for (std::uint32_t at = 0; at < done;) {
        EntryHead head{};
        std::memcpy(&head, memory.get()->bytes + at, sizeof head);
        const char* const bytes = reinterpret_cast<const char*>(memory.get()->bytes) + at + sizeof head;
        at += static_cast<std::uint32_t>(sizeof head) + head.length;
        // Entries come in the order of the list.
        while (index < list.processes.size() && list.processes[index].pid != head.pid) ++index;
        if (index == list.processes.size()) break;
        list.processes[index].arguments = argumentsOf({bytes, head.length});
    }
    return inTime ? "" : "reading the command lines took too long";
}

}  // namespace quorvix::swivex
