#include <algorithm>
#include <cstring>
#include <utility>

#include "simulate/Model.h"
#include "simulate/ObservedPlatform.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kFenceHang = "Fence-hang";
constexpr std::string_view kCounters = "com.norvane.quorvix.";
constexpr const char* kTemporaryFolder = "/var/root/Library/Caches/quorvixd/tmp";
constexpr const char* kSpoolFolder = "/var/root/Library/Caches/quorvixd/spool";

// Reading past the pages of a region faults.
template <class T>
bool readAt(const ModelRegion& region, std::uint64_t offset, T& value) {
    if (offset + sizeof(T) > region.bytes.size()) return false;
    std::memcpy(&value, region.bytes.data() + offset, sizeof(T));
    return true;
}

std::string quoted(const std::string& text, bool shortEscapes) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        static constexpr std::string_view kShort = "\b\f\n\r\t", kLetters = "bfnrt";
        const std::size_t known = kShort.find(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (known != std::string_view::npos && (shortEscapes || c == '\n')) {
            out += '\\';
            out += kLetters[known];
        } else if (byte < 0x20) {
            out += print("\\u%04x", byte);
        } else {
            out += c;
        }
    }
    return out + '"';
}

}  // namespace

Model::ProcessPointer Model::processFor(std::int32_t pid) const {
    for (const ProcessPointer& process : watched_) {
        if (process->pid == pid) return process;
    }
    return nullptr;
}

std::uint64_t Model::mappingsHeld() const {
    std::uint64_t held = watched_.size();
    for (const ProcessPointer& captured : captured_) held += std::ranges::find(watched_, captured) == watched_.end();
    return held;
}

Model::ProcessPointer Model::startWatchingPid(std::int32_t pid, const std::shared_ptr<ModelRegion>& region,
                                              std::uint64_t mapping) {
    if (const ProcessPointer known = processFor(pid)) {
        log(print("WARNING: %s(%d) was already being watched.", known->name.c_str(), known->pid));
        return nullptr;
    }
    const Record asked = replay_.question(Op::executablePath, std::to_string(pid));
    if (asked.error.value != 0) {
        log("Unable to identify process name of pid 0");
        return nullptr;
    }
    std::string path = device_.paths[pid].substr(0, 4096);
    path = path.substr(0, path.find('\0'));
    for (char& c : path) {
        if (c < 0x20 || c == 0x7F) c = '~';
    }
    if (region->length < 2088) {
        log(print("Shared memory region smaller than expected: %zu < %zu", std::size_t{region->length},
                  std::size_t{2088}));
        return nullptr;
    }
    // A region that faults is refused without a word of the given ones.
    if (replay_.takeNumbered(Op::regionFault, mapping)) return nullptr;
    std::uint32_t version = 0;
    if (!readAt(*region, 0, version) || version != 4) {
        log(print("Client is not vending the current protocol version: %u", version));
        return nullptr;
    }
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.ends_with('/')) trimmed.pop_back();
    std::string name = trimmed.substr(trimmed.rfind('/') == std::string::npos ? 0 : trimmed.rfind('/') + 1);
    if (name.empty()) name = trimmed.empty() ? "[Unknown]" : trimmed;
    const auto process = std::make_shared<Process>(
        Process{.pid = pid, .path = path, .name = name, .region = region, .mapping = mapping});
    info(print("New proc: %s(%u)", path.c_str(), static_cast<std::uint32_t>(pid)));
    watched_.push_back(process);
    return process;
}

// The last reference to a record that left the registry goes, unless a capture holds it.
void Model::release(ProcessPointer& process) {
    const bool captured = std::ranges::find(captured_, process) != captured_.end();
    const bool registered = std::ranges::find(watched_, process) != watched_.end();
    if (!captured && !registered) debug("dealloc for " + process->name);
}

void Model::stopWatchingPid(std::int32_t pid) {
    const auto found = std::ranges::find_if(watched_, [&](const auto& process) { return process->pid == pid; });
    if (found == watched_.end()) return;
    ProcessPointer process = *found;
    watched_.erase(found);
    release(process);
}

