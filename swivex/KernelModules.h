#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex {

// Where the kernel's loaded modules lie.
class KernelModules {
public:
    KernelModules() = default;
    // The text of /proc/modules. Knows none where it shows no addresses.
    explicit KernelModules(std::string_view text);

    struct Place {
        std::string_view name;  // lives as long as the modules
        std::uint64_t offset = 0;
    };
    // The module that an address lies in.
    std::optional<Place> find(std::uint64_t address) const;

private:
    struct Module {
        std::uint64_t start = 0;
        std::uint64_t size = 0;
        std::string name;
    };
    std::vector<Module> modules_;  // by start
};

}  // namespace quorvix::swivex
