// What a dump costs: the recorder's rings into memory beside a bare copy of as many bytes, and the whole file of a busy
// window with its size and the memory that it takes meanwhile.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "bench/PingPong.h"
#include "bench/RecorderInstance.h"
#include "platform/quorvix_ticks.h"
#include "swivex/Dump.h"
#include "swivex/MappedRing.h"
#include "swivex/ProcessText.h"
#include "swivex/SmallFile.h"

using namespace quorvix;
using namespace quorvix::bench;

namespace {

constexpr int kRounds = 21;
// 10 s of 20,000 events a second, made in less time.
constexpr double kEvents = 200'000;
constexpr double kMostRatio = 3;
constexpr double kMostMs = 150;
constexpr double kMostMiB = 1;
constexpr double kMostMemoryMiB = 32;

double mebibytes(const char* key) {
    const auto status = swivex::readSmallFile("/proc/self/status");
    require(static_cast<bool>(status), "/proc/self/status");
    return static_cast<double>(swivex::numbersOf(*status, key).at(0)) / 1024;
}

// The thread's processor time: what others do on the CPU is not in it.
double cpuNs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Loads every CPU's whole ring; gives the bytes.
std::size_t loadAll(swivex::MappedRing& ring) {
    const auto deadline = swivex::Deadline::in(std::chrono::seconds(60));
    std::size_t bytes = 0;
    for (const unsigned cpu : ring.cpus()) {
        require(static_cast<bool>(ring.load(cpu, 0, deadline)), "a ring");
        bytes += ring.copiedBytes();
    }
    return bytes;
}

void ringInMemory(const swivex::TraceInstance& instance) {
    auto opened = swivex::MappedRing::open(instance);
    require(static_cast<bool>(opened), "rings that can be mapped");
    auto& ring = static_cast<swivex::MappedRing&>(**opened);
    const std::size_t bytes = loadAll(ring);
    const std::unique_ptr<char[]> from(new char[bytes]), to(new char[bytes]);
    std::memset(from.get(), 1, bytes);
    std::memset(to.get(), 2, bytes);
    Comparison comparison("dump: the rings into memory, beside a copy of as many bytes", "ms");
    for (int round = 0; round < kRounds; ++round) {
        double begin = cpuNs();
        std::memcpy(to.get(), from.get(), bytes);
        __asm__ volatile("" : : "r"(to.get()) : "memory");
        const double floor = cpuNs() - begin;
        begin = cpuNs();
        loadAll(ring);
        comparison.add((cpuNs() - begin) / 1e6, floor / 1e6);
    }
    std::printf("dump: the rings hold %.1f MiB\n", static_cast<double>(bytes) / 1048576);
    comparison.print(Goal::atMost, kMostRatio);
}

void wholeDump(const swivex::TraceInstance& instance, std::uint64_t begin, std::uint64_t end) {
    const std::string reason =
        R"({"PID":)" + std::to_string(getpid()) + R"(,"ThreadID":)" + std::to_string(getpid()) + "}";
    const int fd = memfd_create("dump", MFD_CLOEXEC);
    require(fd >= 0, "memfd_create");
    std::vector<double> times, sizes;
    const double before = mebibytes("VmRSS");
    require(static_cast<bool>(swivex::writeSmallFile("/proc/self/clear_refs", "5")), "clear_refs");
    for (int round = 0; round < kRounds; ++round) {
        require(ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0, "ftruncate");
        const double start = nowNs();
        require(swivex::dump(fd, {.reason = reason, .names = false, .minTicks = begin, .maxTicks = end},
                             swivex::DumpSettings{.recorder = instance}),
                "a dump");
        times.push_back((nowNs() - start) / 1e6);
        struct stat status {};
        fstat(fd, &status);
        sizes.push_back(static_cast<double>(status.st_size) / 1048576);
    }
    printAbsolute("dump: a busy window of 200,000 events into a file", "ms", median(times), kMostMs);
    printAbsolute("dump: its size", "MiB", median(sizes), kMostMiB);
    printAbsolute("dump: extra memory at its peak", "MiB", mebibytes("VmHWM") - before, kMostMemoryMiB);
    printAbsolute("dump: memory that is kept afterwards", "MiB", mebibytes("VmRSS") - before, 4);
    close(fd);
}

}  // namespace

int main() {
    RecorderInstance recorder;
    recorder.on();
    const std::uint64_t begin = quorvix_ticks_now();
    {
        PingPong pair;
        while (recorder.events() < kEvents) pair.run(1000);
    }
    const std::uint64_t end = quorvix_ticks_now();
    pinToOneCpu();
    wholeDump(recorder.instance(), begin, end);
    ringInMemory(recorder.instance());
}
