// The recorder in this kernel: instances of names of our own, in a file system that is mounted for this process alone.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <map>
#include <memory>
#include <thread>

#include "swivex/FlightRecorder.h"
#include "swivex/MappedRing.h"
#include "swivex/SmallFile.h"
#include "swivex/TextRing.h"
#include "tests/support/ChildProcess.h"
#include "tests/swivex/DumpSupport.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;
using quorvix::tests::ChildProcess;

namespace {

// Why there are no rings to be had here; empty: there are. Mounts them once.
const std::string& whyNoTracing() {
    static const std::string why = [] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("no private mounts: needs root");
        }
        if (access("/sys/kernel/tracing/instances", F_OK) == 0) return std::string();
        if (mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0) {
            return errorText("tracefs can't be mounted", errno);
        }
        return std::string();
    }();
    return why;
}

std::uint64_t nsOf(std::uint64_t ticks) { return ticks / 3 * 125 + ticks % 3 * 125 / 3; }

void runFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) continue;
}

class Recorder : public testing::Test {
protected:
    void SetUp() override {
        if (!whyNoTracing().empty()) GTEST_SKIP() << whyNoTracing();
        instance.name = "quorvix-test-" + std::to_string(getpid());
    }
    void TearDown() override {
        if (whyNoTracing().empty()) (void)!!FlightRecorder(instance).disarm();
    }
    void arm(std::uint64_t kilobytes = 2048) {
        const auto armed = FlightRecorder(instance).arm({kilobytes});
        ASSERT_TRUE(armed) << armed.problem();
    }
    bool exists() const { return access(instance.folder().c_str(), F_OK) == 0; }
    std::string valueOf(const char* file) const { return *readSmallFile(instance.file(file)); }
    void mark(const std::string& line) const {
        ASSERT_TRUE(writeSmallFile(instance.file("trace_marker"), line + "\n"));
    }

    DumpedFile dumped(std::uint64_t begin, std::uint64_t end, pid_t pid) const {
        const std::string reason = reasonOf(pid, pid);
        return DumpedFile({.reason = reason, .names = false, .minTicks = begin, .maxTicks = end},
                          DumpSettings{.recorder = instance});
    }
    struct BusyDump {
        DumpedFile file;
        pid_t pid;
        std::uint64_t begin;  // ticks; it was busy before and after
        std::uint64_t end;
    };
    std::unique_ptr<BusyDump> dumpOfABusyThread() {
        std::uint64_t begin = 0, end = 0;
        ChildProcess child([&] {
            runFor(std::chrono::milliseconds(20));
            begin = quorvix_ticks_now();
            runFor(std::chrono::milliseconds(300));
            end = quorvix_ticks_now();
            const std::uint64_t times[2] = {begin, end};
            const int fd =
                open(("/tmp/quorvix-recorder-" + std::to_string(getpid())).c_str(), O_WRONLY | O_CREAT, 0600);
            (void)!write(fd, times, sizeof times);
            close(fd);
            runFor(std::chrono::milliseconds(20));
            pause();
        });
        const std::string path = "/tmp/quorvix-recorder-" + std::to_string(child.pid());
        std::string times;
        while (times.size() < 16) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            times = quorvix::tests::readWholeFile(path);
        }
        std::memcpy(&begin, times.data(), 8);
        std::memcpy(&end, times.data() + 8, 8);
        unlink(path.c_str());
        return std::unique_ptr<BusyDump>(new BusyDump{dumped(begin, end, child.pid()), child.pid(), begin, end});
    }
    std::vector<SeenSwitch> allSwitches(const DumpedFile& file) const {
        std::vector<SeenSwitch> all;
        for (const unsigned cpu : instance.cpus()) {
            const auto some = switchesOf(file.packets, cpu);
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    }

    // It told its end itself, so that it was on a CPU then.
    bool isOnACpuAtItsEnd(const BusyDump& busy) const {
        std::uint64_t left = 0, came = 0;
        for (const SeenSwitch& one : allSwitches(busy.file)) {
            if (one.timeNs > nsOf(busy.end)) continue;
            if (one.prevPid == busy.pid) left = std::max(left, one.timeNs);
            if (one.nextPid == busy.pid) came = std::max(came, one.timeNs);
        }
        return came >= left;
    }

    TraceInstance instance;
};

}  // namespace

TEST_F(Recorder, OnMakesAnInstanceAndOffLeavesNothingBehind) {
    arm();
    EXPECT_NE(valueOf("trace_clock").find("[mono]"), std::string::npos);
    EXPECT_EQ(valueOf("tracing_on"), "1\n");
    EXPECT_EQ(valueOf("options/overwrite"), "1\n");
    EXPECT_EQ(valueOf("events/sched/sched_switch/enable"), "1\n");
    EXPECT_EQ(valueOf("events/block/block_touch_buffer/enable"), "0\n");
    const auto off = FlightRecorder(instance).disarm();
    ASSERT_TRUE(off) << off.problem();
    EXPECT_TRUE(*off);
    EXPECT_FALSE(exists());
    const auto again = FlightRecorder(instance).disarm();
    ASSERT_TRUE(again) << again.problem();
    EXPECT_FALSE(*again) << "it was off";
}

