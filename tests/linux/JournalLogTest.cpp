#include "platform/linux/JournalLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <thread>

#include "platform/linux/MessageIds.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;
using Fields = std::map<std::string, std::string>;

// Reads an entry as the journal does.
Fields parseEntry(std::string_view entry) {
    Fields fields;
    while (!entry.empty()) {
        const std::size_t end = entry.find_first_of("=\n");
        if (end == std::string_view::npos) {
            ADD_FAILURE() << "a field without an end: " << entry;
            break;
        }
        const std::string name(entry.substr(0, end));
        std::size_t length = 0;
        if (entry[end] == '=') {
            length = entry.find('\n', end) - end - 1;
            entry.remove_prefix(end + 1);
        } else {
            for (std::size_t i = 0; i < 8; ++i) {
                length |= std::size_t{static_cast<unsigned char>(entry[end + 1 + i])} << 8 * i;
            }
            entry.remove_prefix(end + 9);
        }
        fields[name] = entry.substr(0, length);
        EXPECT_EQ(entry.at(length), '\n') << name;
        entry.remove_prefix(length + 1);
    }
    return fields;
}

// The journal's socket: a bound one, from which entries are taken when the test wants them.
class FakeJournal {
public:
    explicit FakeJournal(const std::string& path) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    // The next entry, from the datagram or from the memory file that came in its place; empty when there is none.
    Fields take() {
        std::string bytes(1 << 20, '\0');
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t count = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (count < 0) return {};
        if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
            return fromMemoryFile(Descriptor(descriptor));
        }
        bytes.resize(static_cast<std::size_t>(count));
        return parseEntry(bytes);
    }
    bool lastWasMemoryFile() const { return lastWasMemoryFile_; }

private:
    Fields fromMemoryFile(const Descriptor& file) {
        lastWasMemoryFile_ = true;
        EXPECT_EQ(fcntl(file.get(), F_GET_SEALS), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
        struct stat status {};
        EXPECT_EQ(fstat(file.get(), &status), 0);
        std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
        EXPECT_EQ(pread(file.get(), bytes.data(), bytes.size(), 0), status.st_size);
        return parseEntry(bytes);
    }

    Descriptor socket_;
    bool lastWasMemoryFile_ = false;
};

class JournalLogTest : public testing::Test {
protected:
    JournalLogTest() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        readEnd_ = Descriptor(ends[0]);
        writeEnd_ = Descriptor(ends[1]);
        places_.journalSocket = folder_.path("journal");
        places_.levels = folder_.path("logging.plist");
        places_.standardError = writeEnd_.get();
        places_.levelsCheckInterval = std::chrono::nanoseconds(0);
    }

    JournalLog& log() {
        if (!log_) log_ = std::make_unique<JournalLog>(places_);
        return *log_;
    }
    void write(std::string_view text, LogLevel level = LogLevel::standard, std::string_view category = "") {
        log().write("com.norvane.quorvix", category, level, text);
    }
    // What came to standard error since the last call.
    std::string standardError() {
        std::string text;
        for (pollfd readable{readEnd_.get(), POLLIN, 0}; poll(&readable, 1, 0) == 1;) {
            char bytes[65536];
            const ssize_t count = read(readEnd_.get(), bytes, sizeof bytes);
            if (count <= 0) break;
            text.append(bytes, static_cast<std::size_t>(count));
        }
        return text;
    }
    std::uint64_t counter(const std::string& name) {
        const JsonObject counters = log().selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        ADD_FAILURE() << name;
        return 0;
    }
    void setLevels(const std::string& content) {
        tests::writeWholeFile(places_.levels, "<plist version=\"1.0\"><dict>" + content + "</dict></plist>");
    }
    // The least important level that is kept: "none" to "debug".
    std::string keptLevel(std::string_view subsystem, std::string_view category) {
        const auto on = [&](LogLevel level) { return log().enabled(subsystem, category, level); };
        EXPECT_TRUE(on(LogLevel::standard) || !on(LogLevel::info));
        EXPECT_TRUE(on(LogLevel::info) || !on(LogLevel::debug));
        return on(LogLevel::debug)      ? "debug"
               : on(LogLevel::info)     ? "info"
               : on(LogLevel::standard) ? "default"
                                        : "none";
    }

    tests::TemporaryFolder folder_;
    Descriptor readEnd_;
    Descriptor writeEnd_;
    JournalLog::Places places_;
    std::unique_ptr<JournalLog> log_;
};

TEST_F(JournalLogTest, EntryHasItsFields) {
    FakeJournal journal(places_.journalSocket);
    write("QXProcessInfo: 12% done", LogLevel::info, "platform");
    EXPECT_THAT(journal.take(), UnorderedElementsAre(Pair("MESSAGE", "QXProcessInfo: 12% done"), Pair("PRIORITY", "6"),
                                                     Pair("SYSLOG_IDENTIFIER", "quorvixd"),
                                                     Pair("QUORVIX_SUBSYSTEM", "com.norvane.quorvix"),
                                                     Pair("QUORVIX_CATEGORY", "platform")));
    EXPECT_EQ(standardError(), "");
    EXPECT_EQ(counter("journalLines"), 1u);
}

