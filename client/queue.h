/*
 * Messages on their way from the app's threads to the connection thread: first in first out, bounded in number and
 * bytes, each with a time after which it is not worth sending.
 *
 * Time is handed in (CLOCK_MONOTONIC in nanoseconds), so that growing old can be tested without waiting.
 *
 * A message stays in the queue while it is being sent, so that a forked child finds every descriptor here and can
 * close it. Only the connection thread takes messages out; what it holds as the front stays valid until it removes it.
 */
#ifndef QUORVIX_CLIENT_QUEUE_H
#define QUORVIX_CLIENT_QUEUE_H

#include "message.h"

#define QUORVIX_QUEUE_MAXIMUM_MESSAGES 256u
#define QUORVIX_QUEUE_MAXIMUM_BYTES (1024u * 1024u)
#define QUORVIX_QUEUE_SECONDS 10u

/* Appends the message, which the queue owns from then on. Returns 0 or ENOBUFS; the message is freed in that case.
 * Sets wasEmpty when the connection thread may have to be woken. */
int quorvix_queue_push(struct quorvix_message* message, uint64_t nowNs, bool* wasEmpty);

/* The oldest message that is still worth sending, or NULL. Drops those that are not. For the connection thread, which
 * follows it by one of the next two. */
struct quorvix_message* quorvix_queue_front(uint64_t nowNs);
/* It was sent, or cannot be: removes and frees it. */
void quorvix_queue_remove_front(void);
/* It is to be tried again later. */
void quorvix_queue_keep_front(void);

/* Drops everything; counts what was dropped as too old. */
void quorvix_queue_clear(void);

uint64_t quorvix_queue_length(void);
uint64_t quorvix_queue_dropped_full(void);
uint64_t quorvix_queue_dropped_old(void);

/* Around fork: the child gets the queue in one piece, and starts with an empty one and zero counters. */
void quorvix_queue_lock_for_fork(void);
void quorvix_queue_unlock_after_fork(void);
void quorvix_queue_forget_in_child(void);

#endif
