#pragma once

#include <string>
#include <vector>

#include "platform/Signposts.h"

namespace quorvix::sim {

// The console in memory: every text, in order. One thread.
class SimConsole : public Console {
public:
    void log(std::string_view text) override { logged_.emplace_back(text); }
    void print(std::string_view text) override { printed_ += text; }

    const std::vector<std::string>& logged() const { return logged_; }
    const std::string& printed() const { return printed_; }

private:
    std::vector<std::string> logged_;
    std::string printed_;
};

}  // namespace quorvix::sim