void Model::stopWatchingAll() {
    for (ProcessPointer& process : std::exchange(watched_, {})) release(process);
}

// --- the check -----------------------------------------------------------------------------------------------------

void Model::hangCheckTick() {
    const std::uint64_t now = ticks();
    if (now - lastRefill_ > reportPeriod_ / 4) {
        std::map<std::string, std::uint32_t> left;
        for (std::size_t names = appCredits_.size(); names > 0; --names) {
            // The table has no order of its own: the daemon's is taken.
            const Record line = replay_.expectAny(Op::logLine);
            const auto found = std::ranges::find_if(appCredits_, [&](const auto& entry) {
                return line.what == print("I:%s credits increased to: %u", entry.first.c_str(), entry.second + 1);
            });
            if (found == appCredits_.end()) {
                throw Mismatch{"expected a line for each of the apps without all credits, got \"" + line.what + "\""};
            }
            if (found->second + 1 != 4) left[found->first] = found->second + 1;
            appCredits_.erase(found);
        }
        appCredits_ = std::move(left);
        lastRefill_ = now;
    }
    if (dayStart_ == 0 || now - dayStart_ >= 2073600000001u) {
        if (dayStart_ != 0) {
            replay_.expect(Op::counterSet, print("%sQXLogsGeneratedAtDailyReset %lld", kCounters.data(),
                                                 static_cast<long long>(maxDailyLogs_) - dailyLogCredits_));
            info(print("Hang Logs Daily Credits reset from %i to %i", dailyLogCredits_, maxDailyLogs_));
            dailyLogCredits_ = maxDailyLogs_;
            reportsSinceReset_ = lateReportsSinceReset_ = 0;
        }
        dayStart_ = now;
    }
    std::vector<ProcessPointer> dropped;
    for (const ProcessPointer& process : std::vector<ProcessPointer>(watched_)) {
        if (!checkProcess(process, now)) dropped.push_back(process);
    }
    for (ProcessPointer& process : dropped) {
        std::erase(watched_, process);
        release(process);
    }
}

bool Model::checkProcess(const ProcessPointer& process, std::uint64_t now) {
    const auto fault = replay_.takeNumbered(Op::regionFault, process->mapping);
    // Planned: the access did not take place.
    if (fault && fault->error.value != 0) return false;
    ModelRegion& region = *process->region;
    std::uint32_t slotCount = 0;
    for (std::uint64_t i = 0;; ++i) {
        if (!readAt(region, 4, slotCount)) break;
        if (i >= slotCount) {
            if (fault) break;
            return true;
        }
        const std::uint64_t slot = 8 + 104 * i;
        std::uint32_t inactive = 0, save = 0;
        std::uint64_t start = 0, thread = 0;
        if (!readAt(region, slot + 16, inactive) && fault) return false;
        if (inactive != 0) continue;
        if (slot + 24 > region.bytes.size()) break;
        readAt(region, slot, start);
        const double elapsed = msPerTick_ * (static_cast<double>(now) - static_cast<double>(start));
        if (!(elapsed > 5000.0)) continue;
        std::memset(region.bytes.data() + slot, 0xFF, 8);
        if (!readAt(region, slot + 20, save) || !readAt(region, slot + 32, thread)) {
            if (fault) return false;
            break;
        }
        if (fault) break;
        std::string name;
        for (std::uint64_t at = slot + 40; at < region.length && name.size() < 4096; ++at) {
            const char c = static_cast<char>(region.bytes[at]);
            if (c == '\0') break;
            name += c;
        }
        recordHang(process, {.name = name, .thread = thread, .start = start, .end = now}, save != 0);
        return true;
    }
    throw Mismatch{print(fault ? "the check of pid %d faulted without a reason"
                               : "the region of pid %d ends before its slots do, and the daemon did not notice",
                         process->pid)};
}

// --- the policy ----------------------------------------------------------------------------------------------------

