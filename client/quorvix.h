/**
 * @file
 * libquorvix: what an app links so that quorvixd can find out when it hangs.
 *
 *     quorvix_start(NULL);                                              once, early in main()
 *     struct quorvix_watch* watch = quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);   on the thread to watch
 *     for (;;) {
 *         wait_for_an_event();
 *         quorvix_begin(watch);                                         a unit of work starts
 *         handle_it();
 *         quorvix_end(watch);                                           and is done
 *     }
 *
 * A unit of work that runs for more than 5 seconds is a hang. No message is sent for a unit: begin and end write into
 * shared memory which the daemon reads every 5 seconds.
 *
 * Threads. Every function may be called from any thread at any time, with three exceptions:
 *   - one watch is used by one thread at a time (begin and end of a watch from two threads at once mix their times);
 *   - a message that is being built belongs to one thread;
 *   - nothing but quorvix_begin and quorvix_end may be called from a signal handler.
 *
 * No function waits for the daemon or for the disk; quorvix_stop waits for the library's own thread, which never waits
 * for anybody. The library has one thread, "quorvix", that blocks all signals; it never calls into the app.
 *
 * Without the daemon everything still works and does nothing: begin and end write into memory that nobody reads, and
 * messages are dropped after 10 seconds and counted. When the daemon comes (back), the app is registered again by
 * itself.
 *
 * fork. The child writes into memory of its own and has no connection; watches stay valid. It may call quorvix_start
 * to be watched itself. This hangs on fork(3)'s handlers: a raw clone system call bypasses them, and such a child must
 * not use the library before it executes another program.
 *
 * The library reads no environment variable and no file, raises no signal (no SIGPIPE either), writes nothing to
 * standard output or error, and all its descriptors are close-on-exec.
 *
 * C11 and C++. Installed beside quorvix_ticks.h and quorvix_channel.h; C++ programs may like quorvix.hpp.
 */
#ifndef QUORVIX_H
#define QUORVIX_H

#include <stdbool.h>
#include <stdint.h>

#include "quorvix_channel.h"
#include "quorvix_ticks.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A function of the library's interface. */
#if defined(__GNUC__)
#define QUORVIX_PUBLIC __attribute__((visibility("default")))
#else
#define QUORVIX_PUBLIC
#endif

/* ---- Starting and stopping ------------------------------------------------------------------------------------- */

/** With this flag the process is not watched before quorvix_watching_start: for one that only reports activations. */
#define QUORVIX_START_UNWATCHED 1u

/** How quorvix_start() starts. Zero-filled fields mean the default; structSize lets later versions of the library tell
 * what the app was built with. */
struct quorvix_config {
    uint32_t structSize;         /**< sizeof(struct quorvix_config) */
    uint32_t flags;              /**< 0 or #QUORVIX_START_UNWATCHED */
    const char* name;            /**< what the daemon's log calls this app; NULL: the program's short name. Copied. */
    const char* socketDirectory; /**< where the daemon's socket is; NULL: /run/vex. For tests and sandboxes. Copied. */
};

/** A config that says nothing: every field but structSize is its default. */
#ifdef __cplusplus
#define QUORVIX_CONFIG_DEFAULT \
    quorvix_config { sizeof(struct quorvix_config), 0, nullptr, nullptr }
#else
#define QUORVIX_CONFIG_DEFAULT \
    (struct quorvix_config) { sizeof(struct quorvix_config), 0, NULL, NULL }
#endif

/**
 * Starts the library's thread, which connects to the daemon and registers this process. Returns at once; the daemon
 * need not run yet.
 *
 * @param config  what differs from the defaults; may be NULL. Read during the call only.
 * @return 0, or an errno value: EALREADY when it is started, EINVAL for a config that makes no sense, ENAMETOOLONG for
 * a socket directory that fits no socket address, or why the thread could not be made (EAGAIN, EMFILE, ENOMEM). An app
 * may ignore the result: everything else stays callable and harmless.
 */
QUORVIX_PUBLIC int quorvix_start(const struct quorvix_config* config);

