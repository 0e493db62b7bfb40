/* Where the daemon listens. */
#ifndef QUORVIX_CLIENT_ENDPOINT_H
#define QUORVIX_CLIENT_ENDPOINT_H

#define QUORVIX_ENDPOINT "com.norvane.quorvixd"
#define QUORVIX_SOCKET_DIRECTORY "/run/vex"

#endif
