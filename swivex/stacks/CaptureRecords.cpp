#include "swivex/stacks/CaptureRecords.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace quorvix::swivex::stacks {

namespace {

// Far more than the most threads with the most frames take. Only what is written takes memory.
constexpr std::size_t kRegionBytes = std::size_t{32} << 20;
constexpr std::size_t kMostModules = 4096;

enum class Kind : std::uint8_t { summary = 1, module, thread, frames, end };

// A record is its length in bytes, this field included, its kind and its fields: numbers as they stand in memory, texts
// and lists behind their length.
class Writer {
public:
    explicit Writer(Kind kind) : bytes_(sizeof(std::uint32_t)) { number(kind); }

    template <class Number>
    void number(Number value) {
        const std::size_t at = bytes_.size();
        bytes_.resize(at + sizeof value);
        std::memcpy(&bytes_[at], &value, sizeof value);
    }
    void text(std::string_view value) {
        number(static_cast<std::uint32_t>(value.size()));
        raw(value.data(), value.size());
    }
    void raw(const void* data, std::size_t size) {
        const auto* const begin = static_cast<const std::byte*>(data);
        bytes_.insert(bytes_.end(), begin, begin + size);
    }
    void frames(const ThreadStack& thread) {
        number(static_cast<std::uint32_t>(thread.user.size()));
        for (const UserFrame& frame : thread.user) {
            number(frame.pc);
            number(static_cast<std::int32_t>(frame.module));
        }
        text(thread.problem);
    }
    std::span<const std::byte> finish() {
        const auto size = static_cast<std::uint32_t>(bytes_.size());
        std::memcpy(bytes_.data(), &size, sizeof size);
        return bytes_;
    }

private:
    std::vector<std::byte> bytes_;
};

// Every read says whether there was enough; after the first that did not, none does.
class Reader {
public:
    explicit Reader(std::span<const std::byte> bytes) : bytes_(bytes) {}

    template <class Number>
    Number number() {
        Number value{};
        if (const std::byte* const from = take(sizeof value)) std::memcpy(&value, from, sizeof value);
        return value;
    }
    std::string text() {
        const auto size = number<std::uint32_t>();
        const std::byte* const from = take(size);
        return from ? std::string(reinterpret_cast<const char*>(from), size) : std::string();
    }
    // The next whole record without its length.
    Reader record() {
        const auto size = number<std::uint32_t>();
        if (size < sizeof size) isGood_ = false;
        const std::size_t rest = size - sizeof size;
        const std::byte* const from = take(rest);
        return Reader(from ? std::span(from, rest) : std::span<const std::byte>());
    }
    void fail() { isGood_ = false; }
    bool isGood() const { return isGood_; }
    bool isAtEnd() const { return bytes_.empty(); }

private:
    const std::byte* take(std::size_t size) {
        if (!isGood_ || size > bytes_.size()) {
            isGood_ = false;
            return nullptr;
        }
        const std::byte* const from = bytes_.data();
        bytes_ = bytes_.subspan(size);
        return from;
    }

    std::span<const std::byte> bytes_;
    bool isGood_ = true;
};

void readSummary(Reader& record, StackCapture& capture) {
    capture.problem = record.text();
    capture.kernelProblem = record.text();
    capture.zeroStopProblem = record.text();
    capture.threadsLeftOut = record.number<std::uint64_t>();
    capture.kernelTextStart = record.number<std::uint64_t>();
}

void readModule(Reader& record, StackCapture& capture) {
    Module module;
    module.start = record.number<std::uint64_t>();
    module.end = record.number<std::uint64_t>();
    module.fileOffset = record.number<std::uint64_t>();
    module.loadBias = record.number<std::int64_t>();
    module.loadBase = record.number<std::uint64_t>();
    module.path = record.text();
    const std::string buildId = record.text();
    module.buildId.assign(buildId.begin(), buildId.end());
    if (capture.modules.size() == kMostModules) record.fail();
    if (record.isGood()) capture.modules.push_back(std::move(module));
}

void readFrames(Reader& record, const StackCapture& capture, ThreadStack& thread) {
    std::vector<UserFrame> frames;
    const auto count = record.number<std::uint32_t>();
    if (count > kMostFrames) record.fail();
    for (std::uint32_t i = 0; i < count && record.isGood(); ++i) {
        UserFrame frame;
        frame.pc = record.number<std::uint64_t>();
        frame.module = record.number<std::int32_t>();
        if (frame.module < -1 || frame.module >= static_cast<int>(capture.modules.size())) record.fail();
        frames.push_back(frame);
    }
    std::string problem = record.text();
    if (!record.isGood()) return;
    thread.user = std::move(frames);
    thread.problem = std::move(problem);
}

void readThread(Reader& record, StackCapture& capture) {
    ThreadStack thread;
    const auto number = record.number<std::uint32_t>();
    thread.tid = record.number<std::int32_t>();
    thread.name = record.text();
    thread.state = record.number<char>();
    thread.stopped = record.number<std::uint8_t>() != 0;
    thread.stopTime = std::chrono::nanoseconds(record.number<std::int64_t>());
    const auto count = record.number<std::uint32_t>();
    if (count > kMostFrames || number != capture.threads.size() || number >= kMostStacks) record.fail();
    for (std::uint32_t i = 0; i < count && record.isGood(); ++i) {
        KernelFrame frame;
        frame.address = record.number<std::uint64_t>();
        frame.symbol = record.text();
        thread.kernel.push_back(std::move(frame));
    }
    readFrames(record, capture, thread);
    if (record.isGood()) capture.threads.push_back(std::move(thread));
}

}  // namespace