TEST_F(Recorder, OnAgainKeepsWhatItHolds) {
    arm();
    mark("before");
    const auto again = FlightRecorder(instance).arm({2048});
    ASSERT_TRUE(again) << again.problem();
    EXPECT_TRUE(again->wasOn);
    EXPECT_NE(valueOf("trace").find("before"), std::string::npos);
}

TEST_F(Recorder, StatusSaysWhetherItIsOfUse) {
    EXPECT_FALSE(FlightRecorder(instance).status()->on);
    arm();
    auto status = FlightRecorder(instance).status();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->on);
    EXPECT_EQ(status->problem, "");
    EXPECT_GE(status->kilobytes, 2048U);
    EXPECT_EQ(status->cpus.size(), instance.cpus().size());
    ASSERT_TRUE(writeSmallFile(instance.file("tracing_on"), "0"));
    EXPECT_NE(FlightRecorder(instance).status()->problem, "");
    ASSERT_TRUE(writeSmallFile(instance.file("tracing_on"), "1"));
    ASSERT_TRUE(writeSmallFile(instance.file("events/sched/sched_switch/enable"), "0"));
    EXPECT_NE(FlightRecorder(instance).status()->problem, "");
}

TEST_F(Recorder, FolderThatIsNoTracingFileSystemIsRefused) {
    const quorvix::tests::TemporaryFolder folder;
    const TraceInstance elsewhere{folder.path(), "x"};
    EXPECT_FALSE(FlightRecorder(elsewhere).arm({}));
    std::filesystem::create_directories(folder.path("instances"));
    EXPECT_FALSE(FlightRecorder(elsewhere).arm({}));
    EXPECT_FALSE(std::filesystem::exists(folder.path("instances/x"))) << "what it made is gone again";
}

TEST_F(Recorder, DumpOfABusyThreadShowsWhereItsTimeWent) {
    arm();
    std::unique_ptr<BusyDump> busy = dumpOfABusyThread();
    // Kernels with a hypervisor's helper, which comes once a second, do not record the switch away from it.
    for (int i = 0; i < 10 && !isOnACpuAtItsEnd(*busy); ++i) busy = dumpOfABusyThread();
    const auto& [file, pid, begin, end] = *busy;
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("recorder"), "mapped");
    EXPECT_EQ(file.attribute.at("covered_begin_ns"), file.attribute.at("asked_begin_ns"));
    EXPECT_EQ(file.attribute.at("covered_end_ns"), file.attribute.at("dump_ns"));

    // From each switch to it to the switch from it, it ran; from each switch from it to the next to it, it did not. It
    // never slept, so that both together are the window.
    std::multimap<std::uint64_t, std::pair<bool, std::int64_t>> changes;
    for (const SeenSwitch& one : allSwitches(file)) {
        if (one.prevPid == pid) changes.emplace(one.timeNs, std::pair{false, one.prevState});
        if (one.nextPid == pid) changes.emplace(one.timeNs, std::pair{true, 0});
    }
    ASSERT_FALSE(changes.empty());
    EXPECT_GE(changes.begin()->first, nsOf(begin)) << "nothing stands before the window";
    std::uint64_t ran = 0, waited = 0, last = nsOf(begin);
    bool running = !changes.begin()->second.first;
    for (const auto& [time, change] : changes) {
        const std::uint64_t until = std::min(time, nsOf(end));
        if (until > last) (running ? ran : waited) += until - last;
        last = std::max(last, until);
        running = change.first;
        EXPECT_TRUE(running || time >= nsOf(end) || (change.second & 0xff) == 0) << "it never slept";
    }
    if (running && nsOf(end) > last) ran += nsOf(end) - last;
    const double window = static_cast<double>(nsOf(end) - nsOf(begin));
    EXPECT_NEAR(static_cast<double>(ran + waited) / window, 1.0, 0.01);
}

TEST_F(Recorder, ThreadThatSleepsAllTheTimeHasAKnownState) {
    arm();
    ChildProcess child([] { pause(); });
    while (readSmallFile("/proc/" + std::to_string(child.pid()) + "/wchan")->find("pause") == std::string::npos &&
           readSmallFile("/proc/" + std::to_string(child.pid()) + "/stat")->find(") S ") == std::string::npos) {
        std::this_thread::yield();
    }
    const std::uint64_t begin = quorvix_ticks_now() + 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const DumpedFile file = dumped(begin, quorvix_ticks_now(), child.pid());
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("hung_left_state"), "S");
    EXPECT_LE(std::stoull(file.attribute.at("hung_left_ns")), nsOf(begin));
}

