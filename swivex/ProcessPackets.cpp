#include "swivex/ProcessPackets.h"

#include <span>

#include "swivex/Utf8.h"

namespace quorvix::swivex {

namespace {

constexpr std::uint32_t kProcessTree = 2, kProcessStats = 9;
// Entries a packet: so many that a packet stays far below what readers take at once, command lines included.
constexpr std::size_t kEntriesOfPacket = 100;

void writeProcess(PacketWriter& writer, const ProcessEntry& process) {
    writer.message(1, [&] {
        writer.signedNumber(1, process.pid);
        writer.signedNumber(2, process.ppid);
        // Without any command line readers leave a process out.
        const bool isName = process.arguments.empty();
        if (isName) writer.text(3, validUtf8(process.name));
        for (const std::string& argument : process.arguments) writer.text(3, validUtf8(argument));
        writer.number(5, process.uid);
        for (const pid_t pid : process.namespacePids) writer.signedNumber(6, pid);
        writer.number(7, process.startNs);
        writer.number(8, process.isKernel);
        writer.number(9, isName);
    });
}

void writeThread(PacketWriter& writer, const ThreadEntry& thread, pid_t process) {
    writer.message(2, [&] {
        writer.signedNumber(1, thread.tid);
        writer.text(2, validUtf8(thread.name));
        writer.signedNumber(3, process);
        for (const pid_t tid : thread.namespaceTids) writer.signedNumber(4, tid);
    });
}

void writeStats(PacketWriter& writer, const ProcessEntry& process) {
    writer.message(1, [&] {
        writer.signedNumber(1, process.pid);
        writer.number(2, process.sizeKb);
        writer.number(3, process.residentKb);
        writer.number(4, process.anonymousKb);
        writer.number(5, process.fileKb);
        writer.number(6, process.sharedKb);
        writer.number(7, process.swapKb);
        writer.number(8, process.lockedKb);
        writer.number(9, process.peakKb);
        writer.signedNumber(10, process.oomScoreAdj);
        writer.number(21, process.userNs);
        writer.number(22, process.kernelNs);
    });
}

}  // namespace

void writeProcessTree(PacketBuffer& file, const ProcessList& list, std::uint64_t timeNs) {
    std::size_t processIndex = 0;
    std::size_t threadIndex = 0;  // of the process
    const auto& processes = list.processes;
    while (processIndex < processes.size()) {
        file.packet(Sequence::processes, 0, timeNs, [&](PacketWriter& writer) {
            writer.message(kProcessTree, [&] {
                std::size_t entries = 0;
                while (processIndex < processes.size() && entries < kEntriesOfPacket) {
                    const ProcessEntry& process = processes[processIndex];
                    if (threadIndex == 0) {
                        writeProcess(writer, process);
                        ++entries;
                    }
                    // The first thread stands with its process, so that a process is never begun twice.
                    while (threadIndex < process.threads.size() && (entries < kEntriesOfPacket || threadIndex == 0)) {
                        writeThread(writer, process.threads[threadIndex++], process.pid);
                        ++entries;
                    }
                    if (threadIndex == process.threads.size()) {
                        ++processIndex;
                        threadIndex = 0;
                    }
                }
                writer.number(3, timeNs);
            });
        });
    }
}

void writeProcessStats(PacketBuffer& file, const ProcessList& list, std::uint64_t timeNs) {
    for (std::size_t begin = 0; begin < list.processes.size(); begin += kEntriesOfPacket) {
        const std::size_t count = std::min(kEntriesOfPacket, list.processes.size() - begin);
        file.packet(Sequence::figures, 0, timeNs, [&](PacketWriter& writer) {
            writer.message(kProcessStats, [&] {
                for (const ProcessEntry& process : std::span(list.processes).subspan(begin, count)) {
                    if (process.hasMemory) writeStats(writer, process);
                }
            });
        });
    }
}

}  // namespace quorvix::swivex
