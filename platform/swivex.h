/**
 * @file
 * The trace library's C interface, for who writes a trace library. The library is installed as /usr/lib/libswivex.dylib
 * and is used through dlopen only: look up the function and the four option keys by the names below.
 *
 * A key names its option; a library may lack any key, which means that it does not know that option.
 */
#ifndef SWIVEX_H
#define SWIVEX_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Which member of an option's value holds. */
enum swivex_option_type {
    SWIVEX_OPTION_BOOL = 1,   /**< boolean */
    SWIVEX_OPTION_UINT64 = 2, /**< number */
    SWIVEX_OPTION_STRING = 3, /**< text */
};

/** One option. */
struct swivex_option {
    const char* key;              /**< the text that the exported key constant points to */
    enum swivex_option_type type; /**< of the value */
    /** One of the three, by the type. */
    union {
        bool boolean;     /**< of SWIVEX_OPTION_BOOL */
        uint64_t number;  /**< of SWIVEX_OPTION_UINT64 */
        const char* text; /**< NUL-terminated UTF-8; lives as long as the call */
    } value;              /**< what the option is set to */
};

/** What one dump is asked for. */
struct swivex_options {
    size_t count;                        /**< of options */
    const struct swivex_option* options; /**< as many as count says */
};

/**
 * Writes one complete trace file, and returns when it is written. Does not close the descriptor, moves no other state
 * of the caller.
 *
 * @param fd where it is written to; must be open for writing
 * @param options what it is asked for
 * @return false: nothing usable was written
 */
typedef bool swivex_dump_function(int fd, const struct swivex_options* options);

/** The function of this name is what a trace library exports; the four below are the keys of its options. */
extern swivex_dump_function swivex_dump_output_with_options_sync;
/** Text: why the trace is taken, a JSON object. */
extern const char* const SWXDumpOptions_ReasonString;
/** Bool: true writes no symbol names. */
extern const char* const SWXDumpOptions_NoSymbolicate;
/** Uint64: start of the interval of interest, 24 MHz ticks. */
extern const char* const SWXDumpOptions_MinTimestamp;
/** Uint64: its end. */
extern const char* const SWXDumpOptions_MaxTimestamp;

#ifdef __cplusplus
}
#endif

#endif
