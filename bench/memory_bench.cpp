// One memory snapshot report of 1000 processes, from asking for the time to the report in its folder: how long it holds
// the queue that it runs on, and the memory that it takes meanwhile.

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/Sleepers.h"
#include "memsnapshot/MemorySnapshot.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/Files.h"
#include "platform/linux/HostStatistics.h"
#include "platform/linux/KernelMemory.h"
#include "platform/linux/ProcessMemory.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/QueueService.h"
#include "platform/linux/SystemInformation.h"
#include "platform/linux/TextFile.h"
#include "platform/linux/WallClock.h"
#include "platform/sim/SimPlatform.h"
#include "service/ServiceState.h"

using namespace quorvix;
using namespace quorvix::bench;
using linuxos::Descriptor;

namespace {

constexpr int kProcesses = 1000;
constexpr int kRounds = 41;
constexpr double kMostRatio = 1.5;
constexpr double kMostHeldMs = 50;
constexpr double kMostExtraMiB = 4;

// Both folders of the report inside one of ours, on one file system as on most devices.
class FolderFiles final : public linuxos::LinuxFiles {
public:
    explicit FolderFiles(std::string folder) : folder_(std::move(folder)) {
        std::filesystem::create_directory(cache_);
        std::filesystem::create_directory(reports_);
    }
    ~FolderFiles() override { std::filesystem::remove_all(folder_); }

    Result<int> createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override {
        return LinuxFiles::createNewFile({placeOf(file), file.name}, mode, protectionClass);
    }
    Result<void> unlinkFile(const FileLocation& file) override {
        return LinuxFiles::unlinkFile({placeOf(file), file.name});
    }
    Result<void> replaceFile(const FileLocation& from, const FileLocation& to) override {
        return LinuxFiles::replaceFile({placeOf(from), from.name}, {placeOf(to), to.name});
    }
    // The size of the only report, which is then removed.
    std::uintmax_t takeReport() {
        std::uintmax_t size = 0;
        for (const auto& entry : std::filesystem::directory_iterator(reports_)) {
            require(size == 0, "one report a snapshot");
            size = entry.file_size();
            std::filesystem::remove(entry);
        }
        require(std::filesystem::is_empty(cache_), "nothing is left in the cache folder");
        return size;
    }

private:
    std::string_view placeOf(const FileLocation& file) const {
        return file.directory.find("Caches") == std::string_view::npos ? reports_ : cache_;
    }

    const std::string folder_;
    const std::string cache_ = folder_ + "/cache";
    const std::string reports_ = folder_ + "/reports";
};

// The system calls that a snapshot can't do without, into one buffer, and nothing else.
class BareReads {
public:
    void run() {
        for (const char* file : {"meminfo", "vmstat", "slabinfo", "modules", "vmallocinfo"}) readAll(file);
        lseek(proc_.get(), 0, SEEK_SET);
        list();
        for (const int pid : pids_) {
            if (read(pid, "statm") > 0 && buffer_[0] == '0') {
                read(pid, "stat");  // a kernel thread, or one whose first thread has ended
                continue;
            }
            read(pid, "oom_score_adj");
            (void)!readlinkat(proc_.get(), pathOf(pid, "exe"), buffer_.data(), buffer_.size());
        }
    }
    std::size_t count() const { return pids_.size(); }

private:
    void list() {
        pids_.clear();
        for (long count; (count = syscall(SYS_getdents64, proc_.get(), buffer_.data(), buffer_.size())) > 0;) {
            for (long at = 0; at < count;) {
                const auto* const entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
                at += entry->d_reclen;
                int id = 0;
                if (std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), id).ec == std::errc()) {
                    pids_.push_back(id);
                }
            }
        }
    }
    const char* pathOf(int pid, const char* file) {
        char* const end = std::to_chars(path_.data(), path_.data() + 16, pid).ptr;
        *end = '/';
        std::strcpy(end + 1, file);
        return path_.data();
    }
    ssize_t read(int pid, const char* file) {
        const Descriptor opened(openat(proc_.get(), pathOf(pid, file), O_RDONLY | O_CLOEXEC));
        return opened ? ::read(opened.get(), buffer_.data(), buffer_.size()) : -1;
    }
    void readAll(const char* file) {
        const Descriptor opened(openat(proc_.get(), file, O_RDONLY | O_CLOEXEC));
        while (opened && ::read(opened.get(), buffer_.data(), buffer_.size()) > 0) continue;
    }

    Descriptor proc_{::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    std::vector<int> pids_;
    std::array<char, 64> path_{};
    alignas(dirent64) std::array<char, 32768> buffer_;
};

// This process's memory as the kernel counts it.
double mebibytes(std::string_view key) {
    const auto status = linuxos::readTextFile("/proc/self/status", 65536);
    const auto kilobytes = status ? linuxos::numberOfLine(*status, key) : std::nullopt;
    require(kilobytes.has_value(), "/proc/self/status");
    return static_cast<double>(*kilobytes) / 1024;
}
void forgetPeak() {
    const Descriptor file(::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC));
    require(file && ::write(file.get(), "5", 1) == 1, "/proc/self/clear_refs");
}

