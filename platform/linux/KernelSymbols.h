#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quorvix::linuxos {

// Addresses of those kernel symbols that were asked for. The kernel's symbol list has a hundred thousand lines and
// takes some 30 ms to read: it is read in pieces, only the wanted names are kept, and names stay known, since a running
// kernel's own functions do not move. One thread.
class KernelSymbols {
public:
    // Name and module; the module is empty for the kernel itself.
    using Name = std::pair<std::string, std::string>;
    static constexpr std::size_t kMaximumNames = 4096;

    explicit KernelSymbols(std::string path) : path_(std::move(path)) {}

    // Wants this name; ignored once there are too many.
    void want(std::string_view symbol, std::string_view module);
    // Reads the list where a wanted name was never looked for, up to the last name that is missing.
    void lookUp();
    // Nothing: not in the list, or the kernel hides its addresses.
    std::optional<std::uint64_t> addressOf(std::string_view symbol, std::string_view module) const;

    std::uint64_t listReads() const { return listReads_; }
    std::uint64_t droppedNames() const { return droppedNames_; }

private:
    // Compares without making texts: every line of the list is looked up.
    struct Order {
        using is_transparent = void;
        using View = std::pair<std::string_view, std::string_view>;
        static View view(const Name& name) { return {name.first, name.second}; }
        static View view(const View& name) { return name; }
        bool operator()(const auto& a, const auto& b) const { return view(a) < view(b); }
    };

    void readLine(std::string_view line);

    const std::string path_;
    std::map<Name, std::uint64_t, Order> addresses_;  // 0: not known
    bool unread_ = false;
    std::size_t missing_ = 0;  // names without an address
    std::uint64_t listReads_ = 0;
    std::uint64_t droppedNames_ = 0;
};

}  // namespace quorvix::linuxos
