#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>
#include <string>

#include "platform/linux/CounterStore.h"
#include "platform/sim/SimCounters.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::counters_contract {
namespace {

struct Samples {
    std::uint64_t count = 0;
    double sum = 0;
    bool operator==(const Samples&) const = default;
};

// Reads what is on disk through a connection of its own.
struct LinuxWorld {
    std::optional<std::int64_t> scalar(const std::string& key) {
        EXPECT_TRUE(counters.flush(std::chrono::seconds(20)));
        std::optional<std::int64_t> value;
        linuxos::CounterDatabase reader(folder.path());
        EXPECT_EQ(reader.readScalars([&](std::string_view found, std::int64_t stored) {
            if (found == key) value = stored;
        }),
                  std::nullopt);
        return value;
    }
    Samples samples(const std::string& key) {
        EXPECT_TRUE(counters.flush(std::chrono::seconds(20)));
        Samples samples;
        linuxos::CounterDatabase reader(folder.path());
        EXPECT_EQ(reader.readDistributions(
                      [&](std::string_view found, std::string_view, const linuxos::Distribution& stored) {
                          if (found == key) samples = {stored.count, stored.sum};
                      }),
                  std::nullopt);
        return samples;
    }

    tests::TemporaryFolder folder;
    tests::RecordingLog log;
    linuxos::CounterStore counters{log, {.folder = folder.path(), .exportFolder = folder.path("missing")}};
};

struct SimWorld {
    std::optional<std::int64_t> scalar(const std::string& key) { return counters.scalar(key); }
    Samples samples(const std::string& key) {
        const auto pushed = counters.distribution(key);
        return {pushed.size(), std::accumulate(pushed.begin(), pushed.end(), 0.0)};
    }

    sim::SimCounters counters;
};

template <class World>
class CountersContract : public testing::Test {
protected:
    World world_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(CountersContract, Worlds);

TYPED_TEST(CountersContract, AddsToAScalarFromZero) {
    EXPECT_EQ(this->world_.scalar("a.b"), std::nullopt);
    this->world_.counters.addToScalar("a.b", 1);
    EXPECT_EQ(this->world_.scalar("a.b"), 1);
    this->world_.counters.addToScalar("a.b", 2);
    this->world_.counters.addToScalar("a.b", -4);
    EXPECT_EQ(this->world_.scalar("a.b"), -1);
}

TYPED_TEST(CountersContract, SettingReplacesAndAddingGoesOnFromThere) {
    this->world_.counters.addToScalar("a.b", 100);
    EXPECT_EQ(this->world_.scalar("a.b"), 100);
    this->world_.counters.setScalar("a.b", 7);
    this->world_.counters.addToScalar("a.b", 1);
    EXPECT_EQ(this->world_.scalar("a.b"), 8);
    this->world_.counters.addToScalar("a.b", 1);
    this->world_.counters.setScalar("a.b", -3);
    EXPECT_EQ(this->world_.scalar("a.b"), -3);
}

TYPED_TEST(CountersContract, ScalarsWrap) {
    this->world_.counters.setScalar("a.b", std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(this->world_.scalar("a.b"), std::numeric_limits<std::int64_t>::max());
    this->world_.counters.addToScalar("a.b", 1);
    EXPECT_EQ(this->world_.scalar("a.b"), std::numeric_limits<std::int64_t>::min());
}

TYPED_TEST(CountersContract, CollectsADistribution) {
    EXPECT_EQ(this->world_.samples("a.b"), Samples());
    this->world_.counters.pushToDistribution("a.b", "b", 5210.5);
    EXPECT_EQ(this->world_.samples("a.b"), (Samples{1, 5210.5}));
    this->world_.counters.pushToDistribution("a.b", "b", 0.25);
    this->world_.counters.pushToDistribution("a.b", "b", 6000);
    EXPECT_EQ(this->world_.samples("a.b"), (Samples{3, 11210.75}));
}

TYPED_TEST(CountersContract, AScalarAndADistributionOfOneKeyAreTwo) {
    this->world_.counters.addToScalar("a.b", 5);
    this->world_.counters.pushToDistribution("a.b", "b", 7);
    EXPECT_EQ(this->world_.scalar("a.b"), 5);
    EXPECT_EQ(this->world_.samples("a.b"), (Samples{1, 7}));
}

TYPED_TEST(CountersContract, KeysAreBytes) {
    for (const std::string& key :
         {std::string(""), std::string("a\0b", 3), std::string("a"), std::string("\xff\xfe.\n"),
          std::string("'; DROP TABLE scalar; --"), std::string("日本.app")}) {
        this->world_.counters.addToScalar(key, static_cast<std::int64_t>(key.size()) + 1);
        EXPECT_EQ(this->world_.scalar(key), static_cast<std::int64_t>(key.size()) + 1);
    }
    EXPECT_EQ(this->world_.scalar("a"), 2);
}

}  // namespace
}  // namespace quorvix::counters_contract