/**
 * Sends what is queued as far as that needs no waiting, takes this process off the daemon's list, and ends the thread
 * and the connection. Watches stay valid. Harmless when not started. Not needed before exit.
 */
QUORVIX_PUBLIC void quorvix_stop(void);

/**
 * Suspends being watched: the connection stays up; messages queued before are sent first. Lasts over reconnections.
 *
 * @return 0, also when it was suspended, or ENOTCONN when the library is not started.
 */
QUORVIX_PUBLIC int quorvix_watching_stop(void);

/**
 * Resumes being watched after quorvix_watching_stop() or a start with #QUORVIX_START_UNWATCHED.
 *
 * @return 0, also when it was watched, or ENOTCONN when the library is not started.
 */
QUORVIX_PUBLIC int quorvix_watching_start(void);

/* ---- Watching a thread's work ---------------------------------------------------------------------------------- */

/** A hang of this watch asks for a trace report; without it the hang is logged and counted only. */
#define QUORVIX_WATCH_SAVE_REPORT 1u

/** One kind of work on one thread. It is a slot of the shared region itself, so that begin and end follow no pointer;
 * apps touch it through the functions below only. */
struct quorvix_watch {
    struct quorvix_hang_slot slot; /**< the library's own */
};

/**
 * Opens a watch for the calling thread. May be called before quorvix_start(). Starts inactive.
 *
 * @param name   what kind of work this is (UTF-8; cut to 63 bytes between characters; NULL is ""): ends up in log lines
 *               and reports. Copied.
 * @param flags  0 or #QUORVIX_WATCH_SAVE_REPORT
 * @return the watch, never NULL. There are 20 watches in a process; one more gets a watch that nobody reads, and is
 * counted in the statistics (quorvix_statistics::watchesRefused).
 */
QUORVIX_PUBLIC struct quorvix_watch* quorvix_watch_open(const char* name, uint32_t flags);

/**
 * From now on the watch is the calling thread's. Between two units of work only.
 *
 * @param watch  an open watch
 */
QUORVIX_PUBLIC void quorvix_watch_adopt(struct quorvix_watch* watch);

/**
 * Ends the watch, also in the middle of a unit of work. It must not be used again.
 *
 * @param watch  an open watch; NULL is ignored
 */
QUORVIX_PUBLIC void quorvix_watch_close(struct quorvix_watch* watch);

/**
 * A unit of work starts now. One read of the clock and two stores: no system call, no lock, no branch. Begin again
 * without end starts a fresh unit. On the watch's own thread, also from a signal handler.
 *
 * The release store orders startTime (and whatever the watch was opened with) before inactive, which the daemon reads
 * with acquire ordering.
 *
 * @param watch  an open watch
 */
static inline void quorvix_begin(struct quorvix_watch* watch) {
    __atomic_store_n(&watch->slot.startTime, quorvix_ticks_now(), __ATOMIC_RELAXED);
    __atomic_store_n(&watch->slot.inactive, 0u, __ATOMIC_RELEASE);
}

/**
 * The unit of work is done. One store. End without begin is harmless. On the watch's own thread, also from a signal
 * handler.
 *
 * @param watch  an open watch
 */
static inline void quorvix_end(struct quorvix_watch* watch) {
    __atomic_store_n(&watch->slot.inactive, 1u, __ATOMIC_RELEASE);
}

/* ---- Reports of what the app itself saw ------------------------------------------------------------------------ */

/**
 * @name Reports of what the app itself saw
 *
 * These and quorvix_message_send() queue a message and return at once. At most 256 messages and 1 MiB wait; what comes
 * on top is dropped (ENOBUFS) and counted. A message that could not be sent within 10 seconds is dropped and counted.
 * They return 0 when queued, else an errno value: ENOTCONN when the library is not started, EINVAL for NULL or a
 * missing text, E2BIG for a text too long for a message, ENOMEM, ENOBUFS.
 *
 * @{
 */

