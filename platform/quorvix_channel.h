/**
 * @file
 * The hang channel: the shared-memory region in which an app's main thread publishes the start of each unit of work.
 * Protocol version 4. This is an ABI: nothing here may move.
 *
 *   offset  0            4             8                    112                     8 + 104 * slotCount
 *           +------------+-------------+--------------------+-----------------------+
 *           | version    | slotCount   | slot 0 (104 bytes) | slot 1 ...            |
 *           +------------+-------------+--------------------+-----------------------+
 *
 *   slot:   0 startTime (8) | 8 client's own (8) | 16 inactive (4) | 20 saveReport (4)
 *           24 client's own (8) | 32 threadID (8) | 40 name (64) | 104
 *
 * Little-endian, natural alignment. The region holds at least 20 slots: 2088 bytes.
 *
 * Who writes what, when:
 *   - the client writes version and slotCount once, before it sends the region;
 *   - begin of a unit of work: the client writes threadID, saveReport, name (when they change) and startTime with plain
 *     stores, then inactive = 0 with release ordering;
 *   - end: the client writes inactive = 1 with release ordering;
 *   - the daemon reads inactive with acquire ordering every 5 seconds, then startTime; after it has reported a hang it
 *     writes all ones into startTime, so that one piece of work is reported once.
 *
 * Worst case: the daemon looks while the client is between two units. It then sees either the old unit's start (and
 * reports a hang that has just ended) or the new one's (and nothing); it never sees a torn 64-bit word.
 */
#ifndef QUORVIX_CHANNEL_H
#define QUORVIX_CHANNEL_H

#include <stdint.h>

/** @cond */
#ifdef __cplusplus
#define QUORVIX_CHANNEL_ASSERT(condition, text) static_assert(condition, text)
#else
#define QUORVIX_CHANNEL_ASSERT(condition, text) _Static_assert(condition, text)
#endif
/** @endcond */

/* Qt makes a macro of this word in every file that includes its headers. */
#pragma push_macro("slots")
#undef slots

/** Of this layout. */
#define QUORVIX_CHANNEL_VERSION 4u
/** A region holds at least so many slots. */
#define QUORVIX_CHANNEL_MINIMUM_SLOTS 20u
/** A region has at least so many bytes. */
#define QUORVIX_CHANNEL_MINIMUM_LENGTH 2088u
/** Bytes of a slot's name, the NUL at its end included. */
#define QUORVIX_CHANNEL_NAME_LENGTH 64u
/** What the daemon writes into startTime after a report. */
#define QUORVIX_CHANNEL_REPORTED UINT64_MAX

/** One watch. */
struct quorvix_hang_slot {
    uint64_t startTime;                     /**< ticks at which the current unit of work began */
    uint64_t clientWord;                    /**< the client's own; the daemon never reads it */
    uint32_t inactive;                      /**< nonzero: nothing runs here, the slot is skipped */
    uint32_t saveReport;                    /**< nonzero: a hang of this slot asks for a trace report */
    uint64_t clientData;                    /**< the client's own; the daemon never reads it */
    uint64_t threadID;                      /**< thread that does the work */
    char name[QUORVIX_CHANNEL_NAME_LENGTH]; /**< NUL-terminated kind of work */
};

/** The whole region, where it has the fewest slots. */
struct quorvix_hang_channel {
    uint32_t version;                                              /**< #QUORVIX_CHANNEL_VERSION */
    uint32_t slotCount;                                            /**< how many slots follow */
    struct quorvix_hang_slot slots[QUORVIX_CHANNEL_MINIMUM_SLOTS]; /**< the first of them */
};

/** @cond */
#define QUORVIX_CHANNEL_OFFSET(type, field, offset) \
    QUORVIX_CHANNEL_ASSERT(__builtin_offsetof(struct type, field) == (offset), #field " moved")
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, startTime, 0);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, clientWord, 8);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, inactive, 16);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, saveReport, 20);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, clientData, 24);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, threadID, 32);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_slot, name, 40);
QUORVIX_CHANNEL_ASSERT(sizeof(struct quorvix_hang_slot) == 104, "a slot has 104 bytes");
QUORVIX_CHANNEL_OFFSET(quorvix_hang_channel, version, 0);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_channel, slotCount, 4);
QUORVIX_CHANNEL_OFFSET(quorvix_hang_channel, slots, 8);
QUORVIX_CHANNEL_ASSERT(sizeof(struct quorvix_hang_channel) == QUORVIX_CHANNEL_MINIMUM_LENGTH, "20 slots, 2088 bytes");
#undef QUORVIX_CHANNEL_OFFSET
/** @endcond */

#pragma pop_macro("slots")

#endif
