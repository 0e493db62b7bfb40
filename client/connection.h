/*
 * The connection to the daemon and the one thread that keeps it.
 *
 * The thread connects, registers the process (stop, then start), sends what the queue holds, and connects again when
 * the daemon went away. It sleeps in one poll on: the app's wish (an eventfd), the connection's end, and the folders
 * in which the daemon's socket appears and in which preference changes are posted. It never reads from the connection,
 * since the daemon never sends, and calls nothing of the app's.
 *
 * Registering again after a posted preference change is for hang tracing that was off: the daemon forgot everybody
 * then, and cannot call. It waits a moment first, so that the daemon has applied the change and a thousand apps do not
 * come at once.
 */
#ifndef QUORVIX_CLIENT_CONNECTION_H
#define QUORVIX_CLIENT_CONNECTION_H

#include "quorvix.h"

/* All with the lifecycle lock held. */

struct quorvix_connection_settings {
    const char* name;
    const char* directory;
    int regionDescriptor; /* stays open until the connection was stopped; -1: the process cannot be watched */
    bool watching;
};

/* Returns 0 or an errno value. */
int quorvix_connection_start(const struct quorvix_connection_settings* settings);
void quorvix_connection_stop(void);
bool quorvix_connection_is_running(void);

/* Whether the process wants to be watched; the thread does what is needed. */
void quorvix_connection_set_watching(bool watching);

/* From any thread, without a lock. */

/* There is something in the queue. */
void quorvix_connection_wake(void);
void quorvix_connection_read_statistics(struct quorvix_statistics* statistics);

/* Around fork: no descriptor is half made while the process is copied, and the child closes its copies. */
void quorvix_connection_lock_for_fork(void);
void quorvix_connection_unlock_after_fork(void);
void quorvix_connection_forget_in_child(void);

#endif
