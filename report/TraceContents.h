#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "report/PacketFile.h"
#include "report/ProtoFields.h"
#include "report/ThreadTimeline.h"

namespace quorvix::report {

struct Frame {
    std::string name;        // as the writer gave it: a kernel symbol, or module and address
    std::string modulePath;  // empty: in no module (kernel frames, code made at run time)
    std::vector<std::uint8_t> buildId;
    std::uint64_t relativePc = 0;  // the module's own address of it
    // A program's frame that is in no module has its address as its name.
    bool isKernel() const { return modulePath.empty() && !name.empty() && !name.starts_with("0x"); }
};

struct StackSample {
    std::int32_t pid = kNoThread;
    std::int32_t tid = kNoThread;
    std::uint64_t timeNs = 0;
    std::uint64_t callstack = 0;  // looked up with framesOf
    std::size_t tables = 0;       // the interned data that it names its frames with
    std::string problem;          // why there are no or few frames
};

struct ThreadName {
    std::int32_t pid = kNoThread;  // of its process
    std::string name;
};

// All of a trace file but its events: what is gathered in the first walk. Every table has a limit; what is beyond it is
// left out and counted. Knows nothing of this machine.
class TraceContents {
public:
    static constexpr std::size_t kMostAttributes = 16384;
    static constexpr std::size_t kLongestText = std::size_t{4} << 20;
    static constexpr std::size_t kMostThreads = std::size_t{1} << 18;
    static constexpr std::size_t kMostSamples = 16384;
    static constexpr std::size_t kMostInterned = std::size_t{1} << 20;
    static constexpr std::size_t kMostTables = 64;
    static constexpr std::size_t kMostFrames = 1024;  // of one stack

    // What a walk over the file's packets is to be fed to. Damaged parts of a packet are counted and left out.
    void add(Bytes packet);
    void finish(const PacketScan& scan);

    // The file is whole: it ends in the end mark, and the mark counts as many packets as there are.
    bool isComplete() const { return incomplete_.empty(); }
    // Why not; empty when it is.
    const std::string& incomplete() const { return incomplete_; }
    std::uint64_t packets() const { return packets_; }
    std::uint64_t damagedPackets() const { return damagedPackets_; }
    std::uint64_t leftOut() const { return leftOut_; }

    // Keys without the common prefix "com.norvane.quorvix.".
    std::optional<std::int64_t> number(std::string_view key) const;
    const std::string* text(std::string_view key) const;
    const std::map<std::string, std::int64_t, std::less<>>& numbers() const { return numbers_; }
    const std::map<std::string, std::string, std::less<>>& texts() const { return texts_; }

    std::optional<std::int32_t> hungPid() const;
    std::optional<std::int32_t> hungTid() const;
    std::optional<Interval> window() const;
    Interval covered() const;
    ThreadHints hints() const;
    std::map<std::uint32_t, std::uint64_t> clampedSwitches() const;

    // Wall clock of a monotonic time, in nanoseconds since 1970; nothing without the clocks.
    std::optional<std::int64_t> realtimeNs(std::uint64_t monotonicNs) const;
    const std::string& kernelRelease() const { return kernelRelease_; }
    const std::string& kernelVersion() const { return kernelVersion_; }
    std::uint64_t cpus() const { return cpus_; }

    const ThreadName* thread(std::int32_t tid) const;
    // Of a process, in the order of their ids.
    std::vector<std::int32_t> threadsOf(std::int32_t pid) const;
    // The process's name: its program, without folders.
    std::string processName(std::int32_t pid) const;
    const std::vector<StackSample>& samples() const { return samples_; }
    // Innermost first.
    std::vector<Frame> framesOf(const StackSample& sample) const;

private:
    struct Mapping {
        std::uint64_t buildId = 0;
        std::vector<std::uint64_t> path;
    };
    struct InternedFrame {
        std::uint64_t name = 0;
        std::uint64_t mapping = 0;
        std::uint64_t relativePc = 0;
    };
    struct Interned {
        std::unordered_map<std::uint64_t, std::string> names, paths, buildIds;
        std::unordered_map<std::uint64_t, InternedFrame> frames;
        std::unordered_map<std::uint64_t, Mapping> mappings;
        std::unordered_map<std::uint64_t, std::vector<std::uint64_t>> callstacks;
    };

    bool takePacket(Bytes packet);
    bool takeAttributes(Bytes message);
    bool takeClocks(Bytes message);
    bool takeSystem(Bytes message);
    bool takeTree(Bytes message);
    bool takeInterned(Bytes message, std::uint64_t sequence);
    bool takeSample(Bytes message, std::uint64_t sequence, std::uint64_t timeNs);
    bool hasRoom(std::size_t used, std::size_t limit);

    std::uint64_t packets_ = 0;
    std::uint64_t damagedPackets_ = 0;
    std::uint64_t leftOut_ = 0;
    std::optional<std::int64_t> endMark_;
    std::uint64_t packetsAtEndMark_ = 0;
    std::string incomplete_ = "not read yet";
    std::map<std::string, std::int64_t, std::less<>> numbers_;
    std::map<std::string, std::string, std::less<>> texts_;
    std::map<std::uint64_t, std::uint64_t> clocks_;
    std::string kernelRelease_;
    std::string kernelVersion_;
    std::uint64_t cpus_ = 0;
    std::unordered_map<std::int32_t, ThreadName> threads_;
    std::unordered_map<std::int32_t, std::string> programs_;
    std::vector<Interned> interned_;
    std::unordered_map<std::uint64_t, std::size_t> tablesOfSequence_;  // index into the above
    std::size_t internedEntries_ = 0;
    std::vector<StackSample> samples_;
};

}  // namespace quorvix::report
