#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

#include "platform/PowerLog.h"

namespace quorvix::tests {

inline constexpr std::int32_t kActivationCategory = 74;

inline PowerLogDictionary dictionary(std::initializer_list<std::pair<PowerLogKey, PowerLogValue>> entries) {
    PowerLogDictionary made;
    for (const auto& [key, value] : entries) made.set(key, value);
    return made;
}

// What one activation sends, and its usual figures.
struct PowerLogEvents {
    std::uint64_t activationID = 7;
    double timestamp = 700000000.5;
    std::string bundleID = "com.example.app";
    std::uint64_t durationMs = 250;
    std::uint8_t result = 0;
    std::uint8_t type = 1;
    std::uint64_t flags = 0;
    std::int64_t systemUptime = 1000;
    int processes = 2;

    static constexpr std::uint64_t uniqueID(int process) {
        return 0xFFFFFFFF00000000u + static_cast<unsigned>(process);
    }

    PowerLogDictionary activationData() const {
        return dictionary({{"Timestamp", timestamp},
                           {"ActivationID", activationID},
                           {"UniqueID", uniqueID(0)},
                           {"SystemUptime", systemUptime},
                           {"BundleID", bundleID},
                           {"ActivationDuration_ms", durationMs},
                           {"ActivationResult", result},
                           {"ActivationType", type},
                           {"ActivationFlags", flags}});
    }
    PowerLogDictionary processData() const {
        PowerLogDictionary names;
        for (int process = 0; process < processes; ++process) {
            names.set(uniqueID(process), dictionary({{"Timestamp", timestamp},
                                                     {"UniqueID", uniqueID(process)},
                                                     {"ProcessName", "process" + std::to_string(process)}}));
        }
        return names;
    }
    PowerLogDictionary cpuStatistics() const {
        PowerLogDictionary rows;
        for (int process = 0; process < processes; ++process) {
            // The last stands for all the others.
            const std::int64_t key = process + 1 == processes ? -1 : process;
            const auto base = static_cast<std::uint64_t>(process) * 100;
            rows.set(key, dictionary({{"Timestamp", timestamp},
                                      {"ActivationID", activationID},
                                      {"UniqueID", uniqueID(process)},
                                      {"TotalCPU_ms", base + 1},
                                      {"QOSDisabled_ms", base + 2},
                                      {"QOSUserInteractive_ms", base + 3},
                                      {"QOSUserInitiated_ms", base + 4},
                                      {"QOSDefault_ms", base + 5},
                                      {"QOSUtility_ms", base + 6},
                                      {"QOSMaintenance_ms", base + 7},
                                      {"QOSBackground_ms", base + 8},
                                      {"IOReads_kb", base + 9},
                                      {"IOWrites_kb", base + 10},
                                      {"PageIns", base + 11},
                                      {"ProcessLifecycleState", static_cast<std::uint8_t>(process % 3)}}));
        }
        return rows;
    }
    PowerLogDictionary memoryStatistics() const {
        PowerLogDictionary moments;
        for (const std::uint8_t sequence : {std::uint8_t{1}, std::uint8_t{2}}) {
            PowerLogDictionary moment;
            std::uint64_t value = std::uint64_t{sequence} * 1000;
            for (const char* key :
                 {"FreeQueue",       "ActiveQueue",      "SpeculativeQueue", "InactiveQueue",  "ThrottledQueue",
                  "WiredQueue",      "PurgeableQueue",   "FileBackedQueue",  "AnonymousQueue", "CompressorSize",
                  "Faults",          "CopyOnWriteFault", "ZeroFill",         "Reactivated",    "Purged",
                  "TotalCompressed", "Decompressions",   "Compressions",     "PageIns",        "PageOuts",
                  "SwapIns",         "SwapOuts"}) {
                moment.set(key, ++value * sequence);
            }
            moment.set("Timestamp", timestamp);
            moment.set("ActivationID", activationID);
            moment.set("SequenceID", sequence);
            moments.set(std::int64_t{sequence}, std::move(moment));
        }
        return moments;
    }

    void sendTo(PowerLog& log) const {
        log.sendEvent(kActivationCategory, "ActivationData", activationData());
        log.sendEvent(kActivationCategory, "ProcessData", processData());
        log.sendEvent(kActivationCategory, "CPUStatistics", cpuStatistics());
        log.sendEvent(kActivationCategory, "MemoryStatistics", memoryStatistics());
    }
};

}  // namespace quorvix::tests
