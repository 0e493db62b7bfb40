#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "platform/linux/ProcessQueries.h"
#include "platform/sim/SimProcesses.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::processes_contract {
namespace {

// The Linux side reads a made-up procfs, so that both tell of the same processes.
struct LinuxWorld {
    void add(std::int32_t pid, const std::string& path) {
        const std::string folder = proc.path(std::to_string(pid));
        std::filesystem::create_directory(folder);
        std::filesystem::create_symlink(path, folder + "/exe");
    }

    tests::TemporaryFolder proc;
    linuxos::LinuxProcessQueries processes{proc.path()};
};

struct SimWorld {
    void add(std::int32_t pid, const std::string& path) { processes.setExecutablePath(pid, path); }

    sim::SimProcesses processes;
};

template <class World>
class ProcessesContract : public testing::Test {
protected:
    World world_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(ProcessesContract, Worlds);

TYPED_TEST(ProcessesContract, GivesThePathAndItsLength) {
    this->world_.add(42, "/usr/bin/app\xff name");
    std::array<char, 4096> buffer;
    buffer.fill('#');
    ASSERT_EQ(this->world_.processes.executablePath(42, buffer), 18u);
    EXPECT_STREQ(buffer.data(), "/usr/bin/app\xff name");
    EXPECT_EQ(buffer[19], '#');
}

TYPED_TEST(ProcessesContract, AMissingProcessGivesNothing) {
    std::array<char, 4096> buffer{'#'};
    for (const std::int32_t pid : {0, -1, 43, 0x7fffffff}) {
        EXPECT_EQ(this->world_.processes.executablePath(pid, buffer), 0u);
        EXPECT_EQ(buffer[0], '#');
    }
}

TYPED_TEST(ProcessesContract, FillsAtMostTheBuffer) {
    this->world_.add(42, "/abcdef");
    std::array<char, 8> exact;
    exact.fill('#');
    EXPECT_EQ(this->world_.processes.executablePath(42, std::span(exact).first(7)), 7u);
    EXPECT_EQ(std::string(exact.data(), 8), "/abcdef#");
    exact.fill('#');
    EXPECT_EQ(this->world_.processes.executablePath(42, std::span(exact).first(4)), 4u);
    EXPECT_EQ(std::string(exact.data(), 8), "/abc####");
    EXPECT_EQ(this->world_.processes.executablePath(42, exact), 7u);
    EXPECT_EQ(exact[7], '\0');
    EXPECT_EQ(this->world_.processes.executablePath(42, std::span(exact).first(0)), 0u);
}

}  // namespace
}  // namespace quorvix::processes_contract
