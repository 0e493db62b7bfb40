// One snapshot of all processes, usage and names included, with 1000 processes of four threads each: through the
// kernel's task iterator, through procfs, and beside them what ps takes. Needs root for the iterator.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bench/AllocationCount.h"
#include "bench/Bench.h"
#include "bench/Sleepers.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessQueries.h"
#include "platform/linux/ProcfsSource.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/TaskIteratorSource.h"

namespace quorvix {
namespace {

using linuxos::Descriptor;

constexpr int kProcesses = 1000;
constexpr int kThreads = 4;

// What the daemon does for a snapshot.
class Snapshot {
public:
    explicit Snapshot(std::unique_ptr<linuxos::ProcessSource> source) : processes_(sources(std::move(source))) {}

    void take() {
        const std::int32_t bytes = processes_.listAllPids(nullptr, 0);
        bench::require(bytes > 0, "the table can't be read");
        pids_.resize(static_cast<std::size_t>(bytes) / sizeof(std::int32_t));
        records_.resize(pids_.size());
        processes_.listAllPids(pids_.data(), bytes);
        for (std::size_t i = 0; i < pids_.size(); ++i) {
            bench::require(static_cast<bool>(processes_.resourceUsage(pids_[i], records_[i].usage)), "usage");
            (void)processes_.processName(pids_[i], records_[i].name);
        }
    }
    std::size_t size() const { return records_.size(); }

private:
    struct Record {
        ResourceUsage usage;
        std::array<char, 32> name;
    };
    static linuxos::LinuxProcessQueries::Sources sources(std::unique_ptr<linuxos::ProcessSource> source) {
        linuxos::LinuxProcessQueries::Sources sources;
        sources.push_back(std::move(source));
        return sources;
    }

    linuxos::LinuxProcessQueries processes_;
    std::vector<std::int32_t> pids_;
    std::vector<Record> records_;
};

// The system calls that the procfs way can't do without, and nothing else. Of a process that has not run since the last
// time only its sizes and its threads' scheduling; of one that has, the threads until all of its time is accounted for.
class BareReads {
public:
    void run() {
        lseek(proc_.get(), 0, SEEK_SET);
        list(proc_.get(), pids_);
        std::size_t place = 0;
        for (const int pid : pids_) {
            while (place < known_.size() && known_[place].pid < pid) ++place;
            if (place == known_.size() || known_[place].pid != pid) {
                known_.insert(known_.begin() + static_cast<std::ptrdiff_t>(place), Known{pid});
                known_[place].isKernelThread = !hasSizes(pid);
            }
            read(known_[place]);
        }
    }
    std::size_t readWhole() const { return readWhole_; }

private:
    struct Thread {
        int tid;
        std::uint64_t runtime;
    };
    struct Known {
        int pid;
        bool isKernelThread = false;
        std::uint64_t clock = ~std::uint64_t{0};
        std::vector<Thread> threads = {};
    };