// Everything that a snapshot asks is the machine's own.
struct Device {
    explicit Device(std::string folder) : files(std::move(folder)) {}

    sim::SimPlatform simulated;
    linuxos::LinuxWallClock wallClock;
    linuxos::LinuxHostStatistics host;
    FolderFiles files;
    linuxos::LinuxSystemInformation systemInformation;
    linuxos::LinuxProcessMemory processMemory;
    linuxos::LinuxKernelMemory kernelMemory;

    Platform platform{.tickClock = simulated.tickClock,
                      .wallClock = wallClock,
                      .queues = simulated.queues,
                      .messages = simulated.messages,
                      .regions = simulated.regions,
                      .notifications = simulated.notifications,
                      .preferences = simulated.preferences,
                      .propertyLists = simulated.propertyLists,
                      .capabilities = simulated.capabilities,
                      .log = simulated.log,
                      .counters = simulated.counters,
                      .processes = simulated.processes,
                      .host = host,
                      .files = files,
                      .libraries = simulated.libraries,
                      .json = simulated.json,
                      .random = simulated.random,
                      .renderServer = simulated.renderServer,
                      .lifecycle = simulated.lifecycle,
                      .state = simulated.state,
                      .powerLog = simulated.powerLog,
                      .signposts = simulated.signposts,
                      .console = simulated.console,
                      .systemInformation = systemInformation,
                      .processMemory = processMemory,
                      .kernelMemory = kernelMemory};
};

struct Duration {
    double heldMs = 0;
    double processorMs = 0;
};

double threadNs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Work on a queue like the daemon's.
class Queue {
public:
    Queue() { queues_.start(); }

    template <class Body>
    Duration run(Body body) {
        Duration duration;
        std::binary_semaphore done{0};
        queue_->async([&] {
            const double begin = nowNs();
            const double beginOfOwn = threadNs();
            body();
            duration = {(nowNs() - begin) / 1e6, (threadNs() - beginOfOwn) / 1e6};
            done.release();
        });
        done.acquire();
        return duration;
    }

private:
    linuxos::LinuxQueueService queues_;
    const std::shared_ptr<WorkQueue> queue_ = queues_.makeSerialQueue("daemon", QualityOfService::userInitiated);
};

// The first of a process, which meets an allocator that has no memory to spare; and once more, later.
void measureMemory(Device& device, Queue& queue, const char* name) {
    const double before = mebibytes("VmRSS");
    const double ownBefore = mebibytes("RssAnon");
    forgetPeak();
    const Duration duration = queue.run(takeMemorySnapshot);
    const double peak = mebibytes("VmHWM") - before;
    const double kept = mebibytes("RssAnon") - ownBefore;
    const std::uintmax_t size = device.files.takeReport();
    std::printf("%s: ", name);
    printAbsolute("memory beyond what there was", "MiB", peak, kMostExtraMiB);
    std::printf("  %.2f MiB of its own memory is kept afterwards; %.1f ms, %.1f of them on a processor; %ju bytes\n",
                kept, duration.heldMs, duration.processorMs, size);
}

void run() {
    const Sleepers sleepers(kProcesses, 1);
    std::string folder = "/tmp/quorvix-memory-bench-XXXXXX";
    require(mkdtemp(folder.data()) != nullptr, "mkdtemp");
    Device device(folder);
    setPlatform(&device.platform);
    serviceState().reportDateFormatter = device.wallClock.makeDateFormatter("yyyy-MM-dd-HHmmss");
    Queue queue;

    measureMemory(device, queue, "first snapshot");
    measureMemory(device, queue, "second snapshot");

    BareReads bare;
    const auto bareMs = [&] { return queue.run([&] { bare.run(); }).processorMs; };
    Comparison ratio("memory snapshot to its bare reads, processor time", "ms");
    std::vector<double> held, onProcessor;
    for (int round = 0; round < kRounds; ++round) {
        // What comes second finds more in the caches.
        const double before = round % 2 == 0 ? bareMs() : 0;
        const Duration duration = queue.run(takeMemorySnapshot);
        ratio.add(duration.processorMs, round % 2 == 0 ? before : bareMs());
        held.push_back(duration.heldMs);
        onProcessor.push_back(duration.processorMs);
        require(device.files.takeReport() > 0, "a report");
    }
    measureMemory(device, queue, "snapshot after these");
    std::printf("%zu processes and kernel threads\n", bare.count());
    ratio.print(Goal::atMost, kMostRatio);
    printAbsolute("daemonQueue is held by a snapshot, median", "ms", median(held), kMostHeldMs);
    printAbsolute("daemonQueue is held by a snapshot, nine of ten", "ms", quantile(held, 0.9), kMostHeldMs);
    printAbsolute("... on a processor, median", "ms", median(onProcessor), kMostHeldMs);
    printAbsolute("... on a processor, longest", "ms", quantile(onProcessor, 1), kMostHeldMs);
    setPlatform(nullptr);
}

}  // namespace

int main() {
    run();
    return 0;
}
