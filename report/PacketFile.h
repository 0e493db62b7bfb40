#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/Result.h"
#include "report/ProtoFields.h"

namespace quorvix::report {

// How one walk over a file's packets ended.
struct PacketScan {
    enum class End {
        clean,    // after a whole packet, at the end of the file
        cut,      // inside a packet
        damaged,  // at bytes that are no packet, or beyond one of the limits
        failed,   // the file could not be read
    };
    End end = End::clean;
    std::uint64_t packets = 0;  // those in compressed packets singly
    std::string problem;        // empty when clean
};

// How much of a file is taken. Tests have smaller ones.
struct PacketLimits {
    std::size_t packet = std::size_t{16} << 20;
    // Of one compressed packet, and of all together: 256 MiB of deflate could be 256 GiB.
    std::size_t inflated = std::size_t{16} << 20;
    std::uint64_t inflatedInAll = std::uint64_t{512} << 20;
};

// A trace file as a run of packets, each in memory by itself: a report is read in several walks over the file, so that
// what is held at once does not grow with it. The file is never trusted; all sizes have limits, reached ones end the
// walk as damage. Owns its descriptor.
class PacketFile {
public:
    static constexpr std::uint64_t kLongestFile = std::uint64_t{256} << 20;

    using Visitor = std::function<void(Bytes packet)>;

    // EINVAL: no regular file; EFBIG: longer than a trace can be. Never blocks on a pipe or a device.
    static Result<PacketFile> open(const std::string& path);
    PacketFile(PacketFile&& other) noexcept;
    PacketFile& operator=(PacketFile&& other) noexcept;
    PacketFile(const PacketFile&) = delete;
    PacketFile& operator=(const PacketFile&) = delete;
    ~PacketFile();

    // Visits every packet from the start of the file; what is before a damage is visited.
    PacketScan scan(const Visitor& visit) const;

    std::uint64_t sizeBytes() const { return sizeBytes_; }
    std::int64_t modifiedSeconds() const { return modifiedSeconds_; }

private:
    PacketFile(int descriptor, std::uint64_t sizeBytes, std::int64_t modifiedSeconds)
        : descriptor_(descriptor), sizeBytes_(sizeBytes), modifiedSeconds_(modifiedSeconds) {}

    int descriptor_ = -1;
    std::uint64_t sizeBytes_ = 0;
    std::int64_t modifiedSeconds_ = 0;
};

// The same walk over bytes in memory: what the tests and the fuzzer feed.
PacketScan scanPackets(Bytes file, const PacketFile::Visitor& visit, const PacketLimits& limits = {});

}  // namespace quorvix::report