void Model::recordHang(const ProcessPointer& process, const Hang& hang, bool save) {
    const char* const app = process->name.c_str();
    const double durationMs = static_cast<double>(hang.end - hang.start) * msPerTick_;
    const double seconds = durationMs / 1000.0;
    const bool isFence = hang.name == kFenceHang;
    info(print("%s: Hang detected %.2fs (%s)", app, seconds, hang.name.c_str()));
    setDisplay(print("HANG:%s %.10s %.2fs", hang.name.c_str(), app, seconds));
    later(QueueName::daemon, 2s, [this] { setDisplay(std::nullopt); });
    if (isFence) {
        replay_.expect(Op::counterAdd, std::string(kCounters) + "QXLogsFenceHang.PreSwivex 1");
    } else {
        replay_.expect(Op::counterPush, print("%s%s.%s %.17g", kCounters.data(), hang.name.c_str(), app, durationMs));
    }
    if (!save) return;
    if (!swivex_) return log(print("%s: Quorvix swivex support is disabled, not saving a report!", app));
    if (!traceLibraryUsable()) {
        return log(print("%s: Tried to save swivex, but swivex support is not present on this device!", app));
    }
    const auto credits = appCredits_.find(process->name);
    const auto missed = [&](const char* limit) {
        replay_.expect(Op::counterAdd, print("%sQXLogsMissedDueTo%s.Total 1", kCounters.data(), limit));
        replay_.expect(Op::counterAdd, print("%sQXLogsMissedDueTo%s.%s 1", kCounters.data(), limit, app));
    };
    if (credits != appCredits_.end() && credits->second == 0) {
        log(print("%s is out of credits. Not saving a report!", app));
        return missed("ProcessLimit");
    }
    if (dailyLogCredits_ <= 0) {
        log(print("Device is out of Daily Log credits, hit the Daily Log limit of %u. Not saving a report!",
                  static_cast<std::uint32_t>(maxDailyLogs_)));
        return missed("GlobalLimit");
    }
    const std::string reason = print("%s-%s: timeout %.0fms", hang.name.c_str(), app, durationMs);
    if (!isFence) {
        if (saveReport(*process, hang, reason)) deductCredits(*process);
        return;
    }
    if (fenceCapturePending_) {
        return log(print("%s: Fence-hang, but waiting for FenceHangCapture - not saving another report!", app));
    }
    fenceCapturePending_ = true;
    captured_.push_back(process);
    later(QueueName::daemon, 1s, [this, process, hang, reason] {
        if (saveReport(*process, hang, reason)) {
            if (dailyLogCredits_ <= 0) ++lateReportsSinceReset_;
            deductCredits(*process);
        }
        fenceCapturePending_ = false;
        captured_.erase(std::ranges::find(captured_, process));
        ProcessPointer held = process;
        release(held);
    });
}

void Model::setDisplay(const std::optional<std::string>& text) {
    if (!internalBuild_ || !hud_) return;
    const Record port = replay_.expect(Op::hudPort, "");
    if (port.number == 0) return log("Unable to get render server port!");
    if (text) {
        const std::string shown = text->substr(0, 99);
        info("Setting message to: \"" + shown + "\"");
        replay_.expect(Op::hudMessage, "\"" + shown + "\"");
    } else {
        replay_.expect(Op::hudMessage, "none");
    }
    replay_.expect(Op::hudRelease, "");
}

bool Model::traceLibraryUsable() {
    if (!traceLibrary_) {
        const bool present = device_.traceLibrary && !replay_.leftOut(Op::libraryOpen);
        traceLibrary_ = present && device_.traceFunction && !replay_.leftOut(Op::dumpFunction);
        if (!present) log("libswivex.dylib is not present.");
    }
    return *traceLibrary_;
}

