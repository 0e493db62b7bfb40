#include "queue.h"

#include <errno.h>
#include <pthread.h>

#include "clock.h"

static struct {
    pthread_mutex_t lock;
    struct quorvix_message* first;
    struct quorvix_message* last;
    uint64_t length;
    uint64_t bytes;
    uint64_t droppedFull;
    uint64_t droppedOld;
    bool sending; /* the connection thread uses the first message without the lock */
} queue = {.lock = PTHREAD_MUTEX_INITIALIZER};

/* With the lock held. */
static void removeFirst(void) {
    struct quorvix_message* message = queue.first;
    queue.first = message->next;
    if (!queue.first) queue.last = NULL;
    --queue.length;
    queue.bytes -= message->length;
    quorvix_message_destroy(message);
}

/* All messages live equally long, so the old ones are in front. With the lock held. */
static void dropOld(uint64_t nowNs) {
    while (queue.first && queue.first->expiresAtNs <= nowNs) {
        removeFirst();
        ++queue.droppedOld;
    }
}

static bool hasRoomFor(const struct quorvix_message* message) {
    return queue.length < QUORVIX_QUEUE_MAXIMUM_MESSAGES &&
           queue.bytes + message->length <= QUORVIX_QUEUE_MAXIMUM_BYTES;
}

int quorvix_queue_push(struct quorvix_message* message, uint64_t nowNs, bool* wasEmpty) {
    pthread_mutex_lock(&queue.lock);
    /* Without a connection nobody else removes what is too old. While one is being sent, the connection is alive and
     * nothing grows old. */
    if (!hasRoomFor(message) && !queue.sending) dropOld(nowNs);
    const bool room = hasRoomFor(message);
    *wasEmpty = room && !queue.first;
    if (room) {
        message->next = NULL;
        message->expiresAtNs = nowNs + QUORVIX_QUEUE_SECONDS * QUORVIX_NS_PER_SECOND;
        if (queue.last) {
            queue.last->next = message;
        } else {
            queue.first = message;
        }
        queue.last = message;
        ++queue.length;
        queue.bytes += message->length;
    } else {
        ++queue.droppedFull;
    }
    pthread_mutex_unlock(&queue.lock);
    if (!room) quorvix_message_destroy(message);
    return room ? 0 : ENOBUFS;
}

struct quorvix_message* quorvix_queue_front(uint64_t nowNs) {
    pthread_mutex_lock(&queue.lock);
    dropOld(nowNs);
    struct quorvix_message* front = queue.first;
    queue.sending = front != NULL;
    pthread_mutex_unlock(&queue.lock);
    return front;
}

void quorvix_queue_remove_front(void) {
    pthread_mutex_lock(&queue.lock);
    queue.sending = false;
    removeFirst();
    pthread_mutex_unlock(&queue.lock);
}

void quorvix_queue_keep_front(void) {
    pthread_mutex_lock(&queue.lock);
    queue.sending = false;
    pthread_mutex_unlock(&queue.lock);
}

void quorvix_queue_clear(void) {
    pthread_mutex_lock(&queue.lock);
    dropOld(UINT64_MAX);
    pthread_mutex_unlock(&queue.lock);
}

static uint64_t readLocked(const uint64_t* counter) {
    pthread_mutex_lock(&queue.lock);
    const uint64_t value = *counter;
    pthread_mutex_unlock(&queue.lock);
    return value;
}

uint64_t quorvix_queue_length(void) { return readLocked(&queue.length); }
uint64_t quorvix_queue_dropped_full(void) { return readLocked(&queue.droppedFull); }
uint64_t quorvix_queue_dropped_old(void) { return readLocked(&queue.droppedOld); }

void quorvix_queue_lock_for_fork(void) { pthread_mutex_lock(&queue.lock); }

void quorvix_queue_unlock_after_fork(void) { pthread_mutex_unlock(&queue.lock); }

void quorvix_queue_forget_in_child(void) {
    while (queue.first) removeFirst();
    queue.droppedFull = 0;
    queue.droppedOld = 0;
    queue.sending = false;
    pthread_mutex_unlock(&queue.lock);
}
