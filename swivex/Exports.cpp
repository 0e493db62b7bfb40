// The library's C interface: options in, one file out. Nothing that goes wrong inside leaves as an exception.

#include <cerrno>
#include <cstring>

// The names of this header are all that the library shows.
#pragma GCC visibility push(default)
#include "platform/swivex.h"
#pragma GCC visibility pop
#include "swivex/Dump.h"

extern "C" {
const char* const SWXDumpOptions_ReasonString = "ReasonString";
const char* const SWXDumpOptions_NoSymbolicate = "NoSymbolicate";
const char* const SWXDumpOptions_MinTimestamp = "MinTimestamp";
const char* const SWXDumpOptions_MaxTimestamp = "MaxTimestamp";
}

namespace quorvix::swivex {

namespace {

// Keys that it does not know and values of another type are passed over.
DumpRequest requestOf(const swivex_options* options) {
    DumpRequest request;
    for (std::size_t index = 0; options && index < options->count; ++index) {
        const swivex_option& option = options->options[index];
        const auto is = [&](const char* key, swivex_option_type type) {
            return option.key && option.type == type && std::strcmp(option.key, key) == 0;
        };
        if (is(SWXDumpOptions_ReasonString, SWIVEX_OPTION_STRING) && option.value.text) {
            request.reason = option.value.text;
        }
        if (is(SWXDumpOptions_NoSymbolicate, SWIVEX_OPTION_BOOL)) request.names = !option.value.boolean;
        if (is(SWXDumpOptions_MinTimestamp, SWIVEX_OPTION_UINT64)) request.minTicks = option.value.number;
        if (is(SWXDumpOptions_MaxTimestamp, SWIVEX_OPTION_UINT64)) request.maxTicks = option.value.number;
    }
    return request;
}

}  // namespace

}  // namespace quorvix::swivex

extern "C" bool swivex_dump_output_with_options_sync(int fd, const struct swivex_options* options) {
    const int before = errno;
    bool written = false;
    try {
        written = quorvix::swivex::dump(fd, quorvix::swivex::requestOf(options), {});
    } catch (...) {
        // Out of memory, most likely: the caller hears that nothing usable was written.
    }
    errno = before;
    return written;
}
