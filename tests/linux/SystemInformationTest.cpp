#include "platform/linux/SystemInformation.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

TEST(OsRelease, IsReadFromADistributionsFile) {
    const SystemVersion version = parseOsRelease(
        "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n"
        "VERSION=\"12 (bookworm)\"\nID=debian\n");
    EXPECT_EQ(version.productName, "Debian GNU/Linux");
    EXPECT_EQ(version.productVersion, "12");
    EXPECT_EQ(version.buildVersion, std::nullopt);
}

TEST(OsRelease, TakesValuesAsAShellDoes) {
    const auto nameOf = [](std::string text) { return parseOsRelease("NAME=" + text).productName; };
    EXPECT_EQ(nameOf("plain"), "plain");
    EXPECT_EQ(nameOf("'single \"inner\" \\ quotes'"), "single \"inner\" \\ quotes");
    EXPECT_EQ(nameOf(R"("a \"b\" \$c \`d\` \\e \f")"), R"(a "b" $c `d` \e \f)");
    EXPECT_EQ(nameOf(R"("joined "'text'\ here)"), "joined text here");
    EXPECT_EQ(nameOf("cut off"), "cut");
    EXPECT_EQ(nameOf("windows\r"), "windows");
    EXPECT_EQ(nameOf(""), "");
    EXPECT_EQ(nameOf("\"no end"), "no end");
    EXPECT_EQ(nameOf("end\\"), "end\\");
}

TEST(OsRelease, TheLastAssignmentCountsAndCommentsDoNot) {
    const SystemVersion version = parseOsRelease("NAME=a\n#NAME=b\n  NAME=c\nMY_NAME=d\nBUILD_ID=20\n\nVERSION_ID=1");
    EXPECT_EQ(version.productName, "c");
    EXPECT_EQ(version.buildVersion, "20");
    EXPECT_EQ(version.productVersion, "1");
}

TEST(SystemInformationFiles, TheFirstThatCanBeReadCounts) {
    const tests::TemporaryFolder folder;
    tests::writeWholeFile(folder.path("second"), "NAME=second\n");
    LinuxSystemInformation information({folder.path("first"), folder.path("second")});
    EXPECT_EQ(information.version().productName, "second");
    tests::writeWholeFile(folder.path("first"), "NAME=first\n");
    EXPECT_EQ(information.version().productName, "first");
    EXPECT_EQ(LinuxSystemInformation({folder.path("none")}).version().productName, std::nullopt);
}

TEST(SystemInformationFiles, TheModelIsTheMachine) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_EQ(LinuxSystemInformation().machine(), name.machine);
}

}  // namespace
}  // namespace quorvix::linuxos
