#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>

#include "simulate/Trace.h"

namespace quorvix::simulate {

// One call that goes wrong.
struct Fault {
    ErrorCode error{};                 // the call fails with this
    bool isShort = false;              // the call does a part of what it was asked
    std::chrono::nanoseconds slow{0};  // the call takes this long
    bool fails() const { return error.value != 0; }
};

// The faults that lie ahead: for each operation, those of its next calls. Armed by the actions of a run.
class FaultPlan {
public:
    // The call after `spared` further ones.
    void arm(Op op, std::uint32_t spared, Fault fault) {
        plans_[static_cast<std::size_t>(op)].push_back({spared, fault});
    }
    // Called once for each call.
    Fault take(Op op) {
        auto& plans = plans_[static_cast<std::size_t>(op)];
        if (plans.empty()) return {};
        if (plans.front().spared > 0) {
            --plans.front().spared;
            return {};
        }
        const Fault fault = plans.front().fault;
        plans.pop_front();
        ++taken_;
        return fault;
    }
    void clear() {
        for (auto& plans : plans_) plans.clear();
    }
    std::uint64_t taken() const { return taken_; }

private:
    struct Plan {
        std::uint32_t spared;
        Fault fault;
    };
    std::array<std::deque<Plan>, static_cast<std::size_t>(Op::count)> plans_;
    std::uint64_t taken_ = 0;
};

}  // namespace quorvix::simulate