/** A hang that the app found by itself, for instance by a watchdog of its own. */
struct quorvix_hang {
    const char* name;   /**< kind of work, UTF-8; required */
    uint64_t startTime; /**< in ticks of quorvix_ticks_now() */
    uint64_t endTime;   /**< in ticks of quorvix_ticks_now() */
    int64_t threadID;   /**< gettid() of the thread that hung, 0 when unknown */
    bool saveReport;    /**< whether it asks for a trace report */
};

/**
 * Reports a hang that is over.
 *
 * @param hang  read during the call only
 * @return 0 when queued, else ENOTCONN, EINVAL, E2BIG, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_report_hang(const struct quorvix_hang* hang);

/**
 * A fence begins: a span in which a hang is expected and is put down to the fence instead of the app. The daemon
 * remembers the last five fences of the whole device.
 *
 * @param name  any number that the app chooses
 * @return 0 when queued, else ENOTCONN, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_fence_begin(int64_t name);

/**
 * A fence ends.
 *
 * @param name  the number that it began with
 * @return 0 when queued, else ENOTCONN, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_fence_end(int64_t name);

/** When a fence was overrun. */
struct quorvix_fence_span {
    uint64_t startTime; /**< in ticks of quorvix_ticks_now() */
    uint64_t endTime;   /**< in ticks of quorvix_ticks_now() */
};

/**
 * Says that a fence was overrun.
 *
 * @param span  read during the call only
 * @return 0 when queued, else ENOTCONN, EINVAL, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_fence_blown(const struct quorvix_fence_span* span);

/**
 * The wall clock in the unit of activation times.
 *
 * @return milliseconds since 2001-01-01 00:00:00 UTC; 0 before that day.
 */
QUORVIX_PUBLIC uint64_t quorvix_wall_clock_now(void);

/** quorvix_activation_begin::type of an app that was not running. */
#define QUORVIX_ACTIVATION_LAUNCH 1
/** quorvix_activation_begin::type of an app that was running in the background. */
#define QUORVIX_ACTIVATION_RESUME 2

/** An app comes to the foreground. Sent by whoever manages apps. */
struct quorvix_activation_begin {
    int32_t pid;          /**< the app's, not the sender's */
    const char* bundleID; /**< UTF-8; required */
    uint64_t startTime;   /**< quorvix_wall_clock_now() when it began; 0: now */
    int32_t state;        /**< 1: foreground, 0: background */
    int32_t type;         /**< #QUORVIX_ACTIVATION_LAUNCH or #QUORVIX_ACTIVATION_RESUME */
};

/**
 * Reports that an activation began.
 *
 * @param activation  read during the call only
 * @return 0 when queued, else ENOTCONN, EINVAL, E2BIG, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_report_activation_begin(const struct quorvix_activation_begin* activation);

/** An app has come to the foreground, or has not. */
struct quorvix_activation_end {
    int32_t pid;          /**< the app's, not the sender's */
    const char* bundleID; /**< UTF-8; required; the same as at the begin */
    uint64_t endTime;     /**< quorvix_wall_clock_now() when it ended; 0: now */
    int32_t state;        /**< 1: foreground, 0: background */
    int32_t result;       /**< the sender's own code; 32 and 33 are the daemon's */
};

/**
 * Reports that an activation ended.
 *
 * @param activation  read during the call only
 * @return 0 when queued, else ENOTCONN, EINVAL, E2BIG, ENOMEM or ENOBUFS, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_report_activation_end(const struct quorvix_activation_end* activation);

/** @} */

/* ---- Any message ----------------------------------------------------------------------------------------------- */

/** The most bytes of a message. */
#define QUORVIX_MESSAGE_MAXIMUM_BYTES 65536u
/** The most entries of a message. */
#define QUORVIX_MESSAGE_MAXIMUM_ENTRIES 64u
/** The most descriptors of a message. */
#define QUORVIX_MESSAGE_MAXIMUM_DESCRIPTORS 4u
/** The most bytes of a key. */
#define QUORVIX_MESSAGE_MAXIMUM_KEY_BYTES 255u

/** A dictionary under construction. */
struct quorvix_message;

/**
 * Makes an empty message.
 *
 * @return the message, for quorvix_message_send() or quorvix_message_destroy(), or NULL when there is no memory.
 */
