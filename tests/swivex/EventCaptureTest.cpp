#include "swivex/EventCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "tests/support/TemporaryFolder.h"
#include "tests/swivex/TraceReader.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;

namespace {

constexpr std::int32_t kApp = 100, kOther = 200, kIdle = 0;
constexpr std::int64_t kRunnable = 0, kSleeping = 1, kDisk = 2;

Event switchAt(std::uint64_t ns, std::int32_t from, std::int64_t state, std::int32_t to) {
    Event event;
    event.timeNs = ns;
    event.kind = EventKind::schedSwitch;
    event.pid = event.prevPid = from;
    event.prevState = state;
    event.prevPrio = event.nextPrio = 120;
    event.nextPid = to;
    event.prevComm = "from";
    event.nextComm = "to";
    return event;
}

Event wakingAt(std::uint64_t ns, std::int32_t waker, std::int32_t woken) {
    Event event;
    event.timeNs = ns;
    event.kind = EventKind::schedWaking;
    event.pid = waker;
    event.nextPid = woken;
    event.nextComm = "woken";
    return event;
}

// Rings held in memory; a piece is two events.
class FakeRing final : public Ring {
public:
    struct Cpu {
        std::vector<Event> events;
        bool armedMark = true;
        std::uint64_t lostWhileRead = 0;
    };
    std::map<unsigned, Cpu> held;
    std::string failure;

    std::string_view kind() const override { return "fake"; }
    std::vector<unsigned> cpus() const override {
        std::vector<unsigned> numbers;
        for (const auto& [number, cpu] : held) numbers.push_back(number);
        return numbers;
    }
    Outcome<RingHolding> load(unsigned cpu, std::uint64_t, const Deadline&) override {
        if (!failure.empty()) return Problem{failure};
        loaded_ = &held.at(cpu);
        RingHolding holding;
        if (loaded_->events.empty()) return holding;
        holding.empty = false;
        holding.oldestNs = loaded_->events.front().timeNs;
        holding.newestNs = loaded_->events.back().timeNs;
        holding.armedMark = loaded_->armedMark;
        holding.lostWhileRead = loaded_->lostWhileRead;
        return holding;
    }
    bool visit(std::uint64_t from, std::uint64_t to, const Deadline& deadline, const Visit& visit) override {
        if (deadline.passed()) return false;
        for (const Event& event : loaded_->events) {
            if (event.timeNs >= from && event.timeNs <= to) visit(event);
        }
        return true;
    }
    void visitEarlier(std::uint64_t before, const Deadline&, const Visit& visit,
                      const std::function<bool()>& endOfPiece) override {
        std::vector<Event> earlier;
        for (const Event& event : loaded_->events) {
            if (event.timeNs < before) earlier.push_back(event);
        }
        for (std::size_t end = earlier.size(); end > 0;) {
            const std::size_t begin = (end - 1) / 2 * 2;
            for (std::size_t index = begin; index < end; ++index) visit(earlier[index]);
            if (endOfPiece()) return;
            end = begin;
        }
    }

private:
    const Cpu* loaded_ = nullptr;
};

class EventCapture : public testing::Test {
protected:
    void overrun(unsigned cpu, std::uint64_t count) {
        const std::string path = folder.path("instances/swivex/per_cpu/cpu" + std::to_string(cpu));
        std::filesystem::create_directories(path);
        quorvix::tests::writeWholeFile(path + "/stats", "entries: 5\noverrun: " + std::to_string(count) +
                                                            "\ncommit overrun: 0\nbytes: 9\ndropped events: 0\n");
    }

    void capture(std::int32_t hungThread = kApp) {
        PacketBuffer file(PacketBuffer::Form::compressed);
        Attributes about;
        const ClockPair clocks{window.dumpNs, window.dumpNs + 5, window.dumpNs + 7};
        captured = captureEvents(ring, {folder.path(), "swivex"}, {window, hungThread}, clocks, file, about, deadline);
        PacketWriter attributes;
        attributes.message(1, [&] { about.write(attributes); });
        file.finish();
        packets = packetsOf({reinterpret_cast<const char*>(file.encoded().data()), file.encoded().size()});
        attribute = attributesOf(
            packetsOf({reinterpret_cast<const char*>(attributes.encoded().data()), attributes.encoded().size()}));
    }

