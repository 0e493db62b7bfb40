#pragma once

#include <optional>

#include "platform/Services.h"

namespace quorvix::sim {

// Thrown by SimLifecycle::exit: unwinds to the test, as nothing of the process runs after its end.
struct SimulatedExit {
    int status;
};

// The process as a test sees it: whether readiness was told, and whether and how the process ended.
class SimLifecycle final : public ProcessLifecycle {
public:
    void ready() override { ++readyCount_; }
    // Records the status and throws SimulatedExit.
    [[noreturn]] void exit(int status) override {
        exitStatus_ = status;
        throw SimulatedExit{status};
    }

    int readyCount() const noexcept { return readyCount_; }
    // Nothing while the process lives.
    std::optional<int> exitStatus() const noexcept { return exitStatus_; }

private:
    int readyCount_ = 0;
    std::optional<int> exitStatus_;
};

}  // namespace quorvix::sim
