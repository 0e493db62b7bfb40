#include <quorvix.h>

int main(void) {
    struct quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = "/nonexistent";
    if (quorvix_start(&config) != 0) return 1;
    struct quorvix_watch* watch = quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);
    quorvix_begin(watch);
    const int active = watch->slot.inactive == 0;
    quorvix_end(watch);
    quorvix_stop();
    return active ? 0 : 2;
}
