#include "swivex/TextRing.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "swivex/Descriptor.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10;
// A line that is longer is no event's.
constexpr std::size_t kLongestLine = std::size_t{16} << 10;
// Events between two looks at the clock.
constexpr std::size_t kStride = 1000;

}  // namespace

Outcome<std::unique_ptr<Ring>> TextRing::open(const TraceInstance& instance) {
    std::unique_ptr<TextRing> ring(new TextRing(instance));
    ring->cpus_ = instance.cpus();
    if (ring->cpus_.empty()) return Problem{"the instance has no rings"};
    return std::unique_ptr<Ring>(std::move(ring));
}

void TextRing::take(std::string_view line) {
    if (!parseRingLine(line, scratch_)) return;
    if (lines_.size() == kMostEvents) {
        lines_.pop_front();
        leftOut_ = true;
    }
    lines_.push_back({scratch_.event.timeNs, std::string(line)});
}

Outcome<RingHolding> TextRing::load(unsigned cpu, std::uint64_t, const Deadline& deadline) {
    lines_.clear();
    leftOut_ = false;
    RingHolding holding;
    const std::string path = instance_.cpuFile(cpu, "trace");
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return Problem{errorText(path, errno)};
    std::string text;  // lines that are not taken yet
    for (;;) {
        if (deadline.passed()) {
            holding.cutShort = true;
            break;
        }
        const std::size_t kept = text.size();
        text.resize(kept + kPiece);
        const ssize_t count = ::read(file.get(), text.data() + kept, kPiece);
        if (count < 0 && errno != EINTR) return Problem{errorText(path, errno)};
        text.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0) break;
        std::string_view rest = text;
        for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            take(rest.substr(0, end));
            rest.remove_prefix(end + 1);
        }
        text.erase(0, rest.size() > kLongestLine ? text.size() : text.size() - rest.size());
    }
    if (lines_.empty()) return holding;
    holding.empty = false;
    holding.oldestNs = lines_.front().timeNs;
    holding.newestNs = lines_.back().timeNs;
    holding.leftOut = leftOut_;
    parseRingLine(lines_.front().text, scratch_);
    holding.armedMark = scratch_.event.kind == EventKind::print && scratch_.text.starts_with(kArmedMark);
    return holding;
}

bool TextRing::visit(std::uint64_t fromNs, std::uint64_t toNs, const Deadline& deadline, const Visit& visit) {
    std::size_t seen = 0;
    for (const Line& line : lines_) {
        if (++seen % kStride == 0 && deadline.passed()) return false;
        if (line.timeNs > toNs) return true;
        if (line.timeNs >= fromNs && parseRingLine(line.text, scratch_)) visit(scratch_.view());
    }
    return true;
}

void TextRing::visitEarlier(std::uint64_t beforeNs, const Deadline& deadline, const Visit& visit,
                            const std::function<bool()>& endOfPiece) {
    // A piece is one event here.
    std::size_t seen = 0;
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
        if (line->timeNs >= beforeNs) continue;
        if (++seen % kStride == 0 && deadline.passed()) return;
        if (parseRingLine(line->text, scratch_)) visit(scratch_.view());
        if (endOfPiece()) return;
    }
}

}  // namespace quorvix::swivex
