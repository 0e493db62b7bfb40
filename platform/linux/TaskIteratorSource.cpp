#include "platform/linux/TaskIteratorSource.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "platform/linux/ProcessNamespace.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/bpf/TaskProgram.h"

namespace quorvix::linuxos {

#ifdef QUORVIX_TASK_ITERATOR

namespace {

constexpr std::uint64_t kNsPerStartUnit = 1'000'000'000 / kStartUnitsPerSecond;

std::uint64_t bytesOf(std::uint64_t pages) {
    static const auto pageBytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return pages * pageBytes;
}

// A counter that is spread over processors can be below zero for a moment.
std::uint64_t positive(long long value) { return value > 0 ? static_cast<std::uint64_t>(value) : 0; }

void add(ProcessSample& process, const quorvix_task_usage& usage) {
    process.runtimeNs += usage.runtime_ns;
    process.userShare += usage.user_ns;
    process.systemShare += usage.system_ns;
    process.majorFaults += usage.major_faults;
    process.diskBytesRead += usage.read_bytes;
    process.diskBytesWritten += usage.write_bytes;
}

void setName(ProcessSample& process, std::string_view comm) {
    setProcessName(process, comm);
    if (process.isKernelThread || !mayBeCut(comm)) return;
    constexpr std::string_view kProc = "/proc/";
    std::array<char, 64> link;
    char* end = std::copy(kProc.begin(), kProc.end(), link.data());
    end = std::to_chars(end, link.data() + link.size() - 8, process.pid).ptr;
    std::strcpy(end, "/exe");
    std::array<char, 4352> path;
    const ssize_t length = ::readlink(link.data(), path.data(), path.size());
    if (length > 0) completeProcessName(process, comm, {path.data(), static_cast<std::size_t>(length)});
}

void addProcess(const quorvix_task_process& from, const quorvix_task_table& table, ProcessSamples& samples) {
    ProcessSample process{};
    process.pid = from.pid;
    process.isKernelThread = (from.flags & kKernelThreadFlag) != 0;
    process.startUnits = from.start_ns / kNsPerStartUnit;
    process.wiredBytes = bytesOf(from.locked_pages + from.pinned_pages);
    const std::uint64_t file = positive(from.memory_pages[0]);
    const std::uint64_t anonymous = positive(from.memory_pages[1]);
    const std::uint64_t swapped = positive(from.memory_pages[2]);
    const std::uint64_t shared = positive(from.memory_pages[3]);
    process.residentBytes = bytesOf(file + anonymous + shared);
    process.footprintBytes = bytesOf(anonymous + swapped);
    process.firstThread = static_cast<std::uint32_t>(samples.threads.size());
    add(process, from.exited);
    for (std::uint32_t i = from.first_thread; i < table.thread_count && table.threads[i].pid == from.pid; ++i) {
        const quorvix_task_thread& thread = table.threads[i];
        add(process, thread.usage);
        samples.threads.push_back({thread.tid, qosClassOf(thread.policy, thread.nice),
                                   thread.start_ns / kNsPerStartUnit, thread.usage.runtime_ns});
    }
    process.threadCount = static_cast<std::uint32_t>(samples.threads.size()) - process.firstThread;
    setName(process, {from.comm, strnlen(from.comm, sizeof from.comm)});
    samples.processes.push_back(process);
}

}  // namespace

void TaskIteratorSource::Unload::operator()(quorvix_task_program* program) const {
    quorvix_task_program_unload(program);
}

int TaskIteratorSource::load() {
    if (!seesTheKernelsIds()) return ENOTSUP;
    quorvix_task_program* program = nullptr;
    if (const int error = quorvix_task_program_load(places_.processes, places_.threads, &program)) return error;
    program_.reset(program);
    return 0;
}

int TaskIteratorSource::read(ProcessSamples& samples) {
    samples.clear();
    quorvix_task_table table{};
    for (;;) {
        if (!program_) {
            if (const int error = load()) return error;
        }
        if (const int error = quorvix_task_program_run(program_.get(), &table)) return error;
        if ((table.error & QUORVIX_TASK_PROCESSORS) != 0) return ENOTSUP;
        if ((table.error & QUORVIX_TASK_FULL) == 0) break;
        // Loaded anew, since a table can't grow. It stays as large as it was ever needed.
        if (places_.threads >= kMostThreads) return E2BIG;
        program_.reset();
        while (places_.processes < table.process_count) places_.processes *= 2;
        while (places_.threads < table.thread_count) places_.threads *= 2;
    }
    for (std::uint32_t i = 0; i < table.process_count; ++i) addProcess(table.processes[i], table, samples);
    samples.sort();
    return 0;
}

#else  // built without the tools that make the program

void TaskIteratorSource::Unload::operator()(quorvix_task_program*) const {}
int TaskIteratorSource::load() { return ENOSYS; }
int TaskIteratorSource::read(ProcessSamples& samples) {
    samples.clear();
    return load();
}

#endif

}  // namespace quorvix::linuxos
