#include "perfstats/StatisticsDelta.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <string_view>
#include <vector>

#include "platform/TextFormat.h"
#include "service/Log.h"

namespace quorvix {

namespace {

using Tasks = SnapshotArray<task_statistics>;

// 32-bit differences wrap.
std::int32_t wrappedDifference(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b); }

std::int32_t byPid(const task_statistics& a, const task_statistics& b) {
    return wrappedDifference(static_cast<std::uint32_t>(a.pid), static_cast<std::uint32_t>(b.pid));
}

// Descending, over the low 32 bits of the user times only: the order that the reports have always had.
std::int32_t byCPUUse(const task_statistics& a, const task_statistics& b) {
    return wrappedDifference(static_cast<std::uint32_t>(b.usage.userTime),
                             static_cast<std::uint32_t>(a.usage.userTime));
}

// A merge sort of our own: both comparators wrap and are not transitive, which a library sort may answer by leaving
// its bounds. Sorts 32-bit positions and then moves each entry once. Stable. False without memory: the order stays.
template <class Compare>
[[nodiscard]] bool mergeSort(task_statistics* entries, std::size_t count, Compare compare) {
    if (count < 2) return true;
    const auto positions = SnapshotArray<std::uint32_t>::allocate(2 * count);
    if (!positions) return false;
    std::uint32_t* from = positions.get();
    std::uint32_t* to = from + count;
    std::iota(from, from + count, 0u);
    for (std::size_t width = 1; width < count; width *= 2) {
        for (std::size_t begin = 0; begin < count; begin += 2 * width) {
            const std::size_t middle = std::min(begin + width, count);
            const std::size_t end = std::min(begin + 2 * width, count);
            std::size_t left = begin;
            std::size_t right = middle;
            for (std::size_t at = begin; at < end; ++at) {
                const bool takeRight =
                    left == middle || (right < end && compare(entries[from[right]], entries[from[left]]) < 0);
                to[at] = takeRight ? from[right++] : from[left++];
            }
        }
        std::swap(from, to);
    }
    // from[i] says which entry belongs at i: each cycle is walked once.
    for (std::size_t start = 0; start < count; ++start) {
        if (from[start] == start) continue;
        const task_statistics saved = entries[start];
        std::size_t hole = start;
        while (from[hole] != start) {
            const std::size_t source = from[hole];
            entries[hole] = entries[source];
            from[hole] = static_cast<std::uint32_t>(hole);
            hole = source;
        }
        entries[hole] = saved;
        from[hole] = static_cast<std::uint32_t>(hole);
    }
    return true;
}

void copyName(const task_statistics& from, task_statistics& to) { std::memcpy(to.name, from.name, sizeof to.name); }

void takeNewTask(const task_statistics& task, task_statistics& out) {
    out.pid = task.pid;
    copyName(task, out);
    out.usage = task.usage;
    out.lifecycleState = kTaskNew;
}

void takeDeadTask(const task_statistics& task, task_statistics& out) {
    out.pid = task.pid;
    copyName(task, out);
    out.lifecycleState = kTaskDead;
}

// Counters that may not run backwards, in the order in which they are looked at.
constexpr std::array kCheckedCounters = {
    &ResourceUsage::userTime,          &ResourceUsage::pageIns,
    &ResourceUsage::diskBytesRead,     &ResourceUsage::diskBytesWritten,
    &ResourceUsage::unspecifiedTime,   &ResourceUsage::backgroundTime,
    &ResourceUsage::utilityTime,       &ResourceUsage::legacyTime,
    &ResourceUsage::userInitiatedTime, &ResourceUsage::userInteractiveTime,
    &ResourceUsage::maintenanceTime,
};
// Subtracted unchecked: sizes shrink, and they wrap then.
constexpr std::array kUncheckedCounters = {
    &ResourceUsage::systemTime,
    &ResourceUsage::wiredSize,
    &ResourceUsage::residentSize,
    &ResourceUsage::physicalFootprint,
};

void usageDelta(const ResourceUsage& start, const ResourceUsage& end, ResourceUsage& out, std::int32_t pid) {
    const auto ranForwards = [&](auto counter) { return end.*counter >= start.*counter; };
    if (!std::all_of(kCheckedCounters.begin(), kCheckedCounters.end(), ranForwards)) {
        // The pid was reused: what the new process has counted so far is its own.
        quorvixLog().standard(
            " ******* QXActivationStats: Start values are greater than end values for Pid:%d StartUserTime:%llu "
            "EndUserTime:%llu *******",
            pid, start.userTime, end.userTime);
        out = end;
        return;
    }
    for (const auto counter : kCheckedCounters) out.*counter = end.*counter - start.*counter;
    for (const auto counter : kUncheckedCounters) out.*counter = end.*counter - start.*counter;
}

void takeLivingTask(const task_statistics& start, const task_statistics& end, task_statistics& out) {
    out.pid = end.pid;
    const std::string_view startName = start.name;
    if (end.name[0] != '\0' || startName.find("vexproxy") != std::string_view::npos) {
        // A process that was the launch proxy has become the app since: the proxy's name is not carried over.
        copyName(end, out);
    } else {
        quorvixLog().info("QXActivationStats: Got a valid process name for pid:%d in start snapshot %s. Using that\n",
                          end.pid, startName);
        copyName(start, out);
    }
    usageDelta(start.usage, end.usage, out.usage, end.pid);
    out.lifecycleState = kTaskAlive;
}

struct FlagField {
    unsigned position;
    unsigned width;
};
constexpr std::array<FlagField, 6> kFlagFields = {{{18, 1}, {19, 1}, {20, 2}, {8, 5}, {13, 5}, {0, 8}}};

}  // namespace

