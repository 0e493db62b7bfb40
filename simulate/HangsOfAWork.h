#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "simulate/Require.h"

namespace quorvix::simulate {

// Hangs that one piece of work of the daemon tells of: a check finds at most one in each process that it watches.
class HangsOfAWork {
public:
    void line(std::string_view text) {
        const std::size_t end = text.find(": Hang detected ");
        if (end != std::string_view::npos) ++found_[std::string(text.substr(0, end))];
    }
    // `watchedOf(name)`: how many processes of that name are watched.
    template <class WatchedOf>
    void endOfWork(WatchedOf watchedOf) {
        for (const auto& [name, count] : found_) {
            // The line begins with its level.
            require(count <= watchedOf(std::string_view(name).substr(2)), "more than one hang of a process in a check");
        }
        found_.clear();
    }

private:
    std::map<std::string, std::size_t> found_;
};

}  // namespace quorvix::simulate
