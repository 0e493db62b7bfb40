#include "hang/HangChannel.h"

#include <cerrno>

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kMinimum = QUORVIX_CHANNEL_MINIMUM_LENGTH;
constexpr std::uint64_t kSlot0Name = 8 + 40;

// How a region is checked. Checks are made by hand, at the tick that the test wants.
class HangChannelCheck : public HangWorld {
protected:
    HangChannelCheck() : HangChannelCheck(sim::SimTickClock::kMillisecondTicks) {}
    explicit HangChannelCheck(TickRatio ratio) : HangWorld(ratio) { startWithHangTracing(); }

    // An app with a region of this length and slot count; all slots inactive.
    App watchRegion(std::uint32_t slotCount = 20, std::uint64_t length = kMinimum, std::int32_t pid = kPid,
                    std::string path = std::string(kMailPath)) {
        App app{connect(pid, std::move(path)), sim::SimSharedMemory::hangChannel(device.regions, 4, slotCount, length)};
        send(*app.client, sim::SimMessage{}.int64("command", 1).sharedMemory("shmem", app.memory));
        return app;
    }
    Lines check(std::uint64_t tick) {
        return linesOf([tick] { QXProcessInfo::checkForHangTimeouts(tick); });
    }
    // A hang of 6 s in slot 0 whose name begins a run of x's that ends `length` bytes later.
    std::string longName(App& app, std::size_t length) {
        app.begin(0, 0, "", false);
        std::memset(app.memory->bytes().data() + kSlot0Name, 'x', length);
        return std::string(length, 'x');
    }
    static std::string hang(std::string_view name, const char* seconds = "6.00") {
        return "info: Mail: Hang detected " + std::string(seconds) + "s (" + std::string(name) + ")";
    }
};

TEST_F(HangChannelCheck, FiveSecondsAreNoHangYet) {
    App app = watchRegion();
    app.begin(0, 1000, "main", false);
    EXPECT_THAT(check(5999), IsEmpty());
    EXPECT_THAT(check(6000), IsEmpty());
    EXPECT_EQ(app.channel().slots[0].startTime, 1000u);
    EXPECT_THAT(check(6001), ElementsAre(hang("main", "5.00")));
    EXPECT_EQ(device.counters.distribution("com.norvane.quorvix.main.Mail"), std::vector<double>{5001.0});
}

