/*
 * A stand-in for the trace library: writes what it was given, so that a test can read it back. One line an option,
 * "key type value", in the order given, then the line "end".
 *
 * Variants, chosen when it is compiled:
 *   STANDIN_NO_SYMBOL  has no dump function
 *   STANDIN_FAILING    writes a part and answers false
 *   STANDIN_SLOW       takes 300 ms
 *   STANDIN_STUCK      never comes back
 *   STANDIN_NO_KEY     does not know SWXDumpOptions_NoSymbolicate
 */
#define _POSIX_C_SOURCE 200809L

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "platform/swivex.h"

#define STANDIN_EXPORT __attribute__((visibility("default")))

STANDIN_EXPORT const char* const SWXDumpOptions_ReasonString = "ReasonString";
#ifndef STANDIN_NO_KEY
STANDIN_EXPORT const char* const SWXDumpOptions_NoSymbolicate = "NoSymbolicate";
#endif
STANDIN_EXPORT const char* const SWXDumpOptions_MinTimestamp = "MinTimestamp";
STANDIN_EXPORT const char* const SWXDumpOptions_MaxTimestamp = "MaxTimestamp";

#ifndef STANDIN_NO_SYMBOL
static bool writeText(int fd, const char* text) {
    size_t left = strlen(text);
    while (left > 0) {
        const ssize_t written = write(fd, text, left);
        if (written <= 0) return false;
        text += written;
        left -= (size_t)written;
    }
    return true;
}

static bool writeOption(int fd, const struct swivex_option* option) {
    char number[32];
    if (!writeText(fd, option->key)) return false;
    switch (option->type) {
        case SWIVEX_OPTION_BOOL: return writeText(fd, option->value.boolean ? " bool true\n" : " bool false\n");
        case SWIVEX_OPTION_UINT64:
            snprintf(number, sizeof number, " uint64 %" PRIu64 "\n", option->value.number);
            return writeText(fd, number);
        case SWIVEX_OPTION_STRING:
            return writeText(fd, " string ") && writeText(fd, option->value.text) && writeText(fd, "\n");
    }
    return writeText(fd, " unknown\n");
}

STANDIN_EXPORT bool swivex_dump_output_with_options_sync(int fd, const struct swivex_options* options) {
    size_t count = options->count;
#ifdef STANDIN_SLOW
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = 300000000};
    nanosleep(&pause, NULL);
#endif
#ifdef STANDIN_STUCK
    for (;;) pause();
#endif
#ifdef STANDIN_FAILING
    count /= 2;
#endif
    for (size_t index = 0; index < count; ++index) {
        if (!writeOption(fd, &options->options[index])) return false;
    }
#ifdef STANDIN_FAILING
    return false;
#else
    return writeText(fd, "end\n");
#endif
}
#endif
