#include "swivex/stacks/ThreadCollector.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <set>
#include <string_view>

#include "swivex/stacks/ProcFile.h"
#include "swivex/stacks/ThreadStopper.h"
#include "swivex/stacks/ThreadText.h"

namespace quorvix::swivex::stacks {

namespace {

constexpr std::uint32_t kKernelThread = 0x00200000;  // PF_KTHREAD
constexpr std::uint32_t kWorkerThread = 0x00004010;  // PF_USER_WORKER, PF_IO_WORKER: the kernel's own, in a process
constexpr std::size_t kMostMapBytes = 16 << 20;
constexpr std::size_t kMostStatBytes = 4096;
constexpr std::size_t kAllStackBytes = 32 << 20;
constexpr std::size_t kLeastStackBytes = 16 << 10;
constexpr std::size_t kMostStackBytes = 256 << 10;
constexpr int kLooks = 3;

bool hasEnded(char state) { return state == 'Z' || state == 'X'; }

std::vector<pid_t> listThreads(pid_t pid) {
    std::vector<pid_t> ids;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(("/proc/" + std::to_string(pid) + "/task").c_str()),
                                                     ::closedir);
    if (!folder) return ids;
    while (const dirent* const entry = ::readdir(folder.get())) {
        pid_t id = 0;
        const std::string_view name(entry->d_name);
        if (std::from_chars(name.data(), name.data() + name.size(), id).ec == std::errc() && ids.size() < kMostStacks) {
            ids.push_back(id);
        }
    }
    return ids;
}

std::string errorText(int error) {
    switch (error) {
        case EPERM:
        case EACCES: return "not permitted";
        case ENOSYS: return "not part of this build";
        case ENOTSUP: return "not in a process namespace of its own";
        default: return "error " + std::to_string(error);
    }
}

}  // namespace

void ThreadCollector::collect() {
    if (options_.route != StackRoute::stopping) {
        const int error = iterator_.load();
        hasIterator_ = error == 0;
        if (!hasIterator_) summary_.zeroStopProblem = "the kernel can't tell registers: " + errorText(error);
    } else {
        summary_.zeroStopProblem = "not asked for";
    }
    if (hasIterator_ && !listByIterator()) {
        hasIterator_ = false;
        summary_.zeroStopProblem = "the kernel told of no thread";
    }
    if (!hasIterator_) listByProcfs();
    if (threads_.empty()) {
        summary_.problem = "no such process";
        return;
    }
    isDone_.assign(threads_.size(), false);
    countLeftOut();
    const auto alive = std::find_if(threads_.begin(), threads_.end(),
                                    [](const CapturedThread& thread) { return !hasEnded(thread.stack.state); });
    if (alive == threads_.end()) {
        summary_.problem = "the process has ended and waits for its parent";
        for (CapturedThread& thread : threads_) thread.stack.problem = "has ended";
        return;
    }
    memoryId_ = alive->stack.tid;
    readMap();
    if (map_.mappings().empty()) {
        summary_.problem = "its memory can't be read";
        for (CapturedThread& thread : threads_) thread.stack.problem = "has no memory that can be read";
    } else {
        if (hasIterator_) copyStacks();
        stopThreads();
    }
    nameKernelFrames();
}

bool ThreadCollector::listByIterator() {
    if (!iterator_.walk(pid_, kMostStacks, records_)) return false;
    threads_.resize(records_.size());
    for (std::size_t i = 0; i < records_.size(); ++i) fill(threads_[i], records_[i]);
    return true;
}

void ThreadCollector::listByProcfs() {
    for (const pid_t tid : listThreads(pid_)) {
        CapturedThread thread;
        thread.stack.tid = tid;
        const std::string folder = "task/" + std::to_string(tid);
        if (!parseThreadStat(readProcFile(pid_, folder + "/stat", kMostStatBytes), thread.stack)) continue;
        // A running thread's has no meaning.
        if (options_.kernelSymbols && thread.stack.state != 'R') {
            thread.stack.kernel = parseKernelStack(readProcFile(pid_, folder + "/stack", kMostStatBytes));
        }
        threads_.push_back(std::move(thread));
    }
    summary_.kernelProblem = options_.kernelSymbols ? "" : "without names the kernel can't tell them here";
}

void ThreadCollector::countLeftOut() {
    if (threads_.size() < kMostStacks) return;
    const std::size_t count = threadCountOf(readProcFile(pid_, "status", kMostStatBytes));
    if (count > threads_.size()) summary_.threadsLeftOut = count - threads_.size();
}

void ThreadCollector::readMap() { map_ = MemoryMap::parse(readProcFile(memoryId_, "maps", kMostMapBytes)); }

