#include "report/viewer/Page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "report/viewer/HangData.h"
#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using testing::HasSubstr;
using testing::Not;
using tests::switched;
using tests::TraceEncoder;
using tests::woken;
using Json = nlohmann::json;
using namespace thread_state;

constexpr std::int32_t kHung = 10;
constexpr std::int32_t kWorker = 20;
constexpr std::int32_t kOther = 30;
constexpr std::uint64_t kMs = 1'000'000;

// A hang of one second of the main thread of "app", from 1000 ms on.
TraceEncoder hang(const std::string& app = "app") {
    TraceEncoder trace;
    trace.hang(1000 * kMs, 2000 * kMs, kHung, kHung).covered(500 * kMs, 2500 * kMs);
    trace.text("reason", R"({"Reason":"too long","ServiceName":"main","ProcessPath":"/opt/)" + app + "\"}");
    trace.attributes().process(kHung, "/opt/app").thread(kHung, kHung, "app").thread(kWorker, kHung, "worker");
    trace.thread(21, kHung, "idler").process(kOther, "/bin/other").thread(kOther, kOther, "other");
    return trace;
}

Json dataOf(const TraceEncoder& trace) {
    const std::string file = trace.file();
    return hangData(analyse([&](const PacketFile::Visitor& visit) { return scanPackets(tests::bytesOf(file), visit); },
                            kViewerDepth));
}

// The thread ran for a quarter, then waited for the worker to wake it.
TraceEncoder blockedHang() {
    TraceEncoder trace = hang();
    trace.events(0, {switched(900 * kMs, 0, 0, kHung), switched(1250 * kMs, kHung, kInterruptible, kOther),
                     switched(2010 * kMs, kOther, 0, kHung)});
    trace.events(1, {switched(1500 * kMs, 0, 0, kWorker), woken(2005 * kMs, kWorker, kHung)});
    return trace;
}

TEST(HangData, HoldsTheHungThreadsTimesAndItsStrip) {
    const Json data = dataOf(blockedHang());
    EXPECT_EQ(data["hung"]["label"], "app (10)");
    EXPECT_EQ(data["hung"]["times"], Json({{"running", 250 * kMs}, {"sleeping", 750 * kMs}}));
    EXPECT_EQ(data["hung"]["strip"], Json::parse(R"([["running", 120], ["sleeping", 360]])"));
    EXPECT_EQ(data["reason"], "too long");
    EXPECT_EQ(data["service"], "main");
    EXPECT_EQ(data["program"], "/opt/app");
    EXPECT_EQ(data["evidence"][0], "it waited for 75.0 % of the hang");
    EXPECT_EQ(data["completeness"]["incomplete"], "");
    EXPECT_EQ(data["completeness"]["covered_ns"], 1000 * kMs);
}

TEST(HangData, TellsOfWhoEndedTheWaitOfFellowsAndOfWhoRan) {
    const Json data = dataOf(blockedHang());
    ASSERT_EQ(data["others"].size(), 2U);
    EXPECT_EQ(data["others"][0]["label"], "worker (20) of app");
    EXPECT_TRUE(data["others"][0]["waker"]);
    EXPECT_TRUE(data["others"][0]["fellow"]);
    EXPECT_EQ(data["others"][0]["times"]["running"], 500 * kMs);
    EXPECT_EQ(data["others"][1]["label"], "other (30)");
    EXPECT_FALSE(data["others"][1]["fellow"]);
    EXPECT_EQ(data["fellows_left_out"], 0);
    EXPECT_EQ(data["fellows_at_rest"], 1);  // the idler
    ASSERT_EQ(data["waits"].size(), 1U);
    EXPECT_EQ(data["waits"][0]["by"], "worker (20) of app");
    EXPECT_EQ(data["waits"][0]["begin_ns"], 250 * kMs);
    EXPECT_EQ(data["users"][0]["label"], "other (30)");
    EXPECT_EQ(data["users"][0]["ran_ns"], 750 * kMs);
}

TEST(HangData, StacksShareTheirFramesAndTheHungThreadIsFirst) {
    TraceEncoder trace = hang();
    const TraceEncoder::Frame outer{.name = "libc.so.6+0x10", .module = "/lib/libc.so.6", .relativePc = 0x10};
    trace.stack(kHung, kWorker, {{.name = "poll", .isKernel = true}, outer});
    trace.stack(kHung, kHung, {{.name = "futex", .isKernel = true}, outer});
    trace.stack(kHung, 21, {}, "it has exited");
    const Json data = dataOf(trace);
    ASSERT_EQ(data["stacks"].size(), 3U);
    EXPECT_EQ(data["stacks"][0]["thread"], "app (10)");
    EXPECT_EQ(
        data["frames"],
        Json::parse(R"([["futex", "kernel", 1], ["libc.so.6+0x10", "/lib/libc.so.6", 0], ["poll", "kernel", 1]])"));
    EXPECT_EQ(data["stacks"][0]["frames"], Json::parse("[0, 1]"));
    EXPECT_EQ(data["stacks"][1]["frames"], Json::parse("[2, 1]"));
    EXPECT_EQ(data["stacks"][2]["problem"], "it has exited");
}

