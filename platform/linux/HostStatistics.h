#pragma once

#include <string>
#include <string_view>

#include "platform/VMStatistics.h"

namespace quorvix::linuxos {

// Figures of the compressed-memory devices: pages that were put in, and pages that they take.
struct CompressedMemory {
    std::uint64_t originalBytes = 0;
    std::uint64_t compressedBytes = 0;
};
// Of one device, from the text of its mm_stat file.
CompressedMemory parseCompressedMemory(std::string_view mmStat);

// The record from the texts of /proc/meminfo and /proc/vmstat and what the compressed block devices hold.
vm_statistics64 vmStatisticsOf(std::string_view meminfo, std::string_view vmstat, const CompressedMemory& zram,
                               std::uint64_t pageBytes);

// Figures of the whole host, from procfs and sysfs. Reads the files anew at each query; no state, callable from any
// thread. docs/linux-sources.md names each field's source.
class LinuxHostStatistics final : public HostStatistics {
public:
    struct Places {
        std::string proc = "/proc";
        std::string blockDevices = "/sys/block";
    };

    LinuxHostStatistics() : LinuxHostStatistics(Places{}) {}
    explicit LinuxHostStatistics(Places places) : places_(std::move(places)) {}

    // EINVAL: another count. Fails where meminfo or vmstat can't be read.
    Result<void> vmStatistics64(vm_statistics64& statistics, std::uint32_t count) override;
    std::uint64_t pageSize() override;
    // EBADMSG: the file does not tell.
    Result<std::int64_t> bootTimeSeconds() override;

private:
    CompressedMemory compressedBlockDevices() const;

    const Places places_;
};

}  // namespace quorvix::linuxos
