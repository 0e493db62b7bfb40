#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace quorvix::linuxos {

// Upper bounds of a distribution's buckets, each inclusive: the 1-2-5 series in milliseconds. One more bucket takes
// what lies above.
inline constexpr std::array<double, 19> kBucketBounds = {1,   2,   5,   1e1, 2e1, 5e1, 1e2, 2e2, 5e2, 1e3,
                                                         2e3, 5e3, 1e4, 2e4, 5e4, 1e5, 2e5, 5e5, 1e6};
inline constexpr std::size_t kBucketCount = kBucketBounds.size() + 1;

// A distribution counter's value: fixed size, whatever was pushed. Samples are finite.
struct Distribution {
    std::uint64_t count = 0;
    double sum = 0;
    double minimum = std::numeric_limits<double>::max();
    double maximum = std::numeric_limits<double>::lowest();
    // Samples of each bucket alone, not of those below it.
    std::array<std::uint64_t, kBucketCount> buckets{};

    void push(double sample) {
        ++count;
        addToSum(sample);
        minimum = std::min(minimum, sample);
        maximum = std::max(maximum, sample);
        ++buckets[bucketOf(sample)];
    }

    void merge(const Distribution& other) {
        count += other.count;
        addToSum(other.sum);
        minimum = std::min(minimum, other.minimum);
        maximum = std::max(maximum, other.maximum);
        for (std::size_t index = 0; index < kBucketCount; ++index) buckets[index] += other.buckets[index];
    }

    static std::size_t bucketOf(double sample) {
        return static_cast<std::size_t>(std::lower_bound(kBucketBounds.begin(), kBucketBounds.end(), sample) -
                                        kBucketBounds.begin());
    }

private:
    // Stays finite, so that a few absurd samples do not make the sum useless for those who read it.
    void addToSum(double value) {
        constexpr double kLimit = std::numeric_limits<double>::max();
        sum = std::clamp(sum + value, -kLimit, kLimit);
    }
};

}  // namespace quorvix::linuxos
