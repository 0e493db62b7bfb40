#include "platform/linux/RegionGuard.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace quorvix::linuxos {

namespace {

// The thread sanitizer runs every handler with all signals blocked, whatever its flags say: only there the mask must be
// saved, or a second fault would end the process.
#ifdef __SANITIZE_THREAD__
constexpr int kSaveMask = 1;
#else
constexpr int kSaveMask = 0;
#endif

// What the thread guards just now; end == 0: nothing. Trivial and initial-exec: the handler reads it without a call
// that could allocate.
struct Armed {
    std::uintptr_t begin;
    volatile std::uintptr_t end;
    sigjmp_buf resume;
};

[[gnu::tls_model("initial-exec")]] thread_local constinit Armed armed{};

std::atomic<std::uint64_t> faultCount{0};
struct sigaction previousSegv;
struct sigaction previousBus;

void handleFault(int signal, siginfo_t* information, void*) {
    const auto address = reinterpret_cast<std::uintptr_t>(information->si_addr);
    // A code above 0 is the kernel's: a real fault, not a signal that somebody sent.
    const bool realFault = information->si_code > 0;
    if (realFault && armed.end != 0 && address >= armed.begin && address < armed.end) siglongjmp(armed.resume, 1);

    // Not ours: put the former action back and return, so that the instruction faults again into it.
    sigaction(signal, signal == SIGSEGV ? &previousSegv : &previousBus, nullptr);
    if (!realFault) raise(signal);
}

void installHandlers() {
    struct sigaction action = {};
    action.sa_sigaction = handleFault;
    // NODEFER: the jump does not restore the mask, so the signal must not stay blocked. ONSTACK: a stack overflow must
    // reach the former action too.
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, &previousSegv);
    sigaction(SIGBUS, &action, &previousBus);
}

}  // namespace

RegionGuard::RegionGuard() {
    static std::once_flag installed;
    std::call_once(installed, installHandlers);
}

bool RegionGuard::guarded(const void* begin, std::size_t length, RegionMemory::Access access, void* context) noexcept {
    if (sigsetjmp(armed.resume, kSaveMask) != 0) {
        armed.end = 0;
        faultCount.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    armed.begin = reinterpret_cast<std::uintptr_t>(begin);
    armed.end = armed.begin + length;
    // Neither the arming nor the accesses may move past each other: the handler runs on this very thread.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    access(context);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    armed.end = 0;
    return true;
}

std::uint64_t RegionGuard::faults() noexcept { return faultCount.load(std::memory_order_relaxed); }

}  // namespace quorvix::linuxos
