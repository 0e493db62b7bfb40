#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Services.h"

namespace quorvix::sim {

enum class CounterAction { add, set, push };

struct CounterOperation {
    CounterAction action;
    std::string key;
    // Of add and set as given, exact up to 2^53; of push the sample.
    double value;
    bool operator==(const CounterOperation&) const = default;
};

// The counters in memory: everything that was asked, in order, and what it adds up to. No bounds. One thread.
class SimCounters : public CounterService {
public:
    void addToScalar(std::string_view key, std::int64_t value) override {
        operations_.push_back({CounterAction::add, std::string(key), static_cast<double>(value)});
        std::int64_t& sum = scalars_[std::string(key)];
        // Wraps as the store's integers do.
        sum = static_cast<std::int64_t>(static_cast<std::uint64_t>(sum) + static_cast<std::uint64_t>(value));
    }
    void setScalar(std::string_view key, std::int64_t value) override {
        operations_.push_back({CounterAction::set, std::string(key), static_cast<double>(value)});
        scalars_[std::string(key)] = value;
    }
    void pushToDistribution(std::string_view key, std::string_view, double value) override {
        operations_.push_back({CounterAction::push, std::string(key), value});
        distributions_[std::string(key)].push_back(value);
    }

    const std::vector<CounterOperation>& operations() const { return operations_; }
    // Nothing: never touched.
    std::optional<std::int64_t> scalar(std::string_view key) const {
        const auto found = scalars_.find(key);
        return found == scalars_.end() ? std::nullopt : std::optional(found->second);
    }
    // The samples in order; empty: never touched.
    std::vector<double> distribution(std::string_view key) const {
        const auto found = distributions_.find(key);
        return found == distributions_.end() ? std::vector<double>() : found->second;
    }

private:
    std::vector<CounterOperation> operations_;
    std::map<std::string, std::int64_t, std::less<>> scalars_;
    std::map<std::string, std::vector<double>, std::less<>> distributions_;
};

}  // namespace quorvix::sim
