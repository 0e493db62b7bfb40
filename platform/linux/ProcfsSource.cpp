#include "platform/linux/ProcfsSource.h"

#include <fcntl.h>
#include <linux/sched/types.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

namespace quorvix::linuxos {

namespace {

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

std::optional<ProcfsSource::Scheduling> ProcfsSource::kernelScheduling(std::int32_t tid) {
    sched_attr attributes{};
    if (syscall(SYS_sched_getattr, tid, &attributes, SCHED_ATTR_SIZE_VER0, 0) != 0) return std::nullopt;
    return Scheduling{attributes.sched_policy, attributes.sched_nice};
}

int ProcfsSource::read(ProcessSamples& samples) {
    samples.clear();
    if (!directory_) directory_.reset(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) return errno;
    if (lseek(directory_.get(), 0, SEEK_SET) < 0) return errno;
    if (const int error = listIds(directory_.get(), processEntries_)) return error;
    lastPlace_ = 0;
    next_.processes.clear();
    next_.threads.clear();
    for (const Entry& entry : processEntries_) readProcess(entry, samples);
    std::swap(last_, next_);
    samples.sort();
    return 0;
}

int ProcfsSource::listIds(int directory, std::vector<Entry>& ids) {
    ids.clear();
    return reader_.eachId(directory, [&ids](std::int32_t id, std::uint64_t inode) { ids.push_back({id, inode}); });
}

void ProcfsSource::readProcess(const Entry& entry, ProcessSamples& samples) {
    const std::int32_t pid = entry.id;
    // First of all: what the process does from here on moves its clock, and is read again for the next table.
    const auto clock = calls_.clock(pid);
    if (!clock) return;
    const KnownProcess* const last = lastOf(entry);
    if (last && last->clockNs == *clock && repeat(*last, samples)) return;

    const auto stat = parseStat(reader_.file(directory_.get(), pathOf(pid, "/stat").get()));
    if (!stat) return;
    // Once more, now that it is known whose it is. Before its threads' times: what runs in between then looks too small
    // a sum, not like time of an exited thread.
    const auto runtime = calls_.clock(pid);
    if (!runtime) return;

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
    readName(*stat, process);

    const IoText io = parseIo(reader_.file(directory_.get(), pathOf(pid, "/io").get()));
    process.diskBytesRead = io.readBytes;
    process.diskBytesWritten = io.writeBytes;
    readSizes(process);

    if (singleThreaded) {
        // Its only thread is the one that the process's own files tell of.
        if (const auto own = parseSchedstat(reader_.file(directory_.get(), pathOf(pid, "/schedstat").get()))) {
            addThread({0, {pid, leadersClass, process.startUnits, *own}}, samples);
        }
    } else if (!last || stat->startUnits != last->sample.startUnits || stat->threadCount != last->sample.threadCount ||
               !readThreadsThatRan(*last, *runtime, samples)) {
        readThreads(pid, last, samples);
    }
    process.threadCount = static_cast<std::uint32_t>(samples.threads.size()) - process.firstThread;
    samples.processes.push_back(process);
    next_.processes.push_back({entry.inode, *clock, process});
}

const ProcfsSource::KnownProcess* ProcfsSource::lastOf(const Entry& entry) {
    // Both are in the order of the directory, the kernel's of the ids. In another one, some are only read anew.
    const auto& processes = last_.processes;
    while (lastPlace_ < processes.size() && processes[lastPlace_].sample.pid < entry.id) ++lastPlace_;
    if (lastPlace_ == processes.size()) return nullptr;
    const KnownProcess& found = processes[lastPlace_];
    return found.sample.pid == entry.id && found.inode == entry.inode ? &found : nullptr;
}

// Of a process that has not run since: false when it can't be told what may have changed nevertheless.
bool ProcfsSource::repeat(const KnownProcess& last, ProcessSamples& samples) {
    ProcessSample process = last.sample;
    process.firstThread = static_cast<std::uint32_t>(samples.threads.size());
    if (!repeatThreads(last, samples)) return false;
    readSizes(process);
    samples.processes.push_back(process);
    next_.processes.push_back({last.inode, last.clockNs, process});
    return true;
}

// The threads as they were, but for their scheduling. False, and none: one doesn't tell it.
bool ProcfsSource::repeatThreads(const KnownProcess& last, ProcessSamples& samples) {
    const auto before = samples.threads.size();
    for (const KnownThread& known : threadsOf(last)) {
        const auto scheduling = calls_.scheduling(known.sample.tid);
        if (!scheduling) {
            samples.threads.resize(before);
            next_.threads.resize(before);
            return false;
        }
        KnownThread same = known;
        same.sample.qosClass = qosClassOf(scheduling->policy, scheduling->nice);
        addThread(same, samples);
    }
    return true;
}

// Where there are as many threads as before, and some of those account for all that the process used since, no other
// one has run: none of the others has another time, and none has begun or ended either, since that takes time too.
// False, and none: it can't be told this way.
bool ProcfsSource::readThreadsThatRan(const KnownProcess& last, std::uint64_t runtimeNs, ProcessSamples& samples) {
    const auto before = samples.threads.size();
    if (!repeatThreads(last, samples)) return false;
    std::uint64_t left = runtimeNs - last.sample.runtimeNs;
    for (auto place = before; left != 0 && place < samples.threads.size(); ++place) {
        ThreadSample& thread = samples.threads[place];
        const auto path = pathOf(last.sample.pid, "/task/").number(thread.tid).text("/schedstat");
        const auto runtime = parseSchedstat(reader_.file(directory_.get(), path.get()));
        if (!runtime || *runtime < thread.runtimeNs || *runtime - thread.runtimeNs > left) break;
        left -= *runtime - thread.runtimeNs;
        thread.runtimeNs = next_.threads[place].sample.runtimeNs = *runtime;
    }
    if (left == 0) return true;
    samples.threads.resize(before);
    next_.threads.resize(before);
    return false;
}

void ProcfsSource::readName(const StatText& stat, ProcessSample& process) {
    const std::string_view comm = process.isKernelThread ? kernelThreadComm(stat.comm) : stat.comm;
    setProcessName(process, comm);
    if (process.isKernelThread || !mayBeCut(comm)) return;
    char kept[kCommLength];
    comm.copy(kept, kCommLength);
    const std::string_view path = reader_.link(directory_.get(), pathOf(process.pid, "/exe").get());
    if (!path.empty()) completeProcessName(process, {kept, kCommLength}, path);
}

void ProcfsSource::readSizes(ProcessSample& process) {
    if (process.isKernelThread) return;
    const StatusText sizes = parseStatus(reader_.file(directory_.get(), pathOf(process.pid, "/status").get()));
    process.wiredBytes = sizes.locked + sizes.pinned;
    process.residentBytes = sizes.resident;
    process.footprintBytes = sizes.anonymous + sizes.swapped;
}

void ProcfsSource::readThreads(std::int32_t pid, const KnownProcess* last, ProcessSamples& samples) {
    // Their files are opened from here: half as many names to walk for each.
    const Descriptor tasks(openat(directory_.get(), pathOf(pid, "/task").get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!tasks || listIds(tasks.get(), threadEntries_) != 0) return;
    // Listed in the order in which they began, then and now: one that is not found from where the one before stood is
    // new.
    auto known = last ? threadsOf(*last) : std::span<const KnownThread>();
    for (const Entry& entry : threadEntries_) {
        const auto same = std::find_if(known.begin(), known.end(), [&](const KnownThread& thread) {
            return thread.sample.tid == entry.id && thread.inode == entry.inode;
        });
        const bool isKnown = same != known.end();
        if (isKnown) known = {same + 1, known.end()};
        const auto scheduling = calls_.scheduling(entry.id);
        ThreadSample thread{};
        thread.tid = entry.id;
        if (isKnown && scheduling) {
            thread.startUnits = same->sample.startUnits;
            thread.qosClass = qosClassOf(scheduling->policy, scheduling->nice);
        } else {
            const auto stat = parseStat(reader_.file(tasks.get(), pathOf(entry.id, "/stat").get()));
            if (!stat) continue;
            thread.startUnits = stat->startUnits;
            thread.qosClass = qosClassOf(stat->policy, stat->nice);
        }
        const auto runtime = parseSchedstat(reader_.file(tasks.get(), pathOf(entry.id, "/schedstat").get()));
        if (!runtime) continue;
        thread.runtimeNs = *runtime;
        addThread({entry.inode, thread}, samples);
    }
}

std::span<const ProcfsSource::KnownThread> ProcfsSource::threadsOf(const KnownProcess& last) const {
    return {last_.threads.data() + last.sample.firstThread, last.sample.threadCount};
}

void ProcfsSource::addThread(const KnownThread& thread, ProcessSamples& samples) {
    samples.threads.push_back(thread.sample);
    next_.threads.push_back(thread);
}

}  // namespace quorvix::linuxos
