// Builds in which one rule is broken on purpose: the simulation must find each.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <string>

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

struct Broken {
    const char* name;
    const char* expected;
};
constexpr Broken kCanaries[] = {
#include QUORVIX_CANARIES
};

class Canary : public ::testing::TestWithParam<Broken> {};

TEST_P(Canary, IsFoundWithinADayForWhatItBreaks) {
    // A crash is told of only where runs are made smaller.
    const std::string name = GetParam().name;
    const char* const options = name == "crash" ? " --days 1" : " --days 1 --no-shrink";
    // What is broken may need what not every day has: a write that fails, for example.
    Result result = run(program(name) + " --seed 4" + options);
    if (result.status == 0) result = run(program(name) + " --seed 5" + options);
    EXPECT_EQ(result.status, 1) << result.output;
    const std::size_t place = result.output.find("FAILED ");
    ASSERT_NE(place, std::string::npos) << result.output;
    EXPECT_NE(result.output.find(GetParam().expected, place), std::string::npos) << result.output;
}

INSTANTIATE_TEST_SUITE_P(Each, Canary, ::testing::ValuesIn(kCanaries), [](const auto& canary) {
    std::string name = canary.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(Shrinking, MakesACrashOneCommandToo) {
    const Result found = run(program("crash") + " --seed 4 --days 1");
    EXPECT_EQ(found.status, 1);
    EXPECT_NE(found.output.find("./dev simulate --canary crash "), std::string::npos) << found.output;
    EXPECT_NE(found.output.find(" --only "), std::string::npos) << found.output;
}

TEST(HealthyBuild, RefusesTheNameOfACanary) {
    EXPECT_EQ(run(QUORVIX_BIN "/quorvix_simulate --canary late-hang --minutes 1").status, 2);
}

TEST(Shrinking, PrintsASmallRunThatFailsWithTheBrokenRuleOnly) {
    const Result found = run(program("late-hang") + " --seed 5 --days 1 --canary late-hang");
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
