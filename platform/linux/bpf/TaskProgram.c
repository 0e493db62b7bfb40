/* For the loader's own calls. */
#define _GNU_SOURCE
#include "platform/linux/bpf/TaskProgram.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <TaskIterator.lskel.h>

struct quorvix_task_program {
    struct task_iterator* skeleton;
    void* processes;
    void* threads;
    size_t processes_bytes;
    size_t threads_bytes;
};

static size_t whole_pages(size_t bytes) {
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    return (bytes + page - 1) / page * page;
}

static void* map_table(int descriptor, size_t bytes) {
    void* const table = mmap(NULL, bytes, PROT_READ, MAP_SHARED, descriptor, 0);
    return table == MAP_FAILED ? NULL : table;
}

int quorvix_task_program_load(quorvix_u32 processes, quorvix_u32 threads, struct quorvix_task_program** program) {
    struct quorvix_task_program* const made = calloc(1, sizeof *made);
    int error = 0;
    if (!made) return ENOMEM;
    made->skeleton = task_iterator__open();
    if (!made->skeleton) {
        free(made);
        return ENOMEM;
    }
    made->skeleton->maps.process_table.max_entries = processes;
    made->skeleton->maps.thread_table.max_entries = threads;
    error = -task_iterator__load(made->skeleton);
    if (error == 0) {
        made->processes_bytes = whole_pages(processes * sizeof(struct quorvix_task_process));
        made->threads_bytes = whole_pages(threads * sizeof(struct quorvix_task_thread));
        made->processes = map_table(made->skeleton->maps.process_table.map_fd, made->processes_bytes);
        made->threads = map_table(made->skeleton->maps.thread_table.map_fd, made->threads_bytes);
        if (!made->processes || !made->threads) error = errno;
    }
    if (error != 0) {
        quorvix_task_program_unload(made);
        return error;
    }
    *program = made;
    return 0;
}

int quorvix_task_program_run(struct quorvix_task_program* program, struct quorvix_task_table* table) {
    union bpf_attr attributes = {0};
    attributes.test.prog_fd = (quorvix_u32)program->skeleton->progs.read_tasks.prog_fd;
    if (skel_sys_bpf(BPF_PROG_RUN, &attributes, sizeof attributes.test) < 0) return errno;
    table->processes = program->processes;
    table->threads = program->threads;
    table->process_count = program->skeleton->bss->process_count;
    table->thread_count = program->skeleton->bss->thread_count;
    table->error = program->skeleton->bss->error;
    return 0;
}

void quorvix_task_program_unload(struct quorvix_task_program* program) {
    if (program->processes) munmap(program->processes, program->processes_bytes);
    if (program->threads) munmap(program->threads, program->threads_bytes);
    task_iterator__destroy(program->skeleton);
    free(program);
}