TEST_F(HangChannelCheck, AHangIsMarkedAndReportedOnce) {
    App app = watchRegion();
    app.begin(0, 0, "main", false);
    EXPECT_THAT(check(6000), ElementsAre(hang("main")));
    EXPECT_EQ(app.channel().slots[0].startTime, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_THAT(check(20'000), IsEmpty());
    app.begin(0, 20'000, "next", false);
    EXPECT_THAT(check(26'000), ElementsAre(hang("next")));
}

TEST_F(HangChannelCheck, OnlyTheLowestOfTwoHangsIsReportedAtATime) {
    App app = watchRegion();
    app.begin(3, 0, "first", true);
    app.begin(7, 0, "second", true);
    QXProcessInfo::checkForHangTimeouts(6000);
    EXPECT_EQ(app.channel().slots[7].startTime, 0u);
    QXProcessInfo::checkForHangTimeouts(11'000);
    ASSERT_EQ(traceLibrary.calls.size(), 2u);
    EXPECT_EQ(traceLibrary.calls[0].maxTimestamp, 6000u);
    EXPECT_EQ(traceLibrary.calls[1].maxTimestamp, 11'000u);
    EXPECT_THAT(traceLibrary.calls[1].reason, testing::HasSubstr(R"("Reason":"second-Mail: timeout 11000ms")"));
}

TEST_F(HangChannelCheck, EveryProcessHasItsOwnHangACheck) {
    App mail = watchRegion();
    App news = watchRegion(20, kMinimum, 500, "/bin/News");
    mail.begin(0, 0, "a", false);
    news.begin(0, 0, "b", false);
    EXPECT_THAT(check(6000), ElementsAre(hang("a"), "info: News: Hang detected 6.00s (b)"));
}

TEST_F(HangChannelCheck, InactiveSlotsNeverHang) {
    App app = watchRegion();
    app.begin(0, 0, "main", false);
    for (const std::uint32_t inactive : {1u, 2u, 0x80000000u, 0xFFFFFFFFu}) {
        app.channel().slots[0].inactive = inactive;
        EXPECT_THAT(check(1'000'000), IsEmpty());
    }
    EXPECT_EQ(app.channel().slots[0].startTime, 0u);
}

TEST_F(HangChannelCheck, NoSlotsAreNoHang) {
    App app = watchRegion(0);
    app.begin(0, 0, "main", false);
    EXPECT_THAT(check(1'000'000), IsEmpty());
}

TEST_F(HangChannelCheck, SlotsPastTheCountAreNotLookedAt) {
    App app = watchRegion(5);
    app.begin(5, 0, "main", false);
    EXPECT_THAT(check(6000), IsEmpty());
    app.channel().slotCount = 6;
    EXPECT_THAT(check(6000), ElementsAre(hang("main")));
}

// Four slots are looked at in a round: each place in it is a slot like the others.
TEST_F(HangChannelCheck, EverySlotIsFoundWhereverItStands) {
    for (std::uint32_t slot = 0; slot < 20; ++slot) {
        App app = watchRegion(20, kMinimum, static_cast<std::int32_t>(100 + slot));
        app.begin(slot, 0, "late", false);
        EXPECT_THAT(check(6000), ElementsAre(hang("late"))) << slot;
        QXProcessInfo::stopWatchingPid(static_cast<std::int32_t>(100 + slot));
    }
}

TEST_F(HangChannelCheck, WorkThatIsNotLateYetIsPassedOverWhereverItStands) {
    for (std::uint32_t slot = 0; slot < 19; ++slot) {
        App app = watchRegion(20, kMinimum, static_cast<std::int32_t>(100 + slot));
        app.begin(slot, 1000, "young", false);
        app.begin(slot + 1, 0, "late", false);
        EXPECT_THAT(check(6000), ElementsAre(hang("late"))) << slot;
        EXPECT_EQ(app.channel().slots[slot].startTime, 1000u) << slot;
        QXProcessInfo::stopWatchingPid(static_cast<std::int32_t>(100 + slot));
    }
}

TEST_F(HangChannelCheck, TheCountEndsTheLookWhereverItStands) {
    for (std::uint32_t count = 0; count < 20; ++count) {
        App app = watchRegion(count, kMinimum, static_cast<std::int32_t>(100 + count));
        app.begin(count, 0, "behind", false);
        EXPECT_THAT(check(6000), IsEmpty()) << count;
        EXPECT_EQ(app.channel().slots[count].startTime, 0u) << count;
        QXProcessInfo::stopWatchingPid(static_cast<std::int32_t>(100 + count));
    }
}

TEST_F(HangChannelCheck, AStartOfAllOnesLiesInTheFuture) {
    App app = watchRegion();
    app.begin(0, 0xFFFFFFFFFFFFFFFFu, "main", false);
    EXPECT_THAT(check(1'000'000), IsEmpty());
    EXPECT_THAT(check(0xFFFFFFFFFFFFFFFFu), IsEmpty());
}

// Read as signed, this start would lie just before tick 0.
TEST_F(HangChannelCheck, StartTimesAreUnsigned) {
    App app = watchRegion();
    app.begin(0, 0xFFFFFFFFFFFFF000u, "main", false);
    EXPECT_THAT(check(1'000'000), IsEmpty());
    app.begin(0, 1, "main", false);
    EXPECT_EQ(check(0x8000000000000000u).size(), 1u);
}

TEST_F(HangChannelCheck, AStartInTheFutureIsNoHang) {
    App app = watchRegion();
    app.begin(0, 20'000, "main", false);
    EXPECT_THAT(check(1000), IsEmpty());
}

TEST_F(HangChannelCheck, HandsOverWhatTheSlotHolds) {
    App app = watchRegion();
    app.begin(0, 123, "main", true);
    app.channel().slots[0].threadID = 0x8000000000000001u;
    app.channel().slots[0].saveReport = 0x80000000u;
    QXProcessInfo::checkForHangTimeouts(7000);
    ASSERT_EQ(traceLibrary.calls.size(), 1u);
    EXPECT_EQ(traceLibrary.calls[0].minTimestamp, 123u);
    EXPECT_EQ(traceLibrary.calls[0].maxTimestamp, 7000u);
    EXPECT_THAT(traceLibrary.calls[0].reason, testing::HasSubstr(R"("ThreadID":-9223372036854775807)"));
}

TEST_F(HangChannelCheck, ASlotThatAsksForNoReportGetsNone) {
    App app = watchRegion();
    app.begin(0, 0, "main", false);
    QXProcessInfo::checkForHangTimeouts(6000);
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

TEST_F(HangChannelCheck, ANameMayFillItsFieldToTheLastByte) {
    App app = watchRegion();
    app.begin(0, 0, std::string(63, 'n'), false);
    EXPECT_THAT(check(6000), ElementsAre(hang(std::string(63, 'n'))));
}

// All 64 bytes, then what stands behind them up to a NUL: here the next slot's start time.
TEST_F(HangChannelCheck, ANameWithoutNulRunsPastItsField) {
    App app = watchRegion();
    app.begin(0, 0, std::string(64, 'n'), false);
    std::memcpy(app.memory->bytes().data() + 8 + 104, "xyz\0more", 8);
    EXPECT_THAT(check(6000), ElementsAre(hang(std::string(64, 'n') + "xyz")));
}

TEST_F(HangChannelCheck, ANameInTheLastSlotEndsWithTheMapping) {
    App app = watchRegion();
    app.begin(19, 0, std::string(64, 'n'), false);
    EXPECT_THAT(check(6000), ElementsAre(hang(std::string(64, 'n'))));
    EXPECT_THAT(watchedPids(), ElementsAre(kPid));
}

TEST_F(HangChannelCheck, ALongNameEndsWithTheMapping) {
    App app = watchRegion(1, 3000);
    const std::string name = longName(app, 3000 - kSlot0Name);
    EXPECT_THAT(check(6000), ElementsAre(hang(name)));
}

TEST_F(HangChannelCheck, ANameHasAtMost4096Bytes) {
    App app = watchRegion(1, 8192);
    longName(app, 4097);
    EXPECT_THAT(check(6000), ElementsAre(hang(std::string(4096, 'x'))));
    const std::string shorter = longName(app, 4095);
    app.memory->bytes()[kSlot0Name + 4095] = 0;
    EXPECT_THAT(check(6000), ElementsAre(hang(shorter)));
}

TEST_F(HangChannelCheck, AnEmptyNameIsAName) {
    App app = watchRegion();
    app.begin(0, 0, "", false);
    EXPECT_THAT(check(6000), ElementsAre(hang("")));
    EXPECT_EQ(device.counters.distribution("com.norvane.quorvix..Mail"), std::vector<double>{6000.0});
}

TEST_F(HangChannelCheck, ANameThatIsNotTextIsLoggedAndCountedByteForByte) {
    App app = watchRegion();
    app.begin(0, 0, "m\xff\x80n", true);
    const Lines written = check(6000);
    ASSERT_EQ(written.size(), 3u);
    EXPECT_EQ(written[0], hang("m\xff\x80n"));
    EXPECT_EQ(
        written[2],
        "default: Mail: Unable to serialize Info Dict into JSON: {\"Reason\":\"m\xff\x80n-Mail: timeout "
        "6000ms\",\"ServiceName\":\"m\xff\x80n\",\"ProcessPath\":\"/Applications/Mail.app/Mail\",\"PID\":412,"
        "\"ThreadID\":77,\"StartTime\":0,\"EndTime\":6000} - Invalid or incomplete multibyte or wide character\n");
    EXPECT_EQ(device.counters.distribution("com.norvane.quorvix.m\xff\x80n.Mail"), std::vector<double>{6000.0});
}

// The rest of the last page belongs to nobody and reads as zeros: an active slot without a name, as old as the clock.
TEST_F(HangChannelCheck, ALieWithinTheLastPageIsTakenAtItsWord) {
    watchRegion(21);
    EXPECT_THAT(check(6000), ElementsAre(hang("")));
    EXPECT_THAT(check(12'000), IsEmpty());
    EXPECT_THAT(watchedPids(), ElementsAre(kPid));
    EXPECT_EQ(hangState().regionFaults, 0u);
}

TEST_F(HangChannelCheck, ALieAboutTheSlotCountEndsTheWatchingOfTheLiarOnly) {
    App liar = watchRegion(0xFFFFFFFFu, 8192, 66, "/bin/Liar");
    // The last slot of all lies across the end of the second page.
    liar.memory->bytes()[8 + 78 * sizeof(quorvix_hang_slot) + offsetof(quorvix_hang_slot, inactive)] = 1;
    App honest = watchRegion();
    honest.begin(0, 0, "main", false);
    EXPECT_THAT(check(6000),
                ElementsAre(hang("main"),
                            "platform default: The hang channel of Liar(66) can't be read: it is no longer watched",
                            "debug: dealloc for Liar"));
    EXPECT_THAT(watchedPids(), ElementsAre(kPid));
    EXPECT_EQ(hangState().regionFaults, 1u);
    EXPECT_EQ(device.regions.liveMappings(), 1u);
}

TEST_F(HangChannelCheck, AProcessDroppedForItsLieMayBeWatchedAgain) {
    App app = watchRegion();
    device.regions.faultNextAccess(device.regions.lastMapping().address);
    QXProcessInfo::checkForHangTimeouts(6000);
    EXPECT_THAT(watchedPids(), IsEmpty());
    app.memory = sim::SimSharedMemory::hangChannel(device.regions);
    send(*app.client, sim::SimMessage{}.int64("command", 1).sharedMemory("shmem", app.memory));
    app.begin(0, 0, "main", false);
    EXPECT_THAT(check(6000), ElementsAre(hang("main")));
}

TEST_F(HangChannelCheck, EveryProcessThatFaultsIsDropped) {
    watchRegion(20, kMinimum, 1, "/bin/one");
    watchRegion(20, kMinimum, 2, "/bin/two");
    watchRegion(20, kMinimum, 3, "/bin/three");
    device.regions.callFaults().failNth("guarded", 1, {EFAULT});
    device.regions.callFaults().failNth("guarded", 3, {EFAULT});
    EXPECT_THAT(check(6000),
                ElementsAre("platform default: The hang channel of one(1) can't be read: it is no longer watched",
                            "debug: dealloc for one",
                            "platform default: The hang channel of three(3) can't be read: it is no longer watched",
                            "debug: dealloc for three"));
    EXPECT_THAT(watchedPids(), ElementsAre(2));
    EXPECT_EQ(hangState().regionFaults, 2u);
    EXPECT_THAT(check(6000), IsEmpty());
}

TEST_F(HangChannelCheck, AQuietCheckTouchesNothing) {
    App app = watchRegion();
    app.begin(0, 0, "main", false);
    const auto before = std::vector<std::uint8_t>(app.memory->bytes().begin(), app.memory->bytes().end());
    EXPECT_THAT(check(5000), IsEmpty());
    EXPECT_THAT(app.memory->bytes(), testing::ElementsAreArray(before));
}

TEST_F(HangChannelCheck, AHangIsFoundByTheNextOfTheFiveSecondTicks) {
    App app = watchRegion();
    app.begin(0, now(), "main", false);
    device.log.clear();
    advanceMs(5000);
    EXPECT_THAT(lines(), IsEmpty());
    advanceMs(4999);
    EXPECT_THAT(lines(), IsEmpty());
    advanceMs(1);
    EXPECT_THAT(lines(), ElementsAre(hang("main", "10.00")));
}

// The device's own ticks: five seconds of them are a little more than 5000 ms in the precision of the factor.
class HangChannelCheckInDeviceTicks : public HangChannelCheck {
protected:
    HangChannelCheckInDeviceTicks() : HangChannelCheck(sim::SimTickClock::kDeviceTicks) {}

    std::size_t hangsAfter(std::uint64_t elapsedTicks) {
        App app = watchRegion();
        app.begin(0, now() - elapsedTicks, "main", false);
        return check(now()).size();
    }
};

TEST_F(HangChannelCheckInDeviceTicks, FiveSecondsOfTicksDoHang) {
    EXPECT_EQ(hangsAfter(120'000'000), 1u);
    const auto pushed = device.counters.distribution("com.norvane.quorvix.main.Mail");
    ASSERT_EQ(pushed.size(), 1u);
    EXPECT_NEAR(pushed[0], 5000.000383, 0.0000005);
}

TEST_F(HangChannelCheckInDeviceTicks, TheLastTickOfTheThresholdDoesNotHang) {
    const auto last = static_cast<std::uint64_t>(5000.0 / msPerTick());
    EXPECT_EQ(last, 119'999'990u);
    EXPECT_EQ(hangsAfter(last), 0u);
}

TEST_F(HangChannelCheckInDeviceTicks, TheFirstTickPastTheThresholdHangs) { EXPECT_EQ(hangsAfter(119'999'991), 1u); }

// Whoever reads a region is told of a fault.
TEST_F(HangChannelCheck, TheVersionOfARegionThatFaultsIsNothing) {
    watchRegion();
    const auto mapping = device.regions.lastMapping();
    EXPECT_EQ(hangChannelVersion({mapping.address, mapping.length}), 4u);
    device.regions.faultNextAccess(mapping.address);
    EXPECT_EQ(hangChannelVersion({mapping.address, mapping.length}), std::nullopt);
}

}  // namespace
}  // namespace quorvix::test
