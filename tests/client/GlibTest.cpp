#include "quorvix_glib.h"
#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

using GlibTest = ConnectedClientTest;

struct Seen {
    quorvix_hang_slot* slot;
    GMainLoop* loop;
    bool activeInCallback = false;
    bool inactiveInPoll = false;
};
Seen* seen;

gint pollThatLooks(GPollFD* descriptors, guint count, gint timeoutMs) {
    if (seen) seen->inactiveInPoll = seen->slot->inactive == 1;
    return g_poll(descriptors, count, timeoutMs);
}

gboolean look(gpointer) {
    seen->activeInCallback = seen->slot->inactive == 0;
    g_main_loop_quit(seen->loop);
    return G_SOURCE_REMOVE;
}

TEST_F(GlibTest, CallbacksAreWorkAndPollIsNot) {
    const MappedRegion region(region_);
    g_main_context_set_poll_func(nullptr, pollThatLooks);
    quorvix_glib_watch* watch = quorvix_glib_watch_attach(nullptr, "glib", 0);
    Seen here{&region.slotNamed("glib"), g_main_loop_new(nullptr, FALSE)};
    seen = &here;
    g_timeout_add(1, look, nullptr);
    g_main_loop_run(here.loop);
    EXPECT_TRUE(here.activeInCallback);
    EXPECT_TRUE(here.inactiveInPoll);
    EXPECT_EQ(quorvix_glib_watch_attach(nullptr, "second", 0), nullptr);
    quorvix_glib_watch_detach(watch);
    seen = nullptr;
    EXPECT_EQ(g_main_context_get_poll_func(nullptr), &pollThatLooks);
    EXPECT_EQ(here.slot->inactive, 1u);
    g_main_context_set_poll_func(nullptr, nullptr);
    g_main_loop_unref(here.loop);
}

}  // namespace
}  // namespace quorvix::test
