#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <elf.h>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "swivex/Stacks.h"
#include "swivex/stacks/ModuleFiles.h"
#include "swivex/stacks/ProcFile.h"
#include "tests/swivex/stacks/StackTestSupport.h"
#include "tests/swivex/stacks/TargetProcess.h"

// Files that were made to harm whoever reads them. A thread stands in their code, so that they are read.

namespace quorvix::swivex {
namespace {

using tests::TargetProcess;

// Sleeps for ever, wherever it stands.
#if defined(__x86_64__)
constexpr std::array<unsigned char, 9> kCode = {0xB8, 0x22, 0, 0, 0, 0x0F, 0x05, 0xEB, 0xF7};
#elif defined(__aarch64__)
constexpr std::array<unsigned char, 28> kCode = {0x00, 0x00, 0x80, 0xD2, 0x01, 0x00, 0x80, 0xD2, 0x02, 0x00,
                                                 0x80, 0xD2, 0x03, 0x00, 0x80, 0xD2, 0x28, 0x09, 0x80, 0xD2,
                                                 0x01, 0x00, 0x00, 0xD4, 0xFA, 0xFF, 0xFF, 0x17};
#endif

class StacksInHostileFiles : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(StackRoute::best); !why.empty()) GTEST_SKIP() << why;
        const char* const library = QUORVIX_STACK_TARGETS "/../lib/libstack_target_plain_shared.so";
        void* const opened = dlopen(library, RTLD_NOW);
        ASSERT_NE(opened, nullptr) << dlerror();
        void* const function = dlsym(opened, "sharedLevel");
        Dl_info place{};
        ASSERT_NE(dladdr(function, &place), 0);
        // Where its function stands in memory it stands in the file too: so such libraries are laid out.
        offset_ = static_cast<std::size_t>(static_cast<char*>(function) - static_cast<char*>(place.dli_fbase));
        dlclose(opened);
        std::ifstream in(library, std::ios::binary);
        whole_.assign(std::istreambuf_iterator<char>(in), {});
        ASSERT_LT(offset_ + kCode.size(), whole_.size());
        std::memcpy(&whole_[offset_], kCode.data(), kCode.size());
        folder_ = tests::temporaryFolder();
    }
    void TearDown() override {
        if (!folder_.empty()) (void)!std::system(("rm -r " + folder_).c_str());
    }

    // Captures a process with a thread in the file; then that all is as before.
    StackCapture captureIn(const std::string& bytes, const std::function<void(const std::string&)>& later = {}) {
        const std::string path = folder_ + "/file";
        unlink(path.c_str());
        std::ofstream(path, std::ios::binary) << bytes;
        const TargetProcess target("stack_target_plain", {"code", path, std::to_string(offset_)});
        EXPECT_TRUE(target.isReady());
        tests::waitUntilAsleep(target.pid(), 2);
        if (later) later(path);
        const StackCapture found = captureStacks(target.pid(), tests::inSeconds(3), true);
        EXPECT_EQ(found.threads.size(), 2u);
        for (const ThreadStack& thread : found.threads) {
            EXPECT_FALSE(thread.user.empty()) << thread.problem;
            EXPECT_EQ(tests::stateOf(target.pid(), thread.tid), 'S');
        }
        return found;
    }
    template <class Header>
    Header header(std::size_t at = 0) const {
        Header header;
        std::memcpy(&header, &whole_[at], sizeof header);
        return header;
    }
    template <class Header>
    std::string with(const Header& header, std::size_t at = 0) const {
        std::string bytes = whole_;
        std::memcpy(&bytes[at], &header, sizeof header);
        return bytes;
    }

    std::string whole_;
    std::size_t offset_ = 0;

private:
    std::string folder_;
};

TEST_F(StacksInHostileFiles, AreWholeWhenTheFileIsSound) {
    const StackCapture found = captureIn(whole_);
    EXPECT_EQ(found.problem, "");
    const ThreadStack& thread = found.threads[1];
    ASSERT_FALSE(thread.user.empty());
    ASSERT_GE(thread.user[0].module, 0);
    const Module& module = found.modules[static_cast<std::size_t>(thread.user[0].module)];
    EXPECT_THAT(module.path, testing::EndsWith("/file"));
    EXPECT_FALSE(module.buildId.empty());
}

