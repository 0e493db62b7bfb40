/**
 * @file
 * The tick clock: 24 MHz ticks of CLOCK_MONOTONIC.
 *
 * Daemon, client library and trace library all measure in these ticks, and this is the one definition. A C header,
 * because apps in C include it too; it is installed beside quorvix.h.
 */
#ifndef QUORVIX_TICKS_H
#define QUORVIX_TICKS_H

#include <stdint.h>
#include <time.h>

/** @cond */
#ifndef CLOCK_MONOTONIC
/* A strict C11 compilation hides the clocks of POSIX; an app need not be built otherwise for our sake. */
#if !defined(__linux__) || !defined(__LP64__)
#error "quorvix_ticks.h needs clock_gettime: define _POSIX_C_SOURCE 200809L before the first include"
#endif
extern int clock_gettime(int clock, struct timespec* time);
#define QUORVIX_CLOCK_MONOTONIC 1
#else
#define QUORVIX_CLOCK_MONOTONIC CLOCK_MONOTONIC
#endif
/** @endcond */

/** Ticks in a second. */
#define QUORVIX_TICKS_PER_SECOND 24000000u
/** One tick is 125/3 nanoseconds: the 125. */
#define QUORVIX_TICK_RATIO_NUMERATOR 125u
/** One tick is 125/3 nanoseconds: the 3. */
#define QUORVIX_TICK_RATIO_DENOMINATOR 3u

/**
 * A time in ticks: floor(total nanoseconds * 3 / 125), computed from the parts, without 64-bit overflow and 128-bit
 * division. Exact, because 10^9 * 3 / 125 is a whole number.
 *
 * @param time  of CLOCK_MONOTONIC
 * @return ticks, rounded down.
 */
static inline uint64_t quorvix_ticks_from_timespec(struct timespec time) {
    return (uint64_t)time.tv_sec * QUORVIX_TICKS_PER_SECOND + (uint64_t)time.tv_nsec * 3u / 125u;
}

/**
 * The clock now. Served by the vDSO: no system call. From any thread, also from a signal handler.
 *
 * @return ticks.
 */
static inline uint64_t quorvix_ticks_now(void) {
    struct timespec time;
    clock_gettime(QUORVIX_CLOCK_MONOTONIC, &time);
    return quorvix_ticks_from_timespec(time);
}

#endif
