#pragma once

#include <set>
#include <string>
#include <string_view>

namespace quorvix::simulate {

// The files that the daemon tried to remove and could not: these alone may lie about, half there.
class FailedRemovals {
public:
    void failed(std::string_view located) { located_.emplace(located); }
    bool excuse(std::string_view folder, std::string_view name) const {
        if (folder.ends_with('/')) folder.remove_suffix(1);
        for (const char* slash : {"|", "/|"}) {
            if (located_.contains(std::string(folder) + slash + std::string(name))) return true;
        }
        return false;
    }
    void forget() { located_.clear(); }

private:
    // "folder|name", as the record of the call has it.
    std::set<std::string> located_;
};

}  // namespace quorvix::simulate
