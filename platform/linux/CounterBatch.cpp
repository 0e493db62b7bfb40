#include "platform/linux/CounterBatch.h"

#include <cmath>

namespace quorvix::linuxos {

std::optional<CounterRefusal> CounterBatch::admit(CounterKind kind, std::string_view key, std::string_view process) {
    if (isFixedCounter(kind, key)) return std::nullopt;
    if (key.size() > kMaximumKeyLength) return CounterRefusal::keyTooLong;
    if (chosenKeys_ >= kMaximumChosenKeys) return CounterRefusal::tableFull;
    auto keys = keysOfProcess_.find(process);
    if (keys == keysOfProcess_.end()) keys = keysOfProcess_.emplace(process, 0).first;
    if (keys->second >= kMaximumKeysOfProcess) return CounterRefusal::processFull;
    ++keys->second;
    ++chosenKeys_;
    return std::nullopt;
}

std::optional<CounterRefusal> CounterBatch::scalarFor(std::string_view key, ScalarChange*& change) {
    auto found = scalars_.find(key);
    if (found == scalars_.end()) {
        if (const auto refusal = admit(CounterKind::scalar, key, processOfScalar(key))) return refusal;
        found = scalars_.emplace(key, ScalarChange{}).first;
    }
    change = &found->second;
    return std::nullopt;
}

std::optional<CounterRefusal> CounterBatch::distributionFor(std::string_view key, std::string_view process,
                                                            Distribution*& distribution) {
    auto found = distributions_.find(key);
    if (found == distributions_.end()) {
        if (const auto refusal = admit(CounterKind::distribution, key, process)) return refusal;
        found = distributions_.emplace(key, Samples{std::string(process), {}}).first;
    }
    distribution = &found->second.distribution;
    return std::nullopt;
}

std::optional<CounterRefusal> CounterBatch::add(std::string_view key, std::int64_t value) {
    ScalarChange* change = nullptr;
    if (const auto refusal = scalarFor(key, change)) return refusal;
    change->value = wrappingSum(change->value, value);
    return std::nullopt;
}

std::optional<CounterRefusal> CounterBatch::set(std::string_view key, std::int64_t value) {
    ScalarChange* change = nullptr;
    if (const auto refusal = scalarFor(key, change)) return refusal;
    *change = {.replaces = true, .value = value};
    return std::nullopt;
}

std::optional<CounterRefusal> CounterBatch::push(std::string_view key, std::string_view process, double sample) {
    if (!std::isfinite(sample)) return CounterRefusal::notFinite;
    Distribution* distribution = nullptr;
    if (const auto refusal = distributionFor(key, process, distribution)) return refusal;
    distribution->push(sample);
    return std::nullopt;
}

void CounterBatch::mergeNewer(const CounterBatch& newer, CounterRefusals& refusals) {
    for (const auto& [key, change] : newer.scalars_) {
        if (const auto refusal = change.replaces ? set(key, change.value) : add(key, change.value)) {
            refusals.add(*refusal);
        }
    }
    for (const auto& [key, samples] : newer.distributions_) {
        Distribution* distribution = nullptr;
        if (const auto refusal = distributionFor(key, samples.process, distribution)) {
            refusals.add(*refusal);
        } else {
            distribution->merge(samples.distribution);
        }
    }
}

}  // namespace quorvix::linuxos
