#include "platform/linux/QosClass.h"

#include <gtest/gtest.h>
#include <sched.h>

namespace quorvix::linuxos {
namespace {

constexpr std::uint32_t kNormal = SCHED_OTHER;

TEST(QosClassTest, EachBoundOfTheNiceValueFromBothSides) {
    EXPECT_EQ(qosClassOf(kNormal, -20), QosClass::userInteractive);
    EXPECT_EQ(qosClassOf(kNormal, -11), QosClass::userInteractive);
    EXPECT_EQ(qosClassOf(kNormal, -10), QosClass::userInteractive);
    EXPECT_EQ(qosClassOf(kNormal, -9), QosClass::userInitiated);
    EXPECT_EQ(qosClassOf(kNormal, -1), QosClass::userInitiated);
    EXPECT_EQ(qosClassOf(kNormal, 0), QosClass::legacy);
    EXPECT_EQ(qosClassOf(kNormal, 1), QosClass::utility);
    EXPECT_EQ(qosClassOf(kNormal, 9), QosClass::utility);
    EXPECT_EQ(qosClassOf(kNormal, 10), QosClass::background);
    EXPECT_EQ(qosClassOf(kNormal, 18), QosClass::background);
    EXPECT_EQ(qosClassOf(kNormal, 19), QosClass::maintenance);
}

TEST(QosClassTest, TheNumbersOfThePoliciesAreTheKernels) {
    EXPECT_EQ(kPolicyFifo, std::uint32_t{SCHED_FIFO});
    EXPECT_EQ(kPolicyRoundRobin, std::uint32_t{SCHED_RR});
    EXPECT_EQ(kPolicyBatch, std::uint32_t{SCHED_BATCH});
    EXPECT_EQ(kPolicyIdle, std::uint32_t{SCHED_IDLE});
    EXPECT_EQ(kPolicyDeadline, std::uint32_t{SCHED_DEADLINE});
}

TEST(QosClassTest, RealTimeIsUserInteractiveWhateverItsNiceValue) {
    for (const std::uint32_t policy : {kPolicyFifo, kPolicyRoundRobin, kPolicyDeadline}) {
        for (const int nice : {-20, 0, 19}) EXPECT_EQ(qosClassOf(policy, nice), QosClass::userInteractive);
    }
}

TEST(QosClassTest, IdleIsMaintenanceWhateverItsNiceValue) {
    for (const int nice : {-20, 0, 19}) EXPECT_EQ(qosClassOf(kPolicyIdle, nice), QosClass::maintenance);
}

TEST(QosClassTest, BatchIsUtilityAndNeverAbove) {
    for (const int nice : {-20, -1, 0, 9}) EXPECT_EQ(qosClassOf(kPolicyBatch, nice), QosClass::utility);
    EXPECT_EQ(qosClassOf(kPolicyBatch, 10), QosClass::background);
    EXPECT_EQ(qosClassOf(kPolicyBatch, 19), QosClass::maintenance);
}

}  // namespace
}  // namespace quorvix::linuxos