RecordRegion::RecordRegion() {
    void* const memory =
        ::mmap(nullptr, kRegionBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory != MAP_FAILED) header_ = new (memory) Header{};
}

RecordRegion::~RecordRegion() {
    if (header_) ::munmap(header_, kRegionBytes);
}

bool RecordRegion::append(std::span<const std::byte> record) {
    const std::uint64_t used = header_->bytes.load(std::memory_order_relaxed);
    if (record.size() > kRegionBytes - sizeof(Header) - used) return false;
    std::memcpy(reinterpret_cast<std::byte*>(header_ + 1) + used, record.data(), record.size());
    header_->bytes.store(used + record.size(), std::memory_order_release);
    return true;
}

std::vector<std::byte> RecordRegion::published() const {
    const auto used =
        std::min<std::uint64_t>(header_->bytes.load(std::memory_order_acquire), kRegionBytes - sizeof(Header));
    const auto* const begin = reinterpret_cast<const std::byte*>(header_ + 1);
    return {begin, begin + used};
}

void CaptureWriter::writeSummary(const StackCapture& capture) {
    Writer writer(Kind::summary);
    writer.text(capture.problem);
    writer.text(capture.kernelProblem);
    writer.text(capture.zeroStopProblem);
    writer.number(static_cast<std::uint64_t>(capture.threadsLeftOut));
    writer.number(capture.kernelTextStart);
    region_.append(writer.finish());
}

void CaptureWriter::writeModule(const Module& module) {
    Writer writer(Kind::module);
    writer.number(module.start);
    writer.number(module.end);
    writer.number(module.fileOffset);
    writer.number(module.loadBias);
    writer.number(module.loadBase);
    writer.text(module.path);
    writer.text({reinterpret_cast<const char*>(module.buildId.data()), module.buildId.size()});
    region_.append(writer.finish());
}

void CaptureWriter::writeThread(std::uint32_t number, const ThreadStack& thread) {
    Writer writer(Kind::thread);
    writer.number(number);
    writer.number(static_cast<std::int32_t>(thread.tid));
    writer.text(thread.name);
    writer.number(thread.state);
    writer.number(static_cast<std::uint8_t>(thread.stopped));
    writer.number(static_cast<std::int64_t>(thread.stopTime.count()));
    writer.number(static_cast<std::uint32_t>(thread.kernel.size()));
    for (const KernelFrame& frame : thread.kernel) {
        writer.number(frame.address);
        writer.text(frame.symbol);
    }
    writer.frames(thread);
    region_.append(writer.finish());
}

void CaptureWriter::writeFrames(std::uint32_t number, const ThreadStack& thread) {
    Writer writer(Kind::frames);
    writer.number(number);
    writer.frames(thread);
    region_.append(writer.finish());
}

void CaptureWriter::writeEnd() { region_.append(Writer(Kind::end).finish()); }

ReadCapture readCapture(std::span<const std::byte> records) {
    ReadCapture read;
    Reader all(records);
    while (all.isGood() && !all.isAtEnd() && !read.isComplete) {
        Reader record = all.record();
        switch (record.number<Kind>()) {
            case Kind::summary: readSummary(record, read.capture); break;
            case Kind::module: readModule(record, read.capture); break;
            case Kind::thread: readThread(record, read.capture); break;
            case Kind::frames: {
                const auto number = record.number<std::uint32_t>();
                if (number >= read.capture.threads.size()) {
                    record.fail();
                } else {
                    readFrames(record, read.capture, read.capture.threads[number]);
                }
                break;
            }
            case Kind::end: read.isComplete = record.isGood(); break;
            default: record.fail();
        }
        if (!record.isGood()) all.fail();
    }
    return read;
}

}  // namespace quorvix::swivex::stacks
