/* An app with a GLib main loop: wakes ten times a second, and hangs when it is told to. */
#include "quorvix_glib.h"

#include "options.h"

struct app {
    struct example_options options;
    GMainLoop* loop;
    gint64 startUs;
    bool hasHung;
};

static gboolean tick(gpointer data) {
    struct app* app = data;
    const double seconds = (double)(g_get_monotonic_time() - app->startUs) / 1e6;
    if (!app->hasHung && seconds >= app->options.hangAfterSeconds) {
        app->hasHung = true;
        exampleHang(app->options.hangSeconds);
    }
    if (seconds >= app->options.runSeconds) g_main_loop_quit(app->loop);
    return G_SOURCE_CONTINUE;
}

int main(int count, char** arguments) {
    struct app app = {.startUs = g_get_monotonic_time()};
    if (!exampleParse(count, arguments, &app.options)) return exampleUsage(arguments[0]);
    app.hasHung = app.options.hangAfterSeconds < 0;

    struct quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = app.options.socketDirectory;
    const int error = quorvix_start(&config);
    if (error) fprintf(stderr, "not watched: %s\n", strerror(error));
    struct quorvix_glib_watch* watch = quorvix_glib_watch_attach(NULL, "glib-app main", QUORVIX_WATCH_SAVE_REPORT);

    app.loop = g_main_loop_new(NULL, FALSE);
    const guint source = g_timeout_add(100, tick, &app);
    g_main_loop_run(app.loop);

    g_source_remove(source);
    g_main_loop_unref(app.loop);
    quorvix_glib_watch_detach(watch);
    quorvix_stop();
    return 0;
}