TEST_F(JournalLogTest, AnEventsLineCarriesItsIdAndItsReason) {
    FakeJournal journal(places_.journalSocket);
    const LogHandle handle(log(), "com.norvane.quorvix", "");
    handle.about(LogEventKind::reportRefused, "app-credits").standard("Mail is out of credits");
    Fields fields = journal.take();
    EXPECT_EQ(fields["MESSAGE"], "Mail is out of credits");
    EXPECT_EQ(fields["MESSAGE_ID"], messageIdOf(LogEventKind::reportRefused));
    EXPECT_EQ(fields["QUORVIX_REASON"], "app-credits");

    handle.about(LogEventKind::hang).info("hang");
    fields = journal.take();
    EXPECT_EQ(fields["MESSAGE_ID"], messageIdOf(LogEventKind::hang));
    EXPECT_EQ(fields.count("QUORVIX_REASON"), 0u);
    EXPECT_EQ(standardError(), "");

    // The handle itself stays without.
    handle.standard("no event");
    EXPECT_EQ(journal.take().count("MESSAGE_ID"), 0u);
}

TEST_F(JournalLogTest, EveryEventHasAnIdOfItsOwn) {
    std::set<std::string_view> ids;
    for (const auto kind :
         {LogEventKind::hang, LogEventKind::reportWritten, LogEventKind::reportRefused, LogEventKind::dailyReset,
          LogEventKind::activationRecorded, LogEventKind::snapshotWritten}) {
        ids.insert(messageIdOf(kind));
        EXPECT_EQ(messageIdOf(kind).size(), 32u);
        EXPECT_EQ(messageIdOf(kind).find_first_not_of("0123456789abcdef"), std::string_view::npos);
    }
    EXPECT_EQ(ids.size(), 6u);
}

TEST_F(JournalLogTest, PriorityFollowsTheLevel) {
    FakeJournal journal(places_.journalSocket);
    for (const auto& [level, priority] :
         {std::pair{LogLevel::standard, "5"}, {LogLevel::info, "6"}, {LogLevel::debug, "7"}}) {
        write("text", level);
        EXPECT_EQ(journal.take()["PRIORITY"], priority);
    }
}

TEST_F(JournalLogTest, EveryByteOfTheTextArrives) {
    FakeJournal journal(places_.journalSocket);
    std::string every;
    for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);
    for (const std::string& text :
         {every, std::string(), std::string("\n"), std::string("a\nPRIORITY=0\n"), std::string(1000, '\n')}) {
        write(text, LogLevel::standard, "a\ncategory");
        Fields fields = journal.take();
        EXPECT_EQ(fields["MESSAGE"], text);
        EXPECT_EQ(fields["PRIORITY"], "5");
        EXPECT_EQ(fields["QUORVIX_CATEGORY"], "a\ncategory");
    }
}

TEST_F(JournalLogTest, TextTooLongForADatagramComesAsAMemoryFile) {
    FakeJournal journal(places_.journalSocket);
    std::string text(300'000, 'x');
    text += "\nend";
    write(text);
    EXPECT_EQ(journal.take()["MESSAGE"], text);
    EXPECT_TRUE(journal.lastWasMemoryFile());
    EXPECT_EQ(counter("memoryFileLines"), 1u);
    EXPECT_EQ(standardError(), "");
}

TEST_F(JournalLogTest, WithoutAJournalALineGoesToStandardError) {
    write("plain");
    write("own", LogLevel::info, "platform");
    write("detail", LogLevel::debug);
    EXPECT_EQ(standardError(), "<default> plain\n<info> [platform] own\n<debug> detail\n");
    EXPECT_EQ(counter("standardErrorLines"), 3u);
}

TEST_F(JournalLogTest, EntryStaysOneLineOnStandardError) {
    write(std::string("a\nb\tc\rd\x7F") + '\0' + "\x1B[31m é \\");
    EXPECT_EQ(standardError(), "<default> a\\nb\\tc\\x0dd\\x7f\\x00\\x1b[31m é \\\n");
}

TEST_F(JournalLogTest, JournalThatComesAndGoesIsFollowed) {
    write("before");
    {
        FakeJournal journal(places_.journalSocket);
        write("there");
        EXPECT_EQ(journal.take()["MESSAGE"], "there");
    }
    write("refused");
    std::filesystem::remove(places_.journalSocket);
    FakeJournal journal(places_.journalSocket);
    write("again");
    EXPECT_EQ(journal.take()["MESSAGE"], "again");
    EXPECT_EQ(standardError(), "<default> before\n<default> refused\n");
}

TEST_F(JournalLogTest, FullJournalHoldsALineUpShortlyAndNotTheNextOnes) {
    FakeJournal journal(places_.journalSocket);
    int written = 0;
    while (counter("stuckJournal") == 0 && written < 10'000) write("line " + std::to_string(written++));
    ASSERT_EQ(counter("stuckJournal"), 1u);
    EXPECT_EQ(standardError(), "<default> line " + std::to_string(written - 1) + "\n");

    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) write("later");
    // A wait for each would be a second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(counter("stuckJournal"), 101u);

    for (int i = 0; i < written - 1; ++i) ASSERT_EQ(journal.take()["MESSAGE"], "line " + std::to_string(i));
    write("free again");
    EXPECT_EQ(journal.take()["MESSAGE"], "free again");
}

TEST_F(JournalLogTest, StuckStandardErrorDropsLinesAndCountsThem) {
    int written = 0;
    while (counter("droppedLines") == 0 && written < 1000) {
        write(std::to_string(written++) + std::string(999, '.'));
    }
    ASSERT_EQ(counter("droppedLines"), 1u);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) write("dropped");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(counter("droppedLines"), 101u);

    const std::string before = standardError();
    write("free again");
    EXPECT_THAT(before, HasSubstr("<default> 0...."));
    EXPECT_EQ(standardError(), before.ends_with('\n') ? "<default> free again\n" : "\n<default> free again\n");
}

