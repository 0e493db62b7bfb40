#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Result.h"

// What a memory snapshot asks the system besides the host's statistics.

namespace quorvix {

// The system version record; what it lacks is nothing.
struct SystemVersion {
    std::optional<std::string> productName;
    std::optional<std::string> productVersion;
    std::optional<std::string> buildVersion;
};

class SystemInformation {
public:
    virtual ~SystemInformation() = default;
    virtual SystemVersion version() = 0;
    // The hardware model: uname's machine field.
    virtual std::string machine() = 0;
};

// One process of the memory-pressure priority list.
struct MemoryPriority {
    static constexpr std::uint32_t kTracked = 0x8;
    static constexpr std::uint32_t kDirty = 0x20;

    std::int32_t pid;
    std::int32_t priority;
    std::uint32_t state;
};

// Per-process memory queries. None of them pauses the process that it asks about.
class ProcessMemory {
public:
    virtual ~ProcessMemory() = default;
    // Every process that memory pressure can end; kernel threads are not among them.
    virtual Result<std::vector<MemoryPriority>> priorityList() = 0;
    // The path's bytes; empty for a process that lives and has none. Fails when it is gone or can't be read.
    virtual Result<std::string> executablePath(std::int32_t pid) = 0;
    // The "phys_footprint" ledger's balance, in bytes.
    virtual Result<std::uint64_t> physicalFootprint(std::int32_t pid) = 0;
    // The assertions that the process holds, one bit a reason; 0: none, or not known.
    virtual std::uint64_t assertions(std::int32_t pid) = 0;
};

struct KernelZone {
    std::string name;
    std::uint64_t sizeBytes;
};

struct WiredSite {
    enum class Kind { kernelTag, kernelExtension, kernelAddress, counter };
    // A kernel tag's type; its largest value is the "any" tag.
    using Tag = std::uint16_t;

    Kind kind;
    std::uint64_t number;  // tag, load tag, address or counter number
    std::uint64_t sizeBytes;
};

struct KernelMemoryInformation {
    std::vector<KernelZone> zones;
    std::vector<WiredSite> sites;
};

struct KernelExtension {
    std::uint64_t loadTag;
    std::string bundleIdentifier;
};

// Names kernel addresses ("Symbra"). Made for one snapshot and released at its end.
class SymbolResolver {
public:
    virtual ~SymbolResolver() = default;
    virtual std::optional<std::string> symbolAt(std::uint64_t address) = 0;
};

// The kernel's own memory.
class KernelMemory {
public:
    virtual ~KernelMemory() = default;
    // What can't be read is left out.
    virtual KernelMemoryInformation information() = 0;
    virtual std::vector<KernelExtension> loadedExtensions() = 0;
    virtual std::unique_ptr<SymbolResolver> makeSymbolResolver() = 0;
};

}  // namespace quorvix
