#include "report/Symboliser.h"

#include <cxxabi.h>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

namespace quorvix::report {

namespace {

constexpr std::string_view kKernel = "kernel";
constexpr std::string_view kKernelOffset = "]+0x";
// Each is a walk over the kernel's whole list.
constexpr std::size_t kMostKernelParts = 16;

std::optional<std::uint64_t> hexNumber(std::string_view text) {
    std::uint64_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string demangled(const std::string& name) {
    if (!name.starts_with("_Z")) return name;
    int status = -1;
    const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                           &std::free);
    return status == 0 && text ? std::string(text.get()).substr(0, Symboliser::kLongestName) : name;
}

class Descriptor {
public:
    explicit Descriptor(const std::string& path)
        : number_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int number() const { return number_; }
    bool isSaneFile() const {
        struct stat about {};
        return number_ >= 0 && fstat(number_, &about) == 0 && S_ISREG(about.st_mode) && about.st_size > 0 &&
               static_cast<std::uint64_t>(about.st_size) <= Symboliser::kLargestModule;
    }

private:
    int number_;
};

void readSection(Elf* elf, Elf_Scn* section, std::vector<SymbolTable::Symbol>& symbols) {
    GElf_Shdr header;
    if (gelf_getshdr(section, &header) == nullptr || header.sh_entsize == 0 ||
        (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM)) {
        return;
    }
    Elf_Data* const data = elf_getdata(section, nullptr);
    if (data == nullptr) return;
    const auto count = std::min<std::uint64_t>(data->d_size / header.sh_entsize, Symboliser::kMostSymbols);
    for (std::uint64_t index = 0; index < count && symbols.size() < Symboliser::kMostSymbols; ++index) {
        GElf_Sym symbol;
        if (gelf_getsym(data, static_cast<int>(index), &symbol) == nullptr) return;
        const auto type = GELF_ST_TYPE(symbol.st_info);
        if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_shndx == SHN_UNDEF || symbol.st_size == 0)
            continue;
        const char* const name = elf_strptr(elf, header.sh_link, symbol.st_name);
        if (name == nullptr || *name == '\0') continue;
        symbols.push_back({.address = symbol.st_value,
                           .size = symbol.st_size,
                           .name = std::string(name, strnlen(name, Symboliser::kLongestName))});
    }
}

bool isThisKernel(const TraceContents& contents) {
    utsname here{};
    return uname(&here) == 0 && !contents.kernelRelease().empty() && contents.kernelRelease() == here.release &&
           contents.kernelVersion() == here.version;
}

template <class Visit>
void forEachLine(std::string_view text, Visit&& visit) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        visit(line);
    }
}

// "ffffffff81000000 T _stext"; a module's functions end in "\t[module]".
template <class Visit>
void forEachKernelFunction(std::string_view list, Visit&& visit) {
    forEachLine(list, [&](std::string_view line) {
        const std::size_t space = line.find(' ');
        if (space == std::string_view::npos || space + 3 > line.size()) return;
        const auto address = hexNumber(line.substr(0, space));
        const char type = line[space + 1];
        if (!address || *address == 0 || (type != 'T' && type != 't' && type != 'W' && type != 'w')) return;
        std::string_view name = line.substr(space + 3);
        std::string_view module;
        if (const std::size_t tab = name.find('\t'); tab != std::string_view::npos) {
            module = name.substr(tab + 1);
            if (module.starts_with('[')) module.remove_prefix(1);
            if (module.ends_with(']')) module.remove_suffix(1);
            name = name.substr(0, tab);
        }
        visit(*address, name, module);
    });
}

// 0: where they are counted from is not known.
SymbolTable takenFrom(std::uint64_t start, std::vector<SymbolTable::Symbol> symbols) {
    if (start == 0) return SymbolTable();
    std::erase_if(symbols, [&](const auto& symbol) { return symbol.address < start; });
    for (auto& symbol : symbols) symbol.address -= start;
    return SymbolTable(std::move(symbols));
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

SymbolTable::SymbolTable(std::vector<Symbol> symbols) : symbols_(std::move(symbols)) {
    std::ranges::stable_sort(symbols_, {}, &Symbol::address);
}

std::string SymbolTable::at(std::uint64_t address, bool isReturnAddress) const {
    // A function that never returns may end in the call: the address after it is the next function's.
    const std::uint64_t looked = isReturnAddress && address > 0 ? address - 1 : address;
    auto after = std::ranges::upper_bound(symbols_, looked, {}, &Symbol::address);
    if (after == symbols_.begin()) return {};
    const Symbol& symbol = *std::prev(after);
    if (symbol.size != 0 && looked - symbol.address >= symbol.size) return {};
    char offset[24];
    const auto end = std::to_chars(offset, offset + sizeof(offset), address - symbol.address, 16);
    return demangled(symbol.name) + "+0x" + std::string(offset, end.ptr);
}

SymbolTable readModuleSymbols(const std::string& path, const std::vector<std::uint8_t>& buildId) {
    const Descriptor file(path);
    if (!file.isSaneFile() || buildId.empty() || elf_version(EV_CURRENT) == EV_NONE) return {};
    // Read, not mapped: a file that is cut short meanwhile must not end the tool.
    const std::unique_ptr<Elf, decltype(&elf_end)> elf(elf_begin(file.number(), ELF_C_READ, nullptr), &elf_end);
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF) return {};
    const void* found = nullptr;
    const ssize_t size = dwelf_elf_gnu_build_id(elf.get(), &found);
    if (size <= 0 || static_cast<std::size_t>(size) != buildId.size() ||
        std::memcmp(found, buildId.data(), buildId.size()) != 0) {
        return {};
    }
    std::vector<SymbolTable::Symbol> symbols;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf.get(), section)) != nullptr;) {
        readSection(elf.get(), section, symbols);
    }
    return SymbolTable(std::move(symbols));
}

