/* One datagram on its way through a SOCK_SEQPACKET Unix socket: connecting and sending, without ever waiting. */
#ifndef QUORVIX_CLIENT_TRANSPORT_H
#define QUORVIX_CLIENT_TRANSPORT_H

#include <stdbool.h>
#include <sys/un.h>

#include "message.h"

/* Writes the address of the endpoint in this directory. False when the path is too long for one. */
bool quorvix_endpoint_address(const char* directory, struct sockaddr_un* address);

/* A connected, non-blocking, close-on-exec socket, or a negated errno value. */
int quorvix_transport_connect(const struct sockaddr_un* address);

enum quorvix_send_result {
    QUORVIX_SENT,
    QUORVIX_SEND_LATER,   /* the other side's buffer is full; poll tells when there is room */
    QUORVIX_SEND_NO_ROOM, /* the kernel has no memory or too many descriptors under way; nothing tells when it has */
    QUORVIX_SEND_REFUSED, /* this message never goes through */
    QUORVIX_SEND_BROKEN   /* the connection is gone; the message was not delivered */
};
enum quorvix_send_result quorvix_transport_send(int descriptor, const struct quorvix_message* message);

#endif
