#include "report/PacketFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace quorvix::report {

namespace {

using End = PacketScan::End;

constexpr std::uint8_t kPacketTag = 0x0a;  // field 1 of the file, length-delimited; a trace holds nothing else
constexpr std::uint32_t kCompressedPackets = 50;
constexpr std::uint32_t kZstdCompressedPackets = 133;

// The file as one piece after the other. Gives fewer bytes than asked only at its end.
class Source {
public:
    virtual ~Source() = default;
    // Negative: an error number.
    virtual std::int64_t read(std::uint8_t* into, std::size_t size) = 0;
};

class FileSource final : public Source {
public:
    explicit FileSource(int descriptor) : descriptor_(descriptor) {}
    std::int64_t read(std::uint8_t* into, std::size_t size) override {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t got = pread(descriptor_, into + done, size - done, offset_);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return -errno;
            if (got == 0) break;
            done += static_cast<std::size_t>(got);
            offset_ += got;
        }
        return static_cast<std::int64_t>(done);
    }

private:
    int descriptor_;
    off_t offset_ = 0;
};

class MemorySource final : public Source {
public:
    explicit MemorySource(Bytes bytes) : rest_(bytes) {}
    std::int64_t read(std::uint8_t* into, std::size_t size) override {
        const std::size_t taken = std::min(size, rest_.size());
        std::copy_n(rest_.begin(), taken, into);
        rest_ = rest_.subspan(taken);
        return static_cast<std::int64_t>(taken);
    }

private:
    Bytes rest_;
};

class Inflater {
public:
    Inflater() { ready_ = inflateInit(&stream_) == Z_OK; }
    ~Inflater() {
        if (ready_) inflateEnd(&stream_);
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // False: no whole zlib stream, bytes after it, or longer than the limit.
    bool inflateAll(Bytes packed, std::size_t limit, std::vector<std::uint8_t>& into) {
        constexpr std::size_t kStep = std::size_t{256} << 10;
        if (!ready_ || inflateReset(&stream_) != Z_OK) return false;
        // zlib does not write to its input; its interface merely lacks the const.
        stream_.next_in = const_cast<std::uint8_t*>(packed.data());
        stream_.avail_in = static_cast<uInt>(packed.size());
        into.clear();
        for (;;) {
            const std::size_t before = into.size();
            // One byte past the limit tells a stream that ends there from a longer one.
            const std::size_t room = std::min(kStep, limit + 1 - before);
            into.resize(before + room);
            stream_.next_out = into.data() + before;
            stream_.avail_out = static_cast<uInt>(room);
            const int status = inflate(&stream_, Z_NO_FLUSH);
            into.resize(into.size() - stream_.avail_out);
            if (into.size() > limit) return false;
            if (status == Z_STREAM_END) return stream_.avail_in == 0;
            if (status != Z_OK || (stream_.avail_in == 0 && stream_.avail_out != 0)) return false;
        }
    }

private:
    z_stream stream_{};
    bool ready_ = false;
};

class Scanner {
public:
    Scanner(Source& source, const PacketFile::Visitor& visit, const PacketLimits& limits)
        : source_(source), visit_(visit), limits_(limits) {}

    PacketScan run() {
        while (scan_.end == End::clean && fill(1)) takeRecord();
        return std::move(scan_);
    }

private:
    Bytes held() const { return Bytes(buffer_).subspan(start_, filled_ - start_); }

    // Reads until so many bytes are held. False: the file ends before.
    bool fill(std::size_t wanted) {
        constexpr std::size_t kReadStep = std::size_t{256} << 10;
        while (filled_ - start_ < wanted) {
            std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(start_),
                      buffer_.begin() + static_cast<std::ptrdiff_t>(filled_), buffer_.begin());
            filled_ -= std::exchange(start_, 0);
            if (buffer_.size() < filled_ + kReadStep) buffer_.resize(filled_ + kReadStep);
            const std::int64_t got = source_.read(buffer_.data() + filled_, kReadStep);
            if (got < 0) {
                finish(End::failed, std::strerror(static_cast<int>(-got)));
                return false;
            }
            if (got == 0) return false;
            filled_ += static_cast<std::size_t>(got);
        }
        return true;
    }

