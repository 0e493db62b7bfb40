#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "report/HangReport.h"

namespace quorvix::report {

// Functions of one module or of the kernel, by address.
class SymbolTable {
public:
    struct Symbol {
        std::uint64_t address = 0;
        std::uint64_t size = 0;
        std::string name;
    };
    // Sizes of 0 reach to the next symbol when the table says so of none (the kernel's list has no sizes).
    SymbolTable() = default;
    explicit SymbolTable(std::vector<Symbol> symbols);

    bool empty() const { return symbols_.empty(); }
    // "name+0x12"; empty where no function is. A return address belongs to the call before it.
    std::string at(std::uint64_t address, bool isReturnAddress) const;

private:
    std::vector<Symbol> symbols_;
};

// Names the frames of a stack from the files of this machine, where they are the very ones that ran: a module's file
// must have the build id that the report gives, the kernel must be the same build. Reads symbol tables only, no line
// tables. The report decides which file is opened, so that only regular files of a sane size are, and none is ever
// waited for. Still it parses files that an app may have made: who does not want that leaves it out.
class Symboliser {
public:
    static constexpr std::uint64_t kLargestModule = std::uint64_t{2} << 30;
    static constexpr std::size_t kMostSymbols = std::size_t{1} << 21;
    static constexpr std::size_t kMostModules = 256;
    static constexpr std::size_t kLongestName = 1024;

    // Where files stand; tests have their own.
    struct Places {
        std::string debugFiles = "/usr/lib/debug/.build-id";
        std::string kernelSymbols = "/proc/kallsyms";
        std::string kernelModules = "/proc/modules";
    };
    Symboliser() = default;
    explicit Symboliser(Places places) : places_(std::move(places)) {}

    void name(const TraceContents& contents, std::vector<ToldFrame>& stack);

private:
    const SymbolTable& moduleTable(const Frame& frame);
    // Of the kernel itself ("kernel") or of one of its modules.
    const SymbolTable& kernelTable(const std::string& part);

    Places places_;
    std::map<std::pair<std::string, std::vector<std::uint8_t>>, SymbolTable> modules_;
    std::map<std::string, SymbolTable> kernel_;
};

// Functions of an ELF file; none unless it has that build id.
SymbolTable readModuleSymbols(const std::string& path, const std::vector<std::uint8_t>& buildId);
// The kernel's list without its modules, addresses taken from the start of its text. None where it shows no addresses.
SymbolTable parseKernelSymbols(std::string_view list);
// One module of the kernel's list, addresses taken from where the list of modules has it.
SymbolTable parseKernelModule(std::string_view list, std::string_view modules, std::string_view name);

}  // namespace quorvix::report
