#include <cstring>

#include "perfstats/VMColumns.h"
#include "tests/perfstats/Tables.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The console's table and the JSON text, to the character.
class Rendering : public TableWorld {
protected:
    // Every counter another number; a tick is a millisecond.
    static ResourceUsage distinctUsage() {
        ResourceUsage usage{};
        usage.userTime = 1001;
        usage.systemTime = 77;
        usage.unspecifiedTime = 2;
        usage.userInteractiveTime = 3;
        usage.userInitiatedTime = 4;
        usage.legacyTime = 5;
        usage.utilityTime = 6;
        usage.maintenanceTime = 7;
        usage.backgroundTime = 8;
        usage.diskBytesRead = 9'000'000'000;
        usage.diskBytesWritten = 10;
        usage.pageIns = 11;
        return usage;
    }
    // Every figure another number, those of 32 bits below 100.
    static vm_statistics64 distinctStatistics() {
        vm_statistics64 s{};
        s.free_count = 50;
        s.active_count = 2;
        s.inactive_count = 3;
        s.wire_count = 4;
        s.zero_fill_count = 105;
        s.reactivations = 106;
        s.pageins = 107;
        s.pageouts = 108;
        s.faults = 109;
        s.cow_faults = 110;
        s.lookups = 111;
        s.hits = 112;
        s.purges = 113;
        s.purgeable_count = 14;
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
        return s;
    }
    // Start and end figures of the host around an activation without processes.
    std::shared_ptr<AppActivation> vmActivation(const vm_statistics64& start, const vm_statistics64& end) {
        device.host.statistics = start;
        const auto record = AppActivation::initWithStatisticsType(2, kPid, kBundle, kNow, kNow, 1, 1);
        device.host.statistics = end;
        record->activationEndedWithResult(0, kNow);
        device.log.clear();
        return record;
    }
    // An activation with all figures whose first or last snapshot had no memory.
    std::shared_ptr<AppActivation> withoutSnapshot(bool atStart) {
        device.host.statistics = distinctStatistics();
        if (atStart) perfState().memory.failNth(1);
        const auto record = AppActivation::initWithStatisticsType(3, kPid, kBundle, kNow, kNow, 1, 1);
        if (!atStart) perfState().memory.failNth(1);
        record->activationEndedWithResult(0, kNow);
        device.log.clear();
        return record;
    }
    std::shared_ptr<AppActivation> threeProcesses(std::uint8_t type) {
        return activation(
            type, {{.pid = 7, .name = "gone", .usage = distinctUsage()}, {.pid = 412, .name = "Mail"}},
            {{.pid = 412, .name = "Mail", .usage = distinctUsage()}, {.pid = 500, .name = "fresh", .usage = {}}});
    }
    std::string json(AppActivation& record) {
        device.log.clear();
        record.logAppActivationDataAsJSON();
        const Lines all = lines();
        if (all.empty()) return "";
        const std::string beginning = "debug: QXActivationStats: Output ";
        EXPECT_EQ(all.back().substr(0, beginning.size()), beginning);
        return all.back().substr(beginning.size());
    }

    static constexpr const char* kTableHeader =
        "    PID                             Name vm_stat Total-CPU(ms)     No-QOS    UInteractive UInitiated    "
        "Default"
        "    Utility     Maintenance Background Bytes Read   Bytes Written    PageIns\n";
    static constexpr const char* kVMHeader =
        "      free     active   inactive       spec  throttled      wired  purgeable     faults        cow  zero-fill "
        "reactivate     purged filebacked  anonymous compressed  comp-size     decomp   compress    pageins   pageouts "
        "   swapins   swapouts\n";
    static constexpr const char* kVMValues =
        "        35          2         15          3         21          4         14        109        110        105 "
        "       106        113         22         23        124         20        116        117        107        108 "
        "       118        119\n";
};

