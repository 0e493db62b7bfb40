#include "platform/linux/ProcessAssertions.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <vector>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

TEST(Inhibitors, AreTakenByTheirKinds) {
    const auto assertion = parseInhibitor(
        "# This is private data. Do not parse.\nWHAT=shutdown:sleep:idle\nMODE=block\nUID=1000\nPID=4711\n"
        "WHO=A \\x22player\\x22\nWHY=PID=3\n");
    ASSERT_TRUE(assertion);
    EXPECT_EQ(assertion->pid, 4711);
    EXPECT_EQ(assertion->mask, 1u << 12 | 1u << 3 | 1u << 16);
    EXPECT_EQ(parseInhibitor("WHAT=handle-lid-switch\nPID=1\n")->mask, 1u << 2);
}

TEST(Inhibitors, WithoutAKnownKindOrAPidAreNone) {
    EXPECT_FALSE(parseInhibitor("WHAT=dance\nPID=1\n"));
    EXPECT_FALSE(parseInhibitor("WHAT=\nPID=1\n"));
    EXPECT_FALSE(parseInhibitor("WHAT=sleep\n"));
    EXPECT_FALSE(parseInhibitor("WHAT=sleep\nPID=-1\n"));
    EXPECT_FALSE(parseInhibitor("WHAT=sleep\nPID=99999999999\n"));
    EXPECT_FALSE(parseInhibitor("WHAT=sleep\nPID=1x\n"));
    EXPECT_FALSE(parseInhibitor(""));
}

TEST(RegistryEntries, HoldAPidItsStartAndAMask) {
    const auto entry = parseRegistryEntry("412 123456 0x8000000000000001\n");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->pid, 412);
    EXPECT_EQ(entry->startUnits, 123456u);
    EXPECT_EQ(entry->mask, 0x8000000000000001u);
}

TEST(RegistryEntries, OfAnotherFormAreNone) {
    for (const char* text : {"", "\n", "412", "412 1", "412 1 5", "412 1 0x", "412  1 0x1", "0 1 0x1", "-1 1 0x1",
                             "412 1 0x1 ", "412 1 0x10000000000000000", "412 -1 0x1", "412 1 0x1\n\n"}) {
        EXPECT_FALSE(parseRegistryEntry(text)) << text;
    }
}

class AssertionFolders : public testing::Test {
protected:
    AssertionFolders() {
        mkdir(folder_.path("inhibit").c_str(), 0755);
        mkdir(folder_.path("registry").c_str(), 0755);
    }
    void inhibitor(const std::string& name, const std::string& text) {
        tests::writeWholeFile(folder_.path("inhibit/" + name), text);
    }
    void entry(const std::string& name, const std::string& text) {
        tests::writeWholeFile(folder_.path("registry/" + name), text);
        chmod(folder_.path("registry/" + name).c_str(), 0644);
    }
    std::uint64_t mask(std::int32_t pid) {
        assertions_.read(pids_, [this](std::int32_t of) -> std::optional<std::uint64_t> {
            const auto found = starts_.find(of);
            if (found == starts_.end()) return std::nullopt;
            return found->second;
        });
        return assertions_.maskOf(pid);
    }

    tests::TemporaryFolder folder_;
    std::vector<std::int32_t> pids_{7, 9};
    std::map<std::int32_t, std::uint64_t> starts_{{7, 100}};
    ProcessAssertions assertions_{
        {.inhibitors = folder_.path("inhibit"), .registry = folder_.path("registry"), .owner = geteuid()}};
};

TEST_F(AssertionFolders, OfBothSourcesAreJoined) {
    inhibitor("1", "WHAT=sleep\nPID=7\n");
    inhibitor("2", "WHAT=idle\nPID=7\n");
    entry("7", "7 100 0x10000000001\n");
    EXPECT_EQ(mask(7), std::uint64_t{1} << 40 | 1 | 1u << 3 | 1u << 16);
    EXPECT_EQ(mask(8), 0u);
}

