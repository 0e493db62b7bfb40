#include <algorithm>
#include <limits>

#include "perfstats/PerfStatsProcess.h"
#include "tests/perfstats/Tables.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Task = sim::SimProcesses::Task;

class PowerLogEvents : public TableWorld {
protected:
    // The activation's identifier: the low half of its time, the bundle's hash, the pid.
    static constexpr std::uint64_t kID = (kNow - 500) << 32 | 0xA044'019C;
    static std::string uniqueID(std::int32_t pid, std::string_view name) {
        return "u" + std::to_string(PerfStatsProcess::generateUniqueIDForPID(pid, name));
    }
    static const std::string& stamp() {
        static const std::string text = "Timestamp: d790171199.5, ActivationID: u" + std::to_string(kID);
        return text;
    }
    static std::string processEntry(const std::string& key, const std::string& id,
                                    const std::vector<std::uint64_t>& figures, int state) {
        static const std::vector<std::string> kKeys = {
            "TotalCPU_ms",   "QOSDisabled_ms",    "QOSUserInteractive_ms", "QOSUserInitiated_ms", "QOSDefault_ms",
            "QOSUtility_ms", "QOSMaintenance_ms", "QOSBackground_ms",      "IOReads_kb",          "IOWrites_kb",
            "PageIns"};
        std::string text = key + ": {" + stamp() + ", UniqueID: " + id;
        for (std::size_t i = 0; i < kKeys.size(); ++i) text += ", " + kKeys[i] + ": u" + std::to_string(figures[i]);
        return text + ", ProcessLifecycleState: b" + std::to_string(state) + "}";
    }
    static std::string name(std::int32_t pid, const std::string& processName) {
        return uniqueID(pid, processName) + ": {Timestamp: d790171199.5, UniqueID: " + uniqueID(pid, processName) +
               ", ProcessName: " + processName + "}";
    }
    // The names that the last activation sent.
    Lines namesSent() {
        Lines found;
        const auto& events = device.powerLog.events();
        for (const auto& [key, value] : events[events.size() - 3].dictionary.entries()) {
            const auto& dictionary = std::get<PowerLogDictionary>(value.content());
            found.push_back(std::get<std::string>(dictionary.entries()[2].second.content()));
        }
        return found;
    }
    static Task task(std::int32_t pid, std::string taskName, std::uint64_t userTime = 0) {
        Task made{.pid = pid, .name = std::move(taskName)};
        made.usage.userTime = userTime;
        return made;
    }
    std::shared_ptr<AppActivation> send(std::uint8_t type, const std::vector<Task>& start,
                                        const std::vector<Task>& end) {
        const auto record = activation(type, start, end);
        record->logAppActivationDataToWattrel();
        return record;
    }
    std::string cpu() { return sent("CPUStatistics").back(); }
    static std::vector<std::uint64_t> total(std::uint64_t ms) { return {ms, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}; }
};

TEST_F(PowerLogEvents, AreFourInTheirOrderAndCategory) {
    send(7, {task(412, "Mail")}, {task(412, "Mail")});
    Lines names;
    for (const auto& event : device.powerLog.events()) {
        EXPECT_EQ(event.category, 74);
        names.push_back(event.name);
    }
    EXPECT_THAT(names, ElementsAre("ActivationData", "ProcessData", "CPUStatistics", "MemoryStatistics"));
}

TEST_F(PowerLogEvents, TellOfTheActivation) {
    send(0, {}, {});
    EXPECT_THAT(sent("ActivationData"),
                ElementsAre("{" + stamp() + ", UniqueID: " + uniqueID(412, kBundle) +
                            ", SystemUptime: i1000, BundleID: com.norvane.mail, ActivationDuration_ms: u500, "
                            "ActivationResult: b3, ActivationType: b1, ActivationFlags: u0}"));
    EXPECT_THAT(sent("ProcessData"), ElementsAre("{" + name(412, kBundle) + "}"));
    EXPECT_THAT(sent("CPUStatistics"), ElementsAre("{}"));
    EXPECT_THAT(sent("MemoryStatistics"), ElementsAre("{}"));
}

