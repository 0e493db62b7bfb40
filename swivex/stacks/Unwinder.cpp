#include "swivex/stacks/Unwinder.h"

#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

namespace quorvix::swivex::stacks {

namespace {

// What is needed of a file to place it in the process.
struct Placement {
    std::uint64_t loadBase = 0;
    std::int64_t loadBias = 0;
    std::uint64_t lowest = 0;  // where its first segment lies in the process, as libdwfl counts it
};

// By the executable segment that the mapping is of.
bool place(Elf* elf, const Mapping& mapping, Placement& placement) {
    GElf_Ehdr header;
    std::size_t count = 0;
    if (elf_kind(elf) != ELF_K_ELF || gelf_getclass(elf) != ELFCLASS64 || !gelf_getehdr(elf, &header) ||
        (header.e_type != ET_DYN && header.e_type != ET_EXEC) || header.e_machine != kElfMachine ||
        elf_getphdrnum(elf, &count) != 0) {
        return false;
    }
    bool hasFirst = false;
    std::uint64_t first = 0;
    bool found = false;
    for (std::size_t i = 0; i < count && i < PN_XNUM; ++i) {
        GElf_Phdr segment;
        if (!gelf_getphdr(elf, static_cast<int>(i), &segment) || segment.p_type != PT_LOAD) continue;
        if (!std::exchange(hasFirst, true)) first = segment.p_vaddr & (~segment.p_align + 1);
        // Mappings are of whole pages.
        const std::uint64_t size = mapping.end - mapping.start;
        const bool overlaps =
            segment.p_offset < mapping.fileOffset + size && mapping.fileOffset < segment.p_offset + segment.p_filesz;
        if (found || (segment.p_flags & PF_X) == 0 || !overlaps) continue;
        found = true;
        placement.loadBias = static_cast<std::int64_t>(segment.p_vaddr - segment.p_offset);
        placement.loadBase = mapping.start - mapping.fileOffset - static_cast<std::uint64_t>(placement.loadBias);
    }
    placement.lowest = placement.loadBase + first;
    return found;
}

std::vector<std::uint8_t> buildIdOf(Elf* elf) {
    constexpr ssize_t kMostBytes = 64;
    const void* bits = nullptr;
    const ssize_t length = dwelf_elf_gnu_build_id(elf, &bits);
    if (length <= 0 || length > kMostBytes) return {};
    const auto* const bytes = static_cast<const std::uint8_t*>(bits);
    return {bytes, bytes + length};
}

struct ElfEnd {
    void operator()(Elf* elf) const { elf_end(elf); }
};
using OwnedElf = std::unique_ptr<Elf, ElfEnd>;

struct Code {
    const ModuleFile* file;
    OwnedElf elf;
    Module module;
    int number = -1;  // among those that frames lie in
};

// The library chooses its processor by a file: this one is always there.
Elf64_Ehdr headerOfThisProcessor() {
    Elf64_Ehdr header{};
    std::copy_n(ELFMAG, SELFMAG, header.e_ident);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = kElfMachine;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof header;
    return header;
}

}  // namespace

class Unwinder::State {
public:
    State(pid_t pid, std::vector<ModuleFile>& files);
    ~State() {
        if (dwfl_) dwfl_end(dwfl_);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void unwind(CapturedThread& thread, std::chrono::steady_clock::time_point deadline);
    const std::vector<Module>& modules() const { return used_; }

private:
    static int findElf(Dwfl_Module*, void** user, const char*, Dwarf_Addr, char**, Elf** elf);
    static int findNoDebuginfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                               char**) {
        return -1;
    }
    static bool readMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* word, void* self);
    static pid_t nextThread(Dwfl*, void*, void**) { return 0; }
    static bool getThread(Dwfl*, pid_t, void* self, void** threadArgument);
    static bool setRegisters(Dwfl_Thread* thread, void* self);
    static int addFrame(Dwfl_Frame* frame, void* self);