    void takeRecord() {
        constexpr std::size_t kLongestHeader = 11;
        // Fewer are there at the end of the file.
        fill(kLongestHeader);
        if (scan_.end != End::clean) return;
        Bytes rest = held();
        if (rest[0] != kPacketTag) return finish(End::damaged, "bytes that are no packet");
        rest = rest.subspan(1);
        std::uint64_t size = 0;
        if (!takeVarint(rest, size)) {
            if (rest.size() < kLongestHeader - 1) return finish(End::cut, "ends inside a packet");
            return finish(End::damaged, "a packet without a length");
        }
        if (size > limits_.packet) return finish(End::damaged, "a packet longer than any can be");
        const std::size_t header = held().size() - rest.size();
        if (!fill(header + size)) {
            if (scan_.end == End::clean) finish(End::cut, "ends inside a packet");
            return;
        }
        const Bytes packet = held().subspan(header, size);
        start_ += header + size;
        takePacket(packet);
    }

    void takePacket(Bytes packet) {
        Bytes compressed;
        switch (kindOf(packet, compressed)) {
            case Kind::plain: visit(packet); break;
            case Kind::compressed: takeCompressed(compressed); break;
            case Kind::foreign: finish(End::damaged, "a packet compressed in a way that is not known here"); break;
        }
    }

    void takeCompressed(Bytes compressed) {
        const std::uint64_t left = limits_.inflatedInAll - inflatedInAll_;
        const auto limit = static_cast<std::size_t>(std::min<std::uint64_t>(left, limits_.inflated));
        if (!inflater_.inflateAll(compressed, limit, inflated_)) {
            return finish(End::damaged, "a compressed packet that can't be unpacked");
        }
        inflatedInAll_ += inflated_.size();
        ProtoFields records(inflated_);
        ProtoField record;
        while (records.next(record)) {
            Bytes nested;
            if (record.number != 1 || record.kind != ProtoField::Kind::bytes ||
                kindOf(record.bytes, nested) != Kind::plain) {
                return finish(End::damaged, "a compressed packet that does not hold plain packets");
            }
            visit(record.bytes);
        }
        if (records.damaged()) finish(End::damaged, "a compressed packet that holds no whole packets");
    }

    enum class Kind { plain, compressed, foreign };
    static Kind kindOf(Bytes packet, Bytes& compressed) {
        ProtoFields fields(packet);
        ProtoField field;
        while (fields.next(field)) {
            if (field.number == kCompressedPackets && field.kind == ProtoField::Kind::bytes) {
                compressed = field.bytes;
                return Kind::compressed;
            }
            if (field.number == kZstdCompressedPackets) return Kind::foreign;
        }
        return Kind::plain;
    }

    void visit(Bytes packet) {
        ++scan_.packets;
        visit_(packet);
    }

    void finish(End end, const char* problem) {
        scan_.end = end;
        scan_.problem = problem;
    }

    Source& source_;
    const PacketFile::Visitor& visit_;
    const PacketLimits limits_;
    PacketScan scan_;
    std::vector<std::uint8_t> buffer_;
    std::size_t start_ = 0;
    std::size_t filled_ = 0;
    Inflater inflater_;
    std::vector<std::uint8_t> inflated_;
    std::uint64_t inflatedInAll_ = 0;
};

}  // namespace

Result<PacketFile> PacketFile::open(const std::string& path) {
    // Non-blocking: a pipe in the place of a report must not hold up the tool.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return ErrorCode{errno};
    struct stat about {};
    const int error = fstat(descriptor, &about) != 0 ? errno
                      : !S_ISREG(about.st_mode)      ? (S_ISDIR(about.st_mode) ? EISDIR : EINVAL)
                      : static_cast<std::uint64_t>(about.st_size) > kLongestFile ? EFBIG
                                                                                 : 0;
    if (error != 0) {
        close(descriptor);
        return ErrorCode{error};
    }
    return PacketFile(descriptor, static_cast<std::uint64_t>(about.st_size), about.st_mtim.tv_sec);
}

PacketFile::PacketFile(PacketFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      sizeBytes_(other.sizeBytes_),
      modifiedSeconds_(other.modifiedSeconds_) {}

PacketFile& PacketFile::operator=(PacketFile&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    std::swap(sizeBytes_, other.sizeBytes_);
    std::swap(modifiedSeconds_, other.modifiedSeconds_);
    return *this;
}

PacketFile::~PacketFile() {
    if (descriptor_ >= 0) close(descriptor_);
}

PacketScan PacketFile::scan(const Visitor& visit) const {
    FileSource source(descriptor_);
    return Scanner(source, visit, {}).run();
}

PacketScan scanPackets(Bytes file, const PacketFile::Visitor& visit, const PacketLimits& limits) {
    MemorySource source(file);
    return Scanner(source, visit, limits).run();
}

}  // namespace quorvix::report
