#include "ctl/CounterQuery.h"

#include <gmock/gmock.h>

#include "platform/linux/CounterDatabase.h"
#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;

class Counters : public testing::Test {
protected:
    Counters() { tool.services.counterPath = folder.path("tallisk.db"); }
    void store() {
        linuxos::CounterDatabase database(folder.path());
        linuxos::CounterBatch batch;
        ASSERT_FALSE(batch.push("com.norvane.quorvix.main.Mail", "Mail", 6000));
        ASSERT_FALSE(batch.push("com.norvane.quorvix.main.Mail", "Mail", 9000));
        ASSERT_FALSE(batch.push("com.norvane.quorvix.scroll.Maps\x1b[2J", "Maps\x1b[2J", 100));
        ASSERT_FALSE(batch.add("com.norvane.quorvix.QXLogsFenceHang.PreSwivex", 3));
        linuxos::CounterRefusals refusals;
        ASSERT_EQ(database.write(batch, WallTime{}, refusals), std::nullopt);
    }
    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(Counters, AreShownWithMeanPercentilesAndLongest) {
    store();
    EXPECT_EQ(tool.run({"counters"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), HasSubstr("hangs, in milliseconds (2)"));
    EXPECT_THAT(tool.out.str(), testing::ContainsRegex("main.Mail +2 +7500 +9000 +9000 +9000"));
    EXPECT_THAT(tool.out.str(), testing::ContainsRegex("QXLogsFenceHang.PreSwivex +3"));
    EXPECT_THAT(tool.out.str(), HasSubstr("Maps?[2J"));
}

TEST_F(Counters, TheFilterKnowsNoCase) {
    store();
    EXPECT_EQ(tool.run({"counters", "MAIL", "--json"}), ExitStatus::done);
    const auto json = nlohmann::json::parse(tool.out.str());
    ASSERT_EQ(json["hangs"].size(), 1u);
    EXPECT_EQ(json["hangs"][0]["key"], "com.norvane.quorvix.main.Mail");
    EXPECT_EQ(json["hangs"][0]["count"], 2);
    EXPECT_EQ(json["hangs"][0]["sumMs"], 15000.0);
    EXPECT_EQ(json["scalars"].size(), 0u);
}

TEST_F(Counters, WithoutAStoreNothingWasCounted) {
    EXPECT_EQ(tool.run({"counters"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("nothing was counted yet"));
}

TEST_F(Counters, AFileThatIsNoStoreIsAFailure) {
    tests::writeWholeFile(tool.services.counterPath, std::string(5000, 'x'));
    EXPECT_EQ(tool.run({"counters"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("quorvixctl: "));
}

TEST(CounterPercentiles, AreTheBucketsBoundButNeverAboveTheLongest) {
    linuxos::Distribution durations;
    EXPECT_EQ(percentileOf(durations, 0.5), 0);
    for (int i = 0; i < 19; ++i) durations.push(3);
    durations.push(2'000'000);
    EXPECT_EQ(percentileOf(durations, 0.5), 5);
    EXPECT_EQ(percentileOf(durations, 0.95), 5);
    EXPECT_EQ(percentileOf(durations, 0.96), 2'000'000);
    linuxos::Distribution one;
    one.push(3);
    EXPECT_EQ(percentileOf(one, 0.95), 3);
}

}  // namespace
}  // namespace quorvix::ctl