TEST_F(StacksInHostileFiles, WhoseHeadersLie) {
    const auto sound = header<Elf64_Ehdr>();
    std::vector<std::function<void(Elf64_Ehdr&)>> lies = {
        [](Elf64_Ehdr& lie) { lie.e_phnum = PN_XNUM; },
        [](Elf64_Ehdr& lie) { lie.e_phoff = ~std::uint64_t{0}; },
        [](Elf64_Ehdr& lie) { lie.e_phentsize = 0; },
        [](Elf64_Ehdr& lie) { lie.e_shoff = ~std::uint64_t{7}; },
        [](Elf64_Ehdr& lie) { lie.e_shnum = 0xFFFF; },
        [](Elf64_Ehdr& lie) { lie.e_shnum = 0; },
        [](Elf64_Ehdr& lie) { lie.e_shstrndx = 0xFFFF; },
        [](Elf64_Ehdr& lie) { lie.e_type = ET_REL; },
        [](Elf64_Ehdr& lie) { lie.e_machine = EM_386; },
        [](Elf64_Ehdr& lie) { lie.e_ident[EI_CLASS] = ELFCLASS32; },
        [](Elf64_Ehdr& lie) { lie.e_ident[EI_DATA] = ELFDATA2MSB; },
        [](Elf64_Ehdr& lie) { lie.e_ident[EI_MAG0] = 0; },
    };
    for (std::size_t i = 0; i < lies.size(); ++i) {
        SCOPED_TRACE("lie " + std::to_string(i));
        Elf64_Ehdr lie = sound;
        lies[i](lie);
        captureIn(with(lie));
    }
}

TEST_F(StacksInHostileFiles, WhoseSegmentsLie) {
    const auto file = header<Elf64_Ehdr>();
    for (std::size_t i = 0; i < file.e_phnum; ++i) {
        const std::size_t at = file.e_phoff + i * sizeof(Elf64_Phdr);
        const auto sound = header<Elf64_Phdr>(at);
        if (sound.p_type != PT_LOAD && sound.p_type != PT_GNU_EH_FRAME && sound.p_type != PT_NOTE) continue;
        SCOPED_TRACE("segment " + std::to_string(i));
        Elf64_Phdr lie = sound;
        lie.p_filesz = lie.p_memsz = ~std::uint64_t{0};
        captureIn(with(lie, at));
        lie = sound;
        lie.p_align = 0;
        lie.p_vaddr = ~std::uint64_t{0xFFF};
        captureIn(with(lie, at));
    }
}

TEST_F(StacksInHostileFiles, ThatWereCutWhileMapped) {
    const StackCapture found =
        captureIn(whole_, [](const std::string& path) { ASSERT_EQ(truncate(path.c_str(), 100), 0); });
    EXPECT_EQ(found.threads.size(), 2u);
}

TEST_F(StacksInHostileFiles, OfRandomFaults) {
    const unsigned seed = testing::UnitTest::GetInstance()->random_seed() + 1u;
    std::mt19937 random(seed);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        std::string bytes = whole_;
        const std::size_t faults = 1 + random() % 60;
        for (std::size_t i = 0; i < faults; ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
        std::memcpy(&bytes[offset_], kCode.data(), kCode.size());
        captureIn(bytes);
    }
}

TEST(ModuleFiles, OpensNoDevice) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const Descriptor device(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    void* const mapped = mmap(nullptr, page, PROT_READ | PROT_EXEC, MAP_PRIVATE, device.get(), 0);
    ASSERT_NE(mapped, MAP_FAILED);
    const auto map = stacks::MemoryMap::parse(stacks::readProcFile(getpid(), "maps", 1 << 22));
    int devices = 0;
    int files = 0;
    for (const stacks::ModuleFile& module : stacks::openModuleFiles(getpid(), map, tests::inSeconds(20))) {
        if (module.mapping->path == "/dev/zero") {
            ++devices;
            EXPECT_FALSE(module.file);
            EXPECT_EQ(module.problem, "is no regular file");
        } else if (module.mapping->path == "[vdso]") {
            EXPECT_EQ(std::memcmp(module.image.data(), ELFMAG, SELFMAG), 0);
        } else {
            ++files;
            EXPECT_TRUE(module.file) << module.mapping->path << ' ' << module.problem;
        }
    }
    EXPECT_EQ(devices, 1);
    EXPECT_GT(files, 0);
    munmap(mapped, page);
}

TEST(ModuleFiles, OpensNothingWithoutTime) {
    const auto map = stacks::MemoryMap::parse(stacks::readProcFile(getpid(), "maps", 1 << 22));
    for (const stacks::ModuleFile& module : stacks::openModuleFiles(getpid(), map, std::chrono::steady_clock::now())) {
        if (module.mapping->inode == 0) continue;
        EXPECT_FALSE(module.file);
        EXPECT_EQ(module.problem, "no time left to open it");
    }
}

}  // namespace
}  // namespace quorvix::swivex