    void read(Known& process) {
        const std::uint64_t clock = linuxos::ProcfsSource::kernelClock(process.pid).value_or(0);
        for (const Thread& thread : process.threads) (void)linuxos::ProcfsSource::kernelScheduling(thread.tid);
        if (clock != process.clock) {
            ++readWhole_;
            read(proc_.get(), process.pid, "stat");
            (void)linuxos::ProcfsSource::kernelClock(process.pid);
            read(proc_.get(), process.pid, "io");
            if (!readThreadsThatRan(process, clock - process.clock)) readThreads(process);
            process.clock = clock;
        }
        if (!process.isKernelThread) read(proc_.get(), process.pid, "status");
    }
    bool readThreadsThatRan(Known& process, std::uint64_t left) {
        for (Thread& thread : process.threads) {
            const std::uint64_t runtime = runtimeOf(process.pid, thread.tid);
            left -= runtime - thread.runtime;
            thread.runtime = runtime;
            if (left == 0) return true;
        }
        // That there is one thread only, the real thing knows from stat.
        return process.threads.size() == 1;
    }
    void readThreads(Known& process) {
        char path[64];
        std::snprintf(path, sizeof path, "%d/task", process.pid);
        const Descriptor tasks(openat(proc_.get(), path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!tasks) return;
        list(tasks.get(), tids_);
        process.threads.clear();
        for (const int tid : tids_) process.threads.push_back({tid, runtimeOf(process.pid, tid)});
    }
    std::uint64_t runtimeOf(int pid, int tid) {
        char file[64];
        std::snprintf(file, sizeof file, "task/%d/schedstat", tid);
        read(proc_.get(), pid, file);
        return linuxos::parseSchedstat({buffer_.data(), length_}).value_or(0);
    }
    bool hasSizes(int pid) {
        read(proc_.get(), pid, "status");
        return std::string_view(buffer_.data(), length_).find("\nVmRSS:") != std::string_view::npos;
    }
    void list(int directory, std::vector<int>& ids) {
        ids.clear();
        for (long count; (count = syscall(SYS_getdents64, directory, buffer_.data(), buffer_.size())) > 0;) {
            for (long at = 0; at < count;) {
                const auto* const entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
                at += entry->d_reclen;
                int id = 0;
                if (std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), id).ec == std::errc()) {
                    ids.push_back(id);
                }
            }
        }
    }
    void read(int directory, int id, const char* file) {
        char path[96];
        std::snprintf(path, sizeof path, "%d/%s", id, file);
        const Descriptor opened(openat(directory, path, O_RDONLY | O_CLOEXEC));
        const ssize_t length = opened ? ::read(opened.get(), buffer_.data(), buffer_.size()) : 0;
        length_ = length > 0 ? static_cast<std::size_t>(length) : 0;
    }

