#include "folders.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "endpoint.h"

/* Whatever makes the daemon read its preferences again. */
static const char* const kPreferenceNotifications[] = {
    "com.norvane.quorvix.pref_changed", "com.norvane.da.tasking_changed", "com.norvane.Provisia.profileListChanged"};

static const uint32_t kSocketEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
static const uint32_t kNotifyEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

void quorvix_folders_open(struct quorvix_folders* folders, const char* socketDirectory) {
    folders->socketWatch = -1;
    folders->notifyWatch = -1;
    snprintf(folders->socketDirectory, sizeof folders->socketDirectory, "%s", socketDirectory);
    snprintf(folders->notifyDirectory, sizeof folders->notifyDirectory, "%.4000s/notify", socketDirectory);
    folders->descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    quorvix_folders_watch(folders);
}

void quorvix_folders_watch(struct quorvix_folders* folders) {
    if (folders->descriptor < 0) return;
    if (folders->socketWatch < 0) {
        folders->socketWatch = inotify_add_watch(folders->descriptor, folders->socketDirectory, kSocketEvents);
    }
    if (folders->notifyWatch < 0) {
        folders->notifyWatch = inotify_add_watch(folders->descriptor, folders->notifyDirectory, kNotifyEvents);
    }
}

bool quorvix_folders_see_socket(const struct quorvix_folders* folders) { return folders->socketWatch >= 0; }

static bool changesPreferences(const char* name) {
    for (size_t i = 0; i < sizeof kPreferenceNotifications / sizeof kPreferenceNotifications[0]; ++i) {
        if (strcmp(name, kPreferenceNotifications[i]) == 0) return true;
    }
    return false;
}

/* A folder that was moved away is watched at its old path again once there is one. */
static void forgetWatch(struct quorvix_folders* folders, int* watch, uint32_t mask) {
    if (!(mask & IN_IGNORED)) inotify_rm_watch(folders->descriptor, *watch);
    *watch = -1;
}

static void apply(struct quorvix_folders* folders, const struct inotify_event* event,
                  struct quorvix_folder_events* result) {
    const uint32_t gone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
    const char* name = event->len > 0 ? event->name : "";
    if (event->mask & IN_Q_OVERFLOW) {
        /* Something was missed: act as if it was everything. */
        result->socketAppeared = true;
        result->preferencesPosted = true;
    } else if (event->wd == folders->socketWatch) {
        if (event->mask & gone) {
            forgetWatch(folders, &folders->socketWatch, event->mask);
        } else if (strcmp(name, QUORVIX_ENDPOINT) == 0) {
            result->socketAppeared = true;
        }
    } else if (event->wd == folders->notifyWatch) {
        if (event->mask & gone) {
            forgetWatch(folders, &folders->notifyWatch, event->mask);
        } else if (changesPreferences(name)) {
            result->preferencesPosted = true;
        }
    }
}

struct quorvix_folder_events quorvix_folders_read(struct quorvix_folders* folders) {
    struct quorvix_folder_events result = {false, false};
    _Alignas(struct inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t length = read(folders->descriptor, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) break;
        for (ssize_t position = 0; position < length;) {
            const struct inotify_event* event = (const struct inotify_event*)(const void*)(buffer + position);
            apply(folders, event, &result);
            position += (ssize_t)(sizeof *event + event->len);
        }
    }
    /* A "notify" folder that was just made, or either of them made anew. */
    quorvix_folders_watch(folders);
    return result;
}

void quorvix_folders_close(struct quorvix_folders* folders) {
    if (folders->descriptor >= 0) close(folders->descriptor);
    folders->descriptor = -1;
    folders->socketWatch = -1;
    folders->notifyWatch = -1;
}
