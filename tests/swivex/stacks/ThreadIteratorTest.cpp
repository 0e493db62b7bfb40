#include "swivex/stacks/ThreadIterator.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/swivex/stacks/StackTestSupport.h"

namespace quorvix {
namespace {

using swivex::stacks::ThreadIterator;

// Of the kernel's text, as it lists it itself; empty where it hides its addresses.
using Functions = std::map<std::uint64_t, std::set<std::string>>;

Functions readFunctions() {
    Functions functions;
    std::ifstream file("/proc/kallsyms");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::uint64_t address = 0;
        std::string kind;
        std::string name;
        words >> std::hex >> address >> kind >> name;
        // Not the modules': they come after a tab.
        if (address != 0 && (kind == "T" || kind == "t") && line.find('\t') == std::string::npos) {
            functions[address].insert(name);
        }
    }
    return functions;
}

// A long list, read once.
const Functions& functionsByAddress() {
    static const Functions functions = readFunctions();
    return functions;
}

class KernelNames : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(swivex::StackRoute::best); !why.empty()) GTEST_SKIP() << why;
        if (functionsByAddress().size() < 1000) GTEST_SKIP() << "the kernel hides its addresses";
        ASSERT_EQ(iterator_.load(), 0);
    }

    // Far from each other, each inside a function that is long enough to be inside of.
    std::vector<std::uint64_t> addresses(std::size_t count) const {
        std::vector<std::uint64_t> found;
        const std::size_t step = functionsByAddress().size() / (2 * count);
        std::size_t i = 0;
        for (auto at = functionsByAddress().begin();
             found.size() < count && std::next(at) != functionsByAddress().end(); ++at) {
            if (++i >= step && std::next(at)->first - at->first > 64) {
                found.push_back(at->first + 8);
                i = 0;
            }
        }
        return found;
    }
    void expectNames(std::size_t count) {
        const std::vector<std::uint64_t> asked = addresses(count);
        ASSERT_EQ(asked.size(), count);
        const std::vector<std::string> names = iterator_.names(asked);
        ASSERT_EQ(names.size(), count);
        for (std::size_t i = 0; i < count; ++i) {
            const std::set<std::string>& known = functionsByAddress().at(asked[i] - 8);
            EXPECT_TRUE(known.contains(names[i].substr(0, names[i].find("+0x8/")))) << names[i];
        }
    }

    ThreadIterator iterator_;
};

TEST_F(KernelNames, OfOneAddress) { expectNames(1); }
TEST_F(KernelNames, OfAsManyAsAreNamedAtOnce) { expectNames(SWIVEX_SYMBOLS); }
TEST_F(KernelNames, OfOneMore) { expectNames(SWIVEX_SYMBOLS + 1); }
TEST_F(KernelNames, OfVeryMany) { expectNames(500); }
TEST_F(KernelNames, OfNoneAreNone) { EXPECT_TRUE(iterator_.names({}).empty()); }

TEST_F(KernelNames, AreEmptyForWhatIsNoAddressOfTheKernel) {
    std::vector<std::uint64_t> asked = addresses(2);
    asked.insert(asked.begin() + 1, 4096);
    const std::vector<std::string> names = iterator_.names(asked);
    ASSERT_EQ(names.size(), 3u);
    EXPECT_NE(names[0], "");
    EXPECT_EQ(names[1], "");
    EXPECT_NE(names[2], "");
}

TEST_F(KernelNames, DoNotDisturbTheWalks) {
    std::vector<swivex_thread_record> before;
    std::vector<swivex_thread_record> after;
    ASSERT_TRUE(iterator_.walk(getpid(), 100, before));
    ASSERT_EQ(iterator_.names(addresses(3)).size(), 3u);
    ASSERT_TRUE(iterator_.walk(getpid(), 100, after));
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(after.front().tid, before.front().tid);
}

TEST_F(KernelNames, StartOfTheTextIsKnownAfterAWalk) {
    EXPECT_EQ(iterator_.kernelTextStart(), 0u);
    std::vector<swivex_thread_record> records;
    ASSERT_TRUE(iterator_.walk(getpid(), 100, records));
    const std::uint64_t start = iterator_.kernelTextStart();
    ASSERT_TRUE(functionsByAddress().contains(start));
    EXPECT_TRUE(functionsByAddress().at(start).contains("_stext"));
}

}  // namespace
}  // namespace quorvix
