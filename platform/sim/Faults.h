#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"

namespace quorvix::sim {

// Makes chosen calls of a simulated service fail: the n-th call of an operation, or every call from now on.
class Faults {
public:
    // The n-th next call (1 = the next) of `operation` fails with `error`.
    void failNth(std::string_view operation, std::uint64_t n, ErrorCode error) {
        plans_[std::string(operation)].push_back({calls_[std::string(operation)] + n, error});
    }
    void failNext(std::string_view operation, ErrorCode error) { failNth(operation, 1, error); }
    void failAlways(std::string_view operation, ErrorCode error) { always_[std::string(operation)] = error; }
    void heal(std::string_view operation) {
        always_.erase(std::string(operation));
        plans_.erase(std::string(operation));
    }

    // Called by the service once a call: the error that this call must fail with, if any.
    std::optional<ErrorCode> take(std::string_view operation) {
        const std::string name(operation);
        const std::uint64_t call = ++calls_[name];
        if (const auto always = always_.find(name); always != always_.end()) return always->second;
        const auto plans = plans_.find(name);
        if (plans == plans_.end()) return std::nullopt;
        for (const Plan& plan : plans->second) {
            if (plan.call == call) return plan.error;
        }
        return std::nullopt;
    }
    std::uint64_t calls(std::string_view operation) const {
        const auto found = calls_.find(std::string(operation));
        return found == calls_.end() ? 0 : found->second;
    }

private:
    struct Plan {
        std::uint64_t call;
        ErrorCode error;
    };

    std::map<std::string, std::uint64_t> calls_;
    std::map<std::string, std::vector<Plan>> plans_;
    std::map<std::string, ErrorCode> always_;
};

}  // namespace quorvix::sim