    void addCode(ModuleFile& file);
    void report();
    Code* findCode(std::uint64_t pc);
    int numberOf(std::uint64_t pc);
    std::string whyEnded(const ThreadStack& stack);
    void addFrame(std::uint64_t pc, bool isExact);

    Elf64_Ehdr header_ = headerOfThisProcessor();
    OwnedElf headerElf_;
    Dwfl* dwfl_ = nullptr;
    bool attached_ = false;
    std::vector<Code> code_;  // in the order of addresses; not moved once reported
    std::vector<Module> used_;
    CapturedThread* thread_ = nullptr;
    std::chrono::steady_clock::time_point deadline_;
    const char* stopped_ = nullptr;  // why the frames end before the stack does
};

Unwinder::State::State(pid_t pid, std::vector<ModuleFile>& files) {
    elf_version(EV_CURRENT);
    code_.reserve(files.size());
    for (ModuleFile& file : files) addCode(file);
    static const Dwfl_Callbacks callbacks = {findElf, findNoDebuginfo, dwfl_offline_section_address, nullptr};
    static const Dwfl_Thread_Callbacks threads = {nextThread, getThread, readMemory, setRegisters, nullptr, nullptr};
    if (!kCanUnwind) return;
    headerElf_.reset(elf_memory(reinterpret_cast<char*>(&header_), sizeof header_));
    dwfl_ = dwfl_begin(&callbacks);
    if (!headerElf_ || !dwfl_) return;
    report();
    attached_ = dwfl_attach_state(dwfl_, headerElf_.get(), pid, &threads, this);
}

void Unwinder::State::addCode(ModuleFile& file) {
    Code code{&file, nullptr, {}, -1};
    const Mapping& mapping = *file.mapping;
    code.module.start = mapping.start;
    code.module.end = mapping.end;
    code.module.fileOffset = mapping.fileOffset;
    code.module.loadBase = mapping.start - mapping.fileOffset;
    code.module.path = mapping.path;
    if (file.file) {
        code.elf.reset(elf_begin(file.file.get(), ELF_C_READ_MMAP, nullptr));
    } else if (!file.image.empty()) {
        code.elf.reset(elf_memory(reinterpret_cast<char*>(file.image.data()), file.image.size()));
    }
    code_.push_back(std::move(code));
}

void Unwinder::State::report() {
    dwfl_report_begin(dwfl_);
    for (std::size_t i = 0; i < code_.size(); ++i) {
        Code& code = code_[i];
        Placement placement;
        if (!code.elf || !place(code.elf.get(), *code.file->mapping, placement)) {
            code.elf.reset();
            continue;
        }
        code.module.loadBase = placement.loadBase;
        code.module.loadBias = placement.loadBias;
        if (placement.lowest >= code.module.end) continue;
        // A name of its own: the library takes modules of one name for one.
        const std::string name = std::to_string(i);
        Dwfl_Module* const module = dwfl_report_module(dwfl_, name.c_str(), placement.lowest, code.module.end);
        void** user = nullptr;
        if (module && dwfl_module_info(module, &user, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) && user) {
            *user = &code;
        }
    }
    dwfl_report_end(dwfl_, nullptr, nullptr);
}

int Unwinder::State::findElf(Dwfl_Module*, void** user, const char*, Dwarf_Addr, char**, Elf** elf) {
    const auto* const code = static_cast<const Code*>(*user);
    // The library ends what it is given: one more owner of the same.
    if (code) *elf = elf_begin(-1, ELF_C_READ_MMAP, code->elf.get());
    return -1;
}

bool Unwinder::State::readMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* word, void* self) {
    std::uint64_t value = 0;
    if (!static_cast<State*>(self)->thread_->memory.read(address, value)) return false;
    *word = value;
    return true;
}

bool Unwinder::State::getThread(Dwfl*, pid_t, void* self, void** threadArgument) {
    *threadArgument = self;
    return true;
}

