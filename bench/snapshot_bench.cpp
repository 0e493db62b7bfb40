// One snapshot of all processes, usage and names included, with 1000 processes of four threads each: through the
// kernel's task iterator, through procfs, and beside them what ps takes. Needs root for the iterator.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "bench/AllocationCount.h"
#include "bench/Bench.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessQueries.h"
#include "platform/linux/ProcfsSource.h"
#include "platform/linux/TaskIteratorSource.h"

namespace quorvix {
namespace {

using linuxos::Descriptor;

constexpr int kProcesses = 1000;
constexpr int kThreads = 4;

// Processes that sleep, ended with the benchmark.
class Sleepers {
public:
    Sleepers() {
        for (int i = 0; i < kProcesses; ++i) {
            const pid_t child = fork();
            bench::require(child >= 0, "fork");
            if (child == 0) {
                for (int thread = 1; thread < kThreads; ++thread) {
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

private:
    std::vector<pid_t> pids_;
};

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

// The system calls that the procfs way can't do without, and nothing else.
class BareReads {
public:
    void run() {
        lseek(proc_.get(), 0, SEEK_SET);
        list(proc_.get(), pids_);
        for (const int pid : pids_) {
            read(proc_.get(), pid, "stat");
            (void)linuxos::ProcfsSource::kernelClock(pid);
            read(proc_.get(), pid, "io");
            read(proc_.get(), pid, "status");
            char path[64];
            std::snprintf(path, sizeof path, "%d/task", pid);
            const Descriptor tasks(openat(proc_.get(), path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (!tasks) continue;
            list(tasks.get(), tids_);
            if (tids_.size() == 1) {
                read(proc_.get(), pid, "schedstat");
                continue;
            }
            for (const int tid : tids_) {
                read(tasks.get(), tid, "stat");
                read(tasks.get(), tid, "schedstat");
            }
        }
    }

private:
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
        char path[64];
        std::snprintf(path, sizeof path, "%d/%s", id, file);
        const Descriptor opened(openat(directory, path, O_RDONLY | O_CLOEXEC));
        if (opened) (void)!::read(opened.get(), buffer_.data(), buffer_.size());
    }

    Descriptor proc_{::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    std::vector<int> pids_;
    std::vector<int> tids_;
    alignas(dirent64) std::array<char, 32768> buffer_;
};

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
    const Sleepers sleepers;
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

    bench::Comparison procfsToBare("procfs snapshot to its bare reads", "ms");
    bench::Comparison bareToIterator("bare procfs reads to the iterator's snapshot", "ms");
    bench::Comparison psToIterator("ps -eL to the iterator's snapshot", "ms");
    bench::Comparison psToProcfs("ps -eL to the procfs snapshot", "ms");
    for (int round = 0; round < 11; ++round) {
        bare.run();  // what ps left behind in the caches is not what is measured
        const double bareMs = measure([&] { bare.run(); });
        const double procfsMs = measure([&] { procfs.take(); });
        const double ps = psMs();
        procfsToBare.add(procfsMs, bareMs);
        psToProcfs.add(ps, procfsMs);
        if (!iterates) continue;
        iterator.take();  // as above
        const double iteratorMs = measure([&] { iterator.take(); });
        bareToIterator.add(bareMs, iteratorMs);
        psToIterator.add(ps, iteratorMs);
    }
    procfsToBare.print(bench::Goal::atMost, 1.3);
    psToProcfs.print(bench::Goal::atLeast, 4);
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
