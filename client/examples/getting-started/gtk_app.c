/* A GTK app that freezes for twelve seconds, two seconds after its start. */
#include <gtk/gtk.h>
#include <quorvix_glib.h>

static gboolean freeze(gpointer unused) {
    (void)unused;
    g_usleep(12 * G_USEC_PER_SEC);
    return G_SOURCE_REMOVE;
}

static void showWindow(GtkApplication* app) {
    quorvix_glib_watch_attach(NULL, "main", QUORVIX_WATCH_SAVE_REPORT);
    gtk_window_present(GTK_WINDOW(gtk_application_window_new(app)));
    g_timeout_add_seconds(2, freeze, NULL);
}

int main(int count, char** arguments) {
    quorvix_start(NULL);
    GtkApplication* app = gtk_application_new("com.example.gtk", G_APPLICATION_NON_UNIQUE);
    g_signal_connect(app, "activate", G_CALLBACK(showWindow), NULL);
    return g_application_run(G_APPLICATION(app), count, arguments);
}
