#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Services.h"

namespace quorvix::sim {

// Libraries as tables of symbols. A path without a table is a missing library, a name without an entry a missing
// symbol. One thread.
class SimLibraries : public LibraryLoader {
public:
    using Symbols = std::map<std::string, void*, std::less<>>;

    // Replaces the library's table; handles given out before stay good.
    void setLibrary(std::string_view path, Symbols symbols) { libraries_[std::string(path)] = std::move(symbols); }
    void removeLibrary(std::string_view path) {
        if (const auto library = libraries_.find(path); library != libraries_.end()) libraries_.erase(library);
    }
    void removeSymbol(std::string_view path, std::string_view name) {
        const auto library = libraries_.find(path);
        if (library == libraries_.end()) return;
        if (const auto symbol = library->second.find(name); symbol != library->second.end()) {
            library->second.erase(symbol);
        }
    }

    void* open(std::string_view path) override {
        opened_.emplace_back(path);
        const auto found = libraries_.find(path);
        return found == libraries_.end() ? nullptr : &found->second;
    }
    void* symbol(void* library, const char* name) override {
        lookedUp_.emplace_back(name);
        if (!library) return nullptr;
        const Symbols& symbols = *static_cast<Symbols*>(library);
        const auto found = symbols.find(std::string_view(name));
        return found == symbols.end() ? nullptr : found->second;
    }

    // The paths and names that were asked for, in order, found or not.
    const std::vector<std::string>& opened() const { return opened_; }
    const std::vector<std::string>& lookedUp() const { return lookedUp_; }

private:
    std::map<std::string, Symbols, std::less<>> libraries_;
    std::vector<std::string> opened_;
    std::vector<std::string> lookedUp_;
};

}  // namespace quorvix::sim
