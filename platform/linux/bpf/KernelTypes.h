#ifndef QUORVIX_KERNEL_TYPES_H
#define QUORVIX_KERNEL_TYPES_H

/*
 * The few kernel types that the iterator reads, cut down to the fields it reads. Where they really are is put in by
 * the loader from the running kernel's own description, so that one program serves all kernels.
 */

#define KERNEL_TYPE __attribute__((preserve_access_index))

typedef struct {
    long long counter;
} KERNEL_TYPE atomic64_t;

struct percpu_counter {
    long long count;
    int* counters;
} KERNEL_TYPE;

struct mm_struct {
    unsigned long locked_vm;
    atomic64_t pinned_vm;
    struct percpu_counter rss_stat[4];
} KERNEL_TYPE;

struct task_io_accounting {
    unsigned long long read_bytes;
    unsigned long long write_bytes;
} KERNEL_TYPE;

struct signal_struct {
    unsigned long long utime;
    unsigned long long stime;
    unsigned long maj_flt;
    unsigned long long sum_sched_runtime;
    struct task_io_accounting ioac;
} KERNEL_TYPE;

struct sched_entity {
    unsigned long long sum_exec_runtime;
} KERNEL_TYPE;

struct task_struct {
    unsigned int flags;
    int static_prio;
    struct sched_entity se;
    unsigned int policy;
    struct mm_struct* mm;
    int pid;
    int tgid;
    unsigned long long utime;
    unsigned long long stime;
    unsigned long long start_boottime;
    unsigned long maj_flt;
    char comm[16];
    struct signal_struct* signal;
    struct task_io_accounting ioac;
} KERNEL_TYPE;

struct bpf_array {
    void* pptrs[1];
} KERNEL_TYPE;

/* Not relocated: the verifier knows it by its name and size. */
struct bpf_iter_task {
    unsigned long long opaque[3];
} __attribute__((aligned(8)));

#endif
