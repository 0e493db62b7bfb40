#include "platform/linux/KernelMemory.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/linux/KernelMemoryText.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/TextFile.h"

namespace quorvix::linuxos {

namespace {

constexpr std::size_t kLongestKernelFile = std::size_t{2} << 20;

// Tags by number, as the report names them.
constexpr std::uint64_t kStackTag = 8;
constexpr std::uint64_t kCpuTag = 9;
constexpr std::uint64_t kPageMapTag = 10;
constexpr std::uint64_t kPageTableTag = 11;
constexpr std::uint64_t kZoneTag = 12;
constexpr std::uint64_t kAllocationTag = 13;
constexpr std::uint64_t kCompressorTag = 14;
constexpr std::uint64_t kLockedTag = 24;

std::uint64_t pageBytes() {
    static const auto bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return bytes;
}

std::uint64_t bytesOf(std::string_view meminfo, std::string_view key) {
    return numberOfLine(meminfo, key).value_or(0) * kKilobyte;
}

class Resolver final : public SymbolResolver {
public:
    explicit Resolver(std::map<std::uint64_t, std::string> names) : names_(std::move(names)) {}
    std::optional<std::string> symbolAt(std::uint64_t address) override {
        const auto found = names_.find(address);
        if (found == names_.end()) return std::nullopt;
        return found->second;
    }

private:
    const std::map<std::uint64_t, std::string> names_;
};

}  // namespace

KernelMemoryInformation LinuxKernelMemory::information() {
    extensions_.clear();
    names_.clear();
    KernelMemoryInformation information;
    // The caches before their sum, so that what is allocated in between makes the rest larger and not the sum.
    const auto slabInfo = readTextFile(proc_ + "/slabinfo", kLongestKernelFile);
    const auto meminfo = readTextFile(proc_ + "/meminfo", kLongestKernelFile);
    missingSources_ += !slabInfo + !meminfo;
    const std::string_view figures = meminfo ? std::string_view(*meminfo) : std::string_view();
    addZones(information, figures, slabInfo ? std::string_view(*slabInfo) : std::string_view());
    addTags(information, figures);
    const bool modulesAreListed = addModules(information);
    addVmallocCallers(information, figures, modulesAreListed);
    return information;
}

void LinuxKernelMemory::addZones(KernelMemoryInformation& information, std::string_view meminfo,
                                 std::string_view slabInfo) {
    information.zones = parseSlabInfo(slabInfo, pageBytes());
    std::uint64_t sum = 0;
    for (const KernelZone& zone : information.zones) sum += zone.sizeBytes;
    const std::uint64_t all = bytesOf(meminfo, "Slab");
    if (all > sum) information.zones.push_back({std::string(kLargeZone), all - sum});
}

void LinuxKernelMemory::addTags(KernelMemoryInformation& information, std::string_view meminfo) {
    const auto add = [&](std::uint64_t tag, std::uint64_t bytes) {
        information.sites.push_back({WiredSite::Kind::kernelTag, tag, bytes});
    };
    add(kStackTag, bytesOf(meminfo, "KernelStack"));
    add(kCpuTag, bytesOf(meminfo, "Percpu"));
    if (const auto vmstat = readTextFile(proc_ + "/vmstat", kLongestKernelFile)) {
        // The records of all pages; older kernels do not tell.
        const std::uint64_t pages = numberOfLine(*vmstat, "nr_memmap_pages").value_or(0) +
                                    numberOfLine(*vmstat, "nr_memmap_boot_pages").value_or(0);
        add(kPageMapTag, pages * pageBytes());
    }
    add(kPageTableTag, bytesOf(meminfo, "PageTables") + bytesOf(meminfo, "SecPageTables"));
    add(kZoneTag, bytesOf(meminfo, "Slab"));
    add(kCompressorTag, bytesOf(meminfo, "Zswap"));
    add(kLockedTag, bytesOf(meminfo, "Mlocked"));
}

bool LinuxKernelMemory::addModules(KernelMemoryInformation& information) {
    const auto text = readTextFile(proc_ + "/modules", kLongestKernelFile);
    if (!text) {
        ++missingSources_;
        return false;
    }
    std::uint64_t loadTag = 0;
    for (const KernelModule& module : parseModules(*text)) {
        ++loadTag;
        extensions_.push_back({loadTag, std::string(module.name)});
        information.sites.push_back({WiredSite::Kind::kernelExtension, loadTag, module.sizeBytes});
    }
    return true;
}

void LinuxKernelMemory::addVmallocCallers(KernelMemoryInformation& information, std::string_view meminfo,
                                          bool modulesAreListed) {
    const auto text = readTextFile(proc_ + "/vmallocinfo", kLongestKernelFile);
    if (!text) {
        ++missingSources_;
        // Not told apart; stacks are in it and have their own tag.
        const std::uint64_t all = bytesOf(meminfo, "VmallocUsed");
        const std::uint64_t stacks = bytesOf(meminfo, "KernelStack");
        information.sites.push_back({WiredSite::Kind::kernelTag, kAllocationTag, all > stacks ? all - stacks : 0});
        return;
    }
    std::vector<VmallocCaller> callers = parseVmallocInfo(*text, pageBytes());
    std::erase_if(callers, [&](const VmallocCaller& caller) {
        return allocatesKernelStacks(caller.symbol) || (modulesAreListed && allocatesModules(caller.symbol));
    });
    std::ranges::stable_sort(callers, std::ranges::greater(), &VmallocCaller::sizeBytes);
    std::uint64_t rest = 0;
    for (std::size_t at = kMaximumCallers; at < callers.size(); ++at, ++summedCallers_) rest += callers[at].sizeBytes;
    callers.resize(std::min(callers.size(), kMaximumCallers));

    std::uint64_t place = 0;
    for (const VmallocCaller& caller : callers) {
        ++place;
        std::uint64_t address = caller.address;
        if (!caller.symbol.empty()) {
            // The place in the list stands for the address, which a named site never shows. No kernel address is so
            // low.
            address = place;
            names_.emplace(address, caller.symbol);
        }
        information.sites.push_back({WiredSite::Kind::kernelAddress, address, caller.sizeBytes});
    }
    if (rest > 0) information.sites.push_back({WiredSite::Kind::kernelTag, kAllocationTag, rest});
}

std::vector<KernelExtension> LinuxKernelMemory::loadedExtensions() { return std::exchange(extensions_, {}); }

std::unique_ptr<SymbolResolver> LinuxKernelMemory::makeSymbolResolver() {
    return std::make_unique<Resolver>(std::exchange(names_, {}));
}

JsonObject LinuxKernelMemory::selfCounters() const {
    return {{"summedCallers", summedCallers_}, {"missingSources", missingSources_}};
}

}  // namespace quorvix::linuxos
