#include "swivex/Dump.h"

#include <time.h>

#include <algorithm>
#include <limits>
#include <map>
#include <random>

#include "swivex/Attributes.h"
#include "swivex/CommandLines.h"
#include "swivex/EventCapture.h"
#include "swivex/FileOutput.h"
#include "swivex/Freezer.h"
#include "swivex/KernelModules.h"
#include "swivex/PacketBuffer.h"
#include "swivex/ProcessList.h"
#include "swivex/ProcessPackets.h"
#include "swivex/ProcessText.h"
#include "swivex/Reason.h"
#include "swivex/Ring.h"
#include "swivex/SmallFile.h"
#include "swivex/StackPackets.h"
#include "swivex/Stacks.h"
#include "swivex/SystemFigures.h"

namespace quorvix::swivex {

namespace {

using std::chrono::milliseconds;

// What a dump that asks for no interval shows.
constexpr std::uint64_t kDefaultWindowNs = 10'000'000'000;
// Kept back for writing the file, whatever took long before.
constexpr milliseconds kWritingTime{300};
// Likewise for the recorder's events, however many processes there are to be listed before.
constexpr milliseconds kEventTime{500};

// The stacks' share of what there is, and the most that they get.
constexpr int kStackShare = 2;
constexpr milliseconds kStackTime{800};

// Likewise the command lines'.
constexpr int kCommandLineShare = 4;
constexpr milliseconds kCommandLineTime{200};

constexpr std::uint32_t kClockSnapshot = 6, kTrackEvent = 11, kTrackDescriptor = 60, kTraceUuid = 89;
constexpr std::uint64_t kHangTrack = 1;

std::uint64_t clockNs(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

ClockPair readClocks() { return {clockNs(CLOCK_MONOTONIC), clockNs(CLOCK_BOOTTIME), clockNs(CLOCK_REALTIME)}; }

// A tick is 125/3 ns. What is past the clock's end stays there.
std::uint64_t nsFromTicks(std::uint64_t ticks) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max() / 125;
    const std::uint64_t bounded = std::min(ticks, kMost);
    return bounded / 3 * 125 + bounded % 3 * 125 / 3;
}

// One dump, from its request to its file.
class Dumping {
public:
    Dumping(const DumpRequest& request, const DumpSettings& settings)
        : request_(request),
          settings_(settings),
          deadline_(Deadline::in(settings.budget)),
          clocks_(readClocks()),
          reason_(parseReason(request.reason)) {}

    bool run(int fd) {
        if (request_.minTicks > request_.maxTicks) return false;
        chooseWindow();
        noteReason();
        takeStacks(deadline_);
        noteFreezer();
        readProcesses(deadline_.before(kWritingTime + kEventTime));
        findHungThread();
        readEvents(deadline_.before(kWritingTime));
        writeTracks();
        writeProcessTree(body_, processes_, clocks_.monotonicNs);
        writeSystemFigures(body_, settings_.procFolder, attributes_, clocks_.monotonicNs);
        writeProcessStats(body_, processes_, clocks_.monotonicNs);
        body_.finish();
        writeFrame();
        return write(fd);
    }

private:
    void chooseWindow() {
        const std::uint64_t begin = nsFromTicks(request_.minTicks);
        const std::uint64_t end = nsFromTicks(request_.maxTicks);
        attributes_.set("asked_begin_ns", static_cast<std::int64_t>(begin));
        attributes_.set("asked_end_ns", static_cast<std::int64_t>(end));
        attributes_.set("dump_ns", static_cast<std::int64_t>(clocks_.monotonicNs));
        window_ = {begin, end, clocks_.monotonicNs};
        if (request_.maxTicks == 0) {
            attributes_.missing("window", "no interval was asked for: these are the last 10 s");
            window_.beginNs = clocks_.monotonicNs - std::min(clocks_.monotonicNs, kDefaultWindowNs);
            window_.endNs = clocks_.monotonicNs;
        } else if (begin > clocks_.monotonicNs) {
            attributes_.missing("window", "the interval that was asked for lies in the future");
        }
    }

    void noteReason() {
        if (!reason_.text.empty()) attributes_.set("reason", reason_.text);
        if (!reason_.problem.empty()) attributes_.missing("reason", reason_.problem);
    }

