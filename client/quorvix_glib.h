/**
 * @file
 * A watch for a GLib main loop: everything that the loop dispatches is a unit of work, from the return of one poll to
 * the start of the next. Waiting is not work.
 *
 *     struct quorvix_glib_watch* watch =
 *         quorvix_glib_watch_attach(NULL, "main", QUORVIX_WATCH_SAVE_REPORT);    on the loop's thread
 *     g_main_loop_run(loop);
 *     quorvix_glib_watch_detach(watch);                                          on the same thread, loop not running
 *
 * It works by a poll function of its own around the one that the context had (GTK and others that put in theirs keep
 * it, if they did so before). GLib hands the poll function no context, so the watch of a thread is found through the
 * thread; one attached context a thread, therefore.
 */
#ifndef QUORVIX_GLIB_H
#define QUORVIX_GLIB_H

#include <glib.h>

#include "quorvix.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An attached watch; of quorvix_glib_watch_attach() alone. */
struct quorvix_glib_watch {
    GMainContext* context;       /**< which is watched */
    GPollFunc wrapped;           /**< the poll function that it had */
    struct quorvix_watch* watch; /**< of the thread's work */
};

/** This thread's attached watch; of this translation unit, so attach and detach belong into the same one. */
static __thread struct quorvix_glib_watch* quorvix_glib_current;

/**
 * The poll function that is put in: what lies between two calls is a unit of work. Not for apps.
 *
 * @param descriptors  as for g_poll()
 * @param count        how many descriptors
 * @param timeoutMs    how long to wait at most, in milliseconds; negative: without an end
 * @return what the context's own poll function returned.
 */
static inline gint quorvix_glib_poll(GPollFD* descriptors, guint count, gint timeoutMs) {
    struct quorvix_glib_watch* current = quorvix_glib_current;
    /* Another thread iterates the context: nothing to say about that one. */
    if (!current) return g_poll(descriptors, count, timeoutMs);
    quorvix_end(current->watch);
    const gint result = current->wrapped(descriptors, count, timeoutMs);
    quorvix_begin(current->watch);
    return result;
}

/**
 * Watches the calling thread's work in a context, from its next wait on.
 *
 * @param context  of the loop that this thread runs; NULL: the default one
 * @param name     what kind of work this is, UTF-8; copied
 * @param flags    0 or #QUORVIX_WATCH_SAVE_REPORT
 * @return for quorvix_glib_watch_detach(); NULL when this thread has one attached already.
 */
static inline struct quorvix_glib_watch* quorvix_glib_watch_attach(GMainContext* context, const char* name,
                                                                   uint32_t flags) {
    if (quorvix_glib_current) return NULL;
    struct quorvix_glib_watch* attached = g_new0(struct quorvix_glib_watch, 1);
    attached->context = g_main_context_ref(context ? context : g_main_context_default());
    attached->watch = quorvix_watch_open(name, flags);
    attached->wrapped = g_main_context_get_poll_func(attached->context);
    quorvix_glib_current = attached;
    g_main_context_set_poll_func(attached->context, quorvix_glib_poll);
    return attached;
}

/**
 * Gives the context its poll function back. On the thread that attached it, while the loop does not run.
 *
 * @param attached  ends here; NULL is ignored
 */
static inline void quorvix_glib_watch_detach(struct quorvix_glib_watch* attached) {
    if (!attached) return;
    g_main_context_set_poll_func(attached->context, attached->wrapped);
    quorvix_glib_current = NULL;
    quorvix_watch_close(attached->watch);
    g_main_context_unref(attached->context);
    g_free(attached);
}

#ifdef __cplusplus
}
#endif

#endif
