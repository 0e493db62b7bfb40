#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string_view>

namespace quorvix::simulate {

// The log of a run: every line goes into a sum, and to a file where one is wanted. Two runs of one seed have one sum.
class Journal {
public:
    explicit Journal(std::FILE* file = nullptr) : file_(file) {}

    // Called for every line.
    std::function<void(std::string_view)> onLine;

    void line(std::string_view text) {
        for (const char c : text) sum_ = (sum_ ^ static_cast<unsigned char>(c)) * 0x100000001B3u;
        sum_ = (sum_ ^ '\n') * 0x100000001B3u;
        ++lines_;
        if (onLine) onLine(text);
        if (!file_) return;
        std::fwrite(text.data(), 1, text.size(), file_);
        std::fputc('\n', file_);
    }
    std::uint64_t sum() const { return sum_; }
    std::uint64_t lines() const { return lines_; }

private:
    std::FILE* file_;
    std::uint64_t sum_ = 0xCBF29CE484222325u;
    std::uint64_t lines_ = 0;
};

}  // namespace quorvix::simulate