SymbolTable parseKernelSymbols(std::string_view list) {
    std::vector<SymbolTable::Symbol> symbols;
    std::uint64_t textStart = 0;
    forEachKernelFunction(list, [&](std::uint64_t address, std::string_view name, std::string_view module) {
        if (!module.empty()) return;
        if (name == "_stext") textStart = address;
        if (symbols.size() < Symboliser::kMostSymbols) {
            symbols.push_back({.address = address, .size = 0, .name = std::string(name)});
        }
    });
    return takenFrom(textStart, std::move(symbols));
}

SymbolTable parseKernelModule(std::string_view list, std::string_view modules, std::string_view name) {
    // "fuse 212992 3 - Live 0xffffffffc0a00000"
    std::uint64_t start = 0;
    forEachLine(modules, [&](std::string_view line) {
        constexpr std::string_view kAddress = " 0x";
        const std::size_t at = line.find(kAddress);
        if (line.substr(0, line.find(' ')) != name || at == std::string_view::npos) return;
        const std::string_view digits = line.substr(at + kAddress.size());
        start = hexNumber(digits.substr(0, digits.find(' '))).value_or(0);
    });
    std::vector<SymbolTable::Symbol> symbols;
    forEachKernelFunction(list, [&](std::uint64_t address, std::string_view function, std::string_view module) {
        if (module == name && symbols.size() < Symboliser::kMostSymbols) {
            symbols.push_back({.address = address, .size = 0, .name = std::string(function)});
        }
    });
    return takenFrom(start, std::move(symbols));
}

const SymbolTable& Symboliser::moduleTable(const Frame& frame) {
    static const SymbolTable kNone;
    const auto key = std::pair(frame.modulePath, frame.buildId);
    if (const auto known = modules_.find(key); known != modules_.end()) return known->second;
    if (modules_.size() >= kMostModules) return kNone;
    SymbolTable& table = modules_[key];
    if (frame.buildId.size() < 2 || frame.buildId.size() > 64) return table;
    std::string id;
    for (const std::uint8_t byte : frame.buildId) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        id += kDigits[byte >> 4];
        id += kDigits[byte & 0xf];
    }
    // The separate file of symbols first: a stripped module has only those that it exports.
    table =
        readModuleSymbols(places_.debugFiles + "/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug", frame.buildId);
    const bool isPath = frame.modulePath.starts_with('/') && frame.modulePath.find('\0') == std::string::npos;
    if (table.empty() && isPath) table = readModuleSymbols(frame.modulePath, frame.buildId);
    return table;
}

const SymbolTable& Symboliser::kernelTable(const std::string& part) {
    static const SymbolTable kNone;
    if (const auto known = kernel_.find(part); known != kernel_.end()) return known->second;
    if (kernel_.size() >= kMostKernelParts) return kNone;
    const std::string list = contentOf(places_.kernelSymbols);
    return kernel_[part] = part == kKernel ? parseKernelSymbols(list)
                                           : parseKernelModule(list, contentOf(places_.kernelModules), part);
}

void Symboliser::name(const TraceContents& contents, std::vector<ToldFrame>& stack) {
    bool isFirstOfProgram = true;
    for (ToldFrame& told : stack) {
        const Frame& frame = told.frame;
        if (frame.isKernel()) {
            // "[kernel]+0x1234", "[fuse]+0x567"
            const std::size_t end = frame.name.find(kKernelOffset);
            if (!frame.name.starts_with('[') || end == std::string::npos || !isThisKernel(contents)) continue;
            const auto offset = hexNumber(std::string_view(frame.name).substr(end + kKernelOffset.size()));
            if (offset) told.symbol = kernelTable(frame.name.substr(1, end - 1)).at(*offset, false);
            continue;
        }
        const bool isReturnAddress = !std::exchange(isFirstOfProgram, false);
        if (!frame.modulePath.empty()) told.symbol = moduleTable(frame).at(frame.relativePc, isReturnAddress);
    }
}

}  // namespace quorvix::report
