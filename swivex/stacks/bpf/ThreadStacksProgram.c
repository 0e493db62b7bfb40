/* For the loader's own calls. */
#define _GNU_SOURCE
#include "swivex/stacks/bpf/ThreadStacksProgram.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ThreadStacks.lskel.h>

struct swivex_thread_stacks {
    struct thread_stacks* skeleton;
};

int swivex_thread_stacks_load(struct swivex_thread_stacks** program) {
    struct swivex_thread_stacks* const made = calloc(1, sizeof *made);
    int error;
    if (!made) return ENOMEM;
    made->skeleton = thread_stacks__open();
    if (!made->skeleton) {
        free(made);
        return ENOMEM;
    }
    error = -thread_stacks__load(made->skeleton);
    if (error != 0) {
        swivex_thread_stacks_unload(made);
        return error;
    }
    *program = made;
    return 0;
}

int swivex_thread_stacks_walk(struct swivex_thread_stacks* program, int pid, int* descriptor) {
    union bpf_iter_link_info only;
    union bpf_attr attributes;
    int link;
    int error;
    memset(&only, 0, sizeof only);
    only.task.pid = (swivex_u32)pid;
    memset(&attributes, 0, sizeof attributes);
    attributes.link_create.prog_fd = (swivex_u32)program->skeleton->progs.read_thread.prog_fd;
    attributes.link_create.attach_type = BPF_TRACE_ITER;
    attributes.link_create.iter_info = (swivex_u64)(size_t)&only;
    attributes.link_create.iter_info_len = sizeof only;
    program->skeleton->bss->wanted_pid = pid;
    link = skel_sys_bpf(BPF_LINK_CREATE, &attributes, sizeof attributes);
    if (link < 0 && errno == EINVAL) {
        /* A kernel that can't be told the process walks them all. */
        attributes.link_create.iter_info = 0;
        attributes.link_create.iter_info_len = 0;
        link = skel_sys_bpf(BPF_LINK_CREATE, &attributes, sizeof attributes);
    }
    if (link < 0) return errno;
    memset(&attributes, 0, sizeof attributes);
    attributes.iter_create.link_fd = (swivex_u32)link;
    *descriptor = skel_sys_bpf(BPF_ITER_CREATE, &attributes, sizeof attributes);
    error = *descriptor < 0 ? errno : 0;
    /* The walk keeps what it needs of the link. */
    close(link);
    return error;
}

int swivex_thread_stacks_name(struct swivex_thread_stacks* program, const swivex_u64* addresses, swivex_u32 count,
                              const char (**names)[SWIVEX_SYMBOL_BYTES], swivex_u64* text_start) {
    union bpf_attr attributes;
    if (count > SWIVEX_SYMBOLS) return E2BIG;
    memset(&attributes, 0, sizeof attributes);
    if (count > 0) memcpy(program->skeleton->bss->symbol_addresses, addresses, count * sizeof *addresses);
    program->skeleton->bss->symbol_count = count;
    attributes.test.prog_fd = (swivex_u32)program->skeleton->progs.name_addresses.prog_fd;
    if (skel_sys_bpf(BPF_PROG_RUN, &attributes, sizeof attributes.test) < 0) return errno;
    *names = (const char(*)[SWIVEX_SYMBOL_BYTES])program->skeleton->bss->symbol_texts;
    *text_start = program->skeleton->bss->kernel_text_start;
    return 0;
}

void swivex_thread_stacks_unload(struct swivex_thread_stacks* program) {
    thread_stacks__destroy(program->skeleton);
    free(program);
}
