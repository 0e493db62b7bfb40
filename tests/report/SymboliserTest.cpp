#include "report/Symboliser.h"

#include <dlfcn.h>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::report {
namespace {

// One field of a message, shorter than 16 KiB.
std::string field(unsigned number, const std::string& content) {
    std::string text;
    for (const std::size_t value : {std::size_t{number} << 3 | 2, content.size()}) {
        if (value >= 0x80) text += static_cast<char>(value | 0x80);
        text += static_cast<char>(value >= 0x80 ? value >> 7 : value);
    }
    return text + content;
}

// A module of this process, as a report would describe it.
struct LoadedModule {
    std::string path;
    std::uint64_t base = 0;
    std::vector<std::uint8_t> buildId;
};

LoadedModule moduleOf(const void* address) {
    Dl_info about{};
    if (dladdr(address, &about) == 0) return {};
    LoadedModule module{
        .path = about.dli_fname, .base = reinterpret_cast<std::uintptr_t>(about.dli_fbase), .buildId = {}};
    elf_version(EV_CURRENT);
    const int file = open(module.path.c_str(), O_RDONLY | O_CLOEXEC);
    Elf* const elf = elf_begin(file, ELF_C_READ, nullptr);
    const void* id = nullptr;
    const ssize_t size = dwelf_elf_gnu_build_id(elf, &id);
    if (size > 0) {
        const auto* const bytes = static_cast<const std::uint8_t*>(id);
        module.buildId.assign(bytes, bytes + size);
    }
    elf_end(elf);
    close(file);
    return module;
}

class SymboliserTest : public testing::Test {
protected:
    SymboliserTest() {
        // Not through &function: a sanitizer stands in front of some.
        address_ = dlsym(RTLD_DEFAULT, "zlibVersion");
        module_ = moduleOf(address_);
    }
    std::uint64_t relative() const { return reinterpret_cast<std::uintptr_t>(address_) - module_.base; }
    std::string named(const Frame& frame) {
        std::vector<ToldFrame> stack = {{.frame = frame, .symbol = {}}};
        Symboliser({.debugFiles = "/nonexistent", .kernelSymbols = "/nonexistent", .kernelModules = "/nonexistent"})
            .name(contents_, stack);
        return stack[0].symbol;
    }
    Frame frame() const {
        return {.name = "libz.so+0x1",
                .modulePath = module_.path,
                .buildId = module_.buildId,
                .relativePc = relative() + 2};
    }

