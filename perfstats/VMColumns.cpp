#include "perfstats/VMColumns.h"

#include <array>
#include <cstdio>

#include "perfstats/Printf.h"

namespace quorvix {

namespace {

constexpr std::array kHeaders = {
    "free",   "active",    "inactive",   "spec",     "throttled",  "wired",     "purgeable",  "faults",
    "cow",    "zero-fill", "reactivate", "purged",   "filebacked", "anonymous", "compressed", "comp-size",
    "decomp", "compress",  "pageins",    "pageouts", "swapins",    "swapouts",
};
constexpr int kColumnWidth = 10;

// The columns in their order. Three are not the plain counter of their label, deliberately: "free" is without the
// speculative pages, the "inactive" column carries the speculative count and the "spec" column the inactive one.
struct Columns {
    std::uint32_t free, active, inactive, speculative, throttled, wired, purgeable;
    unsigned long long faults, cow, zeroFill, reactivated, purged;
    std::uint32_t fileBacked, anonymous;
    unsigned long long compressed;
    std::uint32_t compressorSize;
    unsigned long long decompressions, compressions, pageins, pageouts, swapins, swapouts;
};

Columns columnsOf(const vm_statistics64& s) {
    return {.free = s.free_count - s.speculative_count,
            .active = s.active_count,
            .inactive = s.speculative_count,
            .speculative = s.inactive_count,
            .throttled = s.throttled_count,
            .wired = s.wire_count,
            .purgeable = s.purgeable_count,
            .faults = s.faults,
            .cow = s.cow_faults,
            .zeroFill = s.zero_fill_count,
            .reactivated = s.reactivations,
            .purged = s.purges,
            .fileBacked = s.external_page_count,
            .anonymous = s.internal_page_count,
            .compressed = s.total_uncompressed_pages_in_compressor,
            .compressorSize = s.compressor_page_count,
            .decompressions = s.decompressions,
            .compressions = s.compressions,
            .pageins = s.pageins,
            .pageouts = s.pageouts,
            .swapins = s.swapins,
            .swapouts = s.swapouts};
}

// 32-bit counts of the JSON text are printed signed.
int asSigned(std::uint32_t value) { return static_cast<int>(value); }

}  // namespace

std::string vmStatisticsBlock(const vm_statistics64& statistics) {
    std::string block;
    for (std::size_t i = 0; i < kHeaders.size(); ++i) {
        appendPrintf(block, "%*s", kColumnWidth, kHeaders[i]);
        block += i + 1 < kHeaders.size() ? " " : "\n";
    }
    const Columns c = columnsOf(statistics);
    appendPrintf(block,
                 "%10u %10u %10u %10u %10u %10u %10u %10llu %10llu %10llu %10llu %10llu %10u %10u %10llu %10u %10llu "
                 "%10llu %10llu %10llu %10llu %10llu\n",
                 c.free, c.active, c.inactive, c.speculative, c.throttled, c.wired, c.purgeable, c.faults, c.cow,
                 c.zeroFill, c.reactivated, c.purged, c.fileBacked, c.anonymous, c.compressed, c.compressorSize,
                 c.decompressions, c.compressions, c.pageins, c.pageouts, c.swapins, c.swapouts);
    return block;
}

std::string vmStatisticsJson(const vm_statistics64& statistics) {
    std::string text;
    const Columns c = columnsOf(statistics);
    appendPrintf(text,
                 "     \n\t\"free\":%d,     \n\t\"active\":%d,     \n\t\"inactive\":%d,     \n\t\"speculative\":%d,   "
                 "  \n\t\"throttled\":%d,     \n\t\"wired\":%d,     \n\t\"purgeable\":%d,     \n\t\"faults\":%llu,    "
                 " \n\t\"cow\":%llu,     \n\t\"zero-fill\":%llu,     \n\t\"reactivated\":%llu,     \n\t\"purged\":%llu"
                 ",     \n\t\"file-backed\":%d,     \n\t\"anonymous\":%d,     \n\t\"compressed\":%llu,     \n\t\""
                 "compressor-size\":%d,     \n\t\"decompressions\":%llu,     \n\t\"compressions\":%llu,     \n\t\""
                 "pageins\":%llu,     \n\t\"pageouts\":%llu,     \n\t\"swapins\":%llu,     \n\t\"swapouts\":%llu",
                 asSigned(c.free), asSigned(c.active), asSigned(c.inactive), asSigned(c.speculative),
                 asSigned(c.throttled), asSigned(c.wired), asSigned(c.purgeable), c.faults, c.cow, c.zeroFill,
                 c.reactivated, c.purged, asSigned(c.fileBacked), asSigned(c.anonymous), c.compressed,
                 asSigned(c.compressorSize), c.decompressions, c.compressions, c.pageins, c.pageouts, c.swapins,
                 c.swapouts);
    return text;
}

vm_statistics64 vmStatisticsDelta(const vm_statistics64& start, const vm_statistics64& end) {
    constexpr std::array kCounters = {
        &vm_statistics64::faults,        &vm_statistics64::cow_faults, &vm_statistics64::zero_fill_count,
        &vm_statistics64::reactivations, &vm_statistics64::purges,     &vm_statistics64::decompressions,
        &vm_statistics64::compressions,  &vm_statistics64::pageins,    &vm_statistics64::pageouts,
        &vm_statistics64::swapins,       &vm_statistics64::swapouts,
    };
    vm_statistics64 delta{};
    for (const auto counter : kCounters) delta.*counter = end.*counter - start.*counter;
    return delta;
}

}  // namespace quorvix
