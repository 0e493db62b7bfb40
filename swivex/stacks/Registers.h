#pragma once

#include <elf.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "swivex/stacks/bpf/ThreadRecords.h"

namespace quorvix::swivex::stacks {

// A thread's registers in user space, in the order of the processor's struct pt_regs: the kernel has them so at the end
// of a thread's kernel stack, and ptrace gives them so as NT_PRSTATUS.
using Registers = std::array<std::uint64_t, SWIVEX_REGISTER_WORDS>;

// What lies below the stack pointer and may belong to the innermost function all the same.
inline constexpr std::uint64_t kBelowStackPointer = 128;

// What of them the unwinder wants, and where it stands. A processor without this is not unwound.
#if defined(__x86_64__)
inline constexpr bool kCanUnwind = true;
inline constexpr std::uint16_t kElfMachine = EM_X86_64;
inline constexpr std::size_t kInstructionPointer = 16;
inline constexpr std::size_t kStackPointer = 19;
inline constexpr std::size_t kRegisterBytes = 27 * sizeof(std::uint64_t);  // with the segment registers of ptrace
// In the order of the DWARF numbers: rax, rdx, rcx, rbx, rsi, rdi, rbp, rsp, r8 to r15, the return address.
inline constexpr std::array<std::size_t, 17> kDwarfOrder = {10, 12, 11, 5, 13, 14, 4, 19, 9, 8, 7, 6, 3, 2, 1, 0, 16};
inline bool isOfThisWidth(const Registers& registers) {
    constexpr std::size_t kCodeSegment = 17;
    constexpr std::uint64_t kUserCode32 = 0x23;
    return (registers[kCodeSegment] & 0xFFFF) != kUserCode32;
}
#elif defined(__aarch64__)
inline constexpr bool kCanUnwind = true;
inline constexpr std::uint16_t kElfMachine = EM_AARCH64;
inline constexpr std::size_t kInstructionPointer = 32;
inline constexpr std::size_t kStackPointer = 31;
inline constexpr std::size_t kRegisterBytes = 34 * sizeof(std::uint64_t);
// x0 to x30 and the stack pointer.
inline constexpr std::array<std::size_t, 32> kDwarfOrder = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                                            11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                                                            22, 23, 24, 25, 26, 27, 28, 29, 30, 31};
inline bool isOfThisWidth(const Registers& registers) {
    constexpr std::size_t kState = 33;
    constexpr std::uint64_t kIs32Bit = 0x10;
    return (registers[kState] & kIs32Bit) == 0;
}
#else
inline constexpr bool kCanUnwind = false;
inline constexpr std::uint16_t kElfMachine = EM_NONE;
inline constexpr std::size_t kInstructionPointer = 0;
inline constexpr std::size_t kStackPointer = 1;
inline constexpr std::size_t kRegisterBytes = SWIVEX_REGISTER_WORDS * sizeof(std::uint64_t);
inline constexpr std::array<std::size_t, 1> kDwarfOrder = {0};
inline bool isOfThisWidth(const Registers&) { return false; }
#endif

}  // namespace quorvix::swivex::stacks
