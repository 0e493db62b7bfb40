#include <set>

#include "memsnapshot/AssertionNames.h"
#include "tests/memsnapshot/MemoryWorld.h"

namespace quorvix::test {
namespace {

using Kind = WiredSite::Kind;

class MemoryReport : public MemoryWorld {};

TEST_F(MemoryReport, IsThisTextToTheCharacter) {
    vm_statistics64& s = device.host.statistics;
    device.host.pageBytes = 16384;
    s.free_count = 1;
    s.active_count = 2;
    s.inactive_count = 3;
    s.wire_count = 4'294'967'295;
    s.zero_fill_count = 5;
    s.reactivations = 6;
    s.pageins = 7;
    s.pageouts = 8;
    s.faults = 18'446'744'073'709'551'615u;
    s.cow_faults = 10;
    s.lookups = 11;
    s.hits = 12;
    s.purges = 13;
    s.purgeable_count = 14;
    s.speculative_count = 15;
    s.decompressions = 16;
    s.compressions = 17;
    s.swapins = 18;
    s.swapouts = 19;
    s.compressor_page_count = 20;
    s.throttled_count = 21;
    s.external_page_count = 22;
    s.internal_page_count = 23;
    s.total_uncompressed_pages_in_compressor = 24;
    device.processMemory.processes = {
        {.pid = 1, .priority = 180, .state = 0, .path = "/sbin/launcher", .footprintBytes = 16384 * 100 + 16383},
        {.pid = 412,
         .priority = 100,
         .state = 0x28,
         .path = "/Applications/Mail.app/Mail",
         .footprintBytes = 16384 * 5000ull,
         .assertions = 1u << 0 | 1u << 3 | std::uint64_t{1} << 40},
        {.pid = 500, .priority = -1, .state = 0x8, .path = std::nullopt, .footprintBytes = std::nullopt},
        {.pid = 501, .priority = 0, .state = 0x20, .path = "", .footprintBytes = 0},
    };
    device.kernelMemory.memory.zones = {{"vm objects", 16384 * 3 + 1}, {"empty", 0}};
    device.kernelMemory.memory.sites = {{Kind::kernelTag, 8, 1966080},
                                        {Kind::kernelTag, 9, 0},
                                        {Kind::kernelExtension, 2, 4096},
                                        {Kind::kernelExtension, 3, 8192},
                                        {Kind::kernelAddress, 0xffffff8000001000, 77},
                                        {Kind::kernelAddress, 0xffffff8000002000, 78},
                                        {Kind::counter, 12, 79}};
    device.kernelMemory.extensions = {{2, "com.norvane.driver.disk"}};
    device.kernelMemory.symbols[0xffffff8000001000] = "zone_alloc";

    EXPECT_EQ(report(), R"report({"bug_type":"152","os_version":"CVOS 9.3 (13E230)"}
{
"Model" : "Corvel7,1",
"Timestamp" : "2026-01-15-120000",
"OSVersion" : "CVOS 9.3 (13E230)"
}
{
"page_size" : 16384,
"free_count" : 1,
"active_count" : 2,
"inactive_count" : 3,
"wire_count" : 4294967295,
"zero_fill_count" : 5,
"reactivations" : 6,
"pageins" : 7,
"pageouts" : 8,
"faults" : 18446744073709551615,
"cow_faults" : 10,
"lookups" : 11,
"hits" : 12,
"purges" : 13,
"purgeable_count" : 14,
"speculative_count" : 15,
"decompressions" : 16,
"compressions" : 17,
"swapins" : 18,
"swapouts" : 19,
"compressor_page_count" : 20,
"throttled_count" : 21,
"external_page_count" : 22,
"internal_page_count" : 23,
"total_uncompressed_pages_in_compressor" : 24,
"Processes" :
[
{"ProcessName":"launcher", "Priority":180, "Footprint":100, "Dirty":"-"},
{"ProcessName":"Mail", "Priority":100, "Footprint":5000, "Dirty":"Y", "Assertions":["Audio","Bg_Finish_Task","UnknownAssertion_40"]},
{"ProcessName":"No_Name", "Priority":-1, "Footprint":0, "Dirty":"N"},
{"ProcessName":"UnknownProcess_501", "Priority":0, "Footprint":0, "Dirty":"-"}],
"Zones" :
[
{ "Name" : "vm objects", "Pages" : 3 },
{ "Name" : "empty", "Pages" : 0 }],
"Wired" :
[
{ "VM_KERN_MEMORY_STACK" : 1966080 },
{ "com.norvane.driver.disk" : 4096 },
{ "(unknown kmod)" : 8192 },
{ "zone_alloc" : 77 },
{ "site 0xffffff8000002000" : 78 },
{ "VM_KERN_COUNT_12" : 79 }]
}
)report");
}

TEST_F(MemoryReport, HasItsSectionsWhereThereIsNothingToTell) {
    EXPECT_EQ(processes(), "");
    EXPECT_EQ(zones(), "");
    EXPECT_EQ(wired(), "");
}

TEST_F(MemoryReport, SaysWhatAsksForTheCountersWhenThatFails) {
    device.host.faults.failAlways("vmStatistics64", ErrorCode{EIO});
    EXPECT_EQ(counters(), "\"error\" : \"vm_statistics64 failed\"");
}

TEST_F(MemoryReport, AsksForTheWholeRecordOnce) {
    device.host.faults = {};
    const std::size_t before = device.host.counts().size();
    (void)report();
    ASSERT_EQ(device.host.counts().size(), before + 1);
    EXPECT_EQ(device.host.counts().back(), 38u);
}

TEST_F(MemoryReport, HasNoProcessesWhereTheListFails) {
    device.processMemory.processes = {{.pid = 1, .path = "/sbin/init"}};
    device.processMemory.faults.failNext("priorityList", ErrorCode{EMFILE});
    EXPECT_EQ(processes(), "");
}

// Versions.

TEST_F(MemoryReport, TheVersionIsMadeOfThreeTexts) {
    EXPECT_EQ(systemVersionText({"Debian GNU/Linux", "12", "b1"}), "Debian GNU/Linux 12 (b1)");
}

TEST_F(MemoryReport, WhatTheVersionLacksIsQuestionMarks) {
    EXPECT_EQ(systemVersionText({}),
              "??? ??? (??"
              "?)");
    EXPECT_EQ(systemVersionText({"A", std::nullopt, "b"}), "A ??? (b)");
    EXPECT_EQ(systemVersionText({"A", "1", std::nullopt}),
              "A 1 (??"
              "?)");
    EXPECT_EQ(systemVersionText({"", "", ""}), "  ()") << "empty is not missing";
}

TEST_F(MemoryReport, TheLongProductNameIsShortenedWhereverItStands) {
    EXPECT_EQ(systemVersionText({"Corvel OS", "1", "2"}), "CVOS 1 (2)");
    EXPECT_EQ(systemVersionText({"My Corvel OS, Corvel OS", "Corvel OS", "Corvel OS"}),
              "My CVOS, CVOS Corvel OS (Corvel OS)")
        << "in the product name only";
    EXPECT_EQ(systemVersionText({"corvel os", "1", "2"}), "corvel os 1 (2)");
}

// Process names.

TEST_F(MemoryReport, AProcessIsNamedByTheEndOfItsPath) {
    EXPECT_EQ(nameOfPath("/usr/bin/python3"), "python3");
    EXPECT_EQ(nameOfPath("relative"), "relative");
    EXPECT_EQ(nameOfPath("/"), "No_Name");
    EXPECT_EQ(nameOfPath("/folder/"), "No_Name");
}

TEST_F(MemoryReport, AGoneProcessHasNoNameAndALivingOneWithoutAPathItsPid) {
    EXPECT_EQ(nameOfPath(std::nullopt), "No_Name");
    EXPECT_EQ(nameOfPath(""), "UnknownProcess_7");
    EXPECT_EQ(nameOfPath("/bin/\xff\xfe"), "UnknownProcess_7");
    EXPECT_EQ(nameOfPath("/folder-\xc3/plain"), "UnknownProcess_7") << "the path as a whole is no text";
}

TEST_F(MemoryReport, NamesAreWrittenAsTheyAre) {
    EXPECT_EQ(nameOfPath("/bin/say \"hi\"\n\x01\\"), "say \"hi\"\n\x01\\");
    EXPECT_EQ(nameOfPath("/bin/Grüße"), "Grüße");
    EXPECT_EQ(nameOfPath("/bin/%s%n%@%%"), "%s%n%@%%");
    EXPECT_EQ(nameOfPath("/bin/" + std::string(4096, 'n')), std::string(4096, 'n'));
    device.kernelMemory.memory.zones = {{"a\"b\n\xff", 4096}};
    EXPECT_EQ(zones(), "{ \"Name\" : \"a\"b\n\xff\", \"Pages\" : 1 }");
}

TEST_F(MemoryReport, EveryProcessKeepsItsRecordWhenNoneCanBeRead) {
    device.processMemory.processes = {{.pid = 1, .priority = 5, .path = "/a", .footprintBytes = 8192},
                                      {.pid = 2, .priority = 6, .path = "/b", .footprintBytes = 8192}};
    device.processMemory.faults.failAlways("executablePath", ErrorCode{EACCES});
    device.processMemory.faults.failAlways("physicalFootprint", ErrorCode{EACCES});
    EXPECT_EQ(processes(),
              "{\"ProcessName\":\"No_Name\", \"Priority\":5, \"Footprint\":0, \"Dirty\":\"-\"},\n"
              "{\"ProcessName\":\"No_Name\", \"Priority\":6, \"Footprint\":0, \"Dirty\":\"-\"}");
}

// Footprint, dirtiness.

TEST_F(MemoryReport, AFootprintIsWholePages) {
    const auto pages = [this](std::uint64_t bytes) {
        const std::string record = recordOf({.pid = 7, .path = "/a", .footprintBytes = bytes});
        const std::size_t at = record.find("\"Footprint\":") + 12;
        return record.substr(at, record.find(',', at) - at);
    };
    EXPECT_EQ(pages(4095), "0");
    EXPECT_EQ(pages(4096), "1");
    EXPECT_EQ(pages(8191), "1");
    EXPECT_EQ(pages(std::uint64_t{4096} * 0x7fffffff), "2147483647");
    EXPECT_EQ(pages(std::uint64_t{4096} * 0x80000000), "-2147483648") << "8 TiB: the text has 32 bits for it";
    device.host.pageBytes = 0;
    EXPECT_EQ(pages(4096), "0");
}

TEST_F(MemoryReport, ZonesHaveNoPagesWhereAPageHasNoBytes) {
    device.kernelMemory.memory.zones = {{"z", 4096}};
    device.host.pageBytes = 0;
    EXPECT_EQ(zones(), "{ \"Name\" : \"z\", \"Pages\" : 0 }");
}

TEST_F(MemoryReport, OnlyATrackedProcessIsDirtyOrClean) {
    const auto dirty = [this](std::uint32_t state) {
        const std::string record = recordOf({.pid = 7, .state = state, .path = "/a"});
        return record.substr(record.find("\"Dirty\":") + 8);
    };
    EXPECT_EQ(dirty(0), "\"-\"}");
    EXPECT_EQ(dirty(0x20), "\"-\"}");
    EXPECT_EQ(dirty(0x8), "\"N\"}");
    EXPECT_EQ(dirty(0x28), "\"Y\"}");
    EXPECT_EQ(dirty(~0x8u), "\"-\"}");
    EXPECT_EQ(dirty(~0x20u), "\"N\"}");
}

// Assertions.

TEST_F(MemoryReport, WithoutAssertionsThereIsNoMember) {
    EXPECT_EQ(recordWithAssertions(0), R"({"ProcessName":"a", "Priority":0, "Footprint":0, "Dirty":"-"})");
}

TEST_F(MemoryReport, AssertionsAreNamedByTheirBits) {
    const std::vector<std::string> names = {"Audio",
                                            "Location",
                                            "Accessory",
                                            "Bg_Finish_Task",
                                            "Bluetooth",
                                            "Network_Auth",
                                            "Bg_UI",
                                            "InterApp_Audio",
                                            "Bg_Resume",
                                            "Bg_Suspend",
                                            "Bg_Transient_Wakeup",
                                            "Bg_Periodic_Task",
                                            "Bg_Finish_Task_Unbounded",
                                            "Bg_Continuous",
                                            "Bg_Download",
                                            "Newsstand_Download",
                                            "Foreground",
                                            "ViewService",
                                            "Bg_Content_Fetch",
                                            "Notification_Handling",
                                            "Bg_Finish_Task_Aft_Bg_Content_Fetch",
                                            "Bg_Finish_Task_Aft_Bg_Download",
                                            "Bg_Finish_Task_Aft_Periodic_Task",
                                            "Finish_Task_Aft_Notification",
                                            "VoIP",
                                            "Extension",
                                            "Continuity"};
    ASSERT_EQ(names.size(), 27u);
    for (std::size_t bit = 0; bit < names.size(); ++bit) {
        EXPECT_EQ(
            recordWithAssertions(std::uint64_t{1} << bit),
            R"({"ProcessName":"a", "Priority":0, "Footprint":0, "Dirty":"-", "Assertions":[")" + names[bit] + "\"]}");
    }
}

TEST_F(MemoryReport, AssertionsPastTheTableAreNumbered) {
    EXPECT_NE(recordWithAssertions(1u << 27).find("[\"UnknownAssertion_27\"]"), std::string::npos);
    EXPECT_NE(recordWithAssertions(std::uint64_t{1} << 39).find("[\"UnknownAssertion_39\"]"), std::string::npos);
    EXPECT_NE(recordWithAssertions(std::uint64_t{1} << 63 | 1).find("[\"Audio\",\"UnknownAssertion_63\"]"),
              std::string::npos);
}

TEST_F(MemoryReport, EveryAssertionAtOnceIsListedOnceWithoutACommaBehindTheLast) {
    const std::string record = recordWithAssertions(~std::uint64_t{0});
    std::size_t names = 0;
    for (std::size_t at = record.find("[\""); at != std::string::npos; at = record.find("\",\"", at + 1)) ++names;
    EXPECT_EQ(names, 64u);
    EXPECT_TRUE(record.ends_with("\"UnknownAssertion_62\",\"UnknownAssertion_63\"]}")) << record;
}

// Names of wired sites.

TEST_F(MemoryReport, KernelTagsAreNamedByTheTable) {
    const std::vector<std::string> names = {
        "NONE", "OSFMK", "BSD",  "DRIVO",    "LIBKERN",    "OSKEXT",          "KEXT",          "IPC",   "STACK", "CPU",
        "PMAP", "PTE",   "ZONE", "KALLOC",   "COMPRESSOR", "COMPRESSED_DATA", "PHANTOM_CACHE", "WAITQ", "DIAG",  "LOG",
        "FILE", "MBUF",  "UBC",  "SECURITY", "MLOCK"};
    ASSERT_EQ(names.size(), 25u);
    for (std::size_t tag = 0; tag < names.size(); ++tag) {
        EXPECT_EQ(nameOfSite(Kind::kernelTag, tag), "VM_KERN_MEMORY_" + names[tag]);
    }
}

TEST_F(MemoryReport, TheAnyTagHasANameAndTheOthersTheirNumber) {
    EXPECT_EQ(nameOfSite(Kind::kernelTag, 65535), "VM_KERN_MEMORY_ANY");
    EXPECT_EQ(nameOfSite(Kind::kernelTag, 25), "VM_KERN_MEMORY_25");
    EXPECT_EQ(nameOfSite(Kind::kernelTag, 65534), "VM_KERN_MEMORY_65534");
    EXPECT_EQ(nameOfSite(Kind::kernelTag, 65536), "VM_KERN_MEMORY_65536");
}

TEST_F(MemoryReport, ExtensionsAreNamedByTheirLoadTag) {
    device.kernelMemory.extensions = {{1, "ext4"}, {2, "nf_tables"}};
    EXPECT_EQ(nameOfSite(Kind::kernelExtension, 1), "ext4");
    EXPECT_EQ(nameOfSite(Kind::kernelExtension, 2), "nf_tables");
    EXPECT_EQ(nameOfSite(Kind::kernelExtension, 0), "(unknown kmod)");
    EXPECT_EQ(nameOfSite(Kind::kernelExtension, 3), "(unknown kmod)");
}

TEST_F(MemoryReport, AddressesWithoutASymbolAreWrittenInHexadecimal) {
    device.kernelMemory.symbols[0x1000] = "kernel_clone";
    EXPECT_EQ(nameOfSite(Kind::kernelAddress, 0x1000), "kernel_clone");
    EXPECT_EQ(nameOfSite(Kind::kernelAddress, 0xDEADBEEF), "site 0xdeadbeef");
    device.kernelMemory.givesResolver = false;
    EXPECT_EQ(nameOfSite(Kind::kernelAddress, 0x1000), "site 0x1000");
}

TEST_F(MemoryReport, CountersAreNumbered) {
    EXPECT_EQ(nameOfSite(Kind::counter, 0), "VM_KERN_COUNT_0");
    EXPECT_EQ(nameOfSite(Kind::counter, 7), "VM_KERN_COUNT_7");
}

TEST_F(MemoryReport, EmptySitesAreLeftOutWithTheirSeparators) {
    device.kernelMemory.memory.sites = {{Kind::counter, 1, 0},
                                        {Kind::counter, 2, 5},
                                        {Kind::counter, 3, 0},
                                        {Kind::counter, 4, 6},
                                        {Kind::counter, 5, 0}};
    EXPECT_EQ(wired(), "{ \"VM_KERN_COUNT_2\" : 5 },\n{ \"VM_KERN_COUNT_4\" : 6 }");
}

TEST_F(MemoryReport, ExtensionsAreGatheredAndTheResolverMadeOnceAndReleased) {
    device.kernelMemory.memory.sites = {
        {Kind::kernelAddress, 1, 1}, {Kind::kernelAddress, 2, 1}, {Kind::kernelExtension, 1, 1}};
    (void)report();
    EXPECT_EQ(device.kernelMemory.informationCalls(), 1u);
    EXPECT_EQ(device.kernelMemory.extensionListings(), 1u);
    EXPECT_EQ(device.kernelMemory.resolversMade(), 1u);
    EXPECT_EQ(device.kernelMemory.resolversReleased(), 1u);
    (void)report();
    EXPECT_EQ(device.kernelMemory.resolversMade(), 2u);
    EXPECT_EQ(device.kernelMemory.resolversReleased(), 2u);
}

}  // namespace
}  // namespace quorvix::test
