#include "memsnapshot/WiredSiteNames.h"

#include <array>
#include <limits>

#include "platform/Platform.h"

namespace quorvix {

namespace {

constexpr std::array kTagNames = {
    "VM_KERN_MEMORY_NONE",          "VM_KERN_MEMORY_OSFMK",
    "VM_KERN_MEMORY_BSD",           "VM_KERN_MEMORY_DRIVO",
    "VM_KERN_MEMORY_LIBKERN",       "VM_KERN_MEMORY_OSKEXT",
    "VM_KERN_MEMORY_KEXT",          "VM_KERN_MEMORY_IPC",
    "VM_KERN_MEMORY_STACK",         "VM_KERN_MEMORY_CPU",
    "VM_KERN_MEMORY_PMAP",          "VM_KERN_MEMORY_PTE",
    "VM_KERN_MEMORY_ZONE",          "VM_KERN_MEMORY_KALLOC",
    "VM_KERN_MEMORY_COMPRESSOR",    "VM_KERN_MEMORY_COMPRESSED_DATA",
    "VM_KERN_MEMORY_PHANTOM_CACHE", "VM_KERN_MEMORY_WAITQ",
    "VM_KERN_MEMORY_DIAG",          "VM_KERN_MEMORY_LOG",
    "VM_KERN_MEMORY_FILE",          "VM_KERN_MEMORY_MBUF",
    "VM_KERN_MEMORY_UBC",           "VM_KERN_MEMORY_SECURITY",
    "VM_KERN_MEMORY_MLOCK",
};
constexpr std::uint64_t kAnyTag = std::numeric_limits<WiredSite::Tag>::max();

std::string tagName(std::uint64_t tag) {
    if (tag < kTagNames.size()) return kTagNames[tag];
    if (tag == kAnyTag) return "VM_KERN_MEMORY_ANY";
    return formatText("VM_KERN_MEMORY_%lld", static_cast<std::int64_t>(tag));
}

}  // namespace

WiredSiteNames::WiredSiteNames() : symbols_(platform().kernelMemory.makeSymbolResolver()) {
    for (KernelExtension& extension : platform().kernelMemory.loadedExtensions()) {
        extensions_.insert_or_assign(extension.loadTag, std::move(extension.bundleIdentifier));
    }
}

std::string WiredSiteNames::nameOf(const WiredSite& site) const {
    switch (site.kind) {
        case WiredSite::Kind::kernelTag: return tagName(site.number);
        case WiredSite::Kind::kernelExtension: {
            const auto found = extensions_.find(site.number);
            return found == extensions_.end() ? "(unknown kmod)" : found->second;
        }
        case WiredSite::Kind::kernelAddress: {
            const auto symbol = symbols_ ? symbols_->symbolAt(site.number) : std::nullopt;
            return symbol ? *symbol : formatText("site 0x%llx", site.number);
        }
        case WiredSite::Kind::counter: return formatText("VM_KERN_COUNT_%lld", static_cast<std::int64_t>(site.number));
    }
    return {};
}

}  // namespace quorvix