TEST_F(JournalLogTest, LineLongerThanAPipeIsCutAndTheNextStartsAnew) {
    write(std::string(200'000, 'x'));
    EXPECT_EQ(counter("droppedLines"), 1u);
    const std::string cut = standardError();
    EXPECT_GT(cut.size(), 4000u);
    write("next");
    EXPECT_EQ(standardError(), "\n<default> next\n");
}

TEST_F(JournalLogTest, StandardErrorWithoutAReaderIsNoDanger) {
    readEnd_.reset();
    write("nobody reads this");
    EXPECT_EQ(counter("droppedLines"), 1u);
}

TEST_F(JournalLogTest, WithoutAListDebugIsOff) {
    EXPECT_EQ(keptLevel("com.norvane.quorvix", ""), "info");
    EXPECT_EQ(keptLevel("com.norvane.quorvix", "platform"), "info");
}

TEST_F(JournalLogTest, ListSetsTheLevelOfACategory) {
    setLevels(
        "<key>one</key><dict><key></key><string>debug</string><key>quiet</key><string>default</string></dict>"
        "<key>two</key><dict><key>*</key><string>default</string><key>loud</key><string>info</string></dict>");
    EXPECT_EQ(keptLevel("one", ""), "debug");
    EXPECT_EQ(keptLevel("one", "quiet"), "default");
    EXPECT_EQ(keptLevel("one", "other"), "info");
    EXPECT_EQ(keptLevel("two", ""), "default");
    EXPECT_EQ(keptLevel("two", "loud"), "info");
    EXPECT_EQ(keptLevel("three", ""), "info");
}

TEST_F(JournalLogTest, ListIsReadAgainWhenItChanges) {
    EXPECT_EQ(keptLevel("one", ""), "info");
    for (const std::string level : {"debug", "default", "info", "debug"}) {
        setLevels("<key>one</key><dict><key>*</key><string>" + level + "</string></dict>");
        EXPECT_EQ(keptLevel("one", ""), level);
    }
    std::filesystem::remove(places_.levels);
    EXPECT_EQ(keptLevel("one", ""), "info");
}

TEST_F(JournalLogTest, DamagedListMeansTheUsualLevelsAndIsSaidOnce) {
    tests::writeWholeFile(places_.levels, "debug please");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(keptLevel("one", ""), "info");
    EXPECT_EQ(standardError(), "<default> [platform] log levels are the usual ones: " + places_.levels + ": damaged\n");
    setLevels("<key>one</key><dict><key>*</key><string>loud</string><key>a</key><string>debug</string></dict>");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(keptLevel("one", ""), "info");
    EXPECT_EQ(keptLevel("one", "a"), "debug");
    EXPECT_EQ(standardError(), "<default> [platform] log levels: not understood: one *\n");
}

TEST_F(JournalLogTest, FileIsLookedAtOnceAnInterval) {
    places_.levelsCheckInterval = std::chrono::hours(1);
    EXPECT_EQ(keptLevel("one", ""), "info");
    setLevels("<key>one</key><dict><key>*</key><string>debug</string></dict>");
    EXPECT_EQ(keptLevel("one", ""), "info");
    EXPECT_EQ(counter("levelReloads"), 0u);
}

TEST_F(JournalLogTest, ThreadsMayAskAndWriteAtOnce) {
    FakeJournal journal(places_.journalSocket);
    setLevels("<key>com.norvane.quorvix</key><dict><key>*</key><string>info</string></dict>");
    log();
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([this] {
                for (int i = 0; i < 200; ++i) LogHandle(log(), "com.norvane.quorvix", "").info("line %d", i);
            });
        }
    }
    EXPECT_EQ(counter("journalLines") + counter("standardErrorLines") + counter("droppedLines"), 800u);
}

}  // namespace
}  // namespace quorvix::linuxos
