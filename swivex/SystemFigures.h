#pragma once

#include <array>
#include <string>

#include "swivex/Attributes.h"
#include "swivex/PacketBuffer.h"

namespace quorvix::swivex {

// Memory, pressure and CPU figures of the whole machine, from the kernel's counters. What can't be read is noted in the
// attributes.
void writeSystemFigures(PacketBuffer& file, const std::string& procFolder, Attributes& attributes,
                        std::uint64_t timeNs);

// Their texts: /proc/meminfo, /proc/stat, /proc/pressure/cpu, io and memory. Empty where one could not be read.
struct FigureTexts {
    std::string memory;
    std::string cpu;
    std::array<std::string, 3> pressure;
};
// The fields of their message.
void writeFigures(PacketWriter& writer, const FigureTexts& texts);

// The kernel's name and version, and the machine's size. Stands before every event: readers take the meaning of thread
// states from it.
void writeSystemInfo(PacketBuffer& file, std::uint64_t timeNs);

}  // namespace quorvix::swivex
