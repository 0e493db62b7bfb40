#include "hang/TraceLibrary.h"

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kAbsent = "default: libswivex.dylib is not present.";
constexpr const char* kMissing = "default: Swivex dump symbol is missing!";

class TraceLibraryLoading : public HangWorld {
protected:
    // The daemon with reports on, without the trace library.
    void startWithoutLibrary() {
        prefer("QuorvixEnabled", true);
        prefer("QuorvixEnableSwivex", true);
        start();
        device.log.clear();
    }
    TraceLibrary& library() { return hangState().traceLibrary; }
    bool write() {
        const auto created = device.files.createFile({kTmp, "trace"}, 0644, 4);
        const bool written = library().writeSwivexData(*created, 3, 0xFFFFFFFFFFFFFFFFu, "reason text");
        device.files.close(*created);
        return written;
    }
    // What the library is given when it lacks this key.
    const TraceLibraryScript::Call& callWithout(std::string_view key) {
        startWithHangTracing();
        device.libraries.removeSymbol(kTraceLibraryPath, key);
        EXPECT_TRUE(write());
        return traceLibrary.calls.at(0);
    }
};

TEST_F(TraceLibraryLoading, LoadsTheLibraryOnceOnFirstNeed) {
    startWithHangTracing();
    EXPECT_THAT(device.libraries.opened(), IsEmpty());
    EXPECT_TRUE(library().usable());
    EXPECT_TRUE(library().usable());
    EXPECT_TRUE(write());
    EXPECT_THAT(device.libraries.opened(), ElementsAre("/usr/lib/libswivex.dylib"));
    EXPECT_THAT(device.libraries.lookedUp(), ElementsAre("swivex_dump_output_with_options_sync",
                                                         "SWXDumpOptions_ReasonString", "SWXDumpOptions_NoSymbolicate",
                                                         "SWXDumpOptions_MinTimestamp", "SWXDumpOptions_MaxTimestamp"));
}

TEST_F(TraceLibraryLoading, GivesTheFourOptionsUnderTheLibrarysOwnKeys) {
    startWithHangTracing();
    EXPECT_TRUE(write());
    ASSERT_EQ(traceLibrary.calls.size(), 1u);
    const auto& call = traceLibrary.calls[0];
    EXPECT_THAT(call.keys, ElementsAre("no-symbolicate-key", "reason-key", "min-key", "max-key"));
    EXPECT_EQ(call.noSymbolicate, true);
    EXPECT_EQ(call.reason, "reason text");
    EXPECT_EQ(call.minTimestamp, 3u);
    EXPECT_EQ(call.maxTimestamp, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(device.files.read(inTmp("trace")), "trace");
}

TEST_F(TraceLibraryLoading, PassesTheLibrarysAnswerOn) {
    startWithHangTracing();
    traceLibrary.succeeds = false;
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(write()); }), IsEmpty());
}

TEST_F(TraceLibraryLoading, AnAbsentLibraryIsNotedOnce) {
    startWithoutLibrary();
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(library().usable()); }), ElementsAre(kAbsent));
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(library().usable()); }), IsEmpty());
    EXPECT_THAT(device.libraries.lookedUp(), IsEmpty());
}

TEST_F(TraceLibraryLoading, ALibraryThatAppearsLaterIsNotLookedFor) {
    startWithoutLibrary();
    EXPECT_FALSE(library().usable());
    installTraceLibrary();
    EXPECT_FALSE(library().usable());
    EXPECT_EQ(device.libraries.opened().size(), 1u);
}

TEST_F(TraceLibraryLoading, AWriteWithoutALibraryFails) {
    startWithoutLibrary();
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(write()); }), ElementsAre(kAbsent, kMissing));
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(write()); }), ElementsAre(kMissing));
}

TEST_F(TraceLibraryLoading, AWriteWithoutTheDumpFunctionFails) {
    startWithHangTracing();
    device.libraries.removeSymbol(kTraceLibraryPath, "swivex_dump_output_with_options_sync");
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(write()); }), ElementsAre(kMissing));
    EXPECT_EQ(device.libraries.lookedUp().size(), 5u);
}

TEST_F(TraceLibraryLoading, WithoutTheReasonKeyNoReasonIsGiven) {
    EXPECT_THAT(callWithout("SWXDumpOptions_ReasonString").keys,
                ElementsAre("no-symbolicate-key", "min-key", "max-key"));
}

TEST_F(TraceLibraryLoading, WithoutTheSymbolsKeyTheLibraryDecides) {
    EXPECT_THAT(callWithout("SWXDumpOptions_NoSymbolicate").keys, ElementsAre("reason-key", "min-key", "max-key"));
}

TEST_F(TraceLibraryLoading, WithoutTheMinimumKeyTheStartIsOpen) {
    EXPECT_THAT(callWithout("SWXDumpOptions_MinTimestamp").keys,
                ElementsAre("no-symbolicate-key", "reason-key", "max-key"));
}

TEST_F(TraceLibraryLoading, WithoutTheMaximumKeyTheEndIsOpen) {
    EXPECT_THAT(callWithout("SWXDumpOptions_MaxTimestamp").keys,
                ElementsAre("no-symbolicate-key", "reason-key", "min-key"));
}

TEST_F(TraceLibraryLoading, AKeyThatPointsNowhereIsNoKey) {
    startWithHangTracing();
    static const char* nowhere = nullptr;
    device.libraries.setLibrary(kTraceLibraryPath,
                                {{"swivex_dump_output_with_options_sync", reinterpret_cast<void*>(&dumpTrace)},
                                 {"SWXDumpOptions_ReasonString", &nowhere}});
    EXPECT_TRUE(write());
    EXPECT_THAT(traceLibrary.calls.at(0).keys, IsEmpty());
}

TEST_F(TraceLibraryLoading, HangsWithoutALibraryAreRefusedBeforeAnyFileIsMade) {
    startWithoutLibrary();
    QXProcessInfo& mail = watchedRecord();
    constexpr const char* kRefused =
        "default: Mail: Tried to save swivex, but swivex support is not present on this device!";
    EXPECT_THAT(linesOf([&] { recordHang(mail, "main"); }),
                ElementsAre("info: Mail: Hang detected 6.00s (main)", kAbsent, kRefused));
    EXPECT_THAT(linesOf([&] { recordHang(mail, "main"); }),
                ElementsAre("info: Mail: Hang detected 6.00s (main)", kRefused));
    EXPECT_THAT(device.files.calls(), IsEmpty());
    EXPECT_EQ(mail.appCredit(), 4u);
}

}  // namespace
}  // namespace quorvix::test