QUORVIX_PUBLIC struct quorvix_message* quorvix_message_create(void);

/**
 * Frees a message that was not given to quorvix_message_send().
 *
 * @param message  NULL is ignored
 */
QUORVIX_PUBLIC void quorvix_message_destroy(struct quorvix_message* message);

/**
 * @name Entries of a message
 *
 * Each adds one entry. They return 0, or an errno value, and then the message is as it was: EINVAL for a key that is
 * NULL, empty, longer than 255 bytes or not UTF-8 or for a NULL text, EEXIST for a key that is there already, E2BIG
 * when one of the limits above is reached, EBADF or EMFILE for a descriptor that cannot be duplicated, ENOMEM.
 *
 * @{
 */

/**
 * Adds a signed number.
 *
 * @param message  a message under construction
 * @param key      UTF-8; copied
 * @param value    any number
 * @return 0, or EINVAL, EEXIST, E2BIG or ENOMEM, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_message_set_int64(struct quorvix_message* message, const char* key, int64_t value);

/**
 * Adds an unsigned number.
 *
 * @param message  a message under construction
 * @param key      UTF-8; copied
 * @param value    any number
 * @return 0, or EINVAL, EEXIST, E2BIG or ENOMEM, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_message_set_uint64(struct quorvix_message* message, const char* key, uint64_t value);

/**
 * Adds a text.
 *
 * @param message  a message under construction
 * @param key      UTF-8; copied
 * @param text     UTF-8; copied; not NULL
 * @return 0, or EINVAL, EEXIST, E2BIG or ENOMEM, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_message_set_string(struct quorvix_message* message, const char* key, const char* text);

/**
 * Adds a truth value.
 *
 * @param message  a message under construction
 * @param key      UTF-8; copied
 * @param value    true or false
 * @return 0, or EINVAL, EEXIST, E2BIG or ENOMEM, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_message_set_bool(struct quorvix_message* message, const char* key, bool value);

/**
 * Adds shared memory.
 *
 * @param message     a message under construction
 * @param key         UTF-8; copied
 * @param descriptor  of the memory; it is duplicated, the caller keeps its own
 * @return 0, or EINVAL, EEXIST, E2BIG, EBADF, EMFILE or ENOMEM, as said for all of these.
 */
QUORVIX_PUBLIC int quorvix_message_set_shared_memory(struct quorvix_message* message, const char* key, int descriptor);

/** @} */

/**
 * Queues the message, as the reports above are queued.
 *
 * @param message  belongs to the library from here on, whatever is returned
 * @return 0 when queued, else an errno value: ENOTCONN when the library is not started, EINVAL for NULL, ENOBUFS,
 * ENOMEM.
 */
QUORVIX_PUBLIC int quorvix_message_send(struct quorvix_message* message);

/* ---- What happened so far -------------------------------------------------------------------------------------- */

/** Counters of this process since it was started or forked. */
struct quorvix_statistics {
    uint64_t connected;         /**< 1 while there is a connection, else 0 */
    uint64_t connections;       /**< connections made */
    uint64_t connectFailures;   /**< attempts that found no daemon */
    uint64_t registrations;     /**< times this process was put on the daemon's list */
    uint64_t messagesSent;      /**< of all kinds */
    uint64_t droppedQueueFull;  /**< messages that found the queue full */
    uint64_t droppedTooOld;     /**< messages that waited for more than 10 seconds, or until quorvix_stop */
    uint64_t droppedSendFailed; /**< messages that the kernel refused for good */
    uint64_t queueLength;       /**< messages waiting now */
    uint64_t wakeUps;           /**< times the library's thread woke up */
    uint64_t watchesRefused;    /**< watches opened when all 20 were taken */
};

/**
 * Fills in the counters as they are now. At most structSize bytes, so that the struct can grow at its end.
 *
 * @param statistics  is filled in; not NULL
 * @param structSize  sizeof *statistics, in bytes
 */
QUORVIX_PUBLIC void quorvix_read_statistics(struct quorvix_statistics* statistics, uint64_t structSize);

#ifdef __cplusplus
}
#endif

#endif
