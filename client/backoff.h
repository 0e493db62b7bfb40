/*
 * How long to wait before the next attempt to connect: doubling from 50 ms, with up to a quarter taken off at random so
 * that many apps which lost the same daemon do not come back in step. Pure: the caller gives the random number.
 */
#ifndef QUORVIX_CLIENT_BACKOFF_H
#define QUORVIX_CLIENT_BACKOFF_H

#include <stdint.h>

#define QUORVIX_BACKOFF_FIRST_MS 50u
/* Where the daemon may come up at any moment. */
#define QUORVIX_BACKOFF_LONGEST_MS 5000u
/* Where not even the folder for its socket exists, or may be entered: most likely a system without the daemon. */
#define QUORVIX_BACKOFF_LONGEST_HOPELESS_MS 60000u

struct quorvix_backoff {
    uint32_t nextMs; /* 0: at the first step */
};

/* The wait before the next attempt; makes the one after it longer, up to longestMs. */
static inline uint32_t quorvix_backoff_step(struct quorvix_backoff* backoff, uint32_t longestMs, uint32_t random) {
    uint32_t wait = backoff->nextMs ? backoff->nextMs : QUORVIX_BACKOFF_FIRST_MS;
    if (wait > longestMs) wait = longestMs;
    backoff->nextMs = wait > longestMs / 2 ? longestMs : wait * 2;
    return wait - random % (wait / 4 + 1);
}

static inline void quorvix_backoff_reset(struct quorvix_backoff* backoff) { backoff->nextMs = 0; }

#endif