TEST_F(AssertionFolders, AreReadAnewForEverySnapshot) {
    entry("7", "7 100 0x1\n");
    EXPECT_EQ(mask(7), 1u);
    ASSERT_EQ(unlink(folder_.path("registry/7").c_str()), 0);
    EXPECT_EQ(mask(7), 0u);
}

TEST_F(AssertionFolders, AnEntryOfAnEarlierProcessOfThePidIsStale) {
    entry("7", "7 99 0x1\n");
    entry("8", "8 100 0x1\n");
    entry("9", "9 100 0x1\n");
    EXPECT_EQ(mask(7), 0u);
    EXPECT_EQ(assertions_.maskOf(8), 0u) << "not in the list";
    EXPECT_EQ(assertions_.maskOf(9), 0u) << "gone since the list";
    EXPECT_EQ(assertions_.staleEntries(), 3u);
}

TEST_F(AssertionFolders, WhatOthersMayWriteIsRefused) {
    entry("7", "7 100 0x1\n");
    chmod(folder_.path("registry/7").c_str(), 0666);
    EXPECT_EQ(mask(7), 0u);
    EXPECT_EQ(assertions_.refusedFiles(), 1u);
    chmod(folder_.path("registry/7").c_str(), 0644);
    chmod(folder_.path("registry").c_str(), 0777);
    EXPECT_EQ(mask(7), 0u);
    EXPECT_EQ(assertions_.refusedFiles(), 2u);
    chmod(folder_.path("registry").c_str(), 0755);
    EXPECT_EQ(mask(7), 1u);
}

TEST_F(AssertionFolders, AnEntryUnderAnothersNameOrOfAnotherFormIsRefused) {
    entry("9", "7 100 0x1\n");
    entry("7", "damaged");
    EXPECT_EQ(mask(7), 0u);
    EXPECT_EQ(assertions_.refusedFiles(), 2u);
}

TEST_F(AssertionFolders, LinksAndPipesAreNotRead) {
    tests::writeWholeFile(folder_.path("elsewhere"), "7 100 0x1\n");
    ASSERT_EQ(symlink(folder_.path("elsewhere").c_str(), folder_.path("registry/7").c_str()), 0);
    ASSERT_EQ(mkfifo(folder_.path("inhibit/1").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(folder_.path("inhibit/1.ref").c_str(), 0600), 0);
    EXPECT_EQ(mask(7), 0u);
    EXPECT_EQ(assertions_.refusedFiles(), 1u) << "the pipe without the login manager's ending";
}

TEST_F(AssertionFolders, TooManyFilesAreCutOffWhateverTheirNames) {
    for (std::size_t i = 0; i < ProcessAssertions::kMaximumFiles; ++i) inhibitor(std::to_string(i) + ".ref", "");
    (void)mask(7);
    EXPECT_EQ(assertions_.refusedFiles(), 1u) << "both dots of the folder count";
}

TEST_F(AssertionFolders, ThousandsOfEntriesOfOthersAreNotOpened) {
    entry("7", "7 100 0x1\n");
    for (int pid = 1000; pid < 5000; ++pid) entry(std::to_string(pid), "damaged");
    EXPECT_EQ(mask(7), 1u);
    EXPECT_EQ(assertions_.staleEntries(), 4000u);
    EXPECT_EQ(assertions_.refusedFiles(), 0u);
}

TEST_F(AssertionFolders, AHugeOrUnreadableFileIsRefused) {
    entry("7", "7 100 0x1\n");
    std::filesystem::resize_file(folder_.path("registry/7"), std::uintmax_t{1} << 40);
    entry("9", "");
    EXPECT_EQ(mask(7), 0u) << "what is behind the first bytes counts";
    EXPECT_EQ(assertions_.refusedFiles(), 2u);
}

TEST(AssertionFoldersMissing, AreNoAssertions) {
    ProcessAssertions assertions({.inhibitors = "/nonexistent/a", .registry = "/nonexistent/b"});
    assertions.read({}, [](std::int32_t) { return std::optional<std::uint64_t>(0); });
    EXPECT_EQ(assertions.maskOf(1), 0u);
    EXPECT_EQ(assertions.refusedFiles(), 0u);
}

}  // namespace
}  // namespace quorvix::linuxos