    Descriptor proc_{::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    std::vector<int> pids_;
    std::vector<int> tids_;
    std::vector<Known> known_;
    std::size_t readWhole_ = 0;
    std::size_t length_ = 0;
    alignas(dirent64) std::array<char, 32768> buffer_;
};

// The sleepers inherit a signal that ends a thread's pause() and nothing else, and a process group of their own.
void makeWakeable() {
    signal(SIGUSR1, [](int) {});
    bench::require(setpgid(0, 0) == 0 || getpgrp() == getpid(), "a process group");
}

// One thread of each runs for a moment, and all sleep again.
void wakeProcesses() {
    kill(0, SIGUSR1);
    usleep(200'000);
}

// Every thread of each does.
void wakeThreads() {
    linuxos::ProcessSamples samples;
    bench::require(linuxos::ProcfsSource().read(samples) == 0, "the table can't be read");
    for (const linuxos::ProcessSample& process : samples.processes) {
        if (getpgid(process.pid) != getpgrp()) continue;
        for (std::uint32_t i = 0; i < process.threadCount; ++i) {
            syscall(SYS_tgkill, process.pid, samples.threads[process.firstThread + i].tid, SIGUSR1);
        }
    }
    usleep(200'000);
}

template <class Work>
double measure(Work&& work) {
    const double begin = bench::nowNs();
    work();
    return (bench::nowNs() - begin) / 1e6;
}

// A table keeps its memory, and what is summed up beside it keeps two turn by turn: only the first two snapshots
// allocate for their processes. The median of later ones, since processes that come up in between may make it grow.
void countAllocations(const char* name, std::unique_ptr<linuxos::ProcessSource> source) {
    Snapshot snapshot(std::move(source));
    const auto allocationsOfOne = [&snapshot] {
        const std::uint64_t before = bench::allocationCount();
        snapshot.take();
        return static_cast<double>(bench::allocationCount() - before);
    };
    const double first = allocationsOfOne();
    const double second = allocationsOfOne();
    bench::require(first > 0, "allocations are counted");
    std::vector<double> later;
    for (int i = 0; i < 11; ++i) later.push_back(allocationsOfOne());
    bench::printAbsolute(name, "allocations", bench::median(later), 0);
    std::printf("  the first two of %zu processes: %.0f and %.0f; at most %.0f later\n", snapshot.size(), first, second,
                bench::quantile(later, 1));
}

double psMs() {
    return measure([] {
        bench::require(std::system("ps -eLo pid,comm,time,maj_flt,rss >/dev/null") == 0, "ps (package procps)");
    });
}

void run() {
    makeWakeable();
    const bench::Sleepers sleepers(kProcesses, kThreads);
    bench::pinToOneCpu();
    Snapshot procfs(std::make_unique<linuxos::ProcfsSource>());
    BareReads bare;
    procfs.take();
    bare.run();
    std::printf("%zu processes\n", procfs.size());

    linuxos::ProcessSamples samples;
    const bool iterates = linuxos::TaskIteratorSource().read(samples) == 0;
    Snapshot iterator(std::make_unique<linuxos::TaskIteratorSource>());
    if (iterates) iterator.take();
    countAllocations("a later procfs snapshot", std::make_unique<linuxos::ProcfsSource>());
    if (iterates) countAllocations("a later snapshot of the iterator", std::make_unique<linuxos::TaskIteratorSource>());

    // The processes rest in between, or run.
    struct Case {
        const char* name;
        void (*prepare)();
        std::size_t leastRead;
        bench::Comparison procfsToBare;
        bench::Comparison psToProcfs;
    };
    Case cases[] = {
        {"", [] {}, 0, {"procfs snapshot to its bare reads", "ms"}, {"ps -eL to the procfs snapshot", "ms"}},
        {"one thread of each process ran",
         wakeProcesses,
         kProcesses,
         {"procfs snapshot to its bare reads, one thread of each process ran", "ms"},
         {"ps -eL to the procfs snapshot, one thread of each process ran", "ms"}},
        {"every thread ran",
         wakeThreads,
         kProcesses,
         {"procfs snapshot to its bare reads, every thread ran", "ms"},
         {"ps -eL to the procfs snapshot, every thread ran", "ms"}}};
    bench::Comparison bareToIterator("bare procfs reads to the iterator's snapshot", "ms");
    bench::Comparison psToIterator("ps -eL to the iterator's snapshot", "ms");
    for (int round = 0; round < 12; ++round) {
        const double ps = psMs();
        // What ps left behind in the caches is not what is measured.
        bare.run();
        procfs.take();
        double restingMs = 0;
        for (Case& measured : cases) {
            measured.prepare();
            const std::size_t before = bare.readWhole();
            // By turns: the second finds what it reads in the caches.
            double bareMs = 0;
            if (round % 2 == 0) bareMs = measure([&] { bare.run(); });
            const double procfsMs = measure([&] { procfs.take(); });
            if (round % 2 != 0) bareMs = measure([&] { bare.run(); });
            bench::require(bare.readWhole() - before >= measured.leastRead, measured.name);
            measured.procfsToBare.add(procfsMs, bareMs);
            measured.psToProcfs.add(ps, procfsMs);
            if (measured.leastRead == 0) restingMs = bareMs;
        }
        if (!iterates) continue;
        iterator.take();  // as above
        const double iteratorMs = measure([&] { iterator.take(); });
        bareToIterator.add(restingMs, iteratorMs);
        psToIterator.add(ps, iteratorMs);
    }
    for (const Case& measured : cases) {
        measured.procfsToBare.print(bench::Goal::atMost, 1.3);
        measured.psToProcfs.print(bench::Goal::atLeast, 4);
    }
    if (!iterates) {
        std::printf("the task iterator can't be used here: not measured\n");
        return;
    }
    bareToIterator.print(bench::Goal::atLeast, 20);
    psToIterator.print(bench::Goal::atLeast, 50);
}

}  // namespace
}  // namespace quorvix

int main() {
    quorvix::run();
    return 0;
}
