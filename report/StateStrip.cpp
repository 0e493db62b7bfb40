#include "report/StateStrip.h"

#include <algorithm>

namespace quorvix::report {

namespace {

std::uint64_t& timeOf(std::array<std::uint64_t, kActivities>& times, Activity activity) {
    return times[static_cast<std::size_t>(activity)];
}

}  // namespace

StateStrip::StateStrip(const Interval& window, std::size_t slices) : window_(window) {
    // A slice of no length would be in no state.
    slices_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(slices, window.length())));
}

std::uint64_t StateStrip::beginOf(std::size_t slice) const {
    const std::uint64_t length = window_.length();
    const std::uint64_t count = slices_.size();
    // In two parts: length times slice may not fit.
    return window_.beginNs + length / count * slice + length % count * slice / count;
}

std::size_t StateStrip::sliceAt(std::uint64_t timeNs) const {
    const double share = static_cast<double>(timeNs - window_.beginNs) / static_cast<double>(window_.length());
    auto slice = std::min(static_cast<std::size_t>(share * static_cast<double>(slices_.size())), slices_.size() - 1);
    // The quotient may be off by one on both sides.
    while (slice > 0 && timeNs < beginOf(slice)) --slice;
    while (slice + 1 < slices_.size() && timeNs >= beginOf(slice + 1)) ++slice;
    return slice;
}

template <class Visit>
void StateStrip::forEachSlice(const Interval& interval, const Visit& visit) {
    const Interval inside = interval.common(window_);
    if (slices_.empty() || inside.length() == 0) return;
    for (std::size_t slice = sliceAt(inside.beginNs); slice < slices_.size() && beginOf(slice) < inside.endNs;
         ++slice) {
        visit(slices_[slice], inside.common({beginOf(slice), beginOf(slice + 1)}).length());
    }
}

void StateStrip::add(Activity activity, const Interval& interval) {
    forEachSlice(interval, [&](Times& times, std::uint64_t lengthNs) { timeOf(times, activity) += lengthNs; });
}

void StateStrip::move(Activity from, Activity to, const Interval& interval) {
    forEachSlice(interval, [&](Times& times, std::uint64_t lengthNs) {
        const std::uint64_t moved = std::min(timeOf(times, from), lengthNs);
        timeOf(times, from) -= moved;
        timeOf(times, to) += moved;
    });
}

std::vector<StateStrip::Run> StateStrip::runs() const {
    std::vector<Run> runs;
    for (std::size_t slice = 0; slice < slices_.size(); ++slice) {
        Times times = slices_[slice];
        std::uint64_t accounted = 0;
        for (const std::uint64_t time : times) accounted += time;
        const std::uint64_t length = Interval{beginOf(slice), beginOf(slice + 1)}.length();
        timeOf(times, Activity::unknown) += length - std::min(accounted, length);
        const auto most = static_cast<Activity>(std::ranges::max_element(times) - times.begin());
        if (runs.empty() || runs.back().activity != most) runs.push_back({.activity = most, .slices = 0});
        ++runs.back().slices;
    }
    return runs;
}

}  // namespace quorvix::report