    quorvix::tests::TemporaryFolder folder;
    FakeRing ring;
    Deadline deadline = Deadline::in(std::chrono::seconds(60));
    Window window{1000, 2000, 2500};
    Captured captured;
    std::vector<Message> packets;
    std::map<std::string, std::string> attribute;
};

using Switches = std::vector<SeenSwitch>;

}  // namespace

TEST_F(EventCapture, TakesTheWindowAndOnToTheDumpAndNothingElse) {
    ring.held[0].events = {switchAt(999, kIdle, kRunnable, kApp), switchAt(1000, kApp, kSleeping, kOther),
                           switchAt(2000, kOther, kRunnable, kApp), switchAt(2500, kApp, kDisk, kIdle),
                           switchAt(2501, kIdle, kRunnable, kApp)};
    capture();
    EXPECT_EQ(switchesOf(packets, 0), (Switches{{1000, kIdle, kRunnable, kApp, "to"},
                                                {1000, kApp, kSleeping, kOther, "to"},
                                                {2000, kOther, kRunnable, kApp, "to"},
                                                {2500, kApp, kDisk, kIdle, "to"}}));
    EXPECT_EQ(attribute["clamped.cpu0"], "999") << "the first is the last one before the window";
    EXPECT_TRUE(captured.hungThreadSeen);
}

TEST_F(EventCapture, CpuThatNeverSwitchesInTheWindowShowsItsLastSwitchBefore) {
    ring.held[1].events = {switchAt(100, kIdle, kRunnable, kOther), switchAt(200, kOther, kSleeping, kIdle)};
    capture();
    EXPECT_EQ(switchesOf(packets, 1), (Switches{{1000, kOther, kSleeping, kIdle, "to"}}));
    EXPECT_EQ(attribute["clamped.cpu1"], "200");
    EXPECT_FALSE(captured.hungThreadSeen);
}

TEST_F(EventCapture, CpuWithoutAnySwitchBeforeIsNotMadeUp) {
    ring.held[0].events = {switchAt(1500, kOther, kSleeping, kIdle)};
    capture();
    EXPECT_EQ(switchesOf(packets, 0).size(), 1U);
    EXPECT_FALSE(attribute.contains("clamped.cpu0"));
}

TEST_F(EventCapture, HungThreadThatSleepsAllTheTimeHasTheStateInWhichItLeft) {
    ring.held[0].events = {switchAt(300, kApp, kDisk, kOther), switchAt(400, kOther, kSleeping, kIdle),
                           switchAt(500, kIdle, kRunnable, kOther), switchAt(600, kOther, kSleeping, kIdle),
                           switchAt(700, kIdle, kRunnable, kOther)};
    capture();
    EXPECT_EQ(attribute["hung_left_ns"], "300");
    EXPECT_EQ(attribute["hung_left_state"], "D");
}

TEST_F(EventCapture, NewestLeavingOfAllCpusCounts) {
    ring.held[0].events = {switchAt(100, kApp, kDisk, kOther), switchAt(900, kOther, kSleeping, kIdle)};
    ring.held[1].events = {switchAt(500, kIdle, kRunnable, kApp), switchAt(600, kApp, kSleeping, kIdle)};
    capture();
    EXPECT_EQ(attribute["hung_left_ns"], "600");
    EXPECT_EQ(attribute["hung_left_state"], "S");
}

TEST_F(EventCapture, HungThreadThatRunsWhenTheWindowBeginsHasNotLeft) {
    ring.held[0].events = {switchAt(100, kApp, kSleeping, kOther), switchAt(900, kOther, kSleeping, kApp)};
    capture();
    EXPECT_FALSE(attribute.contains("hung_left_ns"));
    EXPECT_EQ(switchesOf(packets, 0).at(0).nextPid, kApp);
}

