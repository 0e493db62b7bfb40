#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "swivex/EventDecoder.h"
#include "swivex/EventFormat.h"
#include "swivex/Freezer.h"
#include "swivex/KernelModules.h"
#include "swivex/PacketWriter.h"
#include "swivex/ProcessText.h"
#include "swivex/RecorderText.h"
#include "swivex/SystemFigures.h"
#include "swivex/stacks/MemoryMap.h"
#include "swivex/stacks/MountTable.h"
#include "swivex/stacks/ThreadText.h"

namespace quorvix::fuzz {

namespace trace_text {

inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "trace text: %s\n", what);
    std::abort();
}

inline std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

inline bool stat(std::string_view text) {
    const auto line = swivex::parseStat(text);
    require(!line || (text.find(line->comm) != text.npos && text.find(line->state) != text.npos), "a stat of no text");
    return line.has_value();
}

// One text taken as all that procfs tells of a thread.
inline bool thread(std::string_view text) {
    swivex::ThreadStack stack;
    const bool hasStat = swivex::stacks::parseThreadStat(text, stack);
    require(!hasStat || (text.find(stack.name) != text.npos && text.find(stack.state) != text.npos),
            "a thread of no text");
    const auto frames = swivex::stacks::parseKernelStack(text);
    for (const auto& frame : frames) {
        require(text.find(frame.symbol) != text.npos && frame.symbol.find('\n') == text.npos, "a frame of no text");
    }
    const std::size_t count = swivex::stacks::threadCountOf(text);
    require(count == 0 || text.find(std::to_string(count)) != text.npos, "a number of threads that is not in the text");
    return hasStat || !frames.empty() || count != 0;
}

inline bool freezer(std::string_view text) {
    const auto files = swivex::freezerFilesOf(text, "/sys/fs/cgroup");
    for (const auto& file : files) {
        require(file.path.starts_with("/sys/fs/cgroup") && file.path.find('\n') == text.npos, "a file of no group");
    }
    return !files.empty();
}

inline bool scoreAdjustment(std::string_view text) {
    const auto number = swivex::scoreAdjustmentOf(text);
    if (!number) return false;
    std::string digits = std::to_string(*number);
    if (*number < 0) digits.erase(0, 1);
    require(text.find(digits) != text.npos, "an adjustment that is not in the text");
    return true;
}

// The first line is the key.
inline bool status(std::string_view text) {
    const std::string_view key = takeLine(text);
    const auto numbers = swivex::numbersOf(text, key);
    require(numbers.size() <= text.size() / 2 + 1, "more numbers than the text has room for");
    return !numbers.empty();
}

inline bool modules(std::string_view text) {
    const swivex::KernelModules modules(text);
    bool any = false;
    for (std::uint64_t address = 1; address != 0; address <<= 1) {
        for (const std::uint64_t near : {address - 1, address, 0xffffffffc0a00000 + (address & 0xffffff)}) {
            const auto place = modules.find(near);
            require(!place || (text.find(place->name) != text.npos && place->offset <= near), "a place in no module");
            any = any || place;
        }
    }
    return any;
}

inline bool maps(std::string_view text) {
    const auto map = swivex::stacks::MemoryMap::parse(text);
    std::uint64_t last = 0;
    for (const auto& mapping : map.mappings()) {
        require(mapping.start < mapping.end && mapping.start >= last, "mappings out of order");
        require(mapping.path.size() <= text.size() && (mapping.isExecutable || mapping.path.empty()), "a path of none");
        last = mapping.start;
        for (const std::uint64_t address : {mapping.start - 1, mapping.start, mapping.end - 1, mapping.end}) {
            const auto* const found = map.find(address);
            require(!found || (found->start <= address && address < found->end), "an address in another mapping");
        }
        require(map.find(mapping.start) != nullptr, "a mapping that does not hold its own start");
    }
    return !map.mappings().empty();
}

