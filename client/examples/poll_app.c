/* An app with a plain poll loop: wakes ten times a second, and hangs when it is told to. */
#include "quorvix_poll.h"

#include <stdint.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "options.h"

static double secondsNow(void) { return (double)quorvix_ticks_now() / QUORVIX_TICKS_PER_SECOND; }

int main(int count, char** arguments) {
    struct example_options options;
    if (!exampleParse(count, arguments, &options)) return exampleUsage(arguments[0]);

    struct quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = options.socketDirectory;
    const int error = quorvix_start(&config);
    if (error) fprintf(stderr, "not watched: %s\n", strerror(error));
    struct quorvix_watch* watch = quorvix_watch_open("poll-app main", QUORVIX_WATCH_SAVE_REPORT);

    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const struct itimerspec tenTimesASecond = {.it_interval = {.tv_nsec = 100000000}, .it_value = {.tv_nsec = 1}};
    if (timer < 0 || timerfd_settime(timer, 0, &tenTimesASecond, NULL) != 0) {
        perror("timer");
        return 1;
    }

    const double start = secondsNow();
    bool hasHung = options.hangAfterSeconds < 0;
    struct pollfd descriptor = {.fd = timer, .events = POLLIN};
    while (secondsNow() - start < options.runSeconds) {
        if (quorvix_poll(watch, &descriptor, 1, -1) <= 0) continue;
        uint64_t expirations;
        if (read(timer, &expirations, sizeof expirations) < 0) continue;
        if (!hasHung && secondsNow() - start >= options.hangAfterSeconds) {
            hasHung = true;
            exampleHang(options.hangSeconds);
        }
    }
    quorvix_watch_close(watch);
    quorvix_stop();
    close(timer);
    return 0;
}
