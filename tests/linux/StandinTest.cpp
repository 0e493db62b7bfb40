#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/LibraryLoader.h"
#include "platform/swivex.h"

namespace quorvix::linuxos {
namespace {

// The stand-in trace library and its variants do what the tests that use them count on.
class StandinTest : public testing::Test {
protected:
    void load(const std::string& name) {
        library_ = loader_.open(std::string(QUORVIX_STANDIN_FOLDER) + "/" + name + "/libswivex.dylib");
        ASSERT_NE(library_, nullptr);
    }
    swivex_dump_function* function() {
        return reinterpret_cast<swivex_dump_function*>(
            loader_.symbol(library_, "swivex_dump_output_with_options_sync"));
    }
    const char* key(const char* name) {
        const auto* found = static_cast<const char* const*>(loader_.symbol(library_, name));
        return found ? *found : nullptr;
    }
    // The answer of a dump with two options, and what was written.
    std::pair<bool, std::string> dump() {
        const int file = memfd_create("dump", MFD_CLOEXEC);
        const swivex_option list[] = {
            {.key = key("SWXDumpOptions_ReasonString"), .type = SWIVEX_OPTION_STRING, .value = {.text = "{\"PID\":1}"}},
            {.key = key("SWXDumpOptions_MaxTimestamp"), .type = SWIVEX_OPTION_UINT64, .value = {.number = UINT64_MAX}},
        };
        const swivex_options options = {.count = 2, .options = list};
        const bool answer = function()(file, &options);
        char text[512];
        const ssize_t length = pread(file, text, sizeof text, 0);
        close(file);
        return {answer, std::string(text, static_cast<std::size_t>(length))};
    }

    LinuxLibraryLoader loader_;
    void* library_ = nullptr;
};

TEST_F(StandinTest, WritesWhatItWasGiven) {
    load("standin_swivex");
    for (const char* name : {"SWXDumpOptions_ReasonString", "SWXDumpOptions_NoSymbolicate",
                             "SWXDumpOptions_MinTimestamp", "SWXDumpOptions_MaxTimestamp"}) {
        EXPECT_NE(key(name), nullptr) << name;
    }
    EXPECT_EQ(dump(), std::pair(true, std::string("ReasonString string {\"PID\":1}\n"
                                                  "MaxTimestamp uint64 18446744073709551615\nend\n")));
}

TEST_F(StandinTest, TheFailingOneWritesHalf) {
    load("standin_swivex_failing");
    EXPECT_EQ(dump(), std::pair(false, std::string("ReasonString string {\"PID\":1}\n")));
}

TEST_F(StandinTest, TheSlowOneTakesItsTime) {
    load("standin_swivex_slow");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(dump().first);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(StandinTest, OneHasNoFunctionAndOneLacksAKey) {
    load("standin_swivex_nosymbol");
    EXPECT_EQ(function(), nullptr);
    EXPECT_NE(key("SWXDumpOptions_NoSymbolicate"), nullptr);
    load("standin_swivex_nokey");
    EXPECT_NE(function(), nullptr);
    EXPECT_EQ(key("SWXDumpOptions_NoSymbolicate"), nullptr);
    EXPECT_NE(key("SWXDumpOptions_MaxTimestamp"), nullptr);
}

}  // namespace
}  // namespace quorvix::linuxos