    // First of all: a hang may end at any moment.
    void takeStacks(const Deadline& deadline) {
        if (reason_.pid == 0) return attributes_.missing("stacks", "which process hung is not known");
        const Deadline own = Deadline::in(std::min(deadline.left() / kStackShare, kStackTime));
        const StackCapture capture = captureStacks(reason_.pid, own.at(), request_.names);
        if (!capture.problem.empty()) {
            attributes_.missing("stacks", capture.problem);
        } else if (capture.threads.empty()) {
            attributes_.missing("stacks", "process " + std::to_string(reason_.pid) + " has no threads");
        } else if (capture.threadsLeftOut > 0) {
            attributes_.missing("stacks", std::to_string(capture.threadsLeftOut) + " more threads are left out");
        }
        for (const ThreadStack& thread : capture.threads) {
            if (thread.state != '?') stateAtCapture_.emplace(thread.tid, thread.state);
        }
        if (!capture.kernelProblem.empty()) attributes_.missing("kernel_stacks", capture.kernelProblem);
        const auto modules = readSmallFile(settings_.procFolder + "/modules");
        writeStacks(body_, capture, modules ? KernelModules(*modules) : KernelModules(), reason_.pid,
                    readClocks().monotonicNs);
    }

    // Its threads sleep as any others do, and nothing but their group tells what for.
    void noteFreezer() {
        if (reason_.pid != 0 && isFrozen(settings_.procFolder, settings_.cgroupFolder, reason_.pid)) {
            attributes_.set("hung_frozen", 1);
        }
    }

    void readProcesses(const Deadline& deadline) {
        processes_ = listProcesses(settings_.procFolder, reason_.pid, deadline);
        if (!processes_.problem.empty()) attributes_.missing("process_tree", processes_.problem);
        const Deadline own = Deadline::in(std::min(deadline.left() / kCommandLineShare, kCommandLineTime));
        const std::string problem = readCommandLines(processes_, settings_.procFolder, own);
        if (!problem.empty()) attributes_.missing("command_lines", problem);
    }

    void findHungThread() {
        if (reason_.pid == 0) return;
        attributes_.set("hung_pid", std::int64_t{reason_.pid});
        const auto& all = processes_.processes;
        const auto found = std::ranges::find(all, reason_.pid, &ProcessEntry::pid);
        const std::string process = "process " + std::to_string(reason_.pid);
        if (found == all.end()) {
            const bool isGone = processes_.problem.empty();
            attributes_.missing("hung_process", process + (isGone ? " is gone" : " was not looked at"));
        } else {
            hungName_ = found->name;
            hungThread_ = hostThread(*found, reason_.threadID);
        }
        // It may have ended since its stack was taken.
        const auto named = static_cast<pid_t>(reason_.threadID);
        if (hungThread_ == 0 && named == reason_.threadID && stateAtCapture_.contains(named)) hungThread_ = named;
        if (hungThread_ == 0) {
            hungThread_ = reason_.pid;
            if (reason_.threadID != reason_.pid) {
                attributes_.missing("hung_thread", "thread " + std::to_string(reason_.threadID) + " of " + process +
                                                       " was not found: its first thread is taken");
            }
        }
        if (found != all.end()) {
            const auto thread = std::ranges::find(found->threads, hungThread_, &ThreadEntry::tid);
            if (thread != found->threads.end()) hungThreadName_ = thread->name;
        }
        attributes_.set("hung_tid", std::int64_t{hungThread_});
    }

    Outcome<std::unique_ptr<Ring>> openUsableRing() const {
        if (settings_.idsAreTheKernels) return openRing(settings_.recorder);
        return Problem{"in a process namespace of its own, whose ids are not those of the kernel's events"};
    }

    void readEvents(const Deadline& deadline) {
        const auto ring = openUsableRing();
        attributes_.set("recorder", ring ? std::string((*ring)->kind()) : std::string("none"));
        Captured captured;
        if (!ring) {
            attributes_.missing("recorder", ring.problem());
        } else {
            captured = captureEvents(**ring, settings_.recorder, {window_, hungThread_}, clocks_, body_, attributes_,
                                     deadline);
        }
        if (!captured.inTime) attributes_.missing("budget", "the time for the recorder's events was up");
        attributes_.set("covered_begin_ns", static_cast<std::int64_t>(captured.coveredBeginNs));
        attributes_.set("covered_end_ns", static_cast<std::int64_t>(captured.coveredEndNs));
        if (!captured.hungThreadSeen) noteState();
    }