TEST_F(Recorder, SecondDumpHoldsTheSamePast) {
    arm();
    const std::uint64_t begin = quorvix_ticks_now();
    for (int round = 0; round < 20; ++round) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::uint64_t end = quorvix_ticks_now();
    const auto inside = [&](const DumpedFile& file) {
        std::vector<SeenSwitch> switches;
        for (const SeenSwitch& one : allSwitches(file)) {
            if (one.timeNs <= nsOf(end)) switches.push_back(one);
        }
        return switches;
    };
    const auto first = inside(dumped(begin, end, getpid()));
    const auto second = inside(dumped(begin, end, getpid()));
    EXPECT_GE(first.size(), 20U);
    EXPECT_EQ(first, second);
}

TEST_F(Recorder, OverflowOnPurposeIsSaid) {
    arm(64);
    const std::uint64_t begin = quorvix_ticks_now();
    cpu_set_t all;
    sched_getaffinity(0, sizeof all, &all);
    for (const unsigned cpu : instance.cpus()) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        if (sched_setaffinity(0, sizeof one, &one) != 0) continue;
        for (int line = 0; line < 3000; ++line) mark(std::string(200, 'x'));
    }
    sched_setaffinity(0, sizeof all, &all);
    const DumpedFile file = dumped(begin, quorvix_ticks_now(), getpid());
    ASSERT_TRUE(file.written);
    for (const unsigned cpu : instance.cpus()) EXPECT_EQ(file.attribute.at("lost.cpu" + std::to_string(cpu)), "-1");
    EXPECT_GT(std::stoull(file.attribute.at("covered_begin_ns")), nsOf(begin));
    EXPECT_LE(std::stoull(file.attribute.at("covered_begin_ns")), std::stoull(file.attribute.at("dump_ns")));
}

TEST_F(Recorder, LaunchSignpostsAreInTheFile) {
    arm();
    const std::uint64_t begin = quorvix_ticks_now();
    mark("S|12|launch|7");
    const DumpedFile file = dumped(begin, quorvix_ticks_now(), getpid());
    std::size_t found = 0;
    for (const Message& packet : file.packets) {
        for (const Message& bundle : packet.messages(1)) {
            for (const Message& event : bundle.messages(2)) {
                found += event.has(3) && event.message(3).text(2) == "S|12|launch|7\n";
            }
        }
    }
    EXPECT_EQ(found, 1U);
}

TEST_F(Recorder, EveryFieldIsOneOfTheFormat) {
    arm();
    const std::uint64_t begin = quorvix_ticks_now();
    ChildProcess([] { execl("/bin/true", "true", nullptr); }).wait();
    mark("a marker");
    const DumpedFile file = dumped(begin, quorvix_ticks_now(), getpid());
    const std::string complaint = file.complaint();
    if (complaint == "skipped") GTEST_SKIP() << "protoc is not installed (protobuf-compiler)";
    EXPECT_EQ(complaint, "");
}

TEST_F(Recorder, TextSaysTheSameAsTheMappedRing) {
    arm();
    for (int round = 0; round < 50; ++round) std::this_thread::sleep_for(std::chrono::microseconds(100));
    ASSERT_TRUE(writeSmallFile(instance.file("tracing_on"), "0"));
    auto mapped = MappedRing::open(instance);
    if (!mapped) GTEST_SKIP() << mapped.problem();
    auto text = TextRing::open(instance);
    ASSERT_TRUE(text);
    const Deadline deadline = Deadline::in(std::chrono::seconds(60));
    for (const unsigned cpu : instance.cpus()) {
        const auto one = (*mapped)->load(cpu, 0, deadline);
        const auto other = (*text)->load(cpu, 0, deadline);
        ASSERT_TRUE(one && other);
        EXPECT_TRUE(one->armedMark && other->armedMark);
        using Seen = std::tuple<std::uint64_t, std::int32_t, std::int32_t, std::int64_t>;
        const auto events = [&](Ring& ring) {
            std::vector<Seen> seen;
            ring.visit(0, UINT64_MAX, deadline, [&](const Event& event) {
                const bool isSwitch = event.kind == EventKind::schedSwitch;
                const bool isSched = isSwitch || event.kind == EventKind::schedWaking;
                seen.push_back({(event.timeNs + 500) / 1000, event.pid, isSched ? event.nextPid : 0,
                                isSwitch ? event.prevState : 0});
            });
            return seen;
        };
        EXPECT_EQ(events(**mapped), events(**text));
        EXPECT_FALSE(events(**mapped).empty());
    }
}

