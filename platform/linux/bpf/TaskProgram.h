#ifndef QUORVIX_TASK_PROGRAM_H
#define QUORVIX_TASK_PROGRAM_H

#include "platform/linux/bpf/TaskRecords.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The loaded iterator with its two tables mapped. A C file of its own, since the generated loader is C. Nothing of the
 * library that generates it is needed when it runs.
 */
struct quorvix_task_program;

struct quorvix_task_table {
    const struct quorvix_task_process* processes;
    const struct quorvix_task_thread* threads;
    quorvix_u32 process_count; /* may exceed what there was place for: the error says so */
    quorvix_u32 thread_count;
    quorvix_u32 error; /* of quorvix_task_error, or'ed */
};

/* Loads it with tables of that many places. 0, or the error number. */
int quorvix_task_program_load(quorvix_u32 processes, quorvix_u32 threads, struct quorvix_task_program** program);
/* Walks once. 0, or the error number. */
int quorvix_task_program_run(struct quorvix_task_program* program, struct quorvix_task_table* table);
void quorvix_task_program_unload(struct quorvix_task_program* program);

#ifdef __cplusplus
}
#endif

#endif