    const void* address_ = nullptr;
    LoadedModule module_;
    TraceContents contents_;
};

TEST_F(SymboliserTest, NamesAFunctionOfAModuleWhoseBuildIdIsTheReports) {
    ASSERT_FALSE(module_.buildId.empty());
    EXPECT_EQ(named(frame()), "zlibVersion+0x2");
}

TEST_F(SymboliserTest, ADifferentBuildIdNamesNothing) {
    Frame other = frame();
    other.buildId.back() ^= 1;
    EXPECT_EQ(named(other), "");
    other.buildId.clear();
    EXPECT_EQ(named(other), "");
}

TEST_F(SymboliserTest, NeverWaitsForAPipeAndReadsNoDevice) {
    tests::TemporaryFolder folder;
    ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
    tests::writeWholeFile(folder.path("text"), "no module");
    tests::writeWholeFile(folder.path("magic"),
                          "\x7f"
                          "ELF\x02\x01\x01");
    for (const std::string& path : {folder.path("pipe"), std::string("/dev/zero"), folder.path(), folder.path("none"),
                                    folder.path("text"), folder.path("magic")}) {
        Frame other = frame();
        other.modulePath = path;
        EXPECT_EQ(named(other), "") << path;
    }
}

TEST_F(SymboliserTest, AModuleCutAtAnyPlaceIsHarmless) {
    tests::TemporaryFolder folder;
    const std::string whole = tests::readWholeFile(module_.path);
    Frame other = frame();
    other.modulePath = folder.path("cut");
    for (std::size_t length = 0; length < whole.size(); length += 1 + whole.size() / 200) {
        tests::writeWholeFile(other.modulePath, whole.substr(0, length));
        (void)named(other);
    }
    tests::writeWholeFile(other.modulePath, whole);
    EXPECT_EQ(named(other), "zlibVersion+0x2");
}

TEST(SymbolTable, AnAddressBelongsToTheFunctionThatReachesOverIt) {
    const SymbolTable table({{.address = 100, .size = 10, .name = "one"}, {.address = 200, .size = 10, .name = "two"}});
    EXPECT_EQ(table.at(99, false), "");
    EXPECT_EQ(table.at(100, false), "one+0x0");
    EXPECT_EQ(table.at(109, false), "one+0x9");
    EXPECT_EQ(table.at(110, false), "");
    EXPECT_EQ(table.at(110, true), "one+0xa") << "the call was its last instruction";
    EXPECT_EQ(table.at(200, true), "");
    EXPECT_EQ(SymbolTable().at(1, false), "");
}

TEST(SymbolTable, NamesOfCPlusPlusAreDemangled) {
    EXPECT_EQ(SymbolTable({{.address = 1, .size = 9, .name = "_ZN3app4waitEi"}}).at(1, false), "app::wait(int)+0x0");
    EXPECT_EQ(SymbolTable({{.address = 1, .size = 9, .name = "_Znonsense"}}).at(1, false), "_Znonsense+0x0");
}

TEST(KernelSymbols, AddressesCountFromTheStartOfTheText) {
    const SymbolTable table = parseKernelSymbols(
        "ffffffff80000000 A before\nffffffff81000000 T _stext\nffffffff81000100 t futex_wait\nffffffff81000180 D data\n"
        "ffffffff81000200 T schedule\nffffffffc0000000 t helper\t[module]\n");
    EXPECT_EQ(table.at(0x120, false), "futex_wait+0x20");
    EXPECT_EQ(table.at(0x200, false), "schedule+0x0");
}

TEST(KernelSymbols, AModulesAddressesCountFromItsOwnStart) {
    const std::string list =
        "ffffffff81000000 T _stext\nffffffffc0000010 t helper\t[other]\nffffffffc0a00040 t "
        "request_wait_answer\t[fuse]\n"
        "ffffffffc0a00080 t fuse_read\t[fuse]\n";
    const std::string modules = "other 8192 0 - Live 0xffffffffc0000000\nfuse 8192 3 - Live 0xffffffffc0a00000 (E)\n";
    const SymbolTable table = parseKernelModule(list, modules, "fuse");
    EXPECT_EQ(table.at(0x41, false), "request_wait_answer+0x1");
    EXPECT_EQ(table.at(0x90, false), "fuse_read+0x10");
    EXPECT_EQ(table.at(0x3f, false), "");
    EXPECT_EQ(parseKernelModule(list, modules, "other").at(0x10, false), "helper+0x0");
    EXPECT_TRUE(parseKernelModule(list, modules, "absent").empty());
    EXPECT_TRUE(parseKernelModule(list, "fuse 8192 3 - Live 0x0000000000000000\n", "fuse").empty());
    EXPECT_TRUE(parseKernelModule(list, "", "fuse").empty());
    EXPECT_EQ(parseKernelSymbols(list).at(0x3f000000, false), "_stext+0x3f000000") << "a module is not the kernel";
}

TEST_F(SymboliserTest, NamesFramesOfTheKernelAndOfItsModules) {
    utsname here{};
    ASSERT_EQ(uname(&here), 0);
    const std::string packet = field(45, field(1, field(2, here.version) + field(3, here.release)));
    TraceContents contents;
    contents.add({reinterpret_cast<const std::uint8_t*>(packet.data()), packet.size()});

    const tests::TemporaryFolder folder;
    tests::writeWholeFile(
        folder.path("kallsyms"),
        "ffffffff81000000 T _stext\nffffffff81000100 t futex_wait\nffffffffc0a00040 t fuse_read\t[fuse]\n");
    tests::writeWholeFile(folder.path("modules"), "fuse 8192 3 - Live 0xffffffffc0a00000\n");
    std::vector<ToldFrame> stack;
    for (const char* const name : {"[kernel]+0x108", "[fuse]+0x48", "[absent]+0x48", "[kernel]", "schedule+0x1/0x2"}) {
        stack.push_back({.frame = {.name = name, .modulePath = {}, .buildId = {}, .relativePc = 0}, .symbol = {}});
    }
    Symboliser({.debugFiles = "/nonexistent",
                .kernelSymbols = folder.path("kallsyms"),
                .kernelModules = folder.path("modules")})
        .name(contents, stack);
    std::vector<std::string> symbols;
    for (const ToldFrame& told : stack) symbols.push_back(told.symbol);
    EXPECT_EQ(symbols, (std::vector<std::string>{"futex_wait+0x8", "fuse_read+0x8", "", "", ""}));
}

TEST(KernelSymbols, AListThatHidesItsAddressesNamesNothing) {
    EXPECT_TRUE(parseKernelSymbols("0000000000000000 T _stext\n0000000000000000 T schedule\n").empty());
    EXPECT_TRUE(parseKernelSymbols("").empty());
    EXPECT_TRUE(parseKernelSymbols("nonsense\nff\nff \nff T\n").empty());
}

}  // namespace
}  // namespace quorvix::report