TEST(HangData, ACorrectedWaitShowsInTheStripToo) {
    TraceEncoder trace = hang();
    trace.events(0, {switched(1000 * kMs, kHung, kUninterruptible, 0)});
    trace.stack(kHung, kHung, {{.name = "futex_wait_queue", .isKernel = true}});
    EXPECT_EQ(dataOf(trace)["hung"]["strip"], Json::parse(R"([["sleeping", 480]])"));
}

TEST(HangData, SaysWhatTheReportLacks) {
    TraceEncoder trace;
    trace.hang(1000 * kMs, 2000 * kMs, kHung, kHung).covered(1600 * kMs, 2500 * kMs);
    trace.number("lost.cpu1", -1).text("missing.stacks", "the process is gone").attributes();
    const Json data = dataOf(trace);
    EXPECT_EQ(data["completeness"]["covered_ns"], 400 * kMs);
    EXPECT_EQ(data["completeness"]["covered_from_ns"], 600 * kMs);
    EXPECT_EQ(data["completeness"]["lost"], Json::parse(R"([["cpu1", -1]])"));
    EXPECT_EQ(data["completeness"]["missing"], Json::parse(R"([["stacks", "the process is gone"]])"));
    EXPECT_EQ(data["stack_problem"], "the file has no stack of the hung thread");
}

TEST(HangData, MoreThreadsThanAreDrawnAreCounted) {
    TraceEncoder trace = hang();
    std::vector<SchedEvent> events;
    constexpr std::int32_t kFellows = static_cast<std::int32_t>(kViewerDepth.otherThreads) + 1;
    for (std::int32_t at = 0; at < kFellows; ++at) {
        trace.thread(100 + at, kHung, "fellow");
        events.push_back(switched(1000 * kMs + static_cast<std::uint64_t>(at) * kMs, 0, 0, 100 + at));
    }
    trace.events(0, events);
    const Json data = dataOf(trace);
    EXPECT_EQ(data["others"].size(), kViewerDepth.otherThreads);
    EXPECT_EQ(data["fellows_left_out"], 1);
    EXPECT_EQ(data["fellows_at_rest"], 2);  // worker and idler
}

TEST(ViewerPage, NoTextOfTheDataCanEndItsElement) {
    const std::string hostile = "</script><script>alert(1)</script><!--&amp;]]>\xe2\x80\xa8\xe2\x80\xae\xff\x1b\"'\\";
    const std::string safe = embeddableJson({{hostile, hostile}});
    for (const char character : safe) {
        ASSERT_TRUE(character >= 0x20 && character < 0x7f) << safe;
        ASSERT_EQ(std::string_view("<>&").find(character), std::string_view::npos) << safe;
    }
    const std::string read = Json::parse(safe).begin().value();
    EXPECT_EQ(read, "</script><script>alert(1)</script><!--&amp;]]>\xe2\x80\xa8\xe2\x80\xae\xef\xbf\xbd\x1b\"'\\");
}

TEST(ViewerPage, HoldsTheDataBetweenItsPartsAndForbidsEverythingElse) {
    const std::string page = viewerPage({{"a", "<b>"}});
    EXPECT_THAT(page, testing::StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr(R"(<script type="application/json" id="data">{"a":"\u003cb\u003e"}</script>)"));
    EXPECT_THAT(page, HasSubstr("default-src 'none'; style-src 'sha256-"));
    EXPECT_THAT(page, Not(HasSubstr("unsafe-inline")));
    for (const char* const foreign : {"http:", "https:", "url(", "@import", "src="}) {
        // The drawing's namespace is a name and not an address that is gone to.
        std::string rest = page;
        const std::string name = "http://www.w3.org/2000/svg";
        if (const auto at = rest.find(name); at != std::string::npos) rest.erase(at, name.size());
        EXPECT_THAT(rest, Not(HasSubstr(foreign)));
    }
}

TEST(ViewerPage, NamesFromTheFileStayTextAndShowWhatIsInvisible) {
    TraceEncoder trace = hang("<img src=x>");
    trace.thread(kOther + 1, kOther, "</script>\xe2\x80\xae\xff");
    trace.events(0, {switched(1000 * kMs, 0, 0, kOther + 1)});
    const Json data = dataOf(trace);
    EXPECT_EQ(data["program"], "/opt/<img src=x>");
    EXPECT_EQ(data["others"][0]["label"], "</script>\\u202e\\xff (31) of other");
    EXPECT_THAT(viewerPage(data), Not(HasSubstr("<img")));
}

}  // namespace
}  // namespace quorvix::report
