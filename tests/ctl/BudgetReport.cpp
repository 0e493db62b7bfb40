#include "ctl/BudgetReport.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using nlohmann::ordered_json;

TEST(BudgetReport, SaysWhatIsLeftAndWhenItComesBack) {
    EXPECT_EQ(budgetReport(ordered_json::parse(R"({
        "appCredits":{"Mail":1},"dailyCredits":{"left":3,"limit":25},
        "budget":{"appCreditsAtMost":4,"refillEverySeconds":900,"nextRefillInSeconds":61,"dailyResetInSeconds":43260,
                  "refused":{"switched-off":0,"app-credits":2},
                  "lastRefusals":[{"secondsAgo":5,"app":"Mail\u001b[2J","hang":"main","reason":"app-credits"}]}})")),
              "device: 3 of 25 reports left, all of them again in 12 h 1 min\n"
              "\napps that have used some of their 4 reports\n"
              "  Mail  1\n"
              "  one comes back in 1 min 1 s, then every 15 min 0 s\n"
              "\nhangs without a report since quorvixd's start\n"
              "  app-credits  2  the app has used up its reports\n"
              "\nthe last of them, newest first\n"
              "  ago  app       hang  reason\n"
              "  5 s  Mail?[2J  main  app-credits\n");
}

TEST(BudgetReport, WhereNothingWasUsedOrRefused) {
    const std::string report = budgetReport(ordered_json::parse(
        R"({"appCredits":{},"dailyCredits":{"left":25,"limit":25},"budget":{"refused":{"no-library":0},
            "nextRefillInSeconds":null,"dailyResetInSeconds":null,"refillEverySeconds":900,"lastRefusals":[]}})"));
    EXPECT_THAT(report, testing::HasSubstr("all of them again when hang tracing runs"));
    EXPECT_THAT(report, testing::HasSubstr("\n  none\n"));
    EXPECT_THAT(report, testing::Not(testing::HasSubstr("the last of them")));
}

TEST(BudgetReport, AnOlderDaemonsStateReadsAsUnknown) {
    EXPECT_THAT(budgetReport(ordered_json::parse(R"({"dailyCredits":7})")), testing::HasSubstr("? of ? reports"));
}

TEST(BudgetReport, WithoutADaemonThereIsNoBudget) {
    Tool tool;
    EXPECT_EQ(tool.run({"budget"}), ExitStatus::notRunning);
    EXPECT_EQ(tool.out.str(), "");
}

}  // namespace
}  // namespace quorvix::ctl
