/* The public headers in a strict C11 compilation; compiling is the test. */
#include "quorvix.h"

#include "quorvix_poll.h"

int quorvixHeaderCompilesAsC11(void);
int quorvixHeaderCompilesAsC11(void) {
    struct quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    struct quorvix_watch* watch = quorvix_watch_open("c11", 0);
    quorvix_begin(watch);
    quorvix_end(watch);
    quorvix_watch_close(watch);
    return (int)config.flags;
}
