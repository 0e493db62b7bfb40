#include "report/PacketFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "report/TraceContents.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using tests::bytesOf;
using tests::deflated;
using tests::Message;
using tests::TraceEncoder;
using End = PacketScan::End;

constexpr PacketLimits kSmall{.packet = 5000, .inflated = 3000, .inflatedInAll = 12000};

PacketScan scan(const std::string& file, const PacketLimits& limits = {}) {
    return scanPackets(
        bytesOf(file), [](Bytes) {}, limits);
}

std::string whyIncomplete(const std::string& file) {
    TraceContents contents;
    contents.finish(scanPackets(bytesOf(file), [&](Bytes packet) { contents.add(packet); }));
    return contents.incomplete();
}

TraceEncoder someTrace() {
    TraceEncoder trace;
    trace.hang(1000, 2000, 10, 10).covered(1000, 2000).attributes().clocks(5000, 1000);
    trace.process(10, "/usr/bin/app").thread(10, 10, "app").compressed();
    trace.events(0, {tests::switched(1000, 0, 0, 10), tests::switched(1500, 10, 1, 0)}, TraceEncoder::Form::compact);
    trace.compressed();
    trace.stack(10, 10, {{.name = "futex_wait", .isKernel = true}});
    return trace;
}

TEST(PacketFile, CountsPacketsInCompressedOnesSingly) {
    TraceEncoder trace;
    trace.process(1, "one").process(2, "two").compressed().process(3, "three");
    const PacketScan result = scan(trace.unfinished());
    EXPECT_EQ(result.end, End::clean);
    EXPECT_EQ(result.packets, 3U);
}

TEST(PacketFile, AWholeFileIsComplete) { EXPECT_EQ(whyIncomplete(someTrace().file()), ""); }

TEST(PacketFile, AFileCutAtAnyByteIsIncomplete) {
    const std::string whole = someTrace().file();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(whyIncomplete(whole.substr(0, length)), "") << "cut to " << length << " of " << whole.size();
    }
}

TEST(PacketFile, AFileThatGoesOnAfterItsEndMarkIsIncomplete) {
    const std::string whole = someTrace().file();
    EXPECT_NE(whyIncomplete(whole + TraceEncoder().process(1, "x").unfinished()), "");
    EXPECT_NE(whyIncomplete(whole + '\0'), "");
    EXPECT_NE(whyIncomplete(whole + whole), "");
}

TEST(PacketFile, AMissingPacketInTheMiddleMakesItIncomplete) {
    TraceEncoder trace = someTrace();
    const std::string with = trace.unfinished();
    trace.process(99, "gone");
    const std::string whole = trace.file();
    const std::size_t recordSize = trace.unfinished().size() - with.size();
    EXPECT_EQ(whyIncomplete(whole), "");
    EXPECT_NE(whyIncomplete(std::string(whole).erase(with.size(), recordSize)), "");
}

TEST(PacketFile, APacketAsLongAsTheLimitIsReadAndOneByteMoreIsNot) {
    // Tag and length of the field inside take the rest.
    const auto packetOf = [](std::size_t size) {
        return Message().bytes(1, Message().bytes(1, std::string(size - 3, 'x')).text()).text();
    };
    EXPECT_EQ(scan(packetOf(kSmall.packet), kSmall).end, End::clean);
    EXPECT_EQ(scan(packetOf(kSmall.packet + 1), kSmall).end, End::damaged);
}

TEST(PacketFile, ACompressedPacketInflatesToTheLimitAndNotBeyond) {
    const auto bombOf = [](std::size_t size) {
        const std::string record = Message().bytes(1, std::string(size - 3, 'x')).text();
        EXPECT_EQ(record.size(), size);
        return Message().message(1, Message().bytes(50, deflated(record))).text();
    };
    EXPECT_EQ(scan(bombOf(kSmall.inflated), kSmall).packets, 1U);
    EXPECT_EQ(scan(bombOf(kSmall.inflated + 1), kSmall).end, End::damaged);
}

TEST(PacketFile, AllCompressedPacketsTogetherHaveALimit) {
    const std::string record = Message().bytes(1, std::string(kSmall.inflated - 3, 'x')).text();
    const std::string bomb = Message().message(1, Message().bytes(50, deflated(record))).text();
    constexpr std::uint64_t kFitting = kSmall.inflatedInAll / kSmall.inflated;
    std::string file;
    for (std::uint64_t at = 0; at < kFitting; ++at) file += bomb;
    EXPECT_EQ(scan(file, kSmall).end, End::clean);
    EXPECT_EQ(scan(file + bomb, kSmall).end, End::damaged);
}

TEST(PacketFile, WhatIsNoPacketIsDamage) {
    EXPECT_EQ(scan("\x12\x01x").end, End::damaged) << "another field";
    EXPECT_EQ(scan("\x0a" + std::string(11, '\xff')).end, End::damaged) << "a length without end";
    const auto compressed = [](std::string_view content) {
        return Message().message(1, Message().bytes(50, content)).text();
    };
    EXPECT_EQ(scan(compressed("no zlib")).end, End::damaged);
    EXPECT_EQ(scan(compressed(deflated("\x12\x01x"))).end, End::damaged) << "holds another field";
    EXPECT_EQ(scan(compressed(deflated("\x0a\x05x"))).end, End::damaged) << "holds half a packet";
    EXPECT_EQ(scan(compressed(deflated(TraceEncoder().process(1, "x").unfinished()) + "y")).end, End::damaged)
        << "bytes after the stream";
    EXPECT_EQ(scan(compressed(deflated(compressed(deflated(""))))).end, End::damaged) << "compressed twice";
    EXPECT_EQ(scan(Message().message(1, Message().bytes(133, "zstd")).text()).end, End::damaged);
}

TEST(PacketFile, ReadsAFileOfManyPiecesAsItReadsMemory) {
    tests::TemporaryFolder folder;
    TraceEncoder trace;
    for (int at = 0; at < 400; ++at) trace.process(at, std::string(static_cast<std::size_t>(at) * 11, 'n'));
    tests::writeWholeFile(folder.path("t"), trace.file());
    const auto file = PacketFile::open(folder.path("t"));
    ASSERT_TRUE(file);
    std::string fromFile, fromMemory;
    const auto gather = [](std::string& into) { return [&into](Bytes packet) { into += textOf(packet); }; };
    EXPECT_EQ(file->scan(gather(fromFile)).packets, 401U);
    scanPackets(bytesOf(trace.file()), gather(fromMemory));
    EXPECT_EQ(fromFile, fromMemory);
    std::string again;
    file->scan(gather(again));
    EXPECT_EQ(again, fromFile) << "a second walk starts at the front";
}

TEST(PacketFile, OpensRegularFilesOnlyAndNeverWaitsForOne) {
    tests::TemporaryFolder folder;
    ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(PacketFile::open(folder.path("pipe")).error().value, EINVAL);
    EXPECT_EQ(PacketFile::open(folder.path()).error().value, EISDIR);
    EXPECT_EQ(PacketFile::open(folder.path("none")).error().value, ENOENT);
    EXPECT_EQ(PacketFile::open("/dev/zero").error().value, EINVAL);
    tests::writeWholeFile(folder.path("long"), "");
    std::filesystem::resize_file(folder.path("long"), PacketFile::kLongestFile);
    EXPECT_TRUE(PacketFile::open(folder.path("long")));
    std::filesystem::resize_file(folder.path("long"), PacketFile::kLongestFile + 1);
    EXPECT_EQ(PacketFile::open(folder.path("long")).error().value, EFBIG);
}

}  // namespace
}  // namespace quorvix::report