inline bool mounts(std::string_view text) {
    const auto devices = swivex::stacks::devicesThatMayNotAnswer(text);
    const auto lines = static_cast<std::size_t>(std::ranges::count(text, '\n')) + 1;
    require(devices.size() <= lines, "more devices than lines");
    return !devices.empty();
}

// A format and, behind a NUL, a record of it: every text of the event lies in the record or is a field's name.
inline bool eventFormat(std::string_view text) {
    const std::size_t end = std::min(text.find('\0'), text.size());
    const std::string_view bytes = text.substr(std::min(end + 1, text.size()));
    auto format = swivex::parseEventFormat(text.substr(0, end));
    if (!format) return false;
    require(!format->name.empty() && format->id <= 0xffff, "a format without a name or a number");
    const std::string name = format->name;
    swivex::EventDecoder decoder;
    decoder.add(std::move(*format));
    swivex::Event event;
    if (!decoder.decode(1, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, event)) return true;
    const auto inside = [&](std::string_view part) {
        return part.empty() ||
               (part.data() >= bytes.data() && part.data() + part.size() <= bytes.data() + bytes.size());
    };
    require(event.name == name, "an event of another name");
    require(inside(event.prevComm) && inside(event.nextComm) && inside(event.text), "a text that is not in the record");
    for (const auto& field : event.allFields()) {
        require(!field.isText || inside(field.text), "a field's text that is not in the record");
    }
    return true;
}

inline bool pageFormat(std::string_view text) {
    const auto page = swivex::parsePageFormat(text);
    require(!page || (page->dataOffset >= page->commitOffset + page->commitSize && page->dataOffset < 256),
            "data that lies in the page's head");
    return page.has_value();
}

inline bool figures(std::string_view text) {
    const std::string all(text);
    swivex::PacketWriter writer;
    writeFigures(writer, {.memory = all, .cpu = all, .pressure = {all, all, all}});
    // Each line gives one message of nine numbers at most; the rest is a fixed number of messages.
    require(writer.size() <= 1024 + 60 * text.size(), "more figures than the text has lines");
    return writer.size() != 0;
}

// One text taken as all that tracefs says of a recorder: figures of a CPU, a choice, a size.
inline bool recorder(std::string_view text) {
    const std::string all(text);
    const std::uint64_t entries = swivex::countOf(text, "entries");
    require(entries == 0 || text.find(std::to_string(entries)) != text.npos, "a count that is not in the text");
    const std::string_view chosen = swivex::chosenOf(text);
    require(chosen.empty() || (chosen.find(']') == chosen.npos && text.find(chosen) != text.npos),
            "a choice that is not in the brackets");
    return entries != 0 || !chosen.empty() || swivex::oldestSecondsOf(all) > 0 || swivex::leadingNumber(all) != 0;
}

inline bool arguments(std::string_view text) {
    const auto found = swivex::argumentsOf(text);
    std::size_t size = 0;
    for (const std::string& argument : found) {
        require(argument.find('\0') == argument.npos, "an argument that is two");
        size += argument.size() + 1;
    }
    require(size <= text.size() + 1, "more arguments than the text has");
    return !found.empty();
}

}  // namespace trace_text

// The trace library's readers of the kernel's texts. The first byte names the reader, the rest is its text. True when
// the reader found something.
inline bool traceTextHolds(std::string_view bytes) {
    if (bytes.empty()) return false;
    const std::string_view text = bytes.substr(1);
    switch (bytes.front()) {
        case 's': return trace_text::stat(text);
        case 'd': return trace_text::thread(text);
        case 'g': return trace_text::freezer(text);
        case 'k': return trace_text::status(text);
        case 'm': return trace_text::modules(text);
        case 'a': return trace_text::maps(text);
        case 't': return trace_text::mounts(text);
        case 'e': return trace_text::eventFormat(text);
        case 'p': return trace_text::pageFormat(text);
        case 'f': return trace_text::figures(text);
        case 'r': return trace_text::recorder(text);
        case 'c': return trace_text::arguments(text);
        case 'o': return trace_text::scoreAdjustment(text);
        default: return false;
    }
}

}  // namespace quorvix::fuzz