    // A thread without an event in the window is still what it was before: where the recorder does not reach back to
    // that, the kernel says it. What it said when the stacks were taken comes first: by now the hang may be over.
    void noteState() {
        if (hungThread_ == 0 || attributes_.has("hung_left_state")) return;
        if (const auto known = stateAtCapture_.find(hungThread_); known != stateAtCapture_.end()) {
            attributes_.set("hung_left_state", std::string(1, known->second));
            return;
        }
        const std::string base = settings_.procFolder + "/" + std::to_string(reason_.pid) + "/task/";
        const auto text = readSmallFile(base + std::to_string(hungThread_) + "/stat");
        const auto stat = text ? parseStat(*text) : std::nullopt;
        if (stat) attributes_.set("hung_left_state", std::string(1, stat->state));
    }

    void writeTracks() {
        if (hungThread_ == 0 || window_.endNs < window_.beginNs) return;
        body_.packet(Sequence::tracks, packet::kStateCleared, window_.beginNs, [&](PacketWriter& writer) {
            writer.message(kTrackDescriptor, [&] {
                writer.number(1, kHangTrack);
                writer.message(4, [&] {
                    writer.signedNumber(1, reason_.pid);
                    writer.signedNumber(2, hungThread_);
                    if (!hungThreadName_.empty()) writer.text(5, hungThreadName_);
                });
            });
        });
        constexpr std::uint64_t kBegin = 1, kEnd = 2;
        body_.packet(Sequence::tracks, packet::kNeedsState, window_.beginNs, [&](PacketWriter& writer) {
            writer.message(kTrackEvent, [&] {
                writer.message(4, [&] {
                    writer.text(10, "reason");
                    writer.text(6, reason_.text);
                });
                writer.number(9, kBegin);
                writer.number(11, kHangTrack);
                writer.text(22, "hang");
                writer.text(23, "hang");
            });
        });
        body_.packet(Sequence::tracks, packet::kNeedsState, window_.endNs, [&](PacketWriter& writer) {
            writer.message(kTrackEvent, [&] {
                writer.number(9, kEnd);
                writer.number(11, kHangTrack);
            });
        });
    }

    void writeFrame() {
        const std::uint64_t now = clocks_.monotonicNs;
        frame_.packet(Sequence::frame, packet::kStateCleared, now, [&](PacketWriter& writer) {
            writer.message(kClockSnapshot, [&] {
                const auto clock = [&](std::uint64_t id, std::uint64_t ns) {
                    writer.message(1, [&] {
                        writer.number(1, id);
                        writer.number(2, ns);
                    });
                };
                clock(6, clocks_.bootNs);
                clock(packet::kMonotonicClock, now);
                clock(1, clocks_.realNs);
                writer.number(2, packet::kMonotonicClock);
            });
        });
        frame_.packet(Sequence::frame, 0, now, [&](PacketWriter& writer) {
            std::random_device device;
            const auto random = [&] { return (std::uint64_t{device()} << 32) | device(); };
            writer.message(kTraceUuid, [&] {
                writer.number(1, random());
                writer.number(2, random());
            });
        });
        writeSystemInfo(frame_, now);
        frame_.packet(Sequence::frame, 0, now, [&](PacketWriter& writer) { attributes_.write(writer); });
        frame_.finish();

        const std::uint64_t count = frame_.count() + body_.count() + 1;
        end_.packet(Sequence::frame, 0, now, [&](PacketWriter& writer) {
            Attributes end;
            end.set("end", static_cast<std::int64_t>(count));
            end.write(writer);
        });
        end_.finish();
    }

    bool write(int fd) const {
        // A little more than the budget: everything is there, and half a file is worth nothing.
        const Deadline last = Deadline::in(std::max(deadline_.left(), milliseconds(200)));
        return writeAll(fd, frame_.encoded(), last) && writeAll(fd, body_.encoded(), last) &&
               writeAll(fd, end_.encoded(), last);
    }

    const DumpRequest& request_;
    const DumpSettings& settings_;
    const Deadline deadline_;
    const ClockPair clocks_;
    const Reason reason_;

    Window window_;
    Attributes attributes_;
    std::map<pid_t, char> stateAtCapture_;
    ProcessList processes_;
    pid_t hungThread_ = 0;
    std::string hungName_;
    std::string hungThreadName_;
    PacketBuffer frame_{PacketBuffer::Form::plain};
    PacketBuffer body_{PacketBuffer::Form::compressed};
    PacketBuffer end_{PacketBuffer::Form::plain};
};

}  // namespace

bool dump(int fd, const DumpRequest& request, const DumpSettings& settings) {
    if (!isWritable(fd)) return false;
    return Dumping(request, settings).run(fd);
}

}  // namespace quorvix::swivex
