#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "platform/KernelMemory.h"

namespace quorvix::linuxos {

// The kernel's own memory from procfs: slab caches, figures of meminfo by tag, loaded modules, and vmalloc areas by the
// function that allocated them. Every source may be absent. docs/linux-sources-memory.md says what is counted where, so
// that nothing is counted twice. One thread.
class LinuxKernelMemory final : public KernelMemory {
public:
    // The zone of allocations too large for any cache, as far as the caches' sum leaves room below meminfo's figure.
    static constexpr std::string_view kLargeZone = "kmalloc-large";
    // Functions beyond these are summed up under the tag of allocations that are not told apart.
    static constexpr std::size_t kMaximumCallers = 2048;

    explicit LinuxKernelMemory(std::string proc = "/proc") : proc_(std::move(proc)) {}

    KernelMemoryInformation information() override;
    // In the order of the last information's sites.
    std::vector<KernelExtension> loadedExtensions() override;
    // Knows the addresses of the last information: the kernel, which hides the addresses of its functions, has looked
    // their names up in its own symbol list, and reading all of that list for them again would take 30 ms.
    std::unique_ptr<SymbolResolver> makeSymbolResolver() override;

    JsonObject selfCounters() const;

private:
    void addZones(KernelMemoryInformation& information, std::string_view meminfo, std::string_view slabInfo);
    void addTags(KernelMemoryInformation& information, std::string_view meminfo);
    bool addModules(KernelMemoryInformation& information);
    void addVmallocCallers(KernelMemoryInformation& information, std::string_view meminfo, bool modulesAreListed);

    const std::string proc_;
    std::vector<KernelExtension> extensions_;
    std::map<std::uint64_t, std::string> names_;  // of the addresses that the last information gave
    std::uint64_t missingSources_ = 0;
    std::uint64_t summedCallers_ = 0;
};

}  // namespace quorvix::linuxos
