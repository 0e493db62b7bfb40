#include <gtest/gtest.h>

#include <string>

#include "platform/linux/LibraryLoader.h"
#include "platform/sim/SimLibraries.h"

namespace quorvix::libraries_contract {
namespace {

constexpr const char* kFunction = "swivex_dump_output_with_options_sync";
constexpr const char* kKey = "SWXDumpOptions_ReasonString";

struct LinuxWorld {
    std::string path(const std::string& name) const {
        return std::string(QUORVIX_STANDIN_FOLDER) + "/" + name + "/libswivex.dylib";
    }

    linuxos::LinuxLibraryLoader libraries;
};

struct SimWorld {
    SimWorld() {
        libraries.setLibrary(path("standin_swivex"), {{kFunction, &symbol}, {kKey, &symbol}});
        libraries.setLibrary(path("standin_swivex_nosymbol"), {{kKey, &symbol}});
    }
    std::string path(const std::string& name) const { return "/" + name; }

    int symbol = 0;
    sim::SimLibraries libraries;
};

template <class World>
class LibrariesContract : public testing::Test {
protected:
    World world_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(LibrariesContract, Worlds);

TYPED_TEST(LibrariesContract, FindsSymbolsOfALibrary) {
    void* library = this->world_.libraries.open(this->world_.path("standin_swivex"));
    ASSERT_NE(library, nullptr);
    EXPECT_NE(this->world_.libraries.symbol(library, kFunction), nullptr);
    EXPECT_NE(this->world_.libraries.symbol(library, kKey), nullptr);
}

TYPED_TEST(LibrariesContract, AMissingSymbolIsNothing) {
    void* library = this->world_.libraries.open(this->world_.path("standin_swivex_nosymbol"));
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(this->world_.libraries.symbol(library, kFunction), nullptr);
    EXPECT_NE(this->world_.libraries.symbol(library, kKey), nullptr);
}

TYPED_TEST(LibrariesContract, AMissingLibraryIsNothing) {
    EXPECT_EQ(this->world_.libraries.open(this->world_.path("missing")), nullptr);
    EXPECT_EQ(this->world_.libraries.open(""), nullptr);
    EXPECT_EQ(this->world_.libraries.symbol(nullptr, kFunction), nullptr);
}

}  // namespace
}  // namespace quorvix::libraries_contract