void ThreadCollector::fill(CapturedThread& thread, const swivex_thread_record& record) const {
    thread.stack.tid = record.tid;
    thread.stack.name.assign(record.comm, ::strnlen(record.comm, sizeof record.comm));
    thread.stack.state = stateLetter(record);
    thread.stack.problem.clear();
    thread.stack.kernel.clear();
    const std::size_t frames =
        record.kernel_bytes > 0 ? static_cast<std::size_t>(record.kernel_bytes) / sizeof(std::uint64_t) : 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(frames, SWIVEX_KERNEL_FRAMES); ++i) {
        thread.stack.kernel.push_back({record.kernel[i], {}});
    }
    thread.hasRegisters = record.register_bytes != 0 && record.on_cpu == 0;
    std::copy_n(record.registers, thread.registers.size(), thread.registers.begin());
}

std::size_t ThreadCollector::stackBytes() const {
    return std::clamp(kAllStackBytes / threads_.size(), kLeastStackBytes, kMostStackBytes);
}

void ThreadCollector::copyStack(CapturedThread& thread, const RemoteMemory& memory) const {
    const std::uint64_t pointer = thread.registers[kStackPointer];
    const Mapping* const mapping = map_.find(pointer);
    if (!mapping) return;
    thread.memory = memory.copy(*mapping, std::max(pointer - kBelowStackPointer, mapping->start), stackBytes());
}

void ThreadCollector::copyStacks() {
    const RemoteMemory memory(memoryId_);
    Records next;
    for (int look = 0; look < kLooks; ++look) {
        bool isLeft = false;
        for (std::size_t i = 0; i < threads_.size(); ++i) {
            if (!isDone_[i] && threads_[i].hasRegisters) copyStack(threads_[i], memory);
        }
        if (!iterator_.walk(pid_, kMostStacks, next)) return;
        std::unordered_map<pid_t, const swivex_thread_record*> byId;
        for (const swivex_thread_record& record : next) byId.emplace(record.tid, &record);
        for (std::size_t i = 0; i < threads_.size(); ++i) {
            if (isDone_[i]) continue;
            const auto found = byId.find(threads_[i].stack.tid);
            if (found == byId.end() || found->second->start_ns != records_[i].start_ns) {
                threads_[i].hasRegisters = false;
                threads_[i].stack.problem = "ended meanwhile";
                isDone_[i] = true;
                continue;
            }
            const swivex_thread_record& now = *found->second;
            if (threads_[i].hasRegisters && now.on_cpu == 0 && now.switches == records_[i].switches) {
                isDone_[i] = true;
                continue;
            }
            // A thread that runs is not waited for: it may run for ever.
            fill(threads_[i], now);
            records_[i] = now;
            isLeft = isLeft || threads_[i].hasRegisters;
        }
        if (!isLeft || std::chrono::steady_clock::now() >= options_.deadline) break;
    }
}

void ThreadCollector::stopThreads() {
    std::vector<CapturedThread*> left;
    for (std::size_t i = 0; i < threads_.size(); ++i) {
        CapturedThread& thread = threads_[i];
        if (isDone_[i]) {
            if (!thread.hasRegisters && thread.stack.problem.empty()) thread.stack.problem = "has no user stack";
            continue;
        }
        thread.hasRegisters = false;
        const std::uint32_t flags = hasIterator_ ? records_[i].flags : 0;
        if (hasEnded(thread.stack.state)) {
            thread.stack.problem = "has ended";
        } else if ((flags & (kKernelThread | kWorkerThread)) != 0) {
            thread.stack.problem = "a thread of the kernel";
        } else if (options_.route == StackRoute::withoutStopping) {
            thread.stack.problem = hasIterator_ ? "ran at every look" : "not to be stopped";
        } else if (thread.stack.state == 'D' || thread.stack.state == 'I') {
            thread.stack.problem = "sleeps uninterruptibly: can't be stopped";
        } else {
            left.push_back(&thread);
        }
    }
    const RemoteMemory memory(memoryId_);
    ThreadStopper(memory, map_, {.deadline = options_.deadline, .mostStackBytes = stackBytes()}).capture(left);
}

void ThreadCollector::nameKernelFrames() {
    if (!hasIterator_) return;
    summary_.kernelTextStart = iterator_.kernelTextStart();
    if (!options_.kernelSymbols) return;
    std::set<std::uint64_t> unique;
    for (const CapturedThread& thread : threads_) {
        for (const KernelFrame& frame : thread.stack.kernel) unique.insert(frame.address);
    }
    const std::vector<std::uint64_t> addresses(unique.begin(), unique.end());
    const std::vector<std::string> names = iterator_.names(addresses);
    for (CapturedThread& thread : threads_) {
        for (KernelFrame& frame : thread.stack.kernel) {
            const auto at = std::lower_bound(addresses.begin(), addresses.end(), frame.address);
            frame.symbol = names[static_cast<std::size_t>(at - addresses.begin())];
        }
    }
}

}  // namespace quorvix::swivex::stacks
