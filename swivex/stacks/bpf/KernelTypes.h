#ifndef SWIVEX_KERNEL_TYPES_H
#define SWIVEX_KERNEL_TYPES_H

/*
 * The few kernel types that the iterator reads, cut down to the fields it reads. Where they really are is put in by
 * the loader from the running kernel's own description, so that one program serves all kernels.
 */

#define KERNEL_TYPE __attribute__((preserve_access_index))

/* Only its size is asked for. */
struct pt_regs {
    unsigned long ip;
} KERNEL_TYPE;

struct task_struct {
    unsigned int __state;
    int on_cpu;
    int exit_state;
    unsigned int flags;
    int pid;
    int tgid;
    unsigned long nvcsw;
    unsigned long nivcsw;
    unsigned long long start_boottime;
    char comm[16];
} KERNEL_TYPE;

struct seq_file {
    unsigned long long index;
} KERNEL_TYPE;

struct bpf_iter_meta {
    struct seq_file* seq;
} KERNEL_TYPE;

struct bpf_iter__task {
    struct bpf_iter_meta* meta;
    struct task_struct* task;
} KERNEL_TYPE;

#endif
