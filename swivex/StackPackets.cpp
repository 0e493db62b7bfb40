#include "swivex/StackPackets.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "swivex/Utf8.h"

namespace quorvix::swivex {

namespace {

constexpr std::uint32_t kInternedData = 12, kDefaults = 59, kStackSample = 135;
namespace interned {
constexpr std::uint32_t kFunctionNames = 5, kFrames = 6, kCallstacks = 7, kBuildIds = 16, kPaths = 17, kMappings = 19;
}

std::string hex(std::uint64_t value) {
    char text[16];
    return std::string(text, std::to_chars(text, text + sizeof text, value, 16).ptr);
}

std::string fileName(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

// Words of the sequence by number, each once. Writes those that are new into the packet that first uses them.
class Words {
public:
    explicit Words(std::uint32_t field) : field_(field) {}

    std::uint64_t number(PacketWriter& writer, const std::string& word) {
        const auto [place, isNew] = numbers_.try_emplace(word, numbers_.size() + 1);
        if (isNew) {
            writer.message(field_, [&] {
                writer.number(1, place->second);
                writer.text(2, word);
            });
        }
        return place->second;
    }

private:
    const std::uint32_t field_;
    std::map<std::string, std::uint64_t> numbers_;
};

class StackWriter {
public:
    StackWriter(PacketBuffer& file, const StackCapture& capture, const KernelModules& modules, pid_t pid,
                std::uint64_t timeNs)
        : file_(file), capture_(capture), modules_(modules), pid_(pid), timeNs_(timeNs) {}

    void run() {
        bool first = true;
        for (const ThreadStack& thread : capture_.threads) {
            const std::uint64_t flags =
                first ? packet::kStateCleared | packet::kNeedsState : std::uint64_t{packet::kNeedsState};
            file_.packet(Sequence::stacks, flags, timeNs_, [&](PacketWriter& writer) {
                if (first) writeDefaults(writer);
                std::uint64_t callstack = 0;
                writer.message(kInternedData, [&] {
                    if (first) writeModules(writer);
                    callstack = writeCallstack(writer, thread);
                });
                writer.message(kStackSample, [&] {
                    writer.message(1, [&] {
                        writer.signedNumber(2, pid_);
                        writer.signedNumber(3, thread.tid);
                    });
                    if (callstack != 0) writer.number(6, callstack);
                    if (!thread.problem.empty()) writer.text(7, validUtf8(thread.problem));
                });
            });
            first = false;
        }
    }

private:
    void writeDefaults(PacketWriter& writer) {
        constexpr std::uint32_t kStackSampleDefaults = 100;
        writer.message(kDefaults, [&] {
            writer.message(kStackSampleDefaults, [&] { writer.message(2, [&] { writer.text(2, "stack"); }); });
        });
    }

    // Mapping n is module n - 1.
    void writeModules(PacketWriter& writer) {
        for (std::size_t index = 0; index < capture_.modules.size(); ++index) {
            const Module& module = capture_.modules[index];
            std::vector<std::uint64_t> path;
            std::string_view rest = module.path;
            while (!rest.empty()) {
                const std::string_view part = rest.substr(0, rest.find('/'));
                rest.remove_prefix(std::min(part.size() + 1, rest.size()));
                if (!part.empty()) path.push_back(paths_.number(writer, validUtf8(part)));
            }
            std::uint64_t buildId = 0;
            if (!module.buildId.empty()) {
                buildId = buildIds_.number(writer, std::string(module.buildId.begin(), module.buildId.end()));
            }
            writer.message(interned::kMappings, [&] {
                writer.number(1, index + 1);
                if (buildId != 0) writer.number(2, buildId);
                writer.number(4, module.start);
                writer.number(5, module.end);
                writer.signedNumber(6, module.loadBias);
                for (const std::uint64_t part : path) writer.number(7, part);
                writer.number(8, module.fileOffset);
            });
        }
    }

    std::uint64_t writeCallstack(PacketWriter& writer, const ThreadStack& thread) {
        std::vector<std::uint64_t> frames;  // innermost first
        for (const KernelFrame& frame : thread.kernel) frames.push_back(kernelFrame(writer, frame));
        for (const UserFrame& frame : thread.user) frames.push_back(userFrame(writer, frame));
        if (frames.empty()) return 0;
        const auto [place, isNew] = callstacks_.try_emplace(frames, callstacks_.size() + 1);
        if (isNew) {
            writer.message(interned::kCallstacks, [&] {
                writer.number(1, place->second);
                for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) writer.number(2, *frame);
            });
        }
        return place->second;
    }

    // Modules lie apart from the kernel, and where each of the two lies is a secret: the distance between them would
    // tell.
    std::string kernelPlace(std::uint64_t address) const {
        constexpr std::uint64_t kLongestText = std::uint64_t{64} << 20;
        if (const auto place = modules_.find(address)) {
            return "[" + std::string(place->name) + "]+0x" + hex(place->offset);
        }
        const std::uint64_t start = capture_.kernelTextStart;
        const bool isInText = start != 0 && address >= start && address - start < kLongestText;
        return isInText ? "[kernel]+0x" + hex(address - start) : "[kernel]";
    }

    std::uint64_t kernelFrame(PacketWriter& writer, const KernelFrame& frame) {
        std::string name = frame.symbol;
        if (name.empty()) {
            name = kernelPlace(frame.address);
        }
        return frameNumber(writer, name, 0, 0);
    }

    std::uint64_t userFrame(PacketWriter& writer, const UserFrame& frame) {
        const bool hasModule = frame.module >= 0 && static_cast<std::size_t>(frame.module) < capture_.modules.size();
        if (!hasModule) return frameNumber(writer, "0x" + hex(frame.pc), 0, frame.pc);
        const Module& module = capture_.modules[static_cast<std::size_t>(frame.module)];
        const std::uint64_t relative = frame.pc - module.loadBase;
        return frameNumber(writer, fileName(module.path) + "+0x" + hex(relative),
                           static_cast<std::uint64_t>(frame.module) + 1, relative);
    }

    // mapping 0: none
    std::uint64_t frameNumber(PacketWriter& writer, const std::string& name, std::uint64_t mapping,
                              std::uint64_t relativePc) {
        const auto [place, isNew] = frames_.try_emplace({name, mapping}, frames_.size() + 1);
        if (!isNew) return place->second;
        const std::uint64_t nameNumber = functions_.number(writer, validUtf8(name));
        writer.message(interned::kFrames, [&] {
            writer.number(1, place->second);
            writer.number(2, nameNumber);
            if (mapping != 0) {
                writer.number(3, mapping);
                writer.number(4, relativePc);
            }
        });
        return place->second;
    }

    PacketBuffer& file_;
    const StackCapture& capture_;
    const KernelModules& modules_;
    const pid_t pid_;
    const std::uint64_t timeNs_;
    Words functions_{interned::kFunctionNames};
    Words buildIds_{interned::kBuildIds};
    Words paths_{interned::kPaths};
    std::map<std::pair<std::string, std::uint64_t>, std::uint64_t> frames_;
    std::map<std::vector<std::uint64_t>, std::uint64_t> callstacks_;
};

}  // namespace

void writeStacks(PacketBuffer& file, const StackCapture& capture, const KernelModules& modules, pid_t pid,
                 std::uint64_t timeNs) {
    StackWriter(file, capture, modules, pid, timeNs).run();
}

}  // namespace quorvix::swivex
