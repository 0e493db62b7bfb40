#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvix::linuxos {

// How counter keys are told apart and how many of them there may be. Keys hold names that clients choose.

inline constexpr std::string_view kCounterPrefix = "com.norvane.quorvix.";
inline constexpr std::string_view kFenceHangKey = "com.norvane.quorvix.QXLogsFenceHang.PreSwivex";
inline constexpr std::string_view kProcessLimitPrefix = "com.norvane.quorvix.QXLogsMissedDueToProcessLimit.";
inline constexpr std::string_view kGlobalLimitPrefix = "com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.";
inline constexpr std::string_view kProcessLimitTotalKey = "com.norvane.quorvix.QXLogsMissedDueToProcessLimit.Total";
inline constexpr std::string_view kGlobalLimitTotalKey = "com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.Total";
inline constexpr std::string_view kDailyResetKey = "com.norvane.quorvix.QXLogsGeneratedAtDailyReset";

// The scalars that no client chooses: room for them is kept whatever else is stored.
inline constexpr std::array<std::string_view, 4> kFixedCounterKeys = {kFenceHangKey, kProcessLimitTotalKey,
                                                                      kGlobalLimitTotalKey, kDailyResetKey};

// A scalar and a distribution of the same key are two keys.
inline constexpr std::size_t kMaximumCounterKeys = 4096;
inline constexpr std::size_t kMaximumChosenKeys = kMaximumCounterKeys - kFixedCounterKeys.size();
inline constexpr std::size_t kMaximumKeysOfProcess = 64;
inline constexpr std::size_t kMaximumKeyLength = 1024;

enum class CounterKind : std::uint8_t { scalar, distribution };

// Why a change was not kept.
enum class CounterRefusal : std::uint8_t { tableFull, processFull, keyTooLong, notFinite };
inline constexpr std::size_t kCounterRefusalCount = 4;

// Changes that were not kept, by reason.
struct CounterRefusals {
    std::array<std::uint64_t, kCounterRefusalCount> counts{};

    void add(CounterRefusal reason) { ++counts[static_cast<std::size_t>(reason)]; }
    std::uint64_t of(CounterRefusal reason) const { return counts[static_cast<std::size_t>(reason)]; }
    void merge(const CounterRefusals& other) {
        for (std::size_t index = 0; index < counts.size(); ++index) counts[index] += other.counts[index];
    }
};

inline bool isFixedCounter(CounterKind kind, std::string_view key) {
    if (kind != CounterKind::scalar) return false;
    for (const std::string_view fixed : kFixedCounterKeys) {
        if (key == fixed) return true;
    }
    return false;
}

// The process name a scalar is grouped under: what follows the beginnings that are known, else what follows the last
// dot.
inline std::string_view processOfScalar(std::string_view key) {
    for (const std::string_view prefix : {kProcessLimitPrefix, kGlobalLimitPrefix}) {
        if (key.starts_with(prefix)) return key.substr(prefix.size());
    }
    const std::size_t dot = key.rfind('.');
    return dot == std::string_view::npos ? key : key.substr(dot + 1);
}

}  // namespace quorvix::linuxos
