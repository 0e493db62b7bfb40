#pragma once

#include <algorithm>
#include <cstdint>

#include "simulate/Require.h"

namespace quorvix::simulate {

// The traces that the daemon took since its start or the last daily reset, counted from its calls alone, and the
// highest limit that held meanwhile.
class DailyReports {
public:
    explicit DailyReports(std::int64_t limit) : limit_(limit) {}

    void taken() { ++taken_; }
    void limitIs(std::int64_t limit) { limit_ = std::max(limit_, limit); }
    // `late`: fence captures that were let through while a credit was left and taken when none was. Nothing else may
    // pass the limit.
    void check(std::uint64_t expected, std::uint64_t late) const {
        require(taken_ == expected, "the day's reports are not the model's");
        require(taken_ <= static_cast<std::uint64_t>(std::max<std::int64_t>(limit_, 0)) + late,
                "more reports than a day has");
    }

private:
    std::uint64_t taken_ = 0;
    std::int64_t limit_;
};

}  // namespace quorvix::simulate