TEST_F(Rendering, ConsoleShowsATableOfProcesses) {
    threeProcesses(1)->logAppActivationDataToConsole();
    EXPECT_THAT(
        device.console.logged(),
        ElementsAre(
            "Found 3 processes\n", kTableHeader,
            "    412                             Mail          1001          2               3          4          5"
            "          6               7          8 9000000000              10         11  \n",
            "      7                             gone             0          0               0          0          0"
            "          0               0          0          0               0          0 DEAD \n",
            "    500                            fresh             0          0               0          0          0"
            "          0               0          0          0               0          0 NEW \n"));
    EXPECT_EQ(device.console.printed(), "");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Rendering, ConsoleColumnsGrowRatherThanCut) {
    ResourceUsage usage{};
    usage.userTime = 123'456'789'012'345;
    usage.diskBytesRead = 18'446'744'073'709'551'615u;
    activation(1, {}, {{.pid = -2'147'483'647 - 1, .name = "", .usage = usage}})->logAppActivationDataToConsole();
    EXPECT_THAT(device.console.logged(), IsEmpty());  // no process at the start: no start table
    activation(1, {{.pid = 0, .name = "k"}},
               {{.pid = -2'147'483'647 - 1, .name = std::string(31, 'n'), .usage = usage}})
        ->logAppActivationDataToConsole();
    ASSERT_EQ(device.console.logged().size(), 4u);
    EXPECT_EQ(
        device.console.logged()[3],
        "-2147483648  nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn 123456789012345          0               0          0 "
        "         0          0               0          0 18446744073709551615               0          0 NEW \n");
}

TEST_F(Rendering, ConsoleShowsTheHostsFiguresAtBothEndsAndTheirDifference) {
    vm_statistics64 end = distinctStatistics();
    end.active_count = 999;
    end.faults += 5;
    end.swapouts -= 120;
    end.total_uncompressed_pages_in_compressor += 5;
    vmActivation(distinctStatistics(), end)->logAppActivationDataToConsole();
    const std::string expected =
        std::string("\nStart VM Statistics (pages)\n") + kVMHeader + kVMValues + "\nEnd VM Statistics (pages)\n" +
        kVMHeader +
        "        35        999         15          3         21          4         14        114        110        105 "
        "       106        113         22         23        129         20        116        117        107        108 "
        "       118 18446744073709551615\n"
        "\nDelta VM Statistics (pages)\n" +
        kVMHeader +
        "         0          0          0          0          0          0          0          5          0          0 "
        "         0          0          0          0          0          0          0          0          0          0 "
        "         0 18446744073709551496\n";
    EXPECT_EQ(device.console.printed(), expected);
    EXPECT_THAT(device.console.logged(), IsEmpty());
}

TEST_F(Rendering, ConsoleShowsFreePagesWithoutTheSpeculativeOnesWrapped) {
    vm_statistics64 s = distinctStatistics();
    s.free_count = 14;
    vmActivation(s, s)->logAppActivationDataToConsole();
    EXPECT_NE(device.console.printed().find("\n4294967295          2"), std::string::npos);
}

TEST_F(Rendering, ConsoleShowsNothingThatWasNotAskedFor) {
    threeProcesses(0)->logAppActivationDataToConsole();
    threeProcesses(4)->logAppActivationDataToConsole();
    EXPECT_THAT(device.console.logged(), IsEmpty());
    EXPECT_EQ(device.console.printed(), "");
}

TEST_F(Rendering, ConsoleGoesOnWithoutATable) {
    device.processes.faults.failAlways("listAllPids", {EIO});
    const auto record = threeProcesses(3);
    record->logAppActivationDataToConsole();
    EXPECT_THAT(device.console.logged(), IsEmpty());
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n"));
    EXPECT_TRUE(device.console.printed().starts_with("\nStart VM Statistics (pages)\n"));
}

TEST_F(Rendering, ConsoleLeavesOutTheBlockThatWasNotCaptured) {
    device.host.faults.failNext("vmStatistics64", {EIO});
    vmActivation(distinctStatistics(), distinctStatistics())->logAppActivationDataToConsole();
    EXPECT_EQ(device.console.printed(), std::string("\nEnd VM Statistics (pages)\n") + kVMHeader + kVMValues);
}

TEST_F(Rendering, ConsoleLeavesOutTheDifferenceWithoutAnEnd) {
    device.host.faults.failNth("vmStatistics64", 2, {EIO});
    vmActivation(distinctStatistics(), distinctStatistics())->logAppActivationDataToConsole();
    EXPECT_EQ(device.console.printed(), std::string("\nStart VM Statistics (pages)\n") + kVMHeader + kVMValues);
}

TEST_F(Rendering, ConsoleShowsTheOneSnapshotThatThereIs) {
    for (const bool atStart : {true, false}) {
        const std::string before = device.console.printed();
        withoutSnapshot(atStart)->logAppActivationDataToConsole();
        const std::string title = atStart ? "\nEnd VM Statistics (pages)\n" : "\nStart VM Statistics (pages)\n";
        EXPECT_EQ(device.console.printed(), before + title + kVMHeader + kVMValues);
        EXPECT_THAT(device.console.logged(), IsEmpty());
        EXPECT_EQ(lines().front(), "default: QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n");
    }
}

// The JSON text: seventeen blanks after a process's figures, five before the host's.

const std::string k17(17, ' ');
const std::string k5(5, ' ');

std::string processText(const std::string& pid, const std::string& name, const std::vector<std::string>& figures,
                        const std::string& alive) {
    static const std::vector<std::string> kKeys = {"total_cpu",  "no-qos",        "user-interactive", "user-initiated",
                                                   "default",    "utility",       "maintenance",      "background",
                                                   "bytes-read", "bytes-written", "pageins"};
    std::string text = "\n{\n\t \"pid\":" + pid + ",\n\t\"name\":\"" + name + "\",";
    for (std::size_t i = 0; i < kKeys.size(); ++i) {
        if (i > 0) text += k17;
        text += "\n\t\"" + kKeys[i] + "\":" + figures[i] + ",";
    }
    return text + "\n\t\"alive\":" + alive + "\n}";
}

std::string vmText(const std::vector<std::string>& figures) {
    static const std::vector<std::string> kKeys = {
        "free",        "active",    "inactive",   "speculative",     "throttled",      "wired",
        "purgeable",   "faults",    "cow",        "zero-fill",       "reactivated",    "purged",
        "file-backed", "anonymous", "compressed", "compressor-size", "decompressions", "compressions",
        "pageins",     "pageouts",  "swapins",    "swapouts"};
    std::string text;
    for (std::size_t i = 0; i < kKeys.size(); ++i) {
        if (i > 0) text += ",";
        text += k5 + "\n\t\"" + kKeys[i] + "\":" + figures[i];
    }
    return text;
}

const std::vector<std::string> kFigures = {"35",  "2",  "15", "3",   "21", "4",   "14",  "109", "110", "105", "106",
                                           "113", "22", "23", "124", "20", "116", "117", "107", "108", "118", "119"};

TEST_F(Rendering, JsonOfNothingIsAComma) {
    EXPECT_EQ(json(*threeProcesses(0)), "\n{\n,}\n");
    EXPECT_EQ(json(*threeProcesses(252)), "\n{\n,}\n");
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(Rendering, JsonOfProcessesEndsWithAComma) {
    const std::vector<std::string> zeros(11, "0");
    EXPECT_EQ(
        json(*threeProcesses(1)),
        "\n{\n\"cpu_statistics\":\n[\t" +
            processText("412", "Mail", {"1001", "2", "3", "4", "5", "6", "7", "8", "9000000000", "10", "11"}, "0") +
            "," + processText("7", "gone", zeros, "2") + "," + processText("500", "fresh", zeros, "1") + "]\n,}\n");
}

TEST_F(Rendering, JsonWritesNamesRaw) {
    const std::string text = json(*activation(1, {{.pid = 412, .name = "a"}}, {{.pid = 412, .name = "q\"\\\xff"}}));
    EXPECT_NE(text.find("\"name\":\"q\"\\\xff\","), std::string::npos);
}

TEST_F(Rendering, JsonWithoutATableKeepsTheArrayEmpty) {
    device.processes.faults.failAlways("listAllPids", {EIO});
    EXPECT_EQ(json(*threeProcesses(1)), "\n{\n\"cpu_statistics\":\n[\t]\n,}\n");
}

TEST_F(Rendering, JsonOfATableWithoutEntriesKeepsTheArrayEmpty) {
    device.processes.faults.failAlways("resourceUsage", {ESRCH});
    EXPECT_EQ(json(*threeProcesses(1)), "\n{\n\"cpu_statistics\":\n[\t]\n,}\n");
}

TEST_F(Rendering, JsonShowsTheHostsFiguresAtBothEnds) {
    vm_statistics64 end = distinctStatistics();
    end.active_count = 0xFFFF'FFFF;
    end.faults = 18'446'744'073'709'551'615u;
    std::vector<std::string> after = kFigures;
    after[1] = "-1";
    after[7] = "18446744073709551615";
    EXPECT_EQ(json(*vmActivation(distinctStatistics(), end)),
              "\n{\n,\n\"memory_statistics\":\n[\t{" + vmText(kFigures) + "},\n{" + vmText(after) + "}\n]}\n");
}

TEST_F(Rendering, JsonHasBothParts) {
    device.host.statistics = distinctStatistics();
    const std::string text = json(*activation(3, {{.pid = 412, .name = "m"}}, {{.pid = 412, .name = "m"}}));
    EXPECT_EQ(text, "\n{\n\"cpu_statistics\":\n[\t" + processText("412", "m", std::vector<std::string>(11, "0"), "0") +
                        "]\n,\n\"memory_statistics\":\n[\t{" + vmText(kFigures) + "},\n{" + vmText(kFigures) +
                        "}\n]}\n");
}

TEST_F(Rendering, JsonShowsFreePagesSigned) {
    vm_statistics64 s = distinctStatistics();
    s.free_count = 14;
    EXPECT_NE(json(*vmActivation(s, s)).find("\"free\":-1,"), std::string::npos);
}

// The ten counts of 32 bits are signed, the counters of 64 bits are not.
TEST_F(Rendering, JsonShowsLargeCountsSignedAndLargeCountersUnsigned) {
    vm_statistics64 s;
    std::memset(&s, 0xff, sizeof s);
    s.speculative_count = 0;
    const std::string shown = vmStatisticsJson(s);
    const auto countOf = [&](const std::string& value) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = shown.find(value, at)) != std::string::npos; ++at) ++count;
        return count;
    };
    EXPECT_EQ(countOf("\":-1,"), 9u);
    EXPECT_EQ(countOf("\":0,"), 1u);  // the speculative count, under the label "inactive"
    EXPECT_EQ(countOf("\":18446744073709551615"), 12u);
    EXPECT_EQ(shown.back(), '5');
}

TEST_F(Rendering, JsonLeavesOutTheHostsFiguresThatWereNotCaptured) {
    for (const std::uint64_t call : {1, 2}) {
        device.host.faults.failNth("vmStatistics64", call, {EIO});
        EXPECT_EQ(json(*vmActivation(distinctStatistics(), distinctStatistics())), "\n{\n,}\n");
    }
}

TEST_F(Rendering, JsonOfOneSnapshotHasNeitherFiguresNorProcesses) {
    for (const bool atStart : {true, false}) {
        EXPECT_EQ(json(*withoutSnapshot(atStart)), "\n{\n\"cpu_statistics\":\n[\t]\n,}\n");
    }
}

TEST_F(Rendering, LeavesTheRecordAsItIs) {
    const auto record = threeProcesses(3);
    const std::uint64_t flags = record->appActivationFlags();
    record->logAppActivationDataToConsole();
    const std::string first = json(*record);
    EXPECT_EQ(json(*record), first);
    EXPECT_EQ(record->appActivationFlags(), flags);
}

}  // namespace
}  // namespace quorvix::test