std::unique_ptr<cpu_statistics> delta_cpu_statistics(cpu_statistics* start, cpu_statistics* end) {
    if (!start || !end) {
        quorvixLog().standard("QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n");
        return nullptr;
    }
    const auto startCount = static_cast<std::size_t>(start->count);
    const auto endCount = static_cast<std::size_t>(end->count);
    // Merging lists out of order would report the same process as dead and as new.
    const bool sorted =
        mergeSort(start->tasks.get(), startCount, byPid) && mergeSort(end->tasks.get(), endCount, byPid);

    std::unique_ptr<cpu_statistics> result;
    if (sorted && perfState().memory.reserve(sizeof(cpu_statistics))) {
        perfState().memory.release(sizeof(cpu_statistics));
        result.reset(new (std::nothrow) cpu_statistics);
    }
    if (!result) {
        quorvixLog().standard("QXActivationStats: delta_cpu_statistics: Failed to allocate memory for output\n");
        return nullptr;
    }
    result->tasks = Tasks::allocate(startCount + endCount);
    if (!result->tasks) {
        quorvixLog().standard("QXActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n");
        return nullptr;
    }
    std::size_t i = 0;
    std::size_t j = 0;
    std::size_t k = 0;
    while (i < startCount || j < endCount) {
        task_statistics& out = result->tasks[k];
        if (i >= startCount) {
            takeNewTask(end->tasks[j++], out);
        } else if (j >= endCount) {
            takeDeadTask(start->tasks[i++], out);
        } else if (end->tasks[j].pid == start->tasks[i].pid) {
            takeLivingTask(start->tasks[i++], end->tasks[j++], out);
        } else if (end->tasks[j].pid < start->tasks[i].pid) {
            takeNewTask(end->tasks[j++], out);
        } else if (end->tasks[j].pid > start->tasks[i].pid) {
            takeDeadTask(start->tasks[i++], out);
        } else {
            quorvixLog().standard(
                "QXActivationStats: delta_cpu_statistics: We should never hit this case in delta calculation\n");
            continue;
        }
        ++k;
    }
    result->count = static_cast<std::int32_t>(k);
    if (!mergeSort(result->tasks.get(), k, byCPUUse)) {
        quorvixLog().standard("QXActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n");
        return nullptr;
    }
    return result;
}

void insertActivationFlag(std::uint64_t value, std::int32_t index, std::uint64_t& flags) {
    if (index < 0 || index >= static_cast<std::int32_t>(kFlagFields.size())) return;
    const FlagField field = kFlagFields[static_cast<std::size_t>(index)];
    const std::uint64_t maximum = (std::uint64_t{1} << field.width) - 1;
    const std::uint64_t clamped = std::min(value, maximum);
    flags |= clamped << field.position;
    // "Index" shows the bit position, deliberately: that is what the text has always meant.
    quorvixLog().debug("QXActivationStats: Value to insert:%llx Output Value:%llx MaxValue:%llx Index:%d", clamped,
                       flags, maximum, static_cast<std::int32_t>(field.position));
}

}  // namespace quorvix
