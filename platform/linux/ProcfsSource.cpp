#include "platform/linux/ProcfsSource.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace quorvix::linuxos {

namespace {

constexpr std::uint64_t kKernelThreadFlag = 0x00200000;  // PF_KTHREAD

// "ID/" and more, on the stack: paths are made several times a process.
class Path {
public:
    Path& number(std::int32_t value) {
        end_ = std::to_chars(end_, bytes_ + sizeof bytes_ - 1, value).ptr;
        *end_ = '\0';
        return *this;
    }
    Path& text(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
        *end_ = '\0';
        return *this;
    }
    const char* get() const { return bytes_; }

private:
    char bytes_[64];
    char* end_ = bytes_;
};

Path pathOf(std::int32_t id, std::string_view file) {
    Path path;
    path.number(id).text(file);
    return path;
}

}  // namespace

std::optional<std::uint64_t> ProcfsSource::kernelClock(std::int32_t pid) {
    // What clock_getcpuclockid gives, without its second system call.
    constexpr std::uint32_t kScheduledTime = 2;
    const auto clock = static_cast<clockid_t>(~static_cast<std::uint32_t>(pid) << 3 | kScheduledTime);
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

int ProcfsSource::read(ProcessSamples& samples) {
    samples.clear();
    if (!directory_) directory_.reset(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) return errno;
    if (lseek(directory_.get(), 0, SEEK_SET) < 0) return errno;
    if (const int error = listIds(directory_.get(), pids_)) return error;
    for (const std::int32_t pid : pids_) readProcess(pid, samples);
    samples.sort();
    return 0;
}

int ProcfsSource::listIds(int directory, std::vector<std::int32_t>& ids) {
    ids.clear();
    for (;;) {
        const long count = syscall(SYS_getdents64, directory, buffer_.data(), buffer_.size());
        if (count < 0) return errno;
        if (count == 0) return 0;
        for (long at = 0; at < count;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
            at += entry->d_reclen;
            const char* const end = entry->d_name + std::strlen(entry->d_name);
            std::int32_t id = 0;
            const auto [after, error] = std::from_chars(entry->d_name, end, id);
            if (error == std::errc() && after == end && id > 0) ids.push_back(id);
        }
    }
}

std::string_view ProcfsSource::readFile(int directory, const char* path) {
    const Descriptor file(openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (!file) return {};
    const ssize_t count = ::read(file.get(), buffer_.data(), buffer_.size());
    if (count <= 0) return {};
    return {buffer_.data(), static_cast<std::size_t>(count)};
}

bool ProcfsSource::readProcess(std::int32_t pid, ProcessSamples& samples) {
    const auto stat = parseStat(readFile(directory_.get(), pathOf(pid, "/stat").get()));
    if (!stat) return false;
    // Before its threads' times: what runs in between then looks too small a sum, not like time of an exited thread.
    const auto runtime = clock_(pid);
    if (!runtime) return false;

    ProcessSample process{};
    process.pid = pid;
    process.isKernelThread = (stat->flags & kKernelThreadFlag) != 0;
    process.startUnits = stat->startUnits;
    process.runtimeNs = *runtime;
    process.userShare = stat->userTicks;
    process.systemShare = stat->systemTicks;
    process.majorFaults = stat->majorFaults;
    process.firstThread = static_cast<std::uint32_t>(samples.threads.size());
    const QosClass leadersClass = qosClassOf(stat->policy, stat->nice);
    const bool singleThreaded = stat->threadCount <= 1;

    const std::string_view comm = process.isKernelThread ? kernelThreadComm(stat->comm) : stat->comm;
    setProcessName(process, comm);
    if (!process.isKernelThread && mayBeCut(comm)) {
        char kept[kCommLength];
        comm.copy(kept, kCommLength);
        const ssize_t length = readlinkat(directory_.get(), pathOf(pid, "/exe").get(), buffer_.data(), buffer_.size());
        if (length > 0) {
            completeProcessName(process, {kept, kCommLength}, {buffer_.data(), static_cast<std::size_t>(length)});
        }
    }

    const IoText io = parseIo(readFile(directory_.get(), pathOf(pid, "/io").get()));
    process.diskBytesRead = io.readBytes;
    process.diskBytesWritten = io.writeBytes;
    if (!process.isKernelThread) {
        const StatusText sizes = parseStatus(readFile(directory_.get(), pathOf(pid, "/status").get()));
        process.wiredBytes = sizes.locked + sizes.pinned;
        process.residentBytes = sizes.resident;
        process.footprintBytes = sizes.anonymous + sizes.swapped;
    }

    if (singleThreaded) {
        // Its only thread is the one that the process's own files tell of.
        if (const auto own = parseSchedstat(readFile(directory_.get(), pathOf(pid, "/schedstat").get()))) {
            samples.threads.push_back({pid, leadersClass, process.startUnits, *own});
        }
    } else {
        readThreads(pid, samples);
    }
    process.threadCount = static_cast<std::uint32_t>(samples.threads.size()) - process.firstThread;
    samples.processes.push_back(process);
    return true;
}

void ProcfsSource::readThreads(std::int32_t pid, ProcessSamples& samples) {
    // Their files are opened from here: half as many names to walk for each.
    const Descriptor tasks(openat(directory_.get(), pathOf(pid, "/task").get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!tasks || listIds(tasks.get(), threadIds_) != 0) return;
    for (const std::int32_t tid : threadIds_) {
        const auto stat = parseStat(readFile(tasks.get(), pathOf(tid, "/stat").get()));
        if (!stat) continue;
        const auto runtime = parseSchedstat(readFile(tasks.get(), pathOf(tid, "/schedstat").get()));
        if (!runtime) continue;
        samples.threads.push_back({tid, qosClassOf(stat->policy, stat->nice), stat->startUnits, *runtime});
    }
}

}  // namespace quorvix::linuxos
