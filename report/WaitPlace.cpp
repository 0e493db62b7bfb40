#include "report/WaitPlace.h"

namespace quorvix::report {

namespace {

struct Known {
    std::string_view function;  // its beginning
    WaitPlace::Kind kind;
    std::string_view text;
};

using enum WaitPlace::Kind;

// Functions of Linux that a waiting thread is seen in, under the names of 5.x and 6.x kernels. The first that fits
// counts, so that a longer name stands before its beginning.
constexpr Known kKnown[] = {
    {"__refrigerator", frozen, "the freezer of its group"},
    {"do_freezer_trap", frozen, "the freezer of its group"},
    {"do_signal_stop", stopped, "a signal to go on"},
    {"do_jobctl_trap", stopped, "its tracer"},
    {"ptrace_stop", stopped, "its tracer"},
    {"ptrace_do_notify", stopped, "its tracer"},
    {"futex_wait", event, "a lock or condition variable (futex)"},
    {"futex_lock_pi", event, "a lock (futex with priority inheritance)"},
    {"do_nanosleep", event, "a timer"},
    {"hrtimer_nanosleep", event, "a timer"},
    {"do_epoll_wait", event, "events (epoll)"},
    {"ep_poll", event, "events (epoll)"},
    {"do_sys_poll", event, "events (poll)"},
    {"do_poll", event, "events (poll)"},
    {"do_select", event, "events (select)"},
    {"pipe_read", event, "data of a pipe"},
    {"anon_pipe_read", event, "data of a pipe"},
    {"pipe_write", event, "room in a pipe"},
    {"anon_pipe_write", event, "room in a pipe"},
    {"unix_stream_", event, "a local socket"},
    {"unix_dgram_", event, "a local socket"},
    {"unix_wait_for_peer", event, "a local socket"},
    {"__skb_wait_for_more_packets", event, "a socket"},
    {"sk_wait_data", event, "a socket"},
    {"sk_stream_wait_", event, "a socket"},
    {"tcp_recvmsg", event, "a network connection"},
    {"inet_csk_accept", event, "a network connection"},
    {"inet_stream_connect", event, "a network connection"},
    {"eventfd_read", event, "an event descriptor"},
    {"timerfd_read", event, "a timer"},
    {"signalfd_", event, "a signal"},
    {"do_sigtimedwait", event, "a signal"},
    {"__do_sys_pause", event, "a signal"},
    {"sigsuspend", event, "a signal"},
    {"do_msgrcv", event, "a message queue"},
    {"do_semtimedop", event, "a semaphore"},
    {"__do_semtimedop", event, "a semaphore"},
    {"do_wait", event, "a child process"},
    {"kernel_wait4", event, "a child process"},
    {"wait_for_vfork_done", event, "a child process that it shares its memory with (vfork)"},
    {"kernel_clone", event, "a child process that it shares its memory with (vfork)"},
    {"tty_", event, "a terminal"},
    {"n_tty_", event, "a terminal"},
    {"locks_lock_", event, "a file lock"},
    {"fcntl_setlk", event, "a file lock"},
    {"flock_lock", event, "a file lock"},
    {"rwsem_down_", lock, "a lock of the kernel (often its process's memory map)"},
    {"__mutex_lock", lock, "a lock of the kernel"},
    {"mutex_lock", lock, "a lock of the kernel"},
    {"__down", lock, "a lock of the kernel"},
    {"request_wait_answer", io, "the answer of a FUSE file system"},
    {"__fuse_simple_request", io, "the answer of a FUSE file system"},
    {"fuse_", io, "the answer of a FUSE file system"},
    {"rpc_wait_bit", io, "a network file system"},
    {"nfs_", io, "a network file system"},
    {"folio_wait_bit", io, "a page of a file to be read or written"},
    {"__folio_lock", io, "a page of a file to be read or written"},
    {"wait_on_page_bit", io, "a page of a file to be read or written"},
    {"filemap_fault", io, "a page of a mapped file"},
    {"balance_dirty_pages", io, "dirty pages to be written"},
    {"submit_bio_wait", io, "a block device"},
    {"blkdev_", io, "a block device"},
    {"blk_", io, "a block device"},
    {"rq_qos_wait", io, "a block device (its limit of bytes or requests)"},
    {"wait_on_buffer", io, "a block device"},
    {"__wait_on_buffer", io, "a block device"},
    {"jbd2_", io, "the journal of a file system"},
    {"__iomap_dio_rw", io, "a block device"},
    {"swap_read", io, "swap"},
    {"io_schedule", io, "input or output"},
};

}  // namespace

WaitPlace waitPlaceOf(std::span<const std::string> kernelFunctions) {
    for (const std::string& function : kernelFunctions) {
        for (const Known& known : kKnown) {
            if (function.starts_with(known.function)) {
                return {.kind = known.kind, .text = known.text, .function = function.substr(0, function.find('+'))};
            }
        }
    }
    return {};
}

}  // namespace quorvix::report