bool Model::saveReport(const Process& process, const Hang& hang, const std::string& reason) {
    const char* const app = process.name.c_str();
    const std::string name = print("%s-%s-%s.swivex", hang.name.c_str(), app, stamp().c_str());
    const std::string temporary = print("%s/%s", kTemporaryFolder, name.c_str());
    const std::string located = print("%s|%s", kTemporaryFolder, name.c_str());
    info(print("%s: Attempting to save swivex at %s", app, temporary.c_str()));
    const Record created = replay_.expect(Op::createFile, located + " 420 4");
    if (created.error.value != 0) {
        log(print("%s: Could not create file - won't take a swivex: %s %s", app, temporary.c_str(),
                  created.error.text().c_str()));
        return false;
    }
    const auto object = [&](bool shortEscapes) {
        return print(
            "{\"Reason\":%s,\"ServiceName\":%s,\"ProcessPath\":%s,\"PID\":%d,\"ThreadID\":%lld,"
            "\"StartTime\":%lld,\"EndTime\":%lld}",
            quoted(reason, shortEscapes).c_str(), quoted(hang.name, shortEscapes).c_str(),
            quoted(process.path, shortEscapes).c_str(), process.pid, static_cast<long long>(hang.thread),
            static_cast<long long>(hang.start), static_cast<long long>(hang.end));
    };
    const Record serialised = replay_.question(Op::serialise, "");
    if (serialised.error.value != 0) {
        log(print("%s: Unable to serialize Info Dict into JSON: %s - %s\n", app, object(false).c_str(),
                  serialised.error.text().c_str()));
        replay_.expect(Op::unlinkFile, located);
        replay_.expect(Op::closeFile, name);
        return false;
    }
    if (replay_.question(Op::makeText, "").error.value != 0) {
        log(print("%s: Unable to create UTF8 string from JSON: %s\n", app, object(false).c_str()));
        replay_.expect(Op::unlinkFile, located);
        replay_.expect(Op::closeFile, name);
        return false;
    }
    // By key: the options have no order of their own.
    const Record dumped = replay_.expectAny(Op::dump);
    std::string wanted =
        print("maximum=%llu minimum=%llu no-symbols=yes reason=%s", static_cast<unsigned long long>(hang.end),
              static_cast<unsigned long long>(hang.start), object(true).c_str());
    if (dumped.what != wanted) throw Mismatch{"expected a dump of " + wanted + ", got " + dumped.what};
    replay_.expect(Op::closeFile, name);
    if (dumped.error.value != 0) {
        log(print("%s: Unable to save swivex data to file.\n", app));
        replay_.expect(Op::unlinkFile, located);
        return false;
    }
    info(print("%s: Moving swivex to spool: %s/%s\n", app, kSpoolFolder, name.c_str()));
    const Record moved = replay_.expect(Op::moveFile, located + " -> " + kSpoolFolder + "|" + name);
    if (moved.error.value != 0) {
        log(print("%s: Unable to move swivex to final path: %s", app, moved.error.text().c_str()));
        replay_.expect(Op::unlinkFile, located);
    }
    return true;
}

// --- credits -------------------------------------------------------------------------------------------------------

void Model::deductCredits(const Process& process) {
    const auto found = appCredits_.find(process.name);
    const std::uint32_t current = found == appCredits_.end() ? 4 : found->second;
    const std::uint32_t left = current == 0 ? 0 : current - 1;
    info(print("%s Log credits: %u -> %u", process.name.c_str(), current, left));
    appCredits_[process.name] = left;
    info(print("Daily Log credits: %i -> %i", dailyLogCredits_, dailyLogCredits_ - 1));
    --dailyLogCredits_;
    ++reportsSinceReset_;
}

void Model::setMaxDailyLogs(std::int32_t limit) {
    info(print("Max Daily Log Limit: %i -> %i", maxDailyLogs_, limit));
    // Sums of 32 bits wrap.
    const auto credits =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(limit) - (static_cast<std::uint32_t>(maxDailyLogs_) -
                                                                       static_cast<std::uint32_t>(dailyLogCredits_)));
    info(print("Daily Log credits: %i -> %i", dailyLogCredits_, credits));
    maxDailyLogs_ = limit;
    dailyLogCredits_ = credits;
}

}  // namespace quorvix::simulate
