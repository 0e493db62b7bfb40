#include "swivex/SystemFigures.h"

#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "swivex/ProcessText.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

constexpr std::uint32_t kSysStats = 7, kSystemInfo = 45;

struct NumberedKey {
    std::string_view key;
    std::uint64_t number;
};
constexpr std::array<NumberedKey, 16> kMemory = {{{"MemTotal", 1},
                                                  {"MemFree", 2},
                                                  {"MemAvailable", 3},
                                                  {"Buffers", 4},
                                                  {"Cached", 5},
                                                  {"SwapCached", 6},
                                                  {"Active", 7},
                                                  {"Inactive", 8},
                                                  {"SwapTotal", 15},
                                                  {"SwapFree", 16},
                                                  {"Dirty", 17},
                                                  {"Writeback", 18},
                                                  {"AnonPages", 19},
                                                  {"Mapped", 20},
                                                  {"Shmem", 21},
                                                  {"Slab", 22}}};

struct PressureFile {
    const char* name;
    std::uint64_t some;
    std::uint64_t full;
};
constexpr std::array<PressureFile, 3> kPressure = {{{"cpu", 1, 2}, {"io", 3, 4}, {"memory", 5, 6}}};

// The "total=" of the line that begins with `kind`, in microseconds; false: there is none.
bool pressureTotal(std::string_view text, std::string_view kind, std::uint64_t& total) {
    const std::size_t line = text.find(kind);
    const std::size_t at = line == std::string_view::npos ? line : text.find("total=", line);
    if (at == std::string_view::npos) return false;
    const char* const begin = text.data() + at + 6;
    return std::from_chars(begin, text.data() + text.size(), total).ec == std::errc();
}

void writeMemory(PacketWriter& writer, std::string_view text) {
    for (const NumberedKey& key : kMemory) {
        const auto numbers = numbersOf(text, key.key);
        if (numbers.empty()) continue;
        writer.message(1, [&] {
            writer.number(1, key.number);
            writer.number(2, numbers.front());
        });
    }
}

// "cpu0 user nice system idle iowait irq softirq steal ..."
void writeCpu(PacketWriter& writer, std::string_view line, std::uint64_t nsPerTick) {
    std::vector<std::uint64_t> numbers;
    const char* at = line.data() + 3;
    const char* const end = line.data() + line.size();
    while (at < end) {
        std::uint64_t number = 0;
        const auto parsed = std::from_chars(at, end, number);
        if (parsed.ec != std::errc()) break;
        numbers.push_back(number);
        at = parsed.ptr;
        while (at < end && *at == ' ') ++at;
    }
    if (numbers.size() < 9) return;
    writer.message(3, [&] {
        writer.number(1, numbers[0]);
        for (std::uint32_t index = 1; index < 9; ++index) writer.number(index + 1, numbers[index] * nsPerTick);
    });
}

void writeCpus(PacketWriter& writer, std::string_view text) {
    const std::uint64_t nsPerTick = 1'000'000'000 / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const bool isOneCpu = line.starts_with("cpu") && line.size() > 3 && line[3] >= '0' && line[3] <= '9';
        if (isOneCpu) writeCpu(writer, line, nsPerTick);
    }
}

}  // namespace

void writeFigures(PacketWriter& writer, const FigureTexts& texts) {
    writeMemory(writer, texts.memory);
    writeCpus(writer, texts.cpu);
    for (std::size_t index = 0; index < kPressure.size(); ++index) {
        const auto total = [&](std::string_view kind, std::uint64_t number) {
            std::uint64_t microseconds = 0;
            if (!pressureTotal(texts.pressure[index], kind, microseconds)) return;
            writer.message(14, [&] {
                writer.number(1, number);
                writer.number(2, microseconds * 1000);
            });
        };
        total("some ", kPressure[index].some);
        total("full ", kPressure[index].full);
    }
}

void writeSystemFigures(PacketBuffer& file, const std::string& procFolder, Attributes& attributes,
                        std::uint64_t timeNs) {
    const auto textOf = [&](const std::string& name, std::string_view source) {
        auto text = readSmallFile(procFolder + "/" + name);
        if (text) return std::move(*text);
        attributes.missing(source, text.problem());
        return std::string();
    };
    FigureTexts texts{.memory = textOf("meminfo", "memory"), .cpu = textOf("stat", "cpu"), .pressure = {}};
    for (std::size_t index = 0; index < kPressure.size(); ++index) {
        texts.pressure[index] = textOf(std::string("pressure/") + kPressure[index].name, "pressure");
    }
    file.packet(Sequence::figures, 0, timeNs,
                [&](PacketWriter& writer) { writer.message(kSysStats, [&] { writeFigures(writer, texts); }); });
}

void writeSystemInfo(PacketBuffer& file, std::uint64_t timeNs) {
    utsname names{};
    ::uname(&names);
    const time_t now = ::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    file.packet(Sequence::frame, 0, timeNs, [&](PacketWriter& writer) {
        writer.message(kSystemInfo, [&] {
            writer.message(1, [&] {
                writer.text(1, names.sysname);
                writer.text(2, names.version);
                writer.text(3, names.release);
                writer.text(4, names.machine);
            });
            const long pageSize = ::sysconf(_SC_PAGESIZE);
            writer.signedNumber(6, pageSize);
            writer.signedNumber(7, local.tm_gmtoff / 60);
            writer.signedNumber(8, ::sysconf(_SC_NPROCESSORS_CONF));
            writer.signedNumber(16, static_cast<std::int64_t>(::sysconf(_SC_PHYS_PAGES)) * pageSize);
        });
    });
}

}  // namespace quorvix::swivex