TEST_F(PowerLogEvents, NameTheAppAsItsRecordDoes) {
    send(0, {task(0, "k\xc3rnel")}, {});
    EXPECT_THAT(sent("ProcessData"), ElementsAre("{" + name(412, "k?rnel") + "}"));
    EXPECT_THAT(sent("ActivationData"), ElementsAre(HasSubstr("UniqueID: " + uniqueID(412, "k?rnel") + ", ")));
}

TEST_F(PowerLogEvents, TellWhatAProcessUsed) {
    Task mail = task(412, "Mail", 1001);
    mail.usage.systemTime = 77;
    mail.usage.unspecifiedTime = 2;
    mail.usage.userInteractiveTime = 3;
    mail.usage.userInitiatedTime = 4;
    mail.usage.legacyTime = 5;
    mail.usage.utilityTime = 6;
    mail.usage.maintenanceTime = 7;
    mail.usage.backgroundTime = 8;
    mail.usage.diskBytesRead = 2047;
    mail.usage.diskBytesWritten = 2048;
    mail.usage.pageIns = 11;
    send(1, {task(412, "Mail")}, {mail});
    EXPECT_EQ(cpu(), "{" + processEntry("i0", uniqueID(412, "Mail"), {1001, 2, 3, 4, 5, 6, 7, 8, 1, 2, 11}, 0) + ", " +
                         processEntry("i-1", uniqueID(-1, "OtherProcesses"), total(0), 0) + "}");
    EXPECT_THAT(sent("ProcessData"), ElementsAre("{" + name(-1, "OtherProcesses") + ", " + name(412, "Mail") + ", " +
                                                 name(412, kBundle) + "}"));
}

TEST_F(PowerLogEvents, ReportAboveTheThresholdOnly) {
    send(1, {task(10, "fifty"), task(11, "more")}, {task(10, "fifty", 50), task(11, "more", 51)});
    EXPECT_EQ(cpu(), "{" + processEntry("i0", uniqueID(11, "more"), total(51), 0) + ", " +
                         processEntry("i-1", uniqueID(-1, "OtherProcesses"), total(50), 0) + "}");
    EXPECT_THAT(lines(), testing::Contains("default: QXActivationStats: Number of Other Processes:1"));
}

TEST_F(PowerLogEvents, KeysAreThePlacesInTheOrderOfCPUUse) {
    send(1, {task(10, "a"), task(11, "b"), task(12, "c")}, {task(10, "a", 5), task(11, "b", 80), task(412, "Mail", 0)});
    // b alive with 80, a folded at place 1, c dead and Mail new behind.
    EXPECT_EQ(cpu(), "{" + processEntry("i0", uniqueID(11, "b"), total(80), 0) + ", " +
                         processEntry("i2", uniqueID(12, "c"), total(0), 2) + ", " +
                         processEntry("i3", uniqueID(412, "Mail"), total(0), 1) + ", " +
                         processEntry("i-1", uniqueID(-1, "OtherProcesses"), total(5), 0) + "}");
}

TEST_F(PowerLogEvents, ReportTheNewAndTheDeadHoweverLittleTheyUsed) {
    send(1, {task(10, "dead"), task(11, "alive")}, {task(9, "new"), task(11, "alive")});
    EXPECT_EQ(cpu(), "{" + processEntry("i0", uniqueID(9, "new"), total(0), 1) + ", " +
                         processEntry("i1", uniqueID(10, "dead"), total(0), 2) + ", " +
                         processEntry("i-1", uniqueID(-1, "OtherProcesses"), total(0), 0) + "}");
}

TEST_F(PowerLogEvents, TheThresholdIsThePreferences) {
    settings().cpuUtilizationThreshold = 0.5;
    send(1, {task(10, "a"), task(11, "b")}, {task(10, "a", 0), task(11, "b", 1)});
    EXPECT_THAT(cpu(), HasSubstr("i0: {"));
    EXPECT_THAT(cpu(), Not(HasSubstr("i1: {")));
    settings().cpuUtilizationThreshold = std::numeric_limits<double>::infinity();
    send(1, {task(11, "b")}, {task(11, "b", ~std::uint64_t{0})});
    EXPECT_THAT(cpu(), Not(HasSubstr("i0: {")));
}