TEST_F(Recorder, CpuThatNeverCameUpHoldsNothingAndIsNoProblem) {
    arm();
    auto mapped = MappedRing::open(instance);
    if (!mapped) GTEST_SKIP() << mapped.problem();
    const auto holding = (*mapped)->load(4095, 0, Deadline::in(std::chrono::seconds(60)));
    ASSERT_TRUE(holding) << holding.problem();
    EXPECT_TRUE(holding->empty);
    EXPECT_TRUE((*mapped)->visit(0, UINT64_MAX, Deadline::in(std::chrono::seconds(60)), [](const Event&) { FAIL(); }));
}

TEST_F(Recorder, RecordingThatWasSwitchedOffCoversNothingSince) {
    arm();
    const std::uint64_t begin = quorvix_ticks_now();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_TRUE(writeSmallFile(instance.file("tracing_on"), "0"));
    const std::uint64_t off = quorvix_ticks_now();
    const DumpedFile file = dumped(begin, quorvix_ticks_now(), getpid());
    ASSERT_TRUE(file.written);
    EXPECT_NE(file.attribute.at("missing.recorder"), "");
    EXPECT_LE(std::stoull(file.attribute.at("covered_end_ns")), nsOf(off));
    const DumpedFile later = dumped(off + 1, quorvix_ticks_now(), getpid());
    EXPECT_EQ(later.attribute.at("covered_begin_ns"), "0");
    EXPECT_EQ(later.attribute.at("covered_end_ns"), "0");

    ASSERT_TRUE(FlightRecorder(instance).arm({2048}));
    const std::uint64_t again = quorvix_ticks_now();
    const DumpedFile over = dumped(begin, quorvix_ticks_now(), getpid());
    EXPECT_FALSE(over.attribute.contains("missing.recorder"));
    EXPECT_GT(std::stoull(over.attribute.at("covered_begin_ns")), nsOf(off)) << "it was off before";
    EXPECT_LE(std::stoull(over.attribute.at("covered_begin_ns")), nsOf(again));
}

TEST_F(Recorder, OffThatFailsLeavesAMarkWhereItDidNotRecord) {
    arm();
    const int held = open(instance.file("trace_marker").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    const std::uint64_t before = quorvix_ticks_now();
    EXPECT_FALSE(FlightRecorder(instance).disarm(0));
    close(held);
    const DumpedFile file = dumped(before, quorvix_ticks_now(), getpid());
    EXPECT_GT(std::stoull(file.attribute.at("covered_begin_ns")), nsOf(before));
}

TEST_F(Recorder, SlowListOfProcessesLeavesTimeForTheEvents) {
    arm(64);
    const std::uint64_t begin = quorvix_ticks_now();
    // What is kept back for the events and the file is all there is: no time at all for the processes.
    const DumpedFile file({.reason = std::nullopt, .names = false, .minTicks = begin, .maxTicks = begin + 1},
                          DumpSettings{.recorder = instance, .budget = std::chrono::milliseconds(800)});
    ASSERT_TRUE(file.written);
    EXPECT_NE(file.attribute.at("missing.process_tree"), "");
    EXPECT_FALSE(file.attribute.contains("missing.budget"));
}

TEST_F(Recorder, DumpLetsGoOfTheRings) {
    arm();
    const int before = quorvix::tests::openDescriptors();
    (void)dumped(quorvix_ticks_now() - 1000, quorvix_ticks_now(), getpid());
    EXPECT_EQ(quorvix::tests::openDescriptors(), before);
    const auto off = FlightRecorder(instance).disarm(0);
    EXPECT_TRUE(off) << "nothing holds it: " << (off ? "" : off.problem());
}

TEST_F(Recorder, EventsWhoseIdsAreNotOursAreLeftOut) {
    arm();
    const std::uint64_t begin = quorvix_ticks_now();
    mark("S|1|app|7");
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpRequest request{.reason = reason, .minTicks = begin, .maxTicks = quorvix_ticks_now()};
    const DumpedFile file(request, DumpSettings{.recorder = instance, .idsAreTheKernels = false});
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("recorder"), "none");
    EXPECT_NE(file.attribute.at("missing.recorder").find("process namespace"), std::string::npos);
    EXPECT_EQ(file.attribute.at("covered_end_ns"), "0");
    const DumpedFile usual(request, DumpSettings{.recorder = instance, .idsAreTheKernels = true});
    EXPECT_NE(usual.attribute.at("recorder"), "none");
}

TEST_F(Recorder, OtherClockIsRefused) {
    arm();
    ASSERT_TRUE(writeSmallFile(instance.file("trace_clock"), "boot"));
    const DumpedFile file = dumped(quorvix_ticks_now() - 1000, quorvix_ticks_now(), getpid());
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("recorder"), "none");
    EXPECT_NE(file.attribute.at("missing.recorder").find("clock"), std::string::npos);
}
