#include "platform/linux/CounterExport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <set>
#include <string_view>

#include "platform/Result.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/Utf8.h"

namespace quorvix::linuxos {

namespace {

constexpr const char* kFileName = "quorvix.prom";
// The collector reads names that end in .prom only.
constexpr const char* kTemporaryName = "quorvix.prom.new";
constexpr std::size_t kFlushAt = std::size_t{64} * 1024;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr double kMillisecondsPerSecond = 1000;

std::string number(double value) {
    char digits[32];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// A bucket's bound in seconds, as both formats write it: with a point.
std::string bound(double milliseconds) {
    std::string text = number(milliseconds / kMillisecondsPerSecond);
    if (text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

std::string labelValue(std::string_view text) {
    std::string value;
    for (const char character : withReplacementCharacters(text)) {
        switch (character) {
            case '\\': value += "\\\\"; break;
            case '"': value += "\\\""; break;
            case '\n': value += "\\n"; break;
            case '\0': value += kReplacement; break;
            default: value += character;
        }
    }
    return value;
}

// One distribution's key, taken apart: "<prefix><hang name>.<process name>".
struct HangKey {
    std::string_view hang;
    std::string_view process;
};

std::optional<HangKey> readHangKey(std::string_view key, std::string_view process) {
    if (!key.starts_with(kCounterPrefix) || !key.ends_with(process)) return std::nullopt;
    std::string_view hang = key.substr(kCounterPrefix.size());
    if (hang.size() <= process.size()) return std::nullopt;
    hang.remove_suffix(process.size());
    if (!hang.ends_with('.')) return std::nullopt;
    hang.remove_suffix(1);
    return HangKey{hang, process};
}

// Collects text and writes it out in pieces, so that thousands of series need no memory at once.
class MetricsFile {
public:
    explicit MetricsFile(int descriptor) : descriptor_(descriptor) {}

    // Begins a metric: all its series follow before the next metric's. No type: an OpenMetrics counter and one of the
    // older format differ in the name that carries the type, and untyped is the same in both.
    void family(std::string_view name, std::string_view help, std::string_view type = {}) {
        written_.clear();
        text_ += "# HELP " + std::string(name) + " " + std::string(help) + "\n";
        if (!type.empty()) text_ += "# TYPE " + std::string(name) + " " + std::string(type) + "\n";
    }

    // Different bytes may become the same label once they are made text, and a series given twice spoils the whole
    // file: the second is left out.
    bool isNew(const std::string& labels) {
        if (labels.find(kReplacement) == std::string::npos || written_.insert(labels).second) return true;
        ++leftOut_;
        return false;
    }
    void leaveOut() { ++leftOut_; }
    std::uint64_t leftOut() const { return leftOut_; }

    void series(std::string_view name, const std::string& labels, const std::string& value) {
        text_ += name;
        if (!labels.empty()) text_ += "{" + labels + "}";
        text_ += " " + value + "\n";
        if (text_.size() >= kFlushAt) flush();
    }

    // 0, or the first error.
    int finish() {
        text_ += "# EOF\n";
        flush();
        return error_;
    }

private:
    void flush() {
        std::string_view rest = text_;
        while (error_ == 0 && !rest.empty()) {
            const ssize_t count = ::write(descriptor_, rest.data(), rest.size());
            if (count >= 0) {
                rest.remove_prefix(static_cast<std::size_t>(count));
            } else if (errno != EINTR) {
                error_ = errno;
            }
        }
        text_.clear();
    }

    int descriptor_;
    std::string text_;
    std::set<std::string> written_;
    std::uint64_t leftOut_ = 0;
    int error_ = 0;
};

std::string hangLabels(const HangKey& key) {
    return "hang=\"" + labelValue(key.hang) + "\",process=\"" + labelValue(key.process) + "\"";
}

void writeHistogram(MetricsFile& file, const std::string& labels, const Distribution& distribution) {
    std::uint64_t upTo = 0;
    for (std::size_t index = 0; index < kBucketCount; ++index) {
        upTo += distribution.buckets[index];
        const std::string le = index < kBucketBounds.size() ? bound(kBucketBounds[index]) : "+Inf";
        file.series("quorvix_hang_duration_seconds_bucket", labels + ",le=\"" + le + "\"", std::to_string(upTo));
    }
    file.series("quorvix_hang_duration_seconds_sum", labels, number(distribution.sum / kMillisecondsPerSecond));
    file.series("quorvix_hang_duration_seconds_count", labels, std::to_string(distribution.count));
}

CounterDatabase::Failure writeDistributions(CounterDatabase& database, MetricsFile& file) {
    file.family("quorvix_hang_duration_seconds", "Durations of hangs by kind of work and process.", "histogram");
    const auto histograms = database.readDistributions(
        [&](std::string_view key, std::string_view process, const Distribution& distribution) {
            const auto hang = readHangKey(key, process);
            if (!hang) return file.leaveOut();
            const std::string labels = hangLabels(*hang);
            if (file.isNew(labels)) writeHistogram(file, labels, distribution);
        });
    if (histograms) return histograms;
    file.family("quorvix_hang_duration_longest_seconds", "The longest hang by kind of work and process.", "gauge");
    return database.readDistributions(
        [&](std::string_view key, std::string_view process, const Distribution& distribution) {
            const auto hang = readHangKey(key, process);
            if (!hang) return;
            const std::string labels = hangLabels(*hang);
            if (!file.isNew(labels)) return;
            file.series("quorvix_hang_duration_longest_seconds", labels,
                        number(distribution.maximum / kMillisecondsPerSecond));
        });
}

// The scalars of one metric, each with its labels; nothing: the key belongs to another metric.
using LabelsOf = std::optional<std::string> (*)(std::string_view key);

struct ScalarFamily {
    const char* name;
    const char* help;
    const char* type;
    LabelsOf labelsOf;
};

std::optional<std::string> processLabels(std::string_view key, std::string_view prefix, const char* limit) {
    if (!key.starts_with(prefix)) return std::nullopt;
    return "limit=\"" + std::string(limit) + "\",process=\"" + labelValue(key.substr(prefix.size())) + "\"";
}

std::optional<std::string> missedByProcess(std::string_view key) {
    if (isFixedCounter(CounterKind::scalar, key)) return std::nullopt;
    if (auto labels = processLabels(key, kProcessLimitPrefix, "process")) return labels;
    return processLabels(key, kGlobalLimitPrefix, "device");
}

constexpr ScalarFamily kScalarFamilies[] = {
    {"quorvix_fence_hangs_total", "Fence hangs.", "",
     [](std::string_view key) { return key == kFenceHangKey ? std::optional<std::string>("") : std::nullopt; }},
    {"quorvix_reports_missed_total", "Reports that were not written because a limit was reached.", "",
     [](std::string_view key) -> std::optional<std::string> {
         if (key == kProcessLimitTotalKey) return "limit=\"process\"";
         if (key == kGlobalLimitTotalKey) return "limit=\"device\"";
         return std::nullopt;
     }},
    {"quorvix_process_reports_missed_total", "Reports of a process that were not written because a limit was reached.",
     "", missedByProcess},
    {"quorvix_reports_at_daily_reset", "Reports written in the day before the last daily reset.", "gauge",
     [](std::string_view key) { return key == kDailyResetKey ? std::optional<std::string>("") : std::nullopt; }},
    {"quorvix_other_scalar", "A counter that belongs to none of the above, by its key.", "gauge",
     [](std::string_view key) -> std::optional<std::string> {
         if (isFixedCounter(CounterKind::scalar, key) || missedByProcess(key)) return std::nullopt;
         return "key=\"" + labelValue(key) + "\"";
     }},
};

CounterDatabase::Failure writeScalars(CounterDatabase& database, MetricsFile& file) {
    for (const ScalarFamily& family : kScalarFamilies) {
        file.family(family.name, family.help, family.type);
        const auto failure = database.readScalars([&](std::string_view key, std::int64_t value) {
            const auto labels = family.labelsOf(key);
            if (labels && file.isNew(*labels)) file.series(family.name, *labels, std::to_string(value));
        });
        if (failure) return failure;
    }
    return std::nullopt;
}

void writeRefusals(MetricsFile& file, const CounterRefusals& refusals) {
    constexpr const char* kName = "quorvix_refused_changes_total";
    file.family(kName, "Counter changes since the daemon's start that were not kept, by reason.");
    const auto series = [&](const char* reason, CounterRefusal refusal) {
        file.series(kName, "reason=\"" + std::string(reason) + "\"", std::to_string(refusals.of(refusal)));
    };
    series("table_full", CounterRefusal::tableFull);
    series("process_full", CounterRefusal::processFull);
    series("key_too_long", CounterRefusal::keyTooLong);
    series("not_finite", CounterRefusal::notFinite);
}

}  // namespace

std::optional<std::string> CounterExport::write(CounterDatabase& database, const CounterRefusals& refusals) {
    const Descriptor folder(open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return errno == ENOENT ? std::nullopt : std::optional(ErrorCode{errno}.text());
    // What an earlier run left, or someone else put there; it is never written through.
    unlinkat(folder.get(), kTemporaryName, 0);
    Descriptor temporary(
        openat(folder.get(), kTemporaryName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!temporary) return ErrorCode{errno}.text();
    // The collector runs as another user, whatever the daemon's umask.
    fchmod(temporary.get(), 0644);
    MetricsFile file(temporary.get());
    auto failure = writeDistributions(database, file);
    if (!failure) failure = writeScalars(database, file);
    writeRefusals(file, refusals);
    file.family("quorvix_series_left_out", "Counters that could not be shown in this file.", "gauge");
    file.series("quorvix_series_left_out", "", std::to_string(file.leftOut()));
    if (const int error = file.finish(); error != 0 && !failure) failure = ErrorCode{error}.text();
    if (!failure && renameat(folder.get(), kTemporaryName, folder.get(), kFileName) != 0) {
        failure = ErrorCode{errno}.text();
    }
    if (failure) unlinkat(folder.get(), kTemporaryName, 0);
    return failure;
}

}  // namespace quorvix::linuxos
