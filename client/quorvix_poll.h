/**
 * @file
 * A watch for a plain poll loop: call quorvix_poll in the place of poll. A unit of work is the time between two calls;
 * waiting is not work.
 *
 *     struct quorvix_watch* watch = quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);
 *     for (;;) {
 *         quorvix_poll(watch, descriptors, count, timeoutMs);
 *         ...
 *     }
 *     quorvix_watch_close(watch);
 */
#ifndef QUORVIX_POLL_H
#define QUORVIX_POLL_H

#include <errno.h>
#include <poll.h>

#include "quorvix.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * poll(2), with what lies between two calls as a unit of work. To be called by the thread that opened the watch.
 *
 * @param watch        an open watch
 * @param descriptors  as for poll
 * @param count        how many descriptors
 * @param timeoutMs    how long to wait at most, in milliseconds; negative: without an end
 * @return what poll returned; errno is poll's too.
 */
static inline int quorvix_poll(struct quorvix_watch* watch, struct pollfd* descriptors, nfds_t count, int timeoutMs) {
    quorvix_end(watch);
    const int result = poll(descriptors, count, timeoutMs);
    /* Reading the clock succeeds always and leaves errno alone. */
    quorvix_begin(watch);
    return result;
}

#ifdef __cplusplus
}
#endif

#endif
