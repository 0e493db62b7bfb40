// What the flight recorder costs the machine that it records: the worst case, two processes on one CPU that do nothing
// but wake each other, and an everyday one, two compilers at work.

#include <stdlib.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/PingPong.h"
#include "bench/RecorderInstance.h"

using namespace quorvix::bench;

namespace {

constexpr int kRounds = 21;
constexpr int kHandovers = 20'000;
constexpr int kCompiles = 3;
constexpr double kMostWorstCase = 1.30;
constexpr double kMostShare = 0.01;

double timed(PingPong& pair) {
    const double begin = pair.cpuNs();
    pair.run(kHandovers);
    return (pair.cpuNs() - begin) / kHandovers;
}

// What one event costs, in ns, from the difference that it makes in the worst case.
double worstCase(RecorderInstance& recorder) {
    cpu_set_t before;
    require(sched_getaffinity(0, sizeof before, &before) == 0, "sched_getaffinity");
    pinToOneCpu();
    Comparison comparison("recorder: CPU time of a byte to another process and back", "ns");
    std::vector<double> costs;
    {
        PingPong pair;
        pair.run(kHandovers);
        for (int round = 0; round < kRounds; ++round) {
            const double without = timed(pair);
            recorder.on();
            const double first = recorder.events();
            const double with = timed(pair);
            const double events = recorder.events() - first;
            recorder.off();
            // Two switches and at least one waking a hand-over: who is woken may run at once and find the other awake.
            require(events >= 3.0 * kHandovers * 0.9, "the recorder saw the hand-overs");
            comparison.add(with, without);
            costs.push_back((with - without) * kHandovers / events);
        }
    }
    comparison.print(Goal::atMost, kMostWorstCase);
    require(sched_setaffinity(0, sizeof before, &before) == 0, "sched_setaffinity");
    return median(costs);
}

struct Compiled {
    double wallNs = 0;
    double cpuNs = 0;
};

double childrenNs() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto ns = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
    };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

Compiled compile(const std::string& folder) {
    const double cpu = childrenNs();
    const double begin = nowNs();
    const std::string one = "c++ -std=c++20 -O1 -c " + folder + "/a.cpp -o " + folder + "/";
    require(system((one + "a.o & " + one + "b.o & wait").c_str()) == 0, "two compilers");
    return {nowNs() - begin, childrenNs() - cpu};
}

void everydayCase(RecorderInstance& recorder, double eventNs) {
    std::string folder = "/tmp/quorvix-recorder-bench-XXXXXX";
    require(mkdtemp(folder.data()) != nullptr, "a folder");
    std::ofstream(folder + "/a.cpp") << "#include <map>\n#include <vector>\n#include <string>\n"
                                        "std::map<std::string, std::vector<int>> f() { return {{\"a\", {1, 2}}}; }\n";
    Comparison wall("recorder: two compilers, wall time", "ns");
    std::vector<double> shares;
    compile(folder);
    for (int round = 0; round < kCompiles; ++round) {
        const Compiled without = compile(folder);
        recorder.on();
        const Compiled with = compile(folder);
        shares.push_back(recorder.events() * eventNs / with.cpuNs);
        recorder.off();
        wall.add(with.wallNs, without.wallNs);
    }
    std::filesystem::remove_all(folder);
    printAbsolute("recorder: its share of the compilers' CPU time (events x cost of one)", "of 1", median(shares),
                  kMostShare);
    wall.print(Goal::none, 0);
}

}  // namespace

int main() {
    RecorderInstance recorder;
    const double eventNs = worstCase(recorder);
    std::printf("recorder: an event costs %.0f ns\n", eventNs);
    everydayCase(recorder, eventNs);
}
