/* For the loader's own calls. */
#define _GNU_SOURCE
#include "swivex/stacks/bpf/ThreadStacksProgram.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ThreadStacks.lskel.h>

enum { NO_PROCESS = -1 };

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

/* Walks the threads of `pid`, and tells of those of `wanted`. */
static int open_walk(struct swivex_thread_stacks* program, int pid, int wanted, int* descriptor) {
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
    program->skeleton->bss->wanted_pid = wanted;
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

int swivex_thread_stacks_walk(struct swivex_thread_stacks* program, int pid, int* descriptor) {
    return open_walk(program, pid, pid, descriptor);
}

int swivex_thread_stacks_name(struct swivex_thread_stacks* program, const swivex_u64* addresses, swivex_u32 count,
                              const char** lines) {
    swivex_u64* const asked = program->skeleton->bss->symbol_addresses;
    char none;
    int walk;
    int error;
    if (count > SWIVEX_SYMBOLS) return E2BIG;
    memset(asked, 0, sizeof program->skeleton->bss->symbol_addresses);
    memcpy(asked, addresses, count * sizeof *addresses);
    program->skeleton->bss->symbol_lines[0] = 0;
    /* Any walk does, so the shortest there is: of this process, with no thread that is told of. */
    error = open_walk(program, getpid(), NO_PROCESS, &walk);
    if (error == 0) {
        if (read(walk, &none, sizeof none) < 0) error = errno;
        close(walk);
    }
    asked[0] = 0;
    *lines = program->skeleton->bss->symbol_lines;
    return error;
}

swivex_u64 swivex_thread_stacks_text_start(const struct swivex_thread_stacks* program) {
    return program->skeleton->bss->kernel_text_start;
}

void swivex_thread_stacks_unload(struct swivex_thread_stacks* program) {
    thread_stacks__destroy(program->skeleton);
    free(program);
}
