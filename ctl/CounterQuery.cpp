#include "ctl/CounterQuery.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <stdexcept>

#include "ctl/Printable.h"
#include "ctl/TextTable.h"
#include "platform/Result.h"
#include "platform/TextFormat.h"
#include "platform/linux/CounterKeys.h"
#include "platform/linux/Sqlite.h"
#include "platform/linux/Utf8.h"

namespace quorvix::ctl {

namespace {

constexpr std::int64_t kStoreVersion = 1;
constexpr const char* kChanged = "strftime('%Y-%m-%dT%H:%M:%SZ', changed, 'unixepoch')";

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + 32) : character;
}

bool holds(std::string_view key, std::string_view filter) {
    return std::search(key.begin(), key.end(), filter.begin(), filter.end(),
                       [](char a, char b) { return lower(a) == lower(b); }) != key.end();
}

// All keys begin with the same words, which tell an operator nothing.
std::string shownKey(std::string_view key) {
    if (key.starts_with(linuxos::kCounterPrefix)) key.remove_prefix(linuxos::kCounterPrefix.size());
    return printable(key);
}

std::string bucketColumns() {
    std::string columns;
    for (const double bound : linuxos::kBucketBounds)
        columns += ", le_" + std::to_string(static_cast<std::int64_t>(bound));
    return columns + ", le_inf";
}

std::string milliseconds(double value) { return formatText("%.0f", value); }

void checkStore(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) throw std::runtime_error("nothing was counted yet (there is no " + path + ")");
        throw std::runtime_error(path + ": " + ErrorCode{errno}.text());
    }
    // Opening a pipe would wait for its other end for ever.
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + " is no plain file");
    if (access(path.c_str(), R_OK) != 0) throw std::runtime_error(path + ": " + ErrorCode{errno}.text());
}

}  // namespace

double percentileOf(const linuxos::Distribution& durations, double p) {
    if (durations.count == 0) return 0;
    const double rank = std::max(1.0, std::ceil(p * static_cast<double>(durations.count)));
    std::uint64_t upTo = 0;
    for (std::size_t index = 0; index < linuxos::kBucketBounds.size(); ++index) {
        upTo += durations.buckets[index];
        if (static_cast<double>(upTo) >= rank) return std::min(linuxos::kBucketBounds[index], durations.maximum);
    }
    return durations.maximum;
}

std::string CounterList::table() const {
    std::string out = "hangs, in milliseconds (" + std::to_string(hangs.size()) + ")\n";
    std::vector<TextRow> rows{{"name.process", "count", "mean", "p50<=", "p95<=", "longest", "changed"}};
    for (const Hangs& entry : hangs) {
        const linuxos::Distribution& durations = entry.durations;
        const double mean = durations.count ? durations.sum / static_cast<double>(durations.count) : 0;
        rows.push_back({shownKey(entry.key), std::to_string(durations.count), milliseconds(mean),
                        milliseconds(percentileOf(durations, 0.5)), milliseconds(percentileOf(durations, 0.95)),
                        milliseconds(durations.maximum), entry.changed});
    }
    appendTable(out, hangs.empty() ? std::vector<TextRow>{{"none"}} : rows);
    out += "\ncounts (" + std::to_string(scalars.size()) + ")\n";
    rows = {{"key", "value", "changed"}};
    for (const Scalar& scalar : scalars) {
        rows.push_back({shownKey(scalar.key), std::to_string(scalar.value), scalar.changed});
    }
    appendTable(out, scalars.empty() ? std::vector<TextRow>{{"none"}} : rows);
    return out;
}

nlohmann::ordered_json CounterList::json() const {
    using Json = nlohmann::ordered_json;
    Json all = {{"hangs", Json::array()}, {"scalars", Json::array()}};
    for (const Hangs& entry : hangs) {
        const linuxos::Distribution& durations = entry.durations;
        Json buckets = Json::array();
        for (std::size_t index = 0; index < linuxos::kBucketCount; ++index) {
            const bool last = index == linuxos::kBucketBounds.size();
            buckets.push_back(
                {{"upToMs", last ? Json() : Json(linuxos::kBucketBounds[index])}, {"count", durations.buckets[index]}});
        }
        all["hangs"].push_back({{"key", linuxos::withReplacementCharacters(entry.key)},
                                {"count", durations.count},
                                {"sumMs", durations.sum},
                                {"minimumMs", durations.minimum},
                                {"maximumMs", durations.maximum},
                                {"buckets", std::move(buckets)},
                                {"changed", entry.changed}});
    }
    for (const Scalar& scalar : scalars) {
        all["scalars"].push_back({{"key", linuxos::withReplacementCharacters(scalar.key)},
                                  {"value", scalar.value},
                                  {"changed", scalar.changed}});
    }
    return all;
}

CounterList readCounters(const std::string& path, const std::string& filter) {
    checkStore(path);
    linuxos::SqliteDatabase database(path, linuxos::SqliteDatabase::kBusyTimeout, linuxos::SqliteAccess::readOnly);
    const std::int64_t version = database.number("PRAGMA user_version");
    if (version != kStoreVersion) {
        throw std::runtime_error(path + " is of version " + std::to_string(version) + ", which this tool can't read");
    }
    CounterList list;
    linuxos::SqliteStatement scalars(database,
                                     "SELECT key, value, " + std::string(kChanged) + " FROM scalar ORDER BY key");
    while (scalars.step()) {
        const std::string key(scalars.bytes(0));
        if (holds(key, filter)) list.scalars.push_back({key, scalars.integer(1), std::string(scalars.bytes(2))});
    }
    linuxos::SqliteStatement hangs(database, "SELECT key, count, sum, minimum, maximum, " + std::string(kChanged) +
                                                 bucketColumns() + " FROM distribution ORDER BY key");
    while (hangs.step()) {
        CounterList::Hangs entry{
            .key = std::string(hangs.bytes(0)), .durations = {}, .changed = std::string(hangs.bytes(5))};
        if (!holds(entry.key, filter)) continue;
        entry.durations.count = static_cast<std::uint64_t>(hangs.integer(1));
        entry.durations.sum = hangs.real(2);
        entry.durations.minimum = hangs.real(3);
        entry.durations.maximum = hangs.real(4);
        for (std::size_t index = 0; index < linuxos::kBucketCount; ++index) {
            entry.durations.buckets[index] = static_cast<std::uint64_t>(hangs.integer(static_cast<int>(6 + index)));
        }
        list.hangs.push_back(std::move(entry));
    }
    return list;
}

}  // namespace quorvix::ctl
