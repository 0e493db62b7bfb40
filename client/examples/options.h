/* What both example apps are told: how long to run, when to hang and for how long. */
#ifndef QUORVIX_EXAMPLES_OPTIONS_H
#define QUORVIX_EXAMPLES_OPTIONS_H

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

struct example_options {
    double runSeconds;
    double hangAfterSeconds; /* negative: never */
    double hangSeconds;
    const char* socketDirectory;
};

/* usage: APP SECONDS [hang SECONDS after SECONDS] [socket-directory PATH] */
static inline bool exampleParse(int count, char** arguments, struct example_options* options) {
    *options = (struct example_options){.runSeconds = 10, .hangAfterSeconds = -1};
    if (count < 2) return false;
    options->runSeconds = atof(arguments[1]);
    for (int i = 2; i + 1 < count; i += 2) {
        if (strcmp(arguments[i], "hang") == 0) {
            options->hangSeconds = atof(arguments[i + 1]);
            if (options->hangAfterSeconds < 0) options->hangAfterSeconds = 0;
        } else if (strcmp(arguments[i], "after") == 0) {
            options->hangAfterSeconds = atof(arguments[i + 1]);
        } else if (strcmp(arguments[i], "socket-directory") == 0) {
            options->socketDirectory = arguments[i + 1];
        } else {
            return false;
        }
    }
    return count % 2 == 0 && options->runSeconds > 0;
}

static inline int exampleUsage(const char* program) {
    fprintf(stderr, "usage: %s SECONDS [hang SECONDS after SECONDS] [socket-directory PATH]\n", program);
    return 2;
}

/* What an app does that waits for something in its main thread. */
static inline void exampleHang(double seconds) {
    printf("hanging for %g s\n", seconds);
    fflush(stdout);
    struct timespec left = {.tv_sec = (time_t)seconds};
    left.tv_nsec = (long)((seconds - (double)left.tv_sec) * 1e9);
    while (nanosleep(&left, &left) != 0) {
    }
    printf("back again\n");
    fflush(stdout);
}

#endif
