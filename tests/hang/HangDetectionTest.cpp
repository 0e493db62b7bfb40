#include <cerrno>

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t kSmallest = QUORVIX_CHANNEL_MINIMUM_LENGTH;

// How a region becomes a record.
class HangDetection : public HangWorld {
protected:
    HangDetection() {
        startWithHangTracing();
        device.processes.setExecutablePath(kPid, std::string(kMailPath));
    }

    std::shared_ptr<QXProcessInfo> create(std::uint64_t length, std::uint32_t version = 4, std::int32_t pid = kPid) {
        mapping = mapped(sim::SimSharedMemory::hangChannel(device.regions, version, 20, length));
        return QXProcessInfo::initWithPid(pid, mapping.address, mapping.length);
    }
    std::shared_ptr<QXProcessInfo> createWithPath(std::string path) {
        device.processes.setExecutablePath(kPid, std::move(path));
        return create(kSmallest);
    }

    SharedMemoryMapping mapping;
};

TEST_F(HangDetection, AcceptsTheMinimumLength) {
    std::shared_ptr<QXProcessInfo> process;
    EXPECT_THAT(linesOf([&] { process = create(2088); }),
                ElementsAre("info: New proc: /Applications/Mail.app/Mail(412)"));
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid(), 412);
    EXPECT_EQ(process->processPath(), "/Applications/Mail.app/Mail");
    EXPECT_EQ(process->processName(), "Mail");
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 0u);
}

TEST_F(HangDetection, RefusesOneByteLessAndUnmaps) {
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(create(2087), nullptr); }),
                ElementsAre("default: Shared memory region smaller than expected: 2087 < 2088"));
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 1u);
    EXPECT_EQ(device.regions.wrongLengthUnmaps(), 0u);
}

TEST_F(HangDetection, RefusesASingleByteWithoutReadingIt) {
    const auto accesses = device.regions.guardedCalls();
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(create(1), nullptr); }),
                ElementsAre("default: Shared memory region smaller than expected: 1 < 2088"));
    EXPECT_EQ(device.regions.guardedCalls(), accesses);
}

TEST_F(HangDetection, AcceptsALongerRegion) { EXPECT_TRUE(create(100'000)); }

TEST_F(HangDetection, RefusesEveryVersionButFourAndUnmaps) {
    for (const std::uint32_t version : {3u, 5u, 0u, 0x80000004u, 4294967295u}) {
        EXPECT_THAT(
            linesOf([&] { EXPECT_EQ(create(kSmallest, version), nullptr); }),
            ElementsAre("default: Client is not vending the current protocol version: " + std::to_string(version)));
        EXPECT_EQ(device.regions.liveMappings(), 0u);
    }
}

TEST_F(HangDetection, TheLengthIsJudgedBeforeTheVersion) {
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(create(2087, 3), nullptr); }),
                ElementsAre("default: Shared memory region smaller than expected: 2087 < 2088"));
}

// The line names pid 0, whatever the process: the record has no pid yet.
TEST_F(HangDetection, AProcessWithoutAPathIsRefusedFirstAndKeepsItsMapping) {
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(create(2087, 3, 999), nullptr); }),
                ElementsAre("default: Unable to identify process name of pid 0"));
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 0u);
    device.regions.unmap(mapping.address, mapping.length);
}

TEST_F(HangDetection, ARegionThatFaultsIsRefusedCountedAndUnmapped) {
    device.regions.callFaults().failNext("guarded", {EFAULT});
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(create(kSmallest), nullptr); }),
                ElementsAre("platform default: The hang channel of pid 412 can't be read: it is not watched"));
    EXPECT_EQ(hangState().regionFaults, 1u);
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 1u);
}

TEST_F(HangDetection, AFailedRecordGoesWithoutALineAndUnmapsOnlyOnce) {
    EXPECT_THAT(linesOf([&] { create(kSmallest, 3); }), testing::SizeIs(1));
    create(2087);
    EXPECT_EQ(device.regions.surplusUnmaps(), 0u);
    EXPECT_EQ(device.regions.unmapCount(), 2u);
}

TEST_F(HangDetection, ThePidIsShownUnsigned) {
    device.processes.setExecutablePath(-1, "/bin/odd");
    EXPECT_THAT(linesOf([&] { create(kSmallest, 4, -1).reset(); }),
                ElementsAre("info: New proc: /bin/odd(4294967295)", "debug: dealloc for odd"));
}

TEST_F(HangDetection, APathKeepsPrintableBytesOnly) {
    const auto process = createWithPath("/b\x1f\x20\x7e\x7f\x80/n\x01\xff\xc3\xa9m");
    EXPECT_EQ(process->processPath(), "/b~ ~~~/n~~~~m");
    EXPECT_EQ(process->processName(), "n~~~~m");
}

TEST_F(HangDetection, APathEndsAtItsNul) {
    EXPECT_EQ(createWithPath(std::string("/bin/app\0rest", 13))->processPath(), "/bin/app");
}

TEST_F(HangDetection, APathThatFillsTheBufferIsTakenWhole) {
    const std::string path = "/" + std::string(4095, 'x');
    EXPECT_EQ(createWithPath(path)->processPath(), path);
    EXPECT_EQ(createWithPath(path + "y")->processPath(), path);
}

TEST_F(HangDetection, TheNameIsTheLastPathComponent) {
    const std::map<std::string, std::string> names = {
        {"/bin/app", "app"}, {"app", "app"},      {"/bin/app/", "app"}, {"/bin/app//", "app"},
        {"/", "[Unknown]"},  {"//", "[Unknown]"}, {"/a b/.c", ".c"},    {std::string("\0x", 2), "[Unknown]"},
    };
    for (const auto& [path, name] : names) EXPECT_EQ(createWithPath(path)->processName(), name) << path;
}

TEST_F(HangDetection, ThePathOfAProcessThatIsGoneIsNothing) {
    EXPECT_EQ(processPathForPid(999), std::nullopt);
    EXPECT_EQ(processPathForPid(kPid), kMailPath);
}

}  // namespace
}  // namespace quorvix::test
