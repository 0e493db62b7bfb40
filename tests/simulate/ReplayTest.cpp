// The comparison itself: what differs is found, whatever it is.

#include <gtest/gtest.h>

#include "simulate/Faults.h"
#include "simulate/Trace.h"

namespace quorvix::simulate {
namespace {

struct ReplayTest : ::testing::Test {
    sim::SimScheduler real, model;
    Trace trace{real};
    Replay replay{trace, model};

    void daemonDid(Op op, std::string what) {
        trace.beginWork(QueueName::daemon);
        trace.add(op, std::move(what));
        trace.endWork();
    }
};

TEST_F(ReplayTest, TheSameEffectIsNoDifference) {
    daemonDid(Op::logLine, "I:text");
    replay.beginWork(QueueName::daemon);
    replay.expect(Op::logLine, "I:text");
    replay.endWork();
    EXPECT_NO_THROW(replay.finish());
}

TEST_F(ReplayTest, AnotherTextIsADifference) {
    daemonDid(Op::logLine, "I:text");
    replay.beginWork(QueueName::daemon);
    EXPECT_THROW(replay.expect(Op::logLine, "D:text"), Mismatch);
}

TEST_F(ReplayTest, AMissingEffectIsADifference) {
    replay.beginWork(QueueName::daemon);
    EXPECT_THROW(replay.expect(Op::logLine, "I:text"), Mismatch);
}

TEST_F(ReplayTest, AnEffectTooManyIsADifference) {
    daemonDid(Op::counterAdd, "key 1");
    EXPECT_THROW(replay.finish(), Mismatch);
}

TEST_F(ReplayTest, WorkOfAnotherMomentIsNotTakenForThisOne) {
    real.advance(std::chrono::seconds(1));
    daemonDid(Op::logLine, "I:text");
    replay.beginWork(QueueName::daemon);
    EXPECT_THROW(replay.expect(Op::logLine, "I:text"), Mismatch);
}

TEST_F(ReplayTest, QuestionsAreAnsweredAndNeedNotBeExpected) {
    trace.beginWork(QueueName::daemon);
    trace.add(Op::bootTime, "").error = ErrorCode{5};
    trace.add(Op::processName, "0");
    trace.add(Op::logLine, "I:text");
    trace.endWork();
    replay.beginWork(QueueName::daemon);
    EXPECT_EQ(replay.question(Op::bootTime, "").error.value, 5);
    replay.expect(Op::logLine, "I:text");
    EXPECT_THROW(replay.question(Op::priorityList, ""), Mismatch);
    EXPECT_NO_THROW(replay.endWork());
}

TEST(FaultPlan, TakesTheCallThatWasMeant) {
    FaultPlan plan;
    plan.arm(Op::dump, 1, {.error = ErrorCode{5}});
    EXPECT_FALSE(plan.take(Op::dump).fails());
    EXPECT_FALSE(plan.take(Op::createFile).fails());
    EXPECT_TRUE(plan.take(Op::dump).fails());
    EXPECT_FALSE(plan.take(Op::dump).fails());
    EXPECT_EQ(plan.taken(), 1u);
}

}  // namespace
}  // namespace quorvix::simulate
