// A process with known stacks. Tells a line a thread, "thread TID PC,ADDRESS,FILE ...", the innermost known frame
// first: a return address, the same in the file's terms, and the file's name. Then "ready".
//
//   chain THREADS DEPTH sleep|spin|signal
//   code FILE OFFSET       a thread in the code at that place of the file, which is mapped as a whole
//   mainless               the main thread ends, another one sleeps
//   vfork                  the main thread waits for a child that never ends, uninterruptibly
//   faultstack             a thread whose stack goes on in pages that never come

#include <fcntl.h>
#include <link.h>
#include <linux/userfaultfd.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Chain.h"

namespace {

enum class Hold { sleep, spin, signal };

Hold hold_ = Hold::sleep;
int depth_ = 0;
pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
int ready_ = 0;
int threads_ = 1;

struct Found {
    std::uintptr_t address;
    std::uintptr_t base;
    std::string name;
};

int findObject(dl_phdr_info* object, std::size_t, void* data) {
    auto* const found = static_cast<Found*>(data);
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || found->address - object->dlpi_addr - segment.p_vaddr >= segment.p_memsz)
            continue;
        found->base = object->dlpi_addr;
        found->name = object->dlpi_name;
        return 1;
    }
    return 0;
}

std::string ownName() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return {path, length > 0 ? static_cast<std::size_t>(length) : 0};
}

void tell(const Truth& truth) {
    std::string line = "thread " + std::to_string(syscall(SYS_gettid));
    for (int i = truth.count; i-- > 0;) {
        Found found{reinterpret_cast<std::uintptr_t>(truth.addresses[i]), 0, {}};
        dl_iterate_phdr(findObject, &found);
        if (found.name.empty()) found.name = ownName();
        char text[64];
        std::snprintf(text, sizeof text, " %lx,%lx,", found.address, found.address - found.base);
        line += text + found.name.substr(found.name.rfind('/') + 1);
    }
    line += '\n';
    pthread_mutex_lock(&lock_);
    (void)!write(STDOUT_FILENO, line.data(), line.size());
    ++ready_;
    pthread_cond_signal(&changed_);
    pthread_mutex_unlock(&lock_);
}

void waitForReady(int count) {
    pthread_mutex_lock(&lock_);
    while (ready_ < count) pthread_cond_wait(&changed_, &lock_);
    pthread_mutex_unlock(&lock_);
    (void)!write(STDOUT_FILENO, "ready\n", 6);
}

void sleepForEver() {
    for (;;) pause();
}

void onSignal(int) { sleepForEver(); }

KEEP_FRAME void hold(Truth* truth) {
    NOTE_CALLER(truth);
    tell(*truth);
    if (syscall(SYS_gettid) == getpid()) waitForReady(threads_);
    switch (hold_) {
        case Hold::spin:
            for (;;) AFTER_CALL;
        case Hold::signal: raise(SIGUSR1); break;
        case Hold::sleep: sleepForEver();
    }
    AFTER_CALL;
}

KEEP_FRAME void level(Truth* truth, int depth) {
    NOTE_CALLER(truth);
    if (depth <= 0) {
        hold(truth);
    } else if (depth % 3 == 0) {
        sharedLevel(truth, depth - 1, level);
    } else {
        level(truth, depth - 1);
    }
    AFTER_CALL;
}

KEEP_FRAME void* runChain(void* number) {
    Truth truth{};
    level(&truth, depth_ + static_cast<int>(reinterpret_cast<std::intptr_t>(number)) % 7);
    AFTER_CALL;
    return nullptr;
}

void startThread(void* (*body)(void*), void* argument) {
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 64 * 1024);
    if (pthread_create(&thread, &attributes, body, argument) != 0) abort();
}

// --- code in a file that no loader would take ----------------------------------------------------------------------

void* runCode(void* code) {
    Truth truth{};
    tell(truth);
    reinterpret_cast<void (*)()>(code)();
    AFTER_CALL;
    return nullptr;
}

void* mapFile(const char* path, std::size_t offset) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) abort();
    char* const start = static_cast<char*>(
        mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ | PROT_EXEC, MAP_PRIVATE, file, 0));
    if (start == MAP_FAILED) abort();
    close(file);
    return start + offset;
}

// --- a stack whose outer part waits for somebody -------------------------------------------------------------------

void* runOnFaultStack(void*) {
    Truth truth{};
    level(&truth, 3);
    AFTER_CALL;
    return nullptr;
}

void startOnFaultStack() {
    constexpr std::size_t kBytes = 256 * 1024;
    char* const stack =
        static_cast<char*>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    const long fault = syscall(SYS_userfaultfd, O_CLOEXEC);
    uffdio_api api{};
    api.api = UFFD_API;
    uffdio_register range{};
    range.range = {reinterpret_cast<std::uintptr_t>(stack), kBytes};
    range.mode = UFFDIO_REGISTER_MODE_MISSING;
    // The inner half is there: the thread begins in it.
    uffdio_zeropage there{};
    there.range = {reinterpret_cast<std::uintptr_t>(stack), kBytes / 2};
    if (fault < 0 || ioctl(static_cast<int>(fault), UFFDIO_API, &api) != 0 ||
        ioctl(static_cast<int>(fault), UFFDIO_REGISTER, &range) != 0 ||
        ioctl(static_cast<int>(fault), UFFDIO_ZEROPAGE, &there) != 0) {
        (void)!write(STDOUT_FILENO, "impossible\n", 11);
        exit(0);
    }
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, kBytes / 2);
    if (pthread_create(&thread, &attributes, runOnFaultStack, nullptr) != 0) abort();
}

int run(int count, char** arguments) {
    const std::string mode = count > 1 ? arguments[1] : "";
    if (mode == "chain" && count == 5) {
        threads_ = std::atoi(arguments[2]);
        depth_ = std::atoi(arguments[3]);
        hold_ = std::strcmp(arguments[4], "spin") == 0     ? Hold::spin
                : std::strcmp(arguments[4], "signal") == 0 ? Hold::signal
                                                           : Hold::sleep;
        signal(SIGUSR1, onSignal);
        for (int i = 1; i < threads_; ++i)
            startThread(runChain, reinterpret_cast<void*>(static_cast<std::intptr_t>(i)));
        runChain(nullptr);
    } else if (mode == "code" && count == 4) {
        startThread(runCode, mapFile(arguments[2], std::strtoul(arguments[3], nullptr, 0)));
        waitForReady(1);
        sleepForEver();
    } else if (mode == "mainless") {
        threads_ = 1;
        depth_ = 3;
        startThread(runChain, nullptr);
        waitForReady(1);
        pthread_exit(nullptr);
    } else if (mode == "vfork") {
        (void)!write(STDOUT_FILENO, "ready\n", 6);
        if (syscall(SYS_clone, 0x4000 | SIGCHLD, 0, 0, 0, 0) == 0) {  // CLONE_VFORK, with a memory of its own
            sleepForEver();
        }
    } else if (mode == "faultstack") {
        startOnFaultStack();
        waitForReady(1);
        sleepForEver();
    }
    return 2;
}

}  // namespace

int main(int count, char** arguments) { return run(count, arguments); }
