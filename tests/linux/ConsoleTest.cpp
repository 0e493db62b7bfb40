#include "platform/linux/Console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/linux/Descriptor.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

class ConsoleTest : public testing::Test {
protected:
    ConsoleTest() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        reader_.reset(fds[0]);
        writer_.reset(fds[1]);
        places_.standardOutput = writer_.get();
        places_.standardError = writer_.get();
        places_.journalSocket = folder_.path("journal");
    }
    void haveJournal() { tests::writeWholeFile(places_.journalSocket, ""); }
    void errorLeadsToTheJournal() {
        struct stat status {};
        ASSERT_EQ(fstat(places_.standardError, &status), 0);
        places_.journalStream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    }
    std::string written() {
        writer_.reset();
        std::string text(65536, '\0');
        const ssize_t count = read(reader_.get(), text.data(), text.size());
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }

    tests::TemporaryFolder folder_;
    tests::RecordingLog log_;
    Descriptor reader_, writer_;
    LinuxConsole::Places places_{};
};

TEST_F(ConsoleTest, PrintsAsItStands) {
    LinuxConsole(log_, places_).print("a\n\tb");
    EXPECT_EQ(written(), "a\n\tb");
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ConsoleTest, ALineOfTheLogIsEchoed) {
    haveJournal();
    LinuxConsole(log_, places_).log("text");
    EXPECT_EQ(log_.lines(), std::vector<std::string>{": text"});
    EXPECT_EQ(written(), "text\n");
}

TEST_F(ConsoleTest, NotWhereTheLogGoesToStandardErrorAnyway) {
    LinuxConsole(log_, places_).log("text");
    EXPECT_EQ(log_.lines(), std::vector<std::string>{": text"});
    EXPECT_EQ(written(), "");
}

TEST_F(ConsoleTest, NotWhereStandardErrorIsTheJournal) {
    haveJournal();
    errorLeadsToTheJournal();
    LinuxConsole(log_, places_).log("text");
    EXPECT_EQ(log_.lines(), std::vector<std::string>{": text"});
    EXPECT_EQ(written(), "");
}

TEST_F(ConsoleTest, AStuckReaderLosesTheRestAndIsCounted) {
    places_.longestWaitMs = 0;
    LinuxConsole console(log_, places_);
    console.print(std::string(1 << 20, 'x'));
    const JsonObject counters = console.selfCounters();
    EXPECT_EQ(std::get<std::uint64_t>(counters.members()[0].second.content()), 1u);
    EXPECT_EQ(written().size(), 65536u);
}

TEST_F(ConsoleTest, AReaderThatIsGoneEndsNothing) {
    reader_.reset();
    LinuxConsole console(log_, places_);
    console.print("text");
    const JsonObject counters = console.selfCounters();
    EXPECT_EQ(std::get<std::uint64_t>(counters.members()[0].second.content()), 1u);
}

}  // namespace
}  // namespace quorvix::linuxos
