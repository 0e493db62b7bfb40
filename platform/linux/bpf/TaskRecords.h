#ifndef QUORVIX_TASK_RECORDS_H
#define QUORVIX_TASK_RECORDS_H

/*
 * What the task iterator hands to the daemon, through maps that both have mapped. Both sides are built from this
 * header, and every field has its natural place: no padding that compilers could see differently.
 */

#ifdef __cplusplus
#include <cstdint>
typedef std::uint64_t quorvix_u64;
typedef std::uint32_t quorvix_u32;
typedef std::int32_t quorvix_i32;
#else
typedef unsigned long long quorvix_u64;
typedef unsigned int quorvix_u32;
typedef int quorvix_i32;
#endif

/* Beyond that many processors the iterator refuses, and procfs is read. */
#define QUORVIX_MOST_PROCESSORS 1024

enum quorvix_task_error {
    QUORVIX_TASK_FULL = 1,       /* a map was too small: read again with larger ones */
    QUORVIX_TASK_PROCESSORS = 2, /* too many processors, or their memory could not be found */
};

struct quorvix_task_usage {
    quorvix_u64 runtime_ns;
    quorvix_u64 user_ns; /* as the sampling tick saw it */
    quorvix_u64 system_ns;
    quorvix_u64 major_faults;
    quorvix_u64 read_bytes;
    quorvix_u64 write_bytes;
};

struct quorvix_task_thread {
    struct quorvix_task_usage usage;
    quorvix_u64 start_ns;
    quorvix_i32 pid; /* of its process */
    quorvix_i32 tid;
    quorvix_u32 policy;
    quorvix_i32 nice;
};

/* Stands before its threads' records are made; its first thread is the record's own. */
struct quorvix_task_process {
    struct quorvix_task_usage exited; /* of threads that are gone */
    quorvix_u64 start_ns;
    quorvix_u64 locked_pages;
    quorvix_u64 pinned_pages;
    long long memory_pages[4]; /* file, anonymous, swapped, shared */
    quorvix_i32 pid;
    quorvix_u32 flags;
    quorvix_u32 first_thread;
    quorvix_u32 unused;
    char comm[16];
};

#endif
