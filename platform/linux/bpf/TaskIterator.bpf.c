/*
 * Walks all threads of the system in one call and writes what the process table needs of them into two mapped arrays.
 * Reads only; takes no lock but that of reading the kernel's lists.
 */
#include <linux/bpf.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

#include "KernelTypes.h"
#include "TaskRecords.h"

char program_license[] SEC("license") = "GPL";

#define KERNEL_THREAD 0x00200000 /* PF_KTHREAD */
#define NICE_ZERO 120
#define ALL_THREADS 1

extern int bpf_iter_task_new(struct bpf_iter_task* it, struct task_struct* task, unsigned int flags) __ksym __weak;
extern struct task_struct* bpf_iter_task_next(struct bpf_iter_task* it) __ksym __weak;
extern void bpf_iter_task_destroy(struct bpf_iter_task* it) __ksym __weak;
extern void bpf_rcu_read_lock(void) __ksym __weak;
extern void bpf_rcu_read_unlock(void) __ksym __weak;

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, quorvix_u32);
    __type(value, struct quorvix_task_process);
} process_table SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, quorvix_u32);
    __type(value, struct quorvix_task_thread);
} thread_table SEC(".maps");

/* Its only use is that the kernel tells where each processor's copy lies: that gives the distance between the
 * processors' memories, which no symbol tells on every kernel. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, quorvix_u32);
    __type(value, quorvix_u64);
} distance_probe SEC(".maps");

quorvix_u32 process_count;
quorvix_u32 thread_count;
quorvix_u32 error;
quorvix_u32 processor_count;
quorvix_u64 processor_base[QUORVIX_MOST_PROCESSORS];
volatile quorvix_u64 distance_probe_address;

struct memory_sum {
    quorvix_u64 counters;
    int step;
    long long pages[4];
};

/* A place that the verifier sees to be inside the array: the compiler would check a copy and use the original. */
static __always_inline quorvix_u64* base_of(quorvix_u64 processor) {
    asm volatile("%0 &= 1023" : "+r"(processor));
    return &processor_base[processor];
}

static long find_processor(quorvix_u32 processor, void* context) {
    quorvix_u32 zero = 0;
    void* copy = bpf_map_lookup_percpu_elem(&distance_probe, &zero, processor);
    if (!copy || processor >= QUORVIX_MOST_PROCESSORS) return 1;
    *base_of(processor) = (quorvix_u64)copy;
    processor_count = processor + 1;
    return 0;
}

/* The four counters lie side by side in each processor's memory. */
static long add_processor(quorvix_u32 processor, void* context) {
    struct memory_sum* sum = context;
    int parts[4];
    if (processor >= QUORVIX_MOST_PROCESSORS) return 1;
    if (bpf_probe_read_kernel(parts, sizeof parts, (void*)(sum->counters + *base_of(processor)))) return 0;
    sum->pages[0] += parts[0];
    sum->pages[1] += parts[1];
    sum->pages[2] += parts[2];
    sum->pages[3] += parts[3];
    return 0;
}

static __always_inline void read_memory(struct task_struct* task, struct quorvix_task_process* process) {
    struct mm_struct* mm = task->mm;
    struct memory_sum sum = {};
    process->locked_pages = process->pinned_pages = 0;
    process->memory_pages[0] = process->memory_pages[1] = process->memory_pages[2] = process->memory_pages[3] = 0;
    if (!mm || (task->flags & KERNEL_THREAD)) return;
    process->locked_pages = mm->locked_vm;
    process->pinned_pages = mm->pinned_vm.counter;
    sum.counters = (quorvix_u64)mm->rss_stat[0].counters;
    sum.pages[0] = mm->rss_stat[0].count;
    sum.pages[1] = mm->rss_stat[1].count;
    sum.pages[2] = mm->rss_stat[2].count;
    sum.pages[3] = mm->rss_stat[3].count;
    bpf_loop(processor_count, add_processor, &sum, 0);
    process->memory_pages[0] = sum.pages[0];
    process->memory_pages[1] = sum.pages[1];
    process->memory_pages[2] = sum.pages[2];
    process->memory_pages[3] = sum.pages[3];
}

static __always_inline int add_process(struct task_struct* task) {
    quorvix_u32 place = process_count;
    struct quorvix_task_process* process = bpf_map_lookup_elem(&process_table, &place);
    struct signal_struct* signal = task->signal;
    process_count = place + 1;
    if (!process) return QUORVIX_TASK_FULL;
    process->exited.runtime_ns = signal->sum_sched_runtime;
    process->exited.user_ns = signal->utime;
    process->exited.system_ns = signal->stime;
    process->exited.major_faults = signal->maj_flt;
    if (bpf_core_field_exists(signal->ioac.read_bytes)) {
        process->exited.read_bytes = signal->ioac.read_bytes;
        process->exited.write_bytes = signal->ioac.write_bytes;
    }
    process->start_ns = task->start_boottime;
    process->pid = task->tgid;
    process->flags = task->flags;
    process->first_thread = thread_count;
    __builtin_memcpy(process->comm, task->comm, sizeof process->comm);
    read_memory(task, process);
    return 0;
}

static __always_inline int add_thread(struct task_struct* task) {
    quorvix_u32 place = thread_count;
    struct quorvix_task_thread* thread = bpf_map_lookup_elem(&thread_table, &place);
    thread_count = place + 1;
    if (!thread) return QUORVIX_TASK_FULL;
    thread->usage.runtime_ns = task->se.sum_exec_runtime;
    thread->usage.user_ns = task->utime;
    thread->usage.system_ns = task->stime;
    thread->usage.major_faults = task->maj_flt;
    if (bpf_core_field_exists(task->ioac.read_bytes)) {
        thread->usage.read_bytes = task->ioac.read_bytes;
        thread->usage.write_bytes = task->ioac.write_bytes;
    }
    thread->start_ns = task->start_boottime;
    thread->pid = task->tgid;
    thread->tid = task->pid;
    thread->policy = task->policy;
    thread->nice = task->static_prio - NICE_ZERO;
    return 0;
}

SEC("syscall")
int read_tasks(void* context) {
    struct bpf_iter_task iterator;
    struct task_struct* task;

    process_count = 0;
    thread_count = 0;
    error = 0;
    if (processor_count == 0) {
        quorvix_u64 origin = 0;
        /* By way of memory, which makes a plain number of it: the field lies behind what may be read directly. */
        distance_probe_address = (quorvix_u64)&distance_probe;
        bpf_probe_read_kernel(
            &origin, sizeof origin,
            (void*)(distance_probe_address +
                    __builtin_preserve_field_info(((struct bpf_array*)0)->pptrs, BPF_FIELD_BYTE_OFFSET)));
        if (origin == 0) {
            error = QUORVIX_TASK_PROCESSORS;
            return 0;
        }
        bpf_loop(QUORVIX_MOST_PROCESSORS + 1, find_processor, 0, 0);
        for (int i = 0; i < QUORVIX_MOST_PROCESSORS; ++i) processor_base[i] -= origin;
    }

    bpf_rcu_read_lock();
    bpf_iter_task_new(&iterator, 0, ALL_THREADS);
    while ((task = bpf_iter_task_next(&iterator))) {
        /* The idle threads are no processes. */
        if (task->tgid == 0) continue;
        if (task->pid == task->tgid) error |= add_process(task);
        error |= add_thread(task);
    }
    bpf_iter_task_destroy(&iterator);
    bpf_rcu_read_unlock();
    return 0;
}
