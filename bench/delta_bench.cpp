// The difference of two snapshots of 5000 processes each: against sorting both inputs, sorting a result of that length
// and one copy of the result, with the standard library's sort on the same data.

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "bench/Bench.h"
#include "perfstats/StatisticsDelta.h"
#include "platform/sim/SimPlatform.h"

using namespace quorvix;
using namespace quorvix::bench;

namespace {

constexpr std::int32_t kProcesses = 5000;
// Processes that ended, and as many that are new.
constexpr std::int32_t kReplaced = 50;
constexpr int kRounds = 41;

using Tasks = std::vector<task_statistics>;

// Two tables of the same processes but a few, with CPU times in no order.
struct Tables {
    Tables() {
        std::mt19937_64 random(1);
        for (std::int32_t pid = 1; pid <= kProcesses + kReplaced; ++pid) {
            task_statistics task{};
            task.pid = pid;
            std::snprintf(task.name, sizeof task.name, "process %d", pid);
            task.usage.userTime = random() % 1'000'000'000;
            if (pid <= kProcesses) start.push_back(task);
            task.usage.userTime += random() % 24'000'000;
            if (pid > kReplaced) end.push_back(task);
        }
    }
    void shuffle() {
        std::mt19937_64 random(2);
        std::shuffle(start.begin(), start.end(), random);
        std::shuffle(end.begin(), end.end(), random);
    }
    Tasks start;
    Tasks end;
};

void fill(cpu_statistics& statistics, const Tasks& tasks) {
    if (!statistics.tasks) statistics.tasks = SnapshotArray<task_statistics>::allocate(tasks.size());
    require(static_cast<bool>(statistics.tasks), "memory for a table");
    std::memcpy(statistics.tasks.get(), tasks.data(), tasks.size() * sizeof(task_statistics));
    statistics.count = static_cast<std::int32_t>(tasks.size());
}

bool byPid(const task_statistics& a, const task_statistics& b) { return a.pid < b.pid; }
bool byCPUUse(const task_statistics& a, const task_statistics& b) { return a.usage.userTime > b.usage.userTime; }

class Bench {
public:
    explicit Bench(const Tables& tables) : tables_(tables) {}

    double deltaUs() {
        fill(start_, tables_.start);
        fill(end_, tables_.end);
        const double begin = nowNs();
        const auto delta = delta_cpu_statistics(&start_, &end_);
        const double duration = (nowNs() - begin) / 1000;
        require(delta && delta->count == kProcesses + kReplaced, "every process of either table");
        return duration;
    }

    double floorUs() {
        if (unsortedResult_.empty()) makeResult();
        Tasks start = tables_.start;
        Tasks end = tables_.end;
        Tasks result = unsortedResult_;
        const double begin = nowNs();
        std::sort(start.begin(), start.end(), byPid);
        std::sort(end.begin(), end.end(), byPid);
        std::sort(result.begin(), result.end(), byCPUUse);
        const Tasks copy = result;
        const double duration = (nowNs() - begin) / 1000;
        require(copy.front().usage.userTime >= copy.back().usage.userTime && start[0].pid < end[0].pid, "sorted");
        return duration;
    }

private:
    // The same entries that a difference has, in the order in which it makes them.
    void makeResult() {
        fill(start_, tables_.start);
        fill(end_, tables_.end);
        const auto delta = delta_cpu_statistics(&start_, &end_);
        require(delta != nullptr, "a difference");
        unsortedResult_.assign(delta->tasks.get(), delta->tasks.get() + delta->count);
        require(std::is_sorted(unsortedResult_.begin(), unsortedResult_.end(), byCPUUse), "the heaviest user first");
        std::sort(unsortedResult_.begin(), unsortedResult_.end(), byPid);
    }

    const Tables& tables_;
    cpu_statistics start_;
    cpu_statistics end_;
    Tasks unsortedResult_;
};

void measure(const char* name, const Tables& tables) {
    Bench bench(tables);
    Comparison delta(name, "us");
    (void)bench.floorUs();
    (void)bench.deltaUs();
    for (int round = 0; round < kRounds; ++round) {
        const double floor = bench.floorUs();
        delta.add(bench.deltaUs(), floor);
    }
    delta.print(Goal::atMost, 1.3);
}

}  // namespace

int main() {
    pinToOneCpu();
    auto& device = *new sim::SimPlatform;
    setPlatform(&device.services);
    Tables tables;
    measure("delta of 5000 processes, listed in the order of their pids", tables);
    tables.shuffle();
    measure("delta of 5000 processes, listed in no order", tables);
}
