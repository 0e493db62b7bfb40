#include "simulate/CommandLine.h"

#include <gtest/gtest.h>

namespace quorvix::simulate {
namespace {

std::optional<CommandLine> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "quorvix_simulate");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

TEST(SimulationCommandLine, TakesWhatOptionsShow) {
    const auto line = parse({"--seed", "7", "--days", "3", "--clients", "2", "--minutes", "9", "--without",
                             "watch,fault", "--only", "2,1", "--log", "--no-shrink", "--canary", "late-hang"});
    ASSERT_TRUE(line);
    EXPECT_EQ(line->options.text(), "--seed 7 --days 3 --clients 2 --minutes 9 --without watch,fault --only 1,2");
    EXPECT_TRUE(line->showLog);
    EXPECT_FALSE(line->shrinks);
    EXPECT_EQ(line->canaryText(), "--canary late-hang ");
}

TEST(SimulationCommandLine, RefusesWhatItDoesNotKnow) {
    EXPECT_FALSE(parse({"--speed", "7"}));
    EXPECT_FALSE(parse({"--seed"}));
    EXPECT_FALSE(parse({"--seed", "7x"}));
    EXPECT_FALSE(parse({"--clients", "0"}));
    EXPECT_FALSE(parse({"--without", "sunshine"}));
}

}  // namespace
}  // namespace quorvix::simulate
