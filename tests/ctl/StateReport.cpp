#include "ctl/StateReport.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace quorvix::ctl {
namespace {

std::string report(const char* document) { return stateReport(nlohmann::ordered_json::parse(document)); }

TEST(StateReport, ShowsWatchedProcessesAsATable) {
    EXPECT_EQ(report(R"({"watched":[{"pid":7,"name":"Mail","credits":1},{"pid":1234,"name":"Überall","credits":0}]})"),
              "quorvixd\n"
              "\nwatched (2)\n"
              "  pid   name     credits\n"
              "  7     Mail     1\n"
              "  1234  Überall  0\n");
}

TEST(StateReport, ShowsGroupsInGroupsAsPaths) {
    EXPECT_EQ(report(R"({"counters":{"hangs":{"regionFaults":2},"messages":{"refused":0.5}}})"),
              "quorvixd\n\ncounters\n  hangs.regionFaults  2\n  messages.refused    0.5\n");
}

TEST(StateReport, ShowsWhatTheDaemonAddsLater) {
    EXPECT_EQ(report(R"({"new":[1,"two",null],"flag":true})"), "quorvixd\n  flag  true\n\nnew (3)\n  1\n  two\n  -\n");
}

TEST(StateReport, SaysNoneWhereNothingIs) {
    EXPECT_EQ(report(R"({"watched":[],"appCredits":{}})"), "quorvixd\n\nwatched (0)\n  none\n\nappCredits\n  none\n");
}

TEST(StateReport, SaysNoneForAnEmptyListInAGroup) {
    EXPECT_EQ(report(R"({"budget":{"left":3,"lastRefusals":[]}})"),
              "quorvixd\n\nbudget\n  left          3\n  lastRefusals  none\n");
}

TEST(StateReport, ARecordMayLackAMember) {
    EXPECT_EQ(report(R"({"list":[{"a":1},{"b":2}]})"), "quorvixd\n\nlist (2)\n  a  b\n  1\n     2\n");
}

TEST(StateReport, NoNameMovesTheCursor) {
    EXPECT_EQ(report("{\"name\":\"a\\u001b[2Jb\\nc\"}"), "quorvixd\n  name  a?[2Jb?c\n");
}

}  // namespace
}  // namespace quorvix::ctl
