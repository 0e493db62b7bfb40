#include "swivex/TraceInstance.h"

#include <dirent.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <utility>

#include "swivex/RecorderText.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

constexpr decltype(std::declval<struct statfs>().f_type) kTraceFileSystem = 0x74726163;

}  // namespace

const std::vector<std::string>& recordedEvents() {
    // Block events but for these come with every page that is touched and would fill the ring.
    static const std::vector<std::string> events = {
        "sched/sched_switch",
        "sched/sched_waking",
        "sched/sched_wakeup_new",
        "sched/sched_process_fork",
        "sched/sched_process_exec",
        "sched/sched_process_exit",
        "task/task_newtask",
        "task/task_rename",
        "block/block_rq_issue",
        "block/block_rq_complete",
        "vmscan/mm_vmscan_direct_reclaim_begin",
        "vmscan/mm_vmscan_direct_reclaim_end",
        "oom/mark_victim",
        "signal/signal_generate",
        "signal/signal_deliver",
    };
    return events;
}

Outcome<bool> TraceInstance::present() const {
    struct statfs status {};
    if (::statfs(folder().c_str(), &status) == 0) {
        if (status.f_type == kTraceFileSystem) return true;
        return Problem{folder() + " is not in a tracing file system"};
    }
    if (errno != ENOENT) return Problem{errorText(folder(), errno)};
    if (::statfs(root.c_str(), &status) == 0 && status.f_type != kTraceFileSystem) {
        return Problem{"no tracing file system is mounted at " + root};
    }
    return Problem{"the recorder is off: there is no " + folder()};
}

std::string TraceInstance::whyNotRecording() const {
    const auto isOff = [&](const char* path) {
        const auto text = readSmallFile(file(path));
        return text && text->starts_with('0');
    };
    if (isOff("tracing_on")) return "recording is switched off in " + file("tracing_on");
    return isOff("events/sched/sched_switch/enable") ? "sched_switch is not recorded" : "";
}

std::vector<unsigned> TraceInstance::cpus() const {
    std::vector<unsigned> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(file("per_cpu").c_str()), &::closedir);
    while (folder) {
        const dirent* const entry = ::readdir(folder.get());
        if (!entry) break;
        const std::string_view entryName = entry->d_name;
        unsigned cpu = 0;
        if (!entryName.starts_with("cpu")) continue;
        if (std::from_chars(entryName.data() + 3, entryName.data() + entryName.size(), cpu).ec == std::errc())
            found.push_back(cpu);
    }
    std::ranges::sort(found);
    return found;
}

std::uint64_t TraceInstance::count(unsigned cpu, std::string_view key) const {
    const auto text = readSmallFile(cpuFile(cpu, "stats"));
    return text ? countOf(*text, key) : 0;
}

std::vector<EventFormat> TraceInstance::formats() const {
    std::vector<EventFormat> found;
    const auto add = [&](const std::string& path) {
        const auto text = readSmallFile(path);
        if (!text) return;
        if (auto format = parseEventFormat(*text)) found.push_back(std::move(*format));
    };
    for (const std::string& event : recordedEvents()) add(file("events/" + event + "/format"));
    // The marker's format is given by the whole file system and not by its instances.
    add(root + "/events/ftrace/print/format");
    return found;
}

}  // namespace quorvix::swivex
