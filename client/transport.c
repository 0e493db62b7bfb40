#include "transport.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "endpoint.h"

bool quorvix_endpoint_address(const char* directory, struct sockaddr_un* address) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const int length = snprintf(address->sun_path, sizeof address->sun_path, "%s/%s", directory, QUORVIX_ENDPOINT);
    return length > 0 && (size_t)length < sizeof address->sun_path;
}

int quorvix_transport_connect(const struct sockaddr_un* address) {
    const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) return -errno;
    /* Never in progress: a Unix socket connects at once or fails (EAGAIN when the listener's backlog is full). */
    if (connect(descriptor, (const struct sockaddr*)address, sizeof *address) != 0) {
        const int error = errno;
        close(descriptor);
        return -error;
    }
    return descriptor;
}

enum quorvix_send_result quorvix_transport_send(int descriptor, const struct quorvix_message* message) {
    union {
        struct cmsghdr header; /* for its alignment */
        char bytes[CMSG_SPACE(sizeof message->descriptors)];
    } control;
    struct iovec content = {.iov_base = message->bytes, .iov_len = message->length};
    struct msghdr datagram = {.msg_iov = &content, .msg_iovlen = 1};
    if (message->descriptorCount > 0) {
        const size_t length = message->descriptorCount * sizeof message->descriptors[0];
        memset(&control, 0, sizeof control);
        datagram.msg_control = control.bytes;
        datagram.msg_controllen = CMSG_SPACE(length);
        struct cmsghdr* header = CMSG_FIRSTHDR(&datagram);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(length);
        memcpy(CMSG_DATA(header), message->descriptors, length);
    }
    for (;;) {
        if (sendmsg(descriptor, &datagram, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return QUORVIX_SENT;
        switch (errno) {
            case EINTR: continue;
            case EAGAIN: return QUORVIX_SEND_LATER;
            case ENOBUFS:
            case ENOMEM:
            case ETOOMANYREFS: return QUORVIX_SEND_NO_ROOM;
            case EPIPE:
            case ECONNRESET:
            case ENOTCONN: return QUORVIX_SEND_BROKEN;
            /* EMSGSIZE and the like: kept back by it, everything after it would wait for ever. */
            default: return QUORVIX_SEND_REFUSED;
        }
    }
}
