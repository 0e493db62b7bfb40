/*
 * A dictionary in its wire form, built up entry by entry, with the descriptors that travel beside it.
 *
 * Owned by the thread that builds it until it is sent, then by the send queue. It never reads anything: the daemon
 * sends nothing, so there is no decoder here.
 */
#ifndef QUORVIX_CLIENT_MESSAGE_H
#define QUORVIX_CLIENT_MESSAGE_H

#include <stddef.h>

#include "quorvix.h"

struct quorvix_message {
    struct quorvix_message* next; /* the send queue's */
    uint64_t expiresAtNs;         /* the send queue's */
    unsigned char* bytes;         /* header and entries, ready to send */
    size_t length;
    size_t capacity;
    uint16_t entryCount;
    uint8_t descriptorCount;
    int descriptors[QUORVIX_MESSAGE_MAXIMUM_DESCRIPTORS];
};

/* A message with its "command" entry, or NULL when there is no memory. */
struct quorvix_message* quorvix_message_for_command(int64_t command);

#endif