TEST_F(EventCapture, HungThreadWokenAndNotYetRunWaitsForACpu) {
    ring.held[0].events = {switchAt(100, kApp, kSleeping, kOther), switchAt(110, kOther, kRunnable, kIdle)};
    ring.held[1].events = {wakingAt(700, kOther, kApp), switchAt(800, kOther, kSleeping, kIdle)};
    capture();
    EXPECT_EQ(attribute["hung_left_ns"], "100");
    EXPECT_EQ(attribute["hung_left_state"], "R");
}

TEST_F(EventCapture, OverwrittenBeginningOfTheWindowIsSaid) {
    ring.held[0].events = {switchAt(1400, kApp, kSleeping, kOther), switchAt(1500, kOther, kSleeping, kApp)};
    ring.held[0].armedMark = false;
    ring.held[1].events = {switchAt(1100, kOther, kSleeping, kIdle)};
    ring.held[1].armedMark = false;
    overrun(0, 77);
    overrun(1, 3);
    capture();
    EXPECT_EQ(attribute["lost.cpu0"], "-1");
    EXPECT_EQ(attribute["lost.cpu1"], "-1");
    EXPECT_EQ(captured.coveredBeginNs, 1400U) << "when the last CPU came in";
    EXPECT_EQ(captured.coveredEndNs, 2500U);
    EXPECT_TRUE(packets.at(0).message(1).has(3)) << "the bundle says so too";
}

TEST_F(EventCapture, OverwritingBeforeTheWindowLosesNothing) {
    ring.held[0].events = {switchAt(1000, kApp, kSleeping, kOther)};
    overrun(0, 77);
    capture();
    EXPECT_FALSE(attribute.contains("lost.cpu0"));
    EXPECT_EQ(captured.coveredBeginNs, 1000U);
    EXPECT_FALSE(packets.at(0).message(1).has(3));
}

TEST_F(EventCapture, OneNanosecondTooLateIsALoss) {
    ring.held[0].events = {switchAt(1001, kApp, kSleeping, kOther)};
    overrun(0, 77);
    capture();
    EXPECT_EQ(attribute["lost.cpu0"], "-1");
    EXPECT_EQ(captured.coveredBeginNs, 1001U);
}

TEST_F(EventCapture, CpuWithoutEventsIsCoveredSinceTheArming) {
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther)};
    ring.held[1].events = {};
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 1000U);
    ring.held[0].events = {switchAt(1600, kApp, kSleeping, kOther)};
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 1600U) << "armed in the middle of the window";
    EXPECT_FALSE(attribute.contains("lost.cpu0")) << "nothing was overwritten";
}

TEST_F(EventCapture, MarkInsideTheWindowIsWhereTheRecorderBegan) {
    Event mark;
    mark.timeNs = 1500;
    mark.kind = EventKind::print;
    mark.text = "recorder armed\n";
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther), mark, switchAt(1600, kOther, kSleeping, kIdle)};
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 1500U) << "it was off until then";
    EXPECT_EQ(captured.coveredEndNs, 2500U);
    ring.held[0].events[1].timeNs = 999;
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 1000U);
}

TEST_F(EventCapture, RecorderThatTakesNothingCoversUpToItsLastSwitch) {
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther), switchAt(1600, kOther, kSleeping, kIdle)};
    overrun(0, 0);
    quorvix::tests::writeWholeFile(folder.path("instances/swivex/tracing_on"), "0\n");
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 1000U);
    EXPECT_EQ(captured.coveredEndNs, 1600U);
    EXPECT_NE(attribute["missing.recorder"], "");
    ring.held[0].events.pop_back();
    capture();
    EXPECT_EQ(captured.coveredBeginNs, 0U);
    EXPECT_EQ(captured.coveredEndNs, 0U);
    quorvix::tests::writeWholeFile(folder.path("instances/swivex/tracing_on"), "1\n");
    capture();
    EXPECT_EQ(captured.coveredEndNs, 2500U);
}

