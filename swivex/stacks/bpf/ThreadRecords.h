#ifndef SWIVEX_THREAD_RECORDS_H
#define SWIVEX_THREAD_RECORDS_H

/*
 * What the thread iterator hands over. Both sides are built from this header, and every field has its natural place: no
 * padding that compilers could see differently.
 */

#ifdef __cplusplus
#include <cstdint>
typedef std::uint64_t swivex_u64;
typedef std::uint32_t swivex_u32;
typedef std::int32_t swivex_i32;
#else
typedef unsigned long long swivex_u64;
typedef unsigned int swivex_u32;
typedef int swivex_i32;
#endif

#define SWIVEX_REGISTER_WORDS 34 /* as many as any processor's user registers take */
#define SWIVEX_KERNEL_FRAMES 64
#define SWIVEX_SYMBOLS 12 /* as many as the kernel writes with one call */
#define SWIVEX_SYMBOL_BYTES 128

struct swivex_thread_record {
    swivex_u64 start_ns; /* with the id the thread's identity */
    swivex_u64 switches; /* how often it left a CPU */
    swivex_i32 tid;
    swivex_i32 pid;
    swivex_u32 state;
    swivex_u32 exit_state;
    swivex_u32 on_cpu;
    swivex_u32 flags;
    swivex_u32 register_bytes; /* 0: has none */
    swivex_i32 kernel_bytes;   /* of `kernel`; below 0 the error */
    char comm[16];
    swivex_u64 registers[SWIVEX_REGISTER_WORDS]; /* as struct pt_regs; stale while on_cpu */
    swivex_u64 kernel[SWIVEX_KERNEL_FRAMES];
};

#endif
