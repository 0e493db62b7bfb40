#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/CounterKeys.h"
#include "platform/linux/Distribution.h"

namespace quorvix::linuxos {

// Changes that are not yet in the database, one entry a key whatever the number of changes. Bounded like the database
// itself: a change that would need a key too many is refused, a change of a key that is here already never is.
// No lock: its owner has one.
class CounterBatch {
public:
    struct ScalarChange {
        bool replaces = false;  // the value was set; else it is added to what is stored
        std::int64_t value = 0;
    };
    using Scalars = std::map<std::string, ScalarChange, std::less<>>;
    struct Samples {
        std::string process;
        Distribution distribution;
    };
    using Distributions = std::map<std::string, Samples, std::less<>>;

    // All three answer why the change was refused, or nothing.
    [[nodiscard]] std::optional<CounterRefusal> add(std::string_view key, std::int64_t value);
    [[nodiscard]] std::optional<CounterRefusal> set(std::string_view key, std::int64_t value);
    [[nodiscard]] std::optional<CounterRefusal> push(std::string_view key, std::string_view process, double sample);

    // Applies changes that were made after those in here; counts what does not fit.
    void mergeNewer(const CounterBatch& newer, CounterRefusals& refusals);

    bool empty() const { return scalars_.empty() && distributions_.empty(); }
    std::size_t size() const { return scalars_.size() + distributions_.size(); }
    const Scalars& scalars() const { return scalars_; }
    const Distributions& distributions() const { return distributions_; }

private:
    std::optional<CounterRefusal> admit(CounterKind kind, std::string_view key, std::string_view process);
    std::optional<CounterRefusal> scalarFor(std::string_view key, ScalarChange*& change);
    std::optional<CounterRefusal> distributionFor(std::string_view key, std::string_view process,
                                                  Distribution*& distribution);

    Scalars scalars_;
    Distributions distributions_;
    std::map<std::string, std::size_t, std::less<>> keysOfProcess_;
    std::size_t chosenKeys_ = 0;
};

// Two's complement, as the store keeps it.
inline std::int64_t wrappingSum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace quorvix::linuxos
