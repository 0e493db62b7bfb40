#include "platform/linux/HostStatistics.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <memory>

#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcfsText.h"

namespace quorvix::linuxos {

namespace {

// /proc/stat grows with the number of interrupts, and its boot time stands behind them.
constexpr std::size_t kLongestStatistics = std::size_t{4} << 20;

Result<std::string> readFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return ErrorCode{errno};
    std::string text;
    std::size_t length = 0;
    while (length < kLongestStatistics) {
        text.resize(std::max<std::size_t>(16384, 2 * length));
        const ssize_t count = ::read(file.get(), text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorCode{errno};
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    return text;
}

std::uint32_t clamped(std::uint64_t value) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

vm_statistics64 vmStatisticsOf(std::string_view meminfo, std::string_view vmstat, const CompressedMemory& zram,
                               std::uint64_t pageBytes) {
    const auto pages = [&](std::string_view key) {
        return numberOfLine(meminfo, key).value_or(0) * kKilobyte / pageBytes;
    };
    const auto counter = [&](std::string_view key) { return numberOfLine(vmstat, key).value_or(0); };
    // What can't be moved to a disk: memory of the kernel that it can't give back, and what programs locked.
    const std::uint64_t wired = pages("SUnreclaim") + pages("KernelStack") + pages("PageTables") +
                                pages("SecPageTables") + pages("Percpu") + pages("Unevictable");
    // Shared memory counts as cached, although no file can take it.
    const std::uint64_t cached = pages("Cached") + pages("Buffers");
    const std::uint64_t shared = pages("Shmem");

    vm_statistics64 statistics{};
    statistics.free_count = clamped(pages("MemFree"));
    statistics.active_count = clamped(pages("Active"));
    statistics.inactive_count = clamped(pages("Inactive"));
    statistics.wire_count = clamped(wired);
    statistics.reactivations = counter("pgactivate");
    statistics.pageins = counter("pgpgin") * kKilobyte / pageBytes;
    statistics.pageouts = counter("pgpgout") * kKilobyte / pageBytes;
    statistics.faults = counter("pgfault");
    statistics.purges = counter("pglazyfreed");
    statistics.purgeable_count = clamped(pages("KReclaimable"));
    statistics.decompressions = counter("zswpin");
    statistics.compressions = counter("zswpout");
    statistics.swapins = counter("pswpin");
    statistics.swapouts = counter("pswpout");
    statistics.compressor_page_count = clamped(pages("Zswap") + zram.compressedBytes / pageBytes);
    statistics.external_page_count = clamped(cached - std::min(shared, cached));
    statistics.internal_page_count = clamped(pages("AnonPages") + shared);
    statistics.total_uncompressed_pages_in_compressor = pages("Zswapped") + zram.originalBytes / pageBytes;
    return statistics;
}

CompressedMemory parseCompressedMemory(std::string_view mmStat) {
    // Bytes as they were put in, bytes compressed, bytes taken from memory for them, ...
    std::uint64_t values[3]{};
    const char* next = mmStat.data();
    const char* const end = next + mmStat.size();
    for (std::uint64_t& value : values) {
        while (next != end && *next == ' ') ++next;
        next = std::from_chars(next, end, value).ptr;
    }
    return {.originalBytes = values[0], .compressedBytes = values[2]};
}

Result<void> LinuxHostStatistics::vmStatistics64(vm_statistics64& statistics, std::uint32_t count) {
    if (count != kVMStatistics64Count) return ErrorCode{EINVAL};
    const auto meminfo = readFile(places_.proc + "/meminfo");
    if (!meminfo) return meminfo.error();
    const auto vmstat = readFile(places_.proc + "/vmstat");
    if (!vmstat) return vmstat.error();
    statistics = vmStatisticsOf(*meminfo, *vmstat, compressedBlockDevices(), pageSize());
    return {};
}

CompressedMemory LinuxHostStatistics::compressedBlockDevices() const {
    CompressedMemory sum;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(places_.blockDevices.c_str()), ::closedir);
    if (!folder) return sum;
    while (const dirent* const entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with("zram")) continue;
        const auto text = readFile(places_.blockDevices + "/" + std::string(name) + "/mm_stat");
        if (!text) continue;  // a device without a disk yet
        const CompressedMemory device = parseCompressedMemory(*text);
        sum.originalBytes += device.originalBytes;
        sum.compressedBytes += device.compressedBytes;
    }
    return sum;
}

std::uint64_t LinuxHostStatistics::pageSize() { return static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)); }

Result<std::int64_t> LinuxHostStatistics::bootTimeSeconds() {
    const auto text = readFile(places_.proc + "/stat");
    if (!text) return text.error();
    const auto seconds = numberOfLine(*text, "btime");
    if (!seconds) return ErrorCode{EBADMSG};
    return static_cast<std::int64_t>(*seconds);
}

}  // namespace quorvix::linuxos
