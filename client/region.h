/*
 * The hang channel of this process: the sealed shared memory, its slots, and what becomes of it in a forked child.
 *
 * Made once, by whoever needs it first, and mapped at the same address for the life of the process, so that a watch is
 * valid whatever happens to the connection. Watches are opened and closed under the library's lifecycle lock; begin
 * and end write the slots from the app's threads without any lock.
 *
 * Where no shared memory can be had (no descriptors left), the slots lie in ordinary memory and the process is not
 * watched.
 */
#ifndef QUORVIX_CLIENT_REGION_H
#define QUORVIX_CLIENT_REGION_H

#include "quorvix.h"

/* All with the lifecycle lock held. */

/* Makes the region unless it is there. */
void quorvix_region_ensure(void);

/* Before the region is handed to the daemon: the same, and a forked child's private memory becomes a shared region
 * again, with all slots inactive. */
void quorvix_region_share(void);

/* The memory file to hand to the daemon, or -1. */
int quorvix_region_descriptor(void);

/* A free slot, filled in, or NULL when all are taken. */
struct quorvix_watch* quorvix_region_open_slot(const char* name, uint32_t flags);
void quorvix_region_close_slot(struct quorvix_watch* watch);

/* In a forked child, before anything else runs: puts private memory in the place of the parent's region. Watches keep
 * their names and are inactive. */
void quorvix_region_leave_parent(void);

#endif
