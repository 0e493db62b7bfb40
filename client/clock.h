/* CLOCK_MONOTONIC in nanoseconds, for the library's own deadlines. */
#ifndef QUORVIX_CLIENT_CLOCK_H
#define QUORVIX_CLIENT_CLOCK_H

#include <stdint.h>
#include <time.h>

#define QUORVIX_NS_PER_MS UINT64_C(1000000)
#define QUORVIX_NS_PER_SECOND UINT64_C(1000000000)

static inline uint64_t quorvix_monotonic_ns(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (uint64_t)time.tv_sec * QUORVIX_NS_PER_SECOND + (uint64_t)time.tv_nsec;
}

#endif
