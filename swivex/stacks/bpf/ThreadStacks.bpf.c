/*
 * Tells of each thread of one process what a look from outside can't: whether it is on a CPU, its registers of user
 * space and its kernel stack. The thread is neither stopped nor woken.
 */
#include <linux/bpf.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

#include "KernelTypes.h"
#include "ThreadRecords.h"

char program_license[] SEC("license") = "GPL";

#define KERNEL_THREAD 0x00200000 /* PF_KTHREAD */

extern const void _stext __ksym __weak;

swivex_i32 wanted_pid;
swivex_u64 kernel_text_start;
/* Named at the end of a walk when the first isn't 0, a line each. */
swivex_u64 symbol_addresses[SWIVEX_SYMBOLS];
char symbol_lines[SWIVEX_SYMBOLS * SWIVEX_SYMBOL_BYTES];
/* Too large for the stack. One reader at a time runs the iterator. */
struct swivex_thread_record record;

/* The kernel's names of its own addresses, as it writes them into a stack: all with one call, since loading a loop
 * costs more than all else here. */
static void name_addresses(void) {
    static const char format[] = "%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n%pB\n";
    if (bpf_snprintf(symbol_lines, sizeof symbol_lines, format, symbol_addresses, sizeof symbol_addresses) < 0) {
        symbol_lines[0] = 0;
    }
}

SEC("iter/task")
int read_thread(struct bpf_iter__task* context) {
    struct task_struct* task = context->task;
    struct seq_file* seq = context->meta->seq;
    swivex_u32 register_bytes = bpf_core_type_size(struct pt_regs);

    /* Read here, and not by each way to its use: the kernel searches all its types at each such read that it checks. */
    asm volatile("" : "+r"(seq));
    /* With the first thread already: who wants no more of them does not come to the end of the walk. */
    kernel_text_start = (swivex_u64)&_stext;
    if (!task) {
        if (symbol_addresses[0]) name_addresses();
        return 0;
    }
    /* Where the iterator can't be told the process, it walks them all. */
    if (task->tgid != wanted_pid) return 0;
    record.start_ns = task->start_boottime;
    record.switches = task->nvcsw + task->nivcsw;
    record.tid = task->pid;
    record.pid = task->tgid;
    record.state = task->__state;
    record.exit_state = task->exit_state;
    record.on_cpu = bpf_core_field_exists(task->on_cpu) ? task->on_cpu : 0;
    record.flags = task->flags;
    record.register_bytes = 0;
    record.kernel_bytes = 0;
    bpf_probe_read_kernel(record.comm, sizeof record.comm, task->comm);
    /* What has ended has given its stack back. */
    if (!record.on_cpu && !record.exit_state) {
        if (!(record.flags & KERNEL_THREAD)) {
            if (register_bytes > sizeof record.registers) register_bytes = sizeof record.registers;
            if (!bpf_probe_read_kernel(record.registers, register_bytes, (void*)bpf_task_pt_regs(task))) {
                record.register_bytes = register_bytes;
            }
        }
        record.kernel_bytes = bpf_get_task_stack(task, record.kernel, sizeof record.kernel, 0);
    }
    bpf_seq_write(seq, &record, sizeof record);
    return 0;
}
