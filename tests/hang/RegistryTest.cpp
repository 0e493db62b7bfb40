#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Registry : public HangWorld {
protected:
    Registry() { startWithHangTracing(); }

    // A record that went through no message: the test plays the dispatcher.
    std::shared_ptr<QXProcessInfo> add(std::int32_t pid, std::string path = std::string(kMailPath)) {
        device.processes.setExecutablePath(pid, std::move(path));
        return startWatching(pid, mapped(sim::SimSharedMemory::hangChannel(device.regions)));
    }
};

TEST_F(Registry, KeepsRecordsInTheOrderOfTheirCreation) {
    const auto first = add(9);
    const auto second = add(3);
    add(7);
    EXPECT_THAT(watchedPids(), ElementsAre(9, 3, 7));
    EXPECT_EQ(QXProcessInfo::processForPid(9), first);
    EXPECT_EQ(QXProcessInfo::processForPid(3), second);
    EXPECT_EQ(QXProcessInfo::processForPid(4), nullptr);
}

TEST_F(Registry, RefusesAPidThatIsAlreadyWatchedAndLeavesTheNewMappingAlone) {
    const auto watched = add(kPid);
    const auto mapping = mapped(sim::SimSharedMemory::hangChannel(device.regions));
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(startWatching(kPid, mapping), nullptr); }),
                ElementsAre("default: WARNING: Mail(412) was already being watched."));
    EXPECT_THAT(hangState().watchedProcesses, ElementsAre(watched));
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 0u);
    device.regions.unmap(mapping.address, mapping.length);
}

TEST_F(Registry, KeepsNoRecordWhoseCreationFailed) {
    const auto mapping = mapped(sim::SimSharedMemory::hangChannel(device.regions));
    EXPECT_EQ(startWatching(999, mapping), nullptr);
    EXPECT_THAT(watchedPids(), IsEmpty());
    device.regions.unmap(mapping.address, mapping.length);
}

TEST_F(Registry, StopOfAnUnknownPidIsSilent) {
    add(kPid);
    EXPECT_THAT(linesOf([] { QXProcessInfo::stopWatchingPid(413); }), IsEmpty());
    EXPECT_THAT(watchedPids(), ElementsAre(kPid));
}

TEST_F(Registry, StopDropsTheRecordAndItsMapping) {
    add(kPid);
    const auto mapping = device.regions.lastMapping();
    EXPECT_THAT(linesOf([] { QXProcessInfo::stopWatchingPid(kPid); }), ElementsAre("debug: dealloc for Mail"));
    EXPECT_THAT(watchedPids(), IsEmpty());
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 1u);
    EXPECT_EQ(device.regions.wrongLengthUnmaps(), 0u);
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

// Nothing but startWatchingPid keeps two records of one pid out of the list.
TEST_F(Registry, FindsAndStopsTheFirstOfTwoRecordsWithOnePid) {
    const auto first = add(kPid);
    const auto mapping = mapped(sim::SimSharedMemory::hangChannel(device.regions));
    const auto second = QXProcessInfo::initWithPid(kPid, mapping.address, mapping.length);
    hangState().watchedProcesses.push_back(second);
    EXPECT_EQ(QXProcessInfo::processForPid(kPid), first);
    QXProcessInfo::stopWatchingPid(kPid);
    EXPECT_THAT(hangState().watchedProcesses, ElementsAre(second));
}

TEST_F(Registry, StopOfAllEmptiesTheListInItsOrder) {
    add(1, "/bin/one");
    add(2, "/bin/two");
    EXPECT_THAT(linesOf([] { QXProcessInfo::stopWatchingAllPids(); }),
                ElementsAre("debug: dealloc for one", "debug: dealloc for two"));
    EXPECT_THAT(watchedPids(), IsEmpty());
    EXPECT_EQ(device.regions.liveMappings(), 0u);
    EXPECT_EQ(device.regions.surplusUnmaps(), 0u);
}

TEST_F(Registry, ARecordInUseOutlivesItsPlaceInTheList) {
    auto held = add(kPid);
    QXProcessInfo::stopWatchingPid(kPid);
    EXPECT_EQ(device.regions.liveMappings(), 1u);
    EXPECT_THAT(linesOf([&] { held.reset(); }), ElementsAre("debug: dealloc for Mail"));
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

TEST_F(Registry, HasNoProcessForFenceHangsWhenEmpty) {
    EXPECT_EQ(QXProcessInfo::processForFenceHangs(), nullptr);
    EXPECT_THAT(device.random.bounds(), IsEmpty());
}

TEST_F(Registry, TheOnlyProcessTakesEveryFenceHang) {
    const auto only = add(kPid);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(QXProcessInfo::processForFenceHangs(), only);
}

TEST_F(Registry, FenceHangsGoToEveryProcessAlike) {
    for (const std::int32_t pid : {1, 2, 3}) add(pid);
    std::map<std::int32_t, int> chosen;
    for (int i = 0; i < 3000; ++i) ++chosen[QXProcessInfo::processForFenceHangs()->pid()];
    // Each is expected 1000 times; 100 away from that is nearly four standard deviations.
    for (const std::int32_t pid : {1, 2, 3}) EXPECT_NEAR(chosen[pid], 1000, 100) << "pid " << pid;
    EXPECT_EQ(device.random.bounds(), std::vector<std::uint32_t>(3000, 3u));
}

TEST_F(Registry, ACheckOfNobodyDoesNothing) {
    const auto accesses = device.regions.guardedCalls();
    EXPECT_THAT(linesOf([] { QXProcessInfo::checkForHangTimeouts(1'000'000'000); }), IsEmpty());
    EXPECT_EQ(device.regions.guardedCalls(), accesses);
}

TEST_F(Registry, ChecksProcessesInTheOrderOfTheList) {
    App one = watch(9, "/bin/one");
    App two = watch(3, "/bin/two");
    two.begin(0, 0, "work", false);
    one.begin(0, 1000, "work", false);
    EXPECT_THAT(linesOf([] { QXProcessInfo::checkForHangTimeouts(7000); }),
                ElementsAre("info: one: Hang detected 6.00s (work)", "info: two: Hang detected 7.00s (work)"));
}

TEST_F(Registry, DescribesARecordByNameAndSignedPid) {
    EXPECT_EQ(add(kPid)->description(), "Mail(412)");
    EXPECT_EQ(add(-1, "/bin/odd")->description(), "odd(-1)");
}

TEST_F(Registry, ARecordGoesSilentlyWhenDebugLinesAreOff) {
    add(kPid);
    device.log.setEnabled(LogLevel::debug, false);
    EXPECT_THAT(linesOf([] { QXProcessInfo::stopWatchingPid(kPid); }), IsEmpty());
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

}  // namespace
}  // namespace quorvix::test