bool Unwinder::State::setRegisters(Dwfl_Thread* thread, void* self) {
    const Registers& registers = static_cast<State*>(self)->thread_->registers;
    std::array<Dwarf_Word, kDwarfOrder.size()> words;
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = registers[kDwarfOrder[i]];
    if (!dwfl_thread_state_registers(thread, 0, words.size(), words.data())) return false;
    dwfl_thread_state_register_pc(thread, registers[kInstructionPointer]);
    return true;
}

Code* Unwinder::State::findCode(std::uint64_t pc) {
    const auto after = std::upper_bound(code_.begin(), code_.end(), pc, [](std::uint64_t address, const Code& code) {
        return address < code.module.start;
    });
    if (after == code_.begin()) return nullptr;
    Code& code = *std::prev(after);
    return pc < code.module.end ? &code : nullptr;
}

int Unwinder::State::numberOf(std::uint64_t pc) {
    Code* const code = findCode(pc);
    if (!code) return -1;
    if (code->number < 0) {
        code->number = static_cast<int>(used_.size());
        if (code->elf) code->module.buildId = buildIdOf(code->elf.get());
        used_.push_back(code->module);
    }
    return code->number;
}

int Unwinder::State::addFrame(Dwfl_Frame* frame, void* self) {
    auto* const state = static_cast<State*>(self);
    Dwarf_Addr pc = 0;
    bool isActivation = false;
    if (!dwfl_frame_pc(frame, &pc, &isActivation) || pc == 0) return DWARF_CB_ABORT;
    if (state->thread_->stack.user.size() == kMostFrames) {
        state->stopped_ = "deeper than what is kept";
        return DWARF_CB_ABORT;
    }
    if (std::chrono::steady_clock::now() >= state->deadline_) {
        state->stopped_ = "no time left to unwind it";
        return DWARF_CB_ABORT;
    }
    const std::uint64_t address = isActivation ? pc : pc - 1;
    state->thread_->stack.user.push_back({address, state->numberOf(address)});
    return DWARF_CB_OK;
}

void Unwinder::State::unwind(CapturedThread& thread, std::chrono::steady_clock::time_point deadline) {
    if (!thread.hasRegisters) return;
    thread.stack.user.clear();
    if (!attached_ || !isOfThisWidth(thread.registers)) {
        const std::uint64_t pc = thread.registers[kInstructionPointer];
        thread.stack.user.push_back({pc, numberOf(pc)});
        thread.stack.problem = attached_ ? "runs in 32-bit mode: not unwound" : "can't be unwound on this processor";
        return;
    }
    thread_ = &thread;
    deadline_ = deadline;
    stopped_ = nullptr;
    const int result = dwfl_getthread_frames(dwfl_, thread.stack.tid, addFrame, this);
    if (stopped_) {
        thread.stack.problem = stopped_;
    } else if (result < 0) {
        thread.stack.problem = whyEnded(thread.stack);
    }
    thread_ = nullptr;
}

std::string Unwinder::State::whyEnded(const ThreadStack& stack) {
    const char* const message = dwfl_errmsg(-1);
    const Code* const code = stack.user.empty() ? nullptr : findCode(stack.user.back().pc);
    if (code && !code->file->problem.empty()) {
        return "unwinding ended in " + code->module.path + ", which " + code->file->problem;
    }
    return std::string("unwinding ended: ") + (message ? message : "unknown");
}

Unwinder::Unwinder(pid_t pid, std::vector<ModuleFile>& modules) : state_(std::make_unique<State>(pid, modules)) {}
Unwinder::~Unwinder() = default;

void Unwinder::unwind(CapturedThread& thread, std::chrono::steady_clock::time_point deadline) {
    state_->unwind(thread, deadline);
}

const std::vector<Module>& Unwinder::modules() const { return state_->modules(); }

}  // namespace quorvix::swivex::stacks