TEST_F(EventCapture, WindowInTheFutureHasNoEventsAndNoCoverage) {
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther), switchAt(1600, kOther, kSleeping, kIdle)};
    window = {2501, 3000, 2500};
    capture();
    EXPECT_TRUE(packets.empty());
    EXPECT_EQ(captured.coveredBeginNs, 0U);
    EXPECT_EQ(captured.coveredEndNs, 0U);
}

TEST_F(EventCapture, PieceOverwrittenWhileItWasReadIsALoss) {
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther)};
    ring.held[0].lostWhileRead = 1;
    capture();
    EXPECT_EQ(attribute["lost.cpu0"], "-1");
}

TEST_F(EventCapture, RingThatCantBeReadIsSaidAndCoversNothing) {
    ring.held[0];
    ring.failure = "broken";
    capture();
    EXPECT_EQ(attribute["missing.recorder"], "broken");
    EXPECT_EQ(captured.coveredBeginNs, 0U);
    EXPECT_EQ(captured.coveredEndNs, 0U);
}

TEST_F(EventCapture, WhatWasNotReadInTimeCoversNothing) {
    ring.held[0].events = {switchAt(400, kApp, kSleeping, kOther)};
    deadline = Deadline::in(std::chrono::seconds(0));
    capture();
    EXPECT_FALSE(captured.inTime);
    EXPECT_EQ(captured.coveredEndNs, 0U);
}

TEST_F(EventCapture, EmptyRingsCoverNothing) {
    ring.held[0];
    capture();
    EXPECT_EQ(captured.coveredEndNs, 0U);
}

TEST_F(EventCapture, SwitchThatDoesNotFollowTheOneBeforeStandsByItself) {
    ring.held[0].events = {switchAt(1100, kApp, kSleeping, kOther), switchAt(1200, kOther, kSleeping, kApp),
                           switchAt(1300, kIdle, kRunnable, kOther)};
    capture();
    EXPECT_EQ(packets.at(0).message(1).messages(2).size(), 2U);
    EXPECT_EQ(packets.at(0).message(1).message(4).column(1), std::vector<std::uint64_t>{1200});
    EXPECT_EQ(switchesOf(packets, 0).at(2).prevPid, kIdle);
}

TEST_F(EventCapture, BundlesHoldTwoThousandEventsAndStandByThemselves) {
    window = {1000, 90000, 90000};
    for (std::uint64_t index = 0; index < 4001; ++index) {
        const bool even = index % 2 == 0;
        ring.held[0].events.push_back(
            switchAt(1000 + index * 10, even ? kApp : kOther, kSleeping, even ? kOther : kApp));
    }
    capture();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_EQ(packets[1].message(1).message(4).column(1).at(0), 1000U + 2000 * 10) << "the first time is whole";
    const auto seen = switchesOf(packets, 0);
    ASSERT_EQ(seen.size(), 4001U);
    EXPECT_EQ(seen[4000].timeNs, 41000U);
    EXPECT_EQ(seen[3999].prevPid, kOther);
}

TEST_F(EventCapture, BundlesOfLongLinesAreShorter) {
    window = {1000, 90000, 90000};
    const std::string line(3000, 'x');
    for (std::uint64_t index = 0; index < 1000; ++index) {
        Event event;
        event.timeNs = 1000 + index;
        event.kind = EventKind::print;
        event.text = line;
        ring.held[0].events.push_back(event);
    }
    capture();
    std::size_t events = 0;
    for (const Message& packet : packets) {
        EXPECT_LT(packet.text(1).size(), 200'000U);
        events += packet.message(1).messages(2).size();
    }
    EXPECT_EQ(events, 1000U);
}

TEST(StateLetter, IsThatOfProcfs) {
    for (const auto& [state, letter] : std::map<std::int64_t, char>{{0, 'R'},
                                                                    {0x100, 'R'},
                                                                    {1, 'S'},
                                                                    {2, 'D'},
                                                                    {4, 'T'},
                                                                    {8, 't'},
                                                                    {16, 'X'},
                                                                    {32, 'Z'},
                                                                    {64, 'P'},
                                                                    {128, 'I'}}) {
        EXPECT_EQ(stateLetter(state), letter);
    }
}
