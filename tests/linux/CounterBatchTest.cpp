#include "platform/linux/CounterBatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace quorvix::linuxos {
namespace {

std::string keyOf(std::size_t index) { return "com.norvane.quorvix.hang.app" + std::to_string(index); }

CounterBatch fullBatch() {
    CounterBatch batch;
    for (std::size_t index = 0; index < kMaximumChosenKeys; ++index)
        EXPECT_EQ(batch.add(keyOf(index), 1), std::nullopt);
    return batch;
}

TEST(CounterBatchTest, OneKeyTooManyIsRefusedAndFixedOnesAlwaysFit) {
    CounterBatch batch = fullBatch();
    EXPECT_EQ(batch.add(keyOf(kMaximumChosenKeys), 1), CounterRefusal::tableFull);
    EXPECT_EQ(batch.push("com.norvane.quorvix.a.b", "b", 1), CounterRefusal::tableFull);
    EXPECT_EQ(batch.add(keyOf(0), 1), std::nullopt);
    for (const std::string_view fixed : kFixedCounterKeys) EXPECT_EQ(batch.add(fixed, 1), std::nullopt);
    EXPECT_EQ(batch.size(), kMaximumCounterKeys);
}

TEST(CounterBatchTest, AProcessHasSixtyFourKeys) {
    CounterBatch batch;
    for (std::size_t index = 0; index < kMaximumKeysOfProcess; ++index) {
        EXPECT_EQ(batch.push("com.norvane.quorvix.kind" + std::to_string(index) + ".app", "app", 1), std::nullopt);
    }
    EXPECT_EQ(batch.push("com.norvane.quorvix.more.app", "app", 1), CounterRefusal::processFull);
    EXPECT_EQ(batch.add("com.norvane.quorvix.more.app", 1), CounterRefusal::processFull);
    // What else ends so is of another process.
    EXPECT_EQ(batch.push("com.norvane.quorvix.more.org.example.app", "org.example.app", 1), std::nullopt);
    EXPECT_EQ(batch.add(std::string(kProcessLimitPrefix) + "org.example.app", 1), std::nullopt);
    EXPECT_EQ(batch.add(std::string(kGlobalLimitPrefix) + "app", 1), CounterRefusal::processFull);
    EXPECT_EQ(batch.push("com.norvane.quorvix.kind0.app", "app", 1), std::nullopt);
    EXPECT_EQ(batch.push("com.norvane.quorvix.more.other", "other", 1), std::nullopt);
}

TEST(CounterBatchTest, AKeyHasALongestLength) {
    CounterBatch batch;
    EXPECT_EQ(batch.add(std::string(kMaximumKeyLength, 'k'), 1), std::nullopt);
    EXPECT_EQ(batch.add(std::string(kMaximumKeyLength + 1, 'k'), 1), CounterRefusal::keyTooLong);
}

TEST(CounterBatchTest, SamplesAreFinite) {
    CounterBatch batch;
    EXPECT_EQ(batch.push("a.b", "b", std::numeric_limits<double>::quiet_NaN()), CounterRefusal::notFinite);
    EXPECT_EQ(batch.push("a.b", "b", std::numeric_limits<double>::infinity()), CounterRefusal::notFinite);
    EXPECT_EQ(batch.push("a.b", "b", std::numeric_limits<double>::max()), std::nullopt);
    EXPECT_EQ(batch.push("a.b", "b", std::numeric_limits<double>::max()), std::nullopt);
    EXPECT_EQ(batch.distributions().at("a.b").distribution.sum, std::numeric_limits<double>::max());
}

TEST(CounterBatchTest, NewerChangesComeAfterOlderOnes) {
    CounterBatch older;
    EXPECT_EQ(older.add("added", 5), std::nullopt);
    EXPECT_EQ(older.set("set", 5), std::nullopt);
    EXPECT_EQ(older.add("replaced", 5), std::nullopt);
    EXPECT_EQ(older.push("pushed", "pushed", 5), std::nullopt);
    CounterBatch newer;
    EXPECT_EQ(newer.add("added", 1), std::nullopt);
    EXPECT_EQ(newer.add("set", 1), std::nullopt);
    EXPECT_EQ(newer.set("replaced", 1), std::nullopt);
    EXPECT_EQ(newer.push("pushed", "pushed", 1), std::nullopt);
    CounterRefusals refusals;
    older.mergeNewer(newer, refusals);
    EXPECT_EQ(older.scalars().at("added").value, 6);
    EXPECT_FALSE(older.scalars().at("added").replaces);
    EXPECT_EQ(older.scalars().at("set").value, 6);
    EXPECT_TRUE(older.scalars().at("set").replaces);
    EXPECT_EQ(older.scalars().at("replaced").value, 1);
    EXPECT_TRUE(older.scalars().at("replaced").replaces);
    EXPECT_EQ(older.distributions().at("pushed").distribution.count, 2u);
}

TEST(CounterBatchTest, MergingIsBoundedAndCounted) {
    CounterBatch older = fullBatch();
    CounterBatch newer;
    EXPECT_EQ(newer.add("com.norvane.quorvix.a.new", 1), std::nullopt);
    EXPECT_EQ(newer.push("com.norvane.quorvix.b.new", "new", 1), std::nullopt);
    EXPECT_EQ(newer.add(keyOf(3), 1), std::nullopt);
    CounterRefusals refusals;
    older.mergeNewer(newer, refusals);
    EXPECT_EQ(refusals.of(CounterRefusal::tableFull), 2u);
    EXPECT_EQ(older.scalars().at(keyOf(3)).value, 2);
    EXPECT_EQ(older.size(), kMaximumChosenKeys);
}

TEST(DistributionTest, ABoundBelongsToItsBucketAndTheNextValueDoesNot) {
    for (std::size_t index = 0; index < kBucketBounds.size(); ++index) {
        const double bound = kBucketBounds[index];
        EXPECT_EQ(Distribution::bucketOf(std::nextafter(bound, 0.0)), index);
        EXPECT_EQ(Distribution::bucketOf(bound), index);
        EXPECT_EQ(Distribution::bucketOf(std::nextafter(bound, 1e300)), index + 1);
    }
    EXPECT_EQ(Distribution::bucketOf(0), 0u);
    EXPECT_EQ(Distribution::bucketOf(-5), 0u);
    EXPECT_EQ(Distribution::bucketOf(1e300), kBucketCount - 1);
}

TEST(DistributionTest, KeepsCountSumLeastAndMost) {
    Distribution distribution;
    for (const double sample : {5000.0, 5210.5, 70000.0}) distribution.push(sample);
    EXPECT_EQ(distribution.count, 3u);
    EXPECT_EQ(distribution.sum, 80210.5);
    EXPECT_EQ(distribution.minimum, 5000);
    EXPECT_EQ(distribution.maximum, 70000);
    EXPECT_EQ(distribution.buckets[11], 1u);  // up to 5000 ms
    EXPECT_EQ(distribution.buckets[12], 1u);  // up to 10000 ms
    EXPECT_EQ(distribution.buckets[15], 1u);  // up to 100000 ms
}

}  // namespace
}  // namespace quorvix::linuxos
