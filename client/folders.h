/*
 * inotify on two folders: the one of the daemon's socket, so that a daemon which comes up is found at once and no
 * attempt is made in vain; and its folder "notify", where preference changes are posted by writing to a file.
 *
 * Used by the connection thread only, but for the descriptor, which a forked child closes.
 */
#ifndef QUORVIX_CLIENT_FOLDERS_H
#define QUORVIX_CLIENT_FOLDERS_H

#include <limits.h>
#include <stdbool.h>

struct quorvix_folders {
    int descriptor; /* inotify, or -1 where none can be had */
    int socketWatch;
    int notifyWatch;
    char socketDirectory[PATH_MAX];
    char notifyDirectory[PATH_MAX];
};

struct quorvix_folder_events {
    bool socketAppeared;    /* the endpoint was made */
    bool preferencesPosted; /* one of the notifications that change what the daemon watches */
};

/* Opens the descriptor and watches what exists. Cannot fail: without a watch there is just nothing to read. */
void quorvix_folders_open(struct quorvix_folders* folders, const char* socketDirectory);
/* Tries again what could not be watched so far. */
void quorvix_folders_watch(struct quorvix_folders* folders);
/* Whether the making of a socket is going to be seen. */
bool quorvix_folders_see_socket(const struct quorvix_folders* folders);
/* Reads everything that has happened; never blocks. */
struct quorvix_folder_events quorvix_folders_read(struct quorvix_folders* folders);
void quorvix_folders_close(struct quorvix_folders* folders);

#endif
