#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "swivex/Stacks.h"

namespace quorvix::swivex::stacks {

// Memory that the worker and its caller share: the worker appends records, each of which counts from the moment that it
// is complete. What a worker that was killed had found is there all the same, and nobody waits for a pipe.
class RecordRegion {
public:
    RecordRegion();
    ~RecordRegion();
    RecordRegion(const RecordRegion&) = delete;
    RecordRegion& operator=(const RecordRegion&) = delete;

    bool isMapped() const { return header_ != nullptr; }
    // False: there is no place left.
    bool append(std::span<const std::byte> record);
    // What is complete by now; a copy, since the other side may be anything by now, still writing included.
    std::vector<std::byte> published() const;

private:
    struct Header {
        std::atomic<std::uint64_t> bytes;
    };

    Header* header_ = nullptr;
};

// The worker's side. A thread's record comes first with what is known without its files, frames replace it later.
class CaptureWriter {
public:
    explicit CaptureWriter(RecordRegion& region) : region_(region) {}

    // Of the capture all but the modules and the threads.
    void writeSummary(const StackCapture& capture);
    void writeModule(const Module& module);
    void writeThread(std::uint32_t number, const ThreadStack& thread);
    // The user frames and the problem of a thread that was written before.
    void writeFrames(std::uint32_t number, const ThreadStack& thread);
    void writeEnd();

private:
    RecordRegion& region_;
};

struct ReadCapture {
    StackCapture capture;
    bool isComplete = false;
};

// The caller's side: whatever the bytes are, what is given back is consistent. Reading ends at the first record that is
// not understood.
ReadCapture readCapture(std::span<const std::byte> records);

}  // namespace quorvix::swivex::stacks