// 33 ms of these ticks truncate to 32: whole milliseconds are compared.
TEST_F(PowerLogEvents, TruncatedMillisecondsAreCompared) {
    perfState().nsPerTick = 125.0 / 3.0;
    settings().cpuUtilizationThreshold = 32.0;
    send(1, {task(11, "b")}, {task(11, "b", 33 * 24'000)});
    EXPECT_THAT(cpu(), Not(HasSubstr("i0: {")));
}

TEST_F(PowerLogEvents, FoldTheRestIntoOne) {
    std::vector<Task> start;
    std::vector<Task> end;
    for (std::int32_t pid = 1; pid <= 3; ++pid) {
        start.push_back(task(pid, "p"));
        Task used = task(pid, "p", 10);
        used.usage.unspecifiedTime = 1;
        used.usage.userInteractiveTime = 2;
        used.usage.userInitiatedTime = 3;
        used.usage.legacyTime = 4;
        used.usage.utilityTime = 5;
        used.usage.maintenanceTime = 6;
        used.usage.backgroundTime = 7;
        used.usage.diskBytesRead = 2047;  // kilobytes are cut before they are added
        used.usage.diskBytesWritten = 4096;
        used.usage.pageIns = 8;
        end.push_back(used);
    }
    send(1, start, end);
    EXPECT_EQ(
        cpu(),
        "{" + processEntry("i-1", uniqueID(-1, "OtherProcesses"), {30, 3, 6, 9, 12, 15, 18, 21, 3, 12, 24}, 0) + "}");
    EXPECT_THAT(sent("ActivationData"), ElementsAre(HasSubstr("ActivationFlags: u3}")));
}

class FoldedCount : public PowerLogEvents, public ::testing::WithParamInterface<std::int32_t> {};

TEST_P(FoldedCount, IsInTheFlagsUpTo255) {
    std::vector<Task> tasks;
    for (std::int32_t pid = 1; pid <= GetParam(); ++pid) tasks.push_back(task(1000 + pid, "p"));
    tasks.push_back(task(412, "Mail"));
    const auto record = send(1, tasks, tasks);
    EXPECT_EQ(record->appActivationFlags(), static_cast<std::uint64_t>(std::min(GetParam(), 255)));
    EXPECT_TRUE(hasLine("default: QXActivationStats: Number of Other Processes:" + std::to_string(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Each, FoldedCount, ::testing::Values(0, 1, 254, 255, 256, 300));

TEST_F(PowerLogEvents, FlagsAreMixedWhenSentTwice) {
    const auto record = send(1, {task(1, "a")}, {task(1, "a")});
    record->logAppActivationDataToWattrel();
    EXPECT_EQ(record->appActivationFlags(), 1u);
}

TEST_F(PowerLogEvents, TellOfTheHost) {
    vm_statistics64 s{};
    s.free_count = 14;
    s.active_count = 2;
    s.inactive_count = 3;
    s.wire_count = 4;
    s.zero_fill_count = 105;
    s.reactivations = 106;
    s.pageins = 107;
    s.pageouts = 108;
    s.faults = 109;
    s.cow_faults = 110;
    s.purges = 113;
    s.purgeable_count = 0xFFFF'FFFF;
    s.speculative_count = 15;
    s.decompressions = 116;
    s.compressions = 117;
    s.swapins = 118;
    s.swapouts = 119;
    s.compressor_page_count = 20;
    s.throttled_count = 21;
    s.external_page_count = 22;
    s.internal_page_count = 23;
    s.total_uncompressed_pages_in_compressor = 124;
    device.host.statistics = s;
    send(2, {}, {});
    const std::string figures =
        "{FreeQueue: u4294967295, ActiveQueue: u2, SpeculativeQueue: u15, InactiveQueue: u3, ThrottledQueue: u21, "
        "WiredQueue: u4, PurgeableQueue: u4294967295, FileBackedQueue: u22, AnonymousQueue: u23, CompressorSize: u20, "
        "Faults: u109, CopyOnWriteFault: u110, ZeroFill: u105, Reactivated: u106, Purged: u113, TotalCompressed: u124, "
        "Decompressions: u116, Compressions: u117, PageIns: u107, PageOuts: u108, SwapIns: u118, SwapOuts: u119, " +
        stamp();
    EXPECT_THAT(sent("MemoryStatistics"),
                ElementsAre("{i1: " + figures + ", SequenceID: b1}, i2: " + figures + ", SequenceID: b2}}"));
    EXPECT_THAT(sent("CPUStatistics"), ElementsAre("{}"));
}

TEST_F(PowerLogEvents, LeaveOutTheHostsFiguresThatWereNotCaptured) {
    device.host.faults.failNext("vmStatistics64", {EIO});
    send(2, {}, {});
    EXPECT_THAT(sent("MemoryStatistics").back(), testing::StartsWith("{i2: {"));
    device.host.faults.failNth("vmStatistics64", 2, {EIO});
    send(2, {}, {});
    EXPECT_THAT(sent("MemoryStatistics").back(), Not(HasSubstr("i2: {")));
}

TEST_F(PowerLogEvents, TellOfTheOneSnapshotThatThereIs) {
    for (const bool atStart : {true, false}) {
        if (atStart) perfState().memory.failNth(1);
        const auto record = AppActivation::initWithStatisticsType(3, kPid, kBundle, kNow, kNow, 1, 1);
        if (!atStart) perfState().memory.failNth(1);
        record->activationEndedWithResult(0, kNow);
        record->logAppActivationDataToWattrel();
        EXPECT_THAT(sent("MemoryStatistics").back(), testing::StartsWith(atStart ? "{i2: {" : "{i1: {"));
        EXPECT_THAT(sent("MemoryStatistics").back(), Not(HasSubstr(atStart ? "i1: {" : "i2: {")));
        EXPECT_EQ(cpu(), "{}");
    }
}

TEST_F(PowerLogEvents, AreSentWithoutATable) {
    device.processes.faults.failAlways("listAllPids", {EIO});
    send(1, {}, {});
    EXPECT_EQ(device.powerLog.events().size(), 4u);
    EXPECT_EQ(cpu(), "{}");
    EXPECT_THAT(namesSent(), ElementsAre("OtherProcesses", kBundle));
    EXPECT_THAT(lines(),
                testing::Contains("default: QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n"));
    EXPECT_EQ(lineWith("default: QXActivationStats: Number of Other"), "");
}

TEST_F(PowerLogEvents, AreSentOfAnEmptyTable) {
    device.processes.faults.failAlways("resourceUsage", {ESRCH});
    send(1, {task(1, "a")}, {task(1, "a")});
    EXPECT_EQ(cpu(), "{}");
    EXPECT_EQ(lineWith("default: QXActivationStats: Number of Other"), "");
}

// The names.

TEST_F(PowerLogEvents, NameTheOthersOnce) {
    send(1, {task(412, "Mail")}, {task(412, "Mail")});
    EXPECT_THAT(namesSent(), ElementsAre("OtherProcesses", "Mail", kBundle));
    perfState().largestTrackedPid = -1;
    send(1, {task(412, "Mail")}, {task(412, "Mail")});
    EXPECT_THAT(namesSent(), ElementsAre("Mail", kBundle));
}

TEST_F(PowerLogEvents, DoNotNameTheOthersWithoutProcesses) {
    send(2, {}, {});
    EXPECT_FALSE(perfState().otherProcessesSent);
    EXPECT_THAT(namesSent(), ElementsAre(kBundle));
}

TEST_F(PowerLogEvents, NameAPidOnce) {
    send(1, {task(412, "Mail"), task(9, "nine")}, {task(412, "Mail"), task(9, "nine"), task(300, "x")});
    EXPECT_EQ(perfState().largestTrackedPid, 412);
    EXPECT_THAT(namesSent(), testing::UnorderedElementsAre("OtherProcesses", "Mail", "nine", "x", kBundle));
    send(1, {task(412, "Mail"), task(9, "other")}, {task(412, "Mail"), task(9, "other"), task(413, "new")});
    EXPECT_THAT(namesSent(), ElementsAre("new", kBundle));
    EXPECT_EQ(perfState().largestTrackedPid, 413);
}

TEST_F(PowerLogEvents, NameDeadProcessesToo) {
    send(1, {task(412, "Mail"), task(9, "nine")}, {task(412, "Mail")});
    EXPECT_THAT(namesSent(), testing::UnorderedElementsAre("OtherProcesses", "Mail", "nine", kBundle));
}

TEST_F(PowerLogEvents, NameProcessZeroButDoNotTrackIt) {
    send(1, {task(0, "kernel")}, {task(0, "kernel")});
    EXPECT_THAT(namesSent(), ElementsAre("OtherProcesses", "kernel", "kernel"));
    EXPECT_EQ(perfState().largestTrackedPid, -1);
}

TEST_F(PowerLogEvents, TrackTheLargestPidWhereverItStands) {
    send(1, {task(412, "a"), task(900, "b"), task(500, "c")},
         {task(412, "a", 1), task(900, "b", 80), task(500, "c", 2)});
    EXPECT_EQ(perfState().largestTrackedPid, 900);
}

TEST_F(PowerLogEvents, KeepTheLargestPidWhereNoneIsNew) {
    perfState().largestTrackedPid = 412;
    send(1, {task(9, "nine")}, {task(9, "nine")});
    EXPECT_EQ(perfState().largestTrackedPid, 412);
}

TEST_F(PowerLogEvents, NameEveryPidAgainWherePidsRolledOver) {
    perfState().otherProcessesSent = true;
    perfState().largestTrackedPid = 413;
    send(1, {task(412, "Mail"), task(9, "nine")}, {task(412, "Mail"), task(9, "nine")});
    EXPECT_TRUE(
        hasLine("default:  ***** QXActivationStats:Pids rolled over! Resetting our state to track new pids [App "
                "pid: 412. Last Seen:413] *****"));
    EXPECT_THAT(namesSent(), testing::UnorderedElementsAre("Mail", "nine", kBundle));
    EXPECT_EQ(perfState().largestTrackedPid, 412);
}

TEST_F(PowerLogEvents, TheLargestPidItselfIsNoRollOver) {
    perfState().otherProcessesSent = true;
    perfState().largestTrackedPid = 412;
    send(1, {task(412, "Mail"), task(9, "nine")}, {task(412, "Mail"), task(9, "nine")});
    EXPECT_EQ(lineWith("default:  *****"), "");
    EXPECT_THAT(namesSent(), ElementsAre(kBundle));
}

TEST_F(PowerLogEvents, ARollOverIsSaidOnceAnActivation) {
    perfState().largestTrackedPid = 413;
    send(1, {task(1, "a"), task(2, "b"), task(3, "c")}, {});
    device.log.clear();
    perfState().largestTrackedPid = 413;
    send(1, {task(1, "a"), task(2, "b"), task(3, "c")}, {task(1, "a"), task(2, "b"), task(3, "c")});
    const Lines all = lines();
    EXPECT_EQ(
        std::count_if(all.begin(), all.end(), [](const auto& line) { return line.starts_with("default:  *****"); }), 1);
}

// The lines.

TEST_F(PowerLogEvents, AreLoggedAfterTheyWereSent) {
    send(1, {task(412, "Mail")}, {task(412, "Mail")});
    const Lines all = lines();
    ASSERT_EQ(all.size(), 8u);
    EXPECT_EQ(all[0], "default: QXActivationStats: Number of Other Processes:0");
    EXPECT_EQ(all[1], "debug: QXActivationStats: Value to insert:0 Output Value:0 MaxValue:ff Index:0");
    EXPECT_EQ(all[2], "debug: QXActivationStats: Sending Activation Flags:0");
    EXPECT_EQ(all[3], "debug: QXActivationStats: StartTime we got:790171199.5");
    const std::vector<std::string> prefixes = {"Activation Data", "CPU Data", "VM Data", "Process Data"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(all[4 + i].starts_with("debug: QXActivationStats: " + prefixes[i] + ":{")) << all[4 + i];
        EXPECT_TRUE(all[4 + i].ends_with("}\n")) << all[4 + i];
    }
    EXPECT_EQ(all[6], "debug: QXActivationStats: VM Data:{}\n");
}

TEST_F(PowerLogEvents, FlagsAreLoggedInHexadecimal) {
    const auto record = activation(0, {}, {});
    record->activationEndedWithResult(0, kNow - 700);
    record->logAppActivationDataToWattrel();
    EXPECT_TRUE(hasLine("debug: QXActivationStats: Sending Activation Flags:1c000"));
}

}  // namespace
}  // namespace quorvix::test
