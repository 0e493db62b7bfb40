/*
 * The trace library's C interface. The library is installed as /usr/lib/libswivex.dylib and is used through dlopen
 * only: look up the function and the four option keys by the names below.
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

enum swivex_option_type {
    SWIVEX_OPTION_BOOL = 1,
    SWIVEX_OPTION_UINT64 = 2,
    SWIVEX_OPTION_STRING = 3,
};

/* One option. `key` is the text that the exported key constant points to. */
struct swivex_option {
    const char* key;
    enum swivex_option_type type;
    union {
        bool boolean;
        uint64_t number;
        const char* text; /* NUL-terminated UTF-8; lives as long as the call */
    } value;
};

struct swivex_options {
    size_t count;
    const struct swivex_option* options;
};

/* Writes one complete trace file to `fd`, which must be open for writing, and returns when it is written.
 * False: nothing usable was written. Does not close `fd`, moves no other state of the caller. */
typedef bool swivex_dump_function(int fd, const struct swivex_options* options);

/* Exported by the library:
 *   swivex_dump_output_with_options_sync   the function
 *   SWXDumpOptions_ReasonString            text: why the trace is taken, a JSON object
 *   SWXDumpOptions_NoSymbolicate           bool: true writes no symbol names
 *   SWXDumpOptions_MinTimestamp            uint64: start of the interval of interest, 24 MHz ticks
 *   SWXDumpOptions_MaxTimestamp            uint64: its end
 */
extern swivex_dump_function swivex_dump_output_with_options_sync;
extern const char* const SWXDumpOptions_ReasonString;
extern const char* const SWXDumpOptions_NoSymbolicate;
extern const char* const SWXDumpOptions_MinTimestamp;
extern const char* const SWXDumpOptions_MaxTimestamp;

#ifdef __cplusplus
}
#endif

#endif
