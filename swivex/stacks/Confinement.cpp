#include "swivex/stacks/Confinement.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace quorvix::swivex::stacks {

namespace {

constexpr unsigned kNobody = 65534;

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t kArchitecture = 0;
#endif

// What reading an ELF file, the memory allocator and the process's end take; an abort and the sanitizers included.
constexpr std::uint32_t kAllowed[] = {
    SYS_read,        SYS_pread64, SYS_lseek,        SYS_fstat,         SYS_close,        SYS_mmap,
    SYS_munmap,      SYS_mremap,  SYS_madvise,      SYS_mprotect,      SYS_brk,          SYS_futex,
    SYS_exit_group,  SYS_exit,    SYS_fcntl,        SYS_getpid,        SYS_rt_sigaction, SYS_rt_sigprocmask,
    SYS_gettid,      SYS_tgkill,  SYS_rt_sigreturn, SYS_clock_gettime, SYS_newfstatat,   SYS_sched_yield,
    SYS_sigaltstack, SYS_write,
};

constexpr std::size_t kAllowedCount = std::size(kAllowed);

}  // namespace

void limitMemory(std::size_t moreBytes) {
    // What counts is the private memory that may be written: files that are mapped for reading don't.
    const int file = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    std::array<char, 128> text{};
    const ssize_t length = ::read(file, text.data(), text.size() - 1);
    ::close(file);
    unsigned long long dataPages = 0;
    if (length <= 0 || std::sscanf(text.data(), "%*u %*u %*u %*u %*u %llu", &dataPages) != 1) return;
    const rlim_t bytes = dataPages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + moreBytes;
    const rlimit limit{bytes, bytes};
    ::setrlimit(RLIMIT_DATA, &limit);
}

void giveUpRights() {
    // Not by the C library's functions, which would ask other threads to do the same.
    ::syscall(SYS_setgroups, 0, nullptr);
    ::syscall(SYS_setresgid, kNobody, kNobody, kNobody);
    ::syscall(SYS_setresuid, kNobody, kNobody, kNobody);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    ::syscall(SYS_capset, &header, none);
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

bool forbidCalls() {
    if (kArchitecture == 0) return false;
    std::array<sock_filter, 3 + 1 + kAllowedCount + 2> filter{};
    std::size_t at = 0;
    constexpr auto kRefuse = SECCOMP_RET_ERRNO | EPERM;
    filter[at++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch));
    filter[at++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0);
    filter[at++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
    filter[at++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
    for (std::size_t i = 0; i < kAllowedCount; ++i) {
        filter[at++] =
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAllowed[i], static_cast<std::uint8_t>(kAllowedCount - i), 0);
    }
    filter[at++] = BPF_STMT(BPF_RET | BPF_K, kRefuse);
    filter[at++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_fprog program{static_cast<unsigned short>(at), filter.data()};
    return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

}  // namespace quorvix::swivex::stacks
