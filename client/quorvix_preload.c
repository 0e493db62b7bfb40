/*
 * libquorvix-preload.so: has the main thread of a program watched that knows nothing of libquorvix.
 *
 *     LD_PRELOAD=libquorvix-preload.so program
 *
 * Stands between the program and the C library's waiting calls: what the main thread does between the return of one of
 * them and the next is a unit of work. A program that waits in other ways (a bare read, a condition variable) is better
 * watched from within, since such a wait looks like work here.
 *
 * The library starts with the first wait, not with the process: a program that never waits, or that replaces itself at
 * once, as a shell script's commands do, is left alone. QUORVIX_PRELOAD_SOCKETS names another folder of the daemon's
 * socket, for tests and sandboxes; a program that runs with raised privileges ignores it.
 */
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <unistd.h>

#include "quorvix.h"

#define PRELOAD_PUBLIC __attribute__((visibility("default")))

static struct quorvix_watch* watch;
/* Set once, when the main thread first waits. Read without a lock by it alone. */
static pthread_once_t started = PTHREAD_ONCE_INIT;

static void start(void) {
    struct quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = secure_getenv("QUORVIX_PRELOAD_SOCKETS");
    /* Harmless when it fails, or when the program uses the library itself. */
    (void)quorvix_start(&config);
    watch = quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);
}

/* Asked once a thread: the answer costs two system calls. */
static bool isMainThread(void) {
    static __thread enum { UNKNOWN, MAIN, OTHER } kind;
    if (kind == UNKNOWN) kind = gettid() == getpid() ? MAIN : OTHER;
    return kind == MAIN;
}

static void waitBegins(bool watched) {
    /* A wait inside of the start itself, from a signal handler say, must not start once more. */
    static __thread bool isStarting;
    if (!watched || isStarting) return;
    isStarting = true;
    pthread_once(&started, start);
    isStarting = false;
    quorvix_end(watch);
}

static void waitEnds(bool watched) {
    if (watched && watch) quorvix_begin(watch);
}

/* The C library's own function of this name, looked up at its first use. Two threads may look it up at once, and find
 * the same. */
#define NEXT(function)                                                    \
    static __typeof__(&function) next;                                    \
    __typeof__(&function) own = __atomic_load_n(&next, __ATOMIC_RELAXED); \
    if (!own) {                                                           \
        *(void**)&own = dlsym(RTLD_NEXT, #function);                      \
        __atomic_store_n(&next, own, __ATOMIC_RELAXED);                   \
    }

#define WATCHED(call)                    \
    const bool watched = isMainThread(); \
    waitBegins(watched);                 \
    const int result = call;             \
    waitEnds(watched);                   \
    return result

PRELOAD_PUBLIC int poll(struct pollfd* descriptors, nfds_t count, int timeoutMs) {
    NEXT(poll)
    WATCHED(own(descriptors, count, timeoutMs));
}

PRELOAD_PUBLIC int ppoll(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout,
                         const sigset_t* signals) {
    NEXT(ppoll)
    WATCHED(own(descriptors, count, timeout, signals));
}

/* What programs call that were built with checks of buffer lengths. */
int __poll_chk(struct pollfd* descriptors, nfds_t count, int timeoutMs, size_t length);
int __ppoll_chk(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout, const sigset_t* signals,
                size_t length);

PRELOAD_PUBLIC int __poll_chk(struct pollfd* descriptors, nfds_t count, int timeoutMs, size_t length) {
    NEXT(__poll_chk)
    WATCHED(own(descriptors, count, timeoutMs, length));
}

PRELOAD_PUBLIC int __ppoll_chk(struct pollfd* descriptors, nfds_t count, const struct timespec* timeout,
                               const sigset_t* signals, size_t length) {
    NEXT(__ppoll_chk)
    WATCHED(own(descriptors, count, timeout, signals, length));
}

PRELOAD_PUBLIC int epoll_wait(int descriptor, struct epoll_event* events, int most, int timeoutMs) {
    NEXT(epoll_wait)
    WATCHED(own(descriptor, events, most, timeoutMs));
}

PRELOAD_PUBLIC int epoll_pwait(int descriptor, struct epoll_event* events, int most, int timeoutMs,
                               const sigset_t* signals) {
    NEXT(epoll_pwait)
    WATCHED(own(descriptor, events, most, timeoutMs, signals));
}

PRELOAD_PUBLIC int epoll_pwait2(int descriptor, struct epoll_event* events, int most, const struct timespec* timeout,
                                const sigset_t* signals) {
    NEXT(epoll_pwait2)
    WATCHED(own(descriptor, events, most, timeout, signals));
}

PRELOAD_PUBLIC int select(int count, fd_set* reading, fd_set* writing, fd_set* exceptional, struct timeval* timeout) {
    NEXT(select)
    WATCHED(own(count, reading, writing, exceptional, timeout));
}

PRELOAD_PUBLIC int pselect(int count, fd_set* reading, fd_set* writing, fd_set* exceptional,
                           const struct timespec* timeout, const sigset_t* signals) {
    NEXT(pselect)
    WATCHED(own(count, reading, writing, exceptional, timeout, signals));
}
