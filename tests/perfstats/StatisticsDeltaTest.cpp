#include "perfstats/StatisticsDelta.h"

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <tuple>

#include "tests/perfstats/Tables.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Delta : public TableWorld {
protected:
    // "pid name state userTime" of each entry, in order.
    static Lines shortForm(const cpu_statistics& table) {
        Lines found;
        for (std::int32_t i = 0; i < table.count; ++i) {
            const task_statistics& task = table.tasks[static_cast<std::size_t>(i)];
            found.push_back(std::to_string(task.pid) + " " + task.name + " " + std::to_string(task.lifecycleState) +
                            " " + std::to_string(task.usage.userTime));
        }
        return found;
    }
    static Lines deltaOf(const std::vector<Entry>& start, const std::vector<Entry>& end) {
        const auto from = table(start);
        const auto to = table(end);
        const auto delta = delta_cpu_statistics(from.get(), to.get());
        return delta ? shortForm(*delta) : Lines{"none"};
    }
};

TEST_F(Delta, TellsTheLivingTheNewAndTheDead) {
    EXPECT_THAT(deltaOf({{5, "five", 50}, {1, "one", 10}}, {{7, "seven", 7}, {1, "one", 15}}),
                ElementsAre("7 seven 1 7", "1 one 0 5", "5 five 2 0"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Delta, OfNothingIsEmpty) { EXPECT_THAT(deltaOf({}, {}), IsEmpty()); }

TEST_F(Delta, OfAnEmptyStartIsAllNew) {
    EXPECT_THAT(deltaOf({}, {{2, "b", 2}, {1, "a", 3}}), ElementsAre("1 a 1 3", "2 b 1 2"));
}

TEST_F(Delta, OfAnEmptyEndIsAllDead) {
    EXPECT_THAT(deltaOf({{2, "b", 2}, {1, "a", 3}}, {}), ElementsAre("1 a 2 0", "2 b 2 0"));
}

TEST_F(Delta, NeedsBothTables) {
    const auto some = table({});
    EXPECT_FALSE(delta_cpu_statistics(nullptr, some.get()));
    EXPECT_FALSE(delta_cpu_statistics(some.get(), nullptr));
    EXPECT_EQ(lines(), Lines(2, "default: QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n"));
}

TEST_F(Delta, SortsItsInputsByPid) {
    const auto start = table({{5, "e", 0}, {-1, "m", 0}, {3, "c", 0}});
    const auto end = table({{9, "i", 0}, {0, "k", 0}});
    (void)delta_cpu_statistics(start.get(), end.get());
    EXPECT_THAT(shortForm(*start), ElementsAre("-1 m 0 0", "3 c 0 0", "5 e 0 0"));
    EXPECT_THAT(shortForm(*end), ElementsAre("0 k 0 0", "9 i 0 0"));
}

TEST_F(Delta, NegativePidsComeFirst) {
    EXPECT_THAT(deltaOf({{-5, "a", 0}, {5, "b", 0}}, {{5, "b", 1}, {-5, "a", 2}}), ElementsAre("-5 a 0 2", "5 b 0 1"));
}

// The names.

TEST_F(Delta, TakesTheNameOfTheEnd) {
    EXPECT_THAT(deltaOf({{1, "old", 0}}, {{1, "new", 0}}), ElementsAre("1 new 0 0"));
    // Any name but an empty one.
    EXPECT_THAT(deltaOf({{1, "old", 0}}, {{1, " ", 0}}), ElementsAre("1   0 0"));
    EXPECT_THAT(deltaOf({{1, "old", 0}}, {{1, "\xc3\xbc", 0}}), ElementsAre("1 \xc3\xbc 0 0"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Delta, TakesTheNameOfTheStartWhereTheEndHasNone) {
    EXPECT_THAT(deltaOf({{1, "foo", 0}}, {{1, "", 0}}), ElementsAre("1 foo 0 0"));
    EXPECT_THAT(lines(),
                ElementsAre("info: QXActivationStats: Got a valid process name for pid:1 in start snapshot foo. "
                            "Using that\n"));
}

TEST_F(Delta, DoesNotCarryTheLaunchProxysNameOver) {
    for (const std::string name : {"vexproxy", "xvexproxy", "vexproxyd", "com.vexproxy.x"}) {
        EXPECT_THAT(deltaOf({{1, name, 0}}, {{1, "", 0}}), ElementsAre("1  0 0"));
    }
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(deltaOf({{1, "vexprox", 0}}, {{1, "", 0}}), ElementsAre("1 vexprox 0 0"));
    EXPECT_THAT(deltaOf({{1, "VexProxy", 0}}, {{1, "", 0}}), ElementsAre("1 VexProxy 0 0"));
}

TEST_F(Delta, SaysSoEvenWhereTheStartHasNoNameEither) {
    EXPECT_THAT(deltaOf({{1, "", 0}}, {{1, "", 0}}), ElementsAre("1  0 0"));
    EXPECT_THAT(lines(), ElementsAre("info: QXActivationStats: Got a valid process name for pid:1 in start snapshot . "
                                     "Using that\n"));
}

// The counters.

using Counter = std::uint64_t ResourceUsage::*;
constexpr std::array<Counter, 11> kChecked = {&ResourceUsage::userTime,          &ResourceUsage::pageIns,
                                              &ResourceUsage::diskBytesRead,     &ResourceUsage::diskBytesWritten,
                                              &ResourceUsage::unspecifiedTime,   &ResourceUsage::backgroundTime,
                                              &ResourceUsage::utilityTime,       &ResourceUsage::legacyTime,
                                              &ResourceUsage::userInitiatedTime, &ResourceUsage::userInteractiveTime,
                                              &ResourceUsage::maintenanceTime};
constexpr std::array<Counter, 4> kUnchecked = {&ResourceUsage::systemTime, &ResourceUsage::wiredSize,
                                               &ResourceUsage::residentSize, &ResourceUsage::physicalFootprint};
constexpr std::array<Counter, 12> kLeft = {&ResourceUsage::packageIdleWakeups,
                                           &ResourceUsage::interruptWakeups,
                                           &ResourceUsage::startTime,
                                           &ResourceUsage::exitTime,
                                           &ResourceUsage::childUserTime,
                                           &ResourceUsage::childSystemTime,
                                           &ResourceUsage::childPackageIdleWakeups,
                                           &ResourceUsage::childInterruptWakeups,
                                           &ResourceUsage::childPageIns,
                                           &ResourceUsage::childElapsedTime,
                                           &ResourceUsage::billedSystemTime,
                                           &ResourceUsage::servicedSystemTime};
static_assert((kChecked.size() + kUnchecked.size() + kLeft.size()) * 8 + 16 == sizeof(ResourceUsage));

class Usage : public Delta {
protected:
    // The difference of one process that has these counters at either end.
    static ResourceUsage between(const ResourceUsage& start, const ResourceUsage& end) {
        const auto from = table({{1, "a", 0}});
        const auto to = table({{1, "a", 0}});
        from->tasks[0].usage = start;
        to->tasks[0].usage = end;
        return delta_cpu_statistics(from.get(), to.get())->tasks[0].usage;
    }
};

TEST_F(Usage, SubtractsCountersAndSizesAndLeavesTheRestZero) {
    ResourceUsage start{};
    ResourceUsage end{};
    ResourceUsage expected{};
    std::uint64_t value = 100;
    for (const auto counter : kChecked) {
        start.*counter = value;
        end.*counter = value * 3;
        expected.*counter = value * 2;
        value += 1;
    }
    for (const auto counter : kUnchecked) {
        start.*counter = value;
        end.*counter = value - 10;
        expected.*counter = 0 - std::uint64_t{10};
        value += 1;
    }
    for (const auto counter : kLeft) end.*counter = 77;
    end.uuid[0] = 3;
    const ResourceUsage delta = between(start, end);
    EXPECT_EQ(std::memcmp(&delta, &expected, sizeof delta), 0);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Usage, OfAReusedPidIsTheNewProcesssOwn) {
    for (const auto backwards : kChecked) {
        ResourceUsage start{};
        ResourceUsage end{};
        for (const auto counter : kChecked) start.*counter = end.*counter = 10;
        for (const auto counter : kLeft) end.*counter = 5;
        end.systemTime = 4;
        end.uuid[3] = 9;
        start.*backwards = 11;
        const ResourceUsage delta = between(start, end);
        EXPECT_EQ(std::memcmp(&delta, &end, sizeof delta), 0);
    }
    ASSERT_EQ(lines().size(), kChecked.size());
    EXPECT_EQ(
        lines()[0],
        "default:  ******* QXActivationStats: Start values are greater than end values for Pid:1 StartUserTime:11 "
        "EndUserTime:10 *******");
    EXPECT_EQ(
        lines()[1],
        "default:  ******* QXActivationStats: Start values are greater than end values for Pid:1 StartUserTime:10 "
        "EndUserTime:10 *******");
}

TEST_F(Usage, EqualCountersAreNotBackwards) {
    ResourceUsage same{};
    for (const auto counter : kChecked) same.*counter = ~std::uint64_t{0};
    EXPECT_EQ(between(same, same).userTime, 0u);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Usage, IsComparedUnsignedAndWhole) {
    ResourceUsage start{};
    ResourceUsage end{};
    start.userTime = 1;
    end.userTime = ~std::uint64_t{0};
    EXPECT_EQ(between(start, end).userTime, ~std::uint64_t{0} - 1);
    EXPECT_THAT(lines(), IsEmpty());
}

// The order.

TEST_F(Delta, IsInTheOrderOfTheLow32BitsOfUserTime) {
    constexpr std::uint64_t k2To32 = 0x1'0000'0000;
    EXPECT_THAT(deltaOf({}, {{1, "a", 5}, {2, "b", k2To32 + 4}, {3, "c", 6}}),
                ElementsAre("3 c 1 6", "1 a 1 5", "2 b 1 4294967300"));
    EXPECT_THAT(deltaOf({}, {{1, "a", 1}, {2, "b", 0xFFFF'FFFF}}), ElementsAre("1 a 1 1", "2 b 1 4294967295"));
}

TEST_F(Delta, UserTimesThatDifferBy2To32AreEqual) {
    const Lines one = deltaOf({}, {{1, "a", 7}, {2, "b", 0x1'0000'0007}});
    EXPECT_THAT(one, ElementsAre("1 a 1 7", "2 b 1 4294967303"));
    const Lines other = deltaOf({}, {{1, "a", 0x1'0000'0007}, {2, "b", 7}});
    EXPECT_THAT(other, ElementsAre("1 a 1 4294967303", "2 b 1 7"));
}

struct DeltaMemory {
    std::uint64_t allocation;
    const char* what;
};
class DeltaOutOfMemory : public Delta, public ::testing::WithParamInterface<DeltaMemory> {};

// Its allocations: the positions of either input, the result, its entries, the result's positions.
TEST_P(DeltaOutOfMemory, IsNone) {
    const auto start = table({{2, "b", 1}, {1, "a", 1}});
    const auto end = table({{2, "b", 1}, {1, "a", 1}});
    const std::size_t before = perfState().memory.usedBytes();
    perfState().memory.failNth(GetParam().allocation);
    EXPECT_FALSE(delta_cpu_statistics(start.get(), end.get()));
    EXPECT_EQ(lines(), Lines{std::string("default: QXActivationStats: delta_cpu_statistics: Failed to allocate memory "
                                         "for ") +
                             GetParam().what + "\n"});
    EXPECT_EQ(perfState().memory.usedBytes(), before);
    EXPECT_TRUE(delta_cpu_statistics(start.get(), end.get()));
}

INSTANTIATE_TEST_SUITE_P(Each, DeltaOutOfMemory,
                         ::testing::Values(DeltaMemory{1, "output"}, DeltaMemory{2, "output"}, DeltaMemory{3, "output"},
                                           DeltaMemory{4, "tasks"}, DeltaMemory{5, "tasks"}));

// A plain second opinion: every start and end entry is looked at against every other, nothing is sorted or merged.
class RandomDelta : public Delta {
protected:
    static constexpr unsigned kSeed = 20260115;

    using Row = std::tuple<std::int32_t, std::string, int, std::array<std::uint64_t, 27>>;
    static Row row(const task_statistics& task) {
        std::array<std::uint64_t, 27> counters;
        std::memcpy(counters.data(), reinterpret_cast<const char*>(&task.usage) + 16, sizeof counters);
        return {task.pid, task.name, task.lifecycleState, counters};
    }
    static Row plain(std::int32_t pid, const Entry* start, const Entry* end) {
        task_statistics task{};
        task.pid = pid;
        const auto setName = [&task](const std::string& name) {
            std::memset(task.name, 0, sizeof task.name);
            std::memcpy(task.name, name.data(), name.size());
        };
        if (!start) {
            setName(end->name);
            task.usage = end->whole();
            task.lifecycleState = 1;
        } else if (!end) {
            setName(start->name);
            task.lifecycleState = 2;
        } else {
            const bool keepStart = end->name.empty() && start->name.find("vexproxy") == std::string::npos;
            setName(keepStart ? start->name : end->name);
            const ResourceUsage from = start->whole();
            const ResourceUsage to = end->whole();
            bool backwards = false;
            for (const auto counter : kChecked) backwards = backwards || to.*counter < from.*counter;
            if (backwards) {
                task.usage = to;
            } else {
                for (const auto counter : kChecked) task.usage.*counter = to.*counter - from.*counter;
                for (const auto counter : kUnchecked) task.usage.*counter = to.*counter - from.*counter;
            }
        }
        return row(task);
    }
    static std::multiset<Row> plainDelta(const std::vector<Entry>& start, const std::vector<Entry>& end) {
        const auto find = [](const std::vector<Entry>& entries, std::int32_t pid) -> const Entry* {
            for (const Entry& entry : entries) {
                if (entry.pid == pid) return &entry;
            }
            return nullptr;
        };
        std::multiset<Row> rows;
        for (const Entry& entry : start) rows.insert(plain(entry.pid, &entry, find(end, entry.pid)));
        for (const Entry& entry : end) {
            if (!find(start, entry.pid)) rows.insert(plain(entry.pid, nullptr, &entry));
        }
        return rows;
    }

    std::mt19937 random_{kSeed};
    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
    // Small, around 2^31, around 2^32 or anything.
    std::uint64_t counter() {
        switch (below(5)) {
            case 0: return below(4);
            case 1: return 0x7FFF'FFF0u + below(32);
            case 2: return 0xFFFF'FFF0u + std::uint64_t{below(32)};
            case 3: return 1000 + below(1000);
            default: return std::uint64_t{random_()} << 32 | random_();
        }
    }
    std::vector<Entry> entries(std::uint32_t pidRange) {
        static const std::array<std::string, 5> kNames = {"", "vexproxy", "foo", std::string(31, 'x'), "b"};
        std::set<std::int32_t> pids;
        const std::uint32_t wanted = below(4) == 0 ? 0 : below(20);
        for (std::uint32_t i = 0; i < wanted; ++i) pids.insert(static_cast<std::int32_t>(below(pidRange)));
        std::vector<Entry> made;
        for (const std::int32_t pid : pids) {
            Entry entry{pid, kNames[below(kNames.size())], 0};
            // Equal counters at both ends are the common case of an idle process.
            const bool idle = below(2) == 0;
            for (const auto each : kChecked) entry.usage.*each = idle ? 5 : counter();
            for (const auto each : kUnchecked) entry.usage.*each = counter();
            entry.usage.startTime = counter();
            entry.userTime = entry.usage.userTime;
            made.push_back(entry);
        }
        std::shuffle(made.begin(), made.end(), random_);
        return made;
    }
};

TEST_F(RandomDelta, AgreesWithAPlainOne) {
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    RecordProperty("seed", std::to_string(kSeed));
    std::size_t rowsCompared = 0;
    for (int round = 0; round < 4000; ++round) {
        const auto start = entries(round % 2 ? 12 : 40);
        const auto end = entries(round % 2 ? 12 : 40);
        const auto from = table(start);
        const auto to = table(end);
        const auto delta = delta_cpu_statistics(from.get(), to.get());
        std::multiset<Row> rows;
        for (std::int32_t i = 0; i < delta->count; ++i) rows.insert(row(delta->tasks[static_cast<std::size_t>(i)]));
        ASSERT_EQ(rows, plainDelta(start, end)) << "round " << round;
        rowsCompared += rows.size();
    }
    device.log.clear();
    EXPECT_GT(rowsCompared, 30'000u);
}

// Where all user times lie within 2^31 of each other the comparator orders them, and the order is checked.
TEST_F(RandomDelta, IsSortedWhereTheComparatorIsAnOrder) {
    for (int round = 0; round < 500; ++round) {
        std::vector<Entry> end;
        const std::uint64_t base = counter();
        for (std::int32_t pid = 0; pid < 30; ++pid) end.push_back({pid, "x", base + below(0x7FFF'FFFF)});
        std::shuffle(end.begin(), end.end(), random_);
        const auto from = table({});
        const auto to = table(end);
        const auto delta = delta_cpu_statistics(from.get(), to.get());
        for (std::int32_t i = 1; i < delta->count; ++i) {
            const auto earlier =
                static_cast<std::uint32_t>(delta->tasks[static_cast<std::size_t>(i - 1)].usage.userTime);
            const auto later = static_cast<std::uint32_t>(delta->tasks[static_cast<std::size_t>(i)].usage.userTime);
            ASSERT_LE(static_cast<std::int32_t>(later - earlier), 0) << "seed " << kSeed << " round " << round;
        }
    }
}

// Neither comparator is an order over these: every entry must still be there once (sanitizers watch the bounds).
TEST_F(RandomDelta, StaysInBoundsWhereTheComparatorsAreNoOrder) {
    for (int round = 0; round < 200; ++round) {
        std::vector<Entry> end;
        for (std::uint32_t i = 0; i < 100; ++i) {
            // A third of the circle apart: each is before the next, and the last before the first.
            const auto pid = static_cast<std::int32_t>(i % 3 * 0x5555'5555u + i);
            end.push_back({pid, "x", std::uint64_t{i % 3 * 0x5555'5555u + below(1000)}});
        }
        std::shuffle(end.begin(), end.end(), random_);
        const auto from = table({});
        const auto to = table(end);
        const auto delta = delta_cpu_statistics(from.get(), to.get());
        std::set<std::int32_t> pids;
        for (std::int32_t i = 0; i < delta->count; ++i) pids.insert(delta->tasks[static_cast<std::size_t>(i)].pid);
        ASSERT_EQ(delta->count, 100);
        ASSERT_EQ(pids.size(), 100u) << "seed " << kSeed << " round " << round;
    }
}

}  // namespace
}  // namespace quorvix::test
