#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "report/Activity.h"

namespace quorvix::report {

// A timeline in so many slices of equal length, each with how long the thread did what in it: a picture of a hang has a
// width, and what it costs must not grow with the number of events. A slice's remainder is unknown. Without slices it
// takes nothing and costs nothing.
class StateStrip {
public:
    StateStrip() = default;
    StateStrip(const Interval& window, std::size_t slices);

    // What lies outside of the window is left out.
    void add(Activity activity, const Interval& interval);
    // What was taken for the one in this interval was the other.
    void move(Activity from, Activity to, const Interval& interval);

    std::size_t size() const { return slices_.size(); }
    // What the thread did for most of each slice, and for how many slices in a row.
    struct Run {
        Activity activity = Activity::unknown;
        std::size_t slices = 0;
        bool operator==(const Run&) const = default;
    };
    std::vector<Run> runs() const;

private:
    using Times = std::array<std::uint64_t, kActivities>;

    std::uint64_t beginOf(std::size_t slice) const;
    std::size_t sliceAt(std::uint64_t timeNs) const;
    template <class Visit>
    void forEachSlice(const Interval& interval, const Visit& visit);

    Interval window_;
    std::vector<Times> slices_;
};

}  // namespace quorvix::report
