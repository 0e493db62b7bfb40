/* The life of the library in a process: starting, stopping, watches, forks. */
#include "quorvix.h"

#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <unistd.h>

#include "clock.h"
#include "connection.h"
#include "endpoint.h"
#include "message.h"
#include "queue.h"
#include "region.h"

/* Serialises starting, stopping, opening and closing. The library's thread never takes it. */
static pthread_mutex_t lifecycleLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t forkHandlersOnce = PTHREAD_ONCE_INIT;
static atomic_ullong watchesRefused;

/* What a watch writes into when all slots are taken. */
static struct quorvix_watch unpublishedWatch = {.slot = {.inactive = 1}};

static void beforeFork(void) {
    pthread_mutex_lock(&lifecycleLock);
    quorvix_connection_lock_for_fork();
    quorvix_queue_lock_for_fork();
}

static void afterForkInParent(void) {
    quorvix_queue_unlock_after_fork();
    quorvix_connection_unlock_after_fork();
    pthread_mutex_unlock(&lifecycleLock);
}

static void afterForkInChild(void) {
    quorvix_region_leave_parent();
    quorvix_queue_forget_in_child();
    quorvix_connection_forget_in_child();
    atomic_store(&watchesRefused, 0);
    pthread_mutex_unlock(&lifecycleLock);
}

/* Before there is a region that a child could write into. */
static void installForkHandlers(void) { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); }

static void lockLifecycle(void) {
    pthread_once(&forkHandlersOnce, installForkHandlers);
    pthread_mutex_lock(&lifecycleLock);
}

static bool isValid(const struct quorvix_config* config) {
    /* A longer struct is a newer header's: what this library does not know of must then be default, which it cannot
     * tell; flags it does not know would be ignored silently. Both are refused. */
    return config->structSize == sizeof *config && (config->flags & ~QUORVIX_START_UNWATCHED) == 0;
}

int quorvix_start(const struct quorvix_config* config) {
    const struct quorvix_config defaults = QUORVIX_CONFIG_DEFAULT;
    if (!config) config = &defaults;
    if (!isValid(config)) return EINVAL;
    lockLifecycle();
    int error = EALREADY;
    if (!quorvix_connection_is_running()) {
        quorvix_region_share();
        const struct quorvix_connection_settings settings = {
            .name = config->name ? config->name : program_invocation_short_name,
            .directory = config->socketDirectory ? config->socketDirectory : QUORVIX_SOCKET_DIRECTORY,
            .regionDescriptor = quorvix_region_descriptor(),
            .watching = (config->flags & QUORVIX_START_UNWATCHED) == 0,
        };
        error = quorvix_connection_start(&settings);
    }
    pthread_mutex_unlock(&lifecycleLock);
    return error;
}

void quorvix_stop(void) {
    lockLifecycle();
    quorvix_connection_stop();
    pthread_mutex_unlock(&lifecycleLock);
}

static int setWatching(bool watching) {
    lockLifecycle();
    const bool running = quorvix_connection_is_running();
    if (running) quorvix_connection_set_watching(watching);
    pthread_mutex_unlock(&lifecycleLock);
    return running ? 0 : ENOTCONN;
}

int quorvix_watching_stop(void) { return setWatching(false); }
int quorvix_watching_start(void) { return setWatching(true); }

struct quorvix_watch* quorvix_watch_open(const char* name, uint32_t flags) {
    lockLifecycle();
    quorvix_region_ensure();
    struct quorvix_watch* watch = quorvix_region_open_slot(name, flags);
    pthread_mutex_unlock(&lifecycleLock);
    if (watch) return watch;
    atomic_fetch_add(&watchesRefused, 1);
    return &unpublishedWatch;
}

void quorvix_watch_adopt(struct quorvix_watch* watch) {
    __atomic_store_n(&watch->slot.threadID, (uint64_t)gettid(), __ATOMIC_RELAXED);
}

void quorvix_watch_close(struct quorvix_watch* watch) {
    if (!watch || watch == &unpublishedWatch) return;
    lockLifecycle();
    quorvix_region_close_slot(watch);
    pthread_mutex_unlock(&lifecycleLock);
}

int quorvix_message_send(struct quorvix_message* message) {
    if (!message) return EINVAL;
    if (!quorvix_connection_is_running()) {
        quorvix_message_destroy(message);
        return ENOTCONN;
    }
    bool wasEmpty = false;
    const int error = quorvix_queue_push(message, quorvix_monotonic_ns(), &wasEmpty);
    /* One wake-up for a burst: whoever found the queue empty has woken the thread. */
    if (wasEmpty) quorvix_connection_wake();
    return error;
}

void quorvix_read_statistics(struct quorvix_statistics* statistics, uint64_t structSize) {
    struct quorvix_statistics all;
    memset(&all, 0, sizeof all);
    quorvix_connection_read_statistics(&all);
    all.queueLength = quorvix_queue_length();
    all.droppedQueueFull = quorvix_queue_dropped_full();
    all.droppedTooOld = quorvix_queue_dropped_old();
    all.watchesRefused = atomic_load(&watchesRefused);
    memset(statistics, 0, structSize);
    memcpy(statistics, &all, structSize < sizeof all ? structSize : sizeof all);
}
