#ifndef SWIVEX_THREAD_STACKS_PROGRAM_H
#define SWIVEX_THREAD_STACKS_PROGRAM_H

#include "swivex/stacks/bpf/ThreadRecords.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The loaded iterator. A C file of its own, since the generated loader is C. Nothing of the library that generates it
 * is needed when it runs. All functions give 0, or the error number. */
struct swivex_thread_stacks;

int swivex_thread_stacks_load(struct swivex_thread_stacks** program);
/* Opens one walk over the threads of `pid`, as the kernel counts it: reading the descriptor gives whole records. */
int swivex_thread_stacks_walk(struct swivex_thread_stacks* program, int pid, int* descriptor);
/* The names of at most SWIVEX_SYMBOLS addresses other than 0, a line each. They stay until the next call. */
int swivex_thread_stacks_name(struct swivex_thread_stacks* program, const swivex_u64* addresses, swivex_u32 count,
                              const char** lines);
/* Where the kernel's text starts, known when a walk has come to its end; 0 until then. */
swivex_u64 swivex_thread_stacks_text_start(const struct swivex_thread_stacks* program);
void swivex_thread_stacks_unload(struct swivex_thread_stacks* program);

#ifdef __cplusplus
}
#endif

#endif
