#include "simulate/Simulation.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace quorvix::simulate {
namespace {

// The whole log of a run.
std::string logOf(const Options& options) {
    std::FILE* const file = std::tmpfile();
    Journal journal(file);
    const Outcome outcome = simulate(options, journal);
    EXPECT_EQ(outcome.failure.value_or(""), "");
    std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
    std::rewind(file);
    EXPECT_EQ(std::fread(text.data(), 1, text.size(), file), text.size());
    std::fclose(file);
    return text;
}

TEST(Simulation, SameSeedGivesTheSameLogToTheByte) {
    const Options options{.seed = 21, .minutes = 400};
    const std::string first = logOf(options);
    EXPECT_GT(first.size(), 50'000u);
    EXPECT_TRUE(first == logOf(options));
}

TEST(Simulation, AnotherSeedGivesAnotherLog) {
    EXPECT_NE(logOf({.seed = 1, .minutes = 60}), logOf({.seed = 2, .minutes = 60}));
}

TEST(Simulation, ShortRunsHold) {
    for (const std::uint64_t seed : {31u, 32u, 33u}) {
        Journal journal;
        const Outcome outcome = simulate({.seed = seed, .days = 1}, journal);
        EXPECT_EQ(outcome.failure.value_or(""), "") << "seed " << seed;
        EXPECT_GT(outcome.actions.size(), 2000u);
    }
}

TEST(Simulation, TheDaysCreditsAreResetInARunOfAFewDays) {
    Journal journal;
    const Outcome outcome = simulate({.seed = 12, .days = 3, .clients = 2}, journal);
    EXPECT_EQ(outcome.failure.value_or(""), "");
    EXPECT_GE(outcome.dailyResets, 1u) << outcome.summary;
}

TEST(Simulation, LeavingOutAKindLeavesTheOtherActionsAsTheyWere) {
    Journal journal;
    const Outcome all = simulate({.seed = 4, .minutes = 120}, journal);
    const Outcome fewer = simulate({.seed = 4, .without = {ActionKind::work}, .minutes = 120}, journal);
    ASSERT_LT(fewer.actions.size(), all.actions.size());
    for (const std::uint64_t index : fewer.actions) {
        EXPECT_NE(actionOf(4, index).kind, ActionKind::work);
        EXPECT_TRUE(std::find(all.actions.begin(), all.actions.end(), index) != all.actions.end());
    }
}

TEST(Simulation, OnlyTheActionsThatAreNamedHappen) {
    Journal journal;
    const Outcome outcome = simulate({.seed = 4, .only = std::vector<std::uint64_t>{3, 5, 9}, .minutes = 60}, journal);
    EXPECT_EQ(outcome.failure.value_or(""), "");
    EXPECT_EQ(outcome.actions, (std::vector<std::uint64_t>{3, 5, 9}));
}

TEST(Simulation, OptionsAreShownAsTheCommandLineTakesThem) {
    const Options options{.seed = 7,
                          .days = 3,
                          .clients = 2,
                          .without = {ActionKind::watch, ActionKind::fault},
                          .only = std::vector<std::uint64_t>{1, 2},
                          .minutes = 9};
    EXPECT_EQ(options.text(), "--seed 7 --days 3 --clients 2 --minutes 9 --without watch,fault --only 1,2");
}

}  // namespace
}  // namespace quorvix::simulate
