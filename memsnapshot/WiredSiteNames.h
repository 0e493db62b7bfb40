#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/KernelMemory.h"

namespace quorvix {

// Names wired sites during one snapshot: gathers the loaded extensions and makes the symbol resolver once, and releases
// both with itself.
class WiredSiteNames {
public:
    WiredSiteNames();
    std::string nameOf(const WiredSite& site) const;

private:
    std::map<std::uint64_t, std::string> extensions_;  // by load tag
    std::unique_ptr<SymbolResolver> symbols_;
};

}  // namespace quorvix
