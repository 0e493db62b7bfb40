// Builds in which one rule is broken on purpose: the simulation must find each.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Result {
    int status = -1;
    std::string output;
};

Result run(const std::string& command) {
    Result result;
    std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) result.output.append(buffer, count);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string program(const std::string& canary) { return std::string(QUORVIX_BIN "/quorvix_simulate_") + canary; }

class Canary : public ::testing::TestWithParam<std::string> {};

TEST_P(Canary, IsFoundWithinADay) {
    const Result result = run(program(GetParam()) + " --seed 4 --days 1 --no-shrink");
    EXPECT_EQ(result.status, 1) << result.output;
    EXPECT_NE(result.output.find("FAILED after action "), std::string::npos) << result.output;
}

std::vector<std::string> canaries() {
    std::istringstream names(QUORVIX_CANARIES);
    return {std::istream_iterator<std::string>(names), {}};
}

INSTANTIATE_TEST_SUITE_P(Each, Canary, ::testing::ValuesIn(canaries()), [](const auto& canary) {
    std::string name = canary.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(Shrinking, PrintsASmallRunThatFailsWithTheBrokenRuleOnly) {
    const Result found = run(program("late-hang") + " --seed 4 --days 1 --canary late-hang");
    ASSERT_EQ(found.status, 1);
    const std::string mark = "./dev simulate --canary late-hang ";
    const std::size_t place = found.output.find(mark);
    ASSERT_NE(place, std::string::npos) << found.output;
    const std::size_t start = place + mark.size();
    const std::string options = found.output.substr(start, found.output.find('\n', start) - start);
    const std::size_t only = options.find("--only ");
    ASSERT_NE(only, std::string::npos) << options;
    // A client that is watched, and its hang.
    EXPECT_LE(std::count(options.begin() + static_cast<std::ptrdiff_t>(only), options.end(), ','), 4) << options;
    EXPECT_EQ(run(program("late-hang") + " --no-shrink " + options).status, 1) << options;
    const Result healthy = run(QUORVIX_BIN "/quorvix_simulate --no-shrink " + options);
    EXPECT_EQ(healthy.status, 0) << healthy.output;
}

}  // namespace
