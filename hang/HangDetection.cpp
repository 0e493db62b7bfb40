// How a client's process becomes a record and how its hang channel is checked.

#include <array>
#include <cstring>

#include "hang/HangChannel.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "platform/Platform.h"
#include "platform/quorvix_channel.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::size_t kPathCapacity = 4096;
constexpr std::uint64_t kMinimumRegionLength = QUORVIX_CHANNEL_MINIMUM_LENGTH;

// Nothing when the path has no component ("/").
std::optional<std::string> lastPathComponent(std::string_view path) {
    while (path.ends_with('/')) path.remove_suffix(1);
    if (path.empty()) return std::nullopt;
    return std::string(path.substr(path.rfind('/') + 1));
}

}  // namespace

std::optional<std::string> processPathForPid(std::int32_t pid) {
    std::array<char, kPathCapacity> buffer{};
    if (platform().processes.executablePath(pid, buffer) == 0) return std::nullopt;
    std::string path(buffer.data(), ::strnlen(buffer.data(), buffer.size()));
    // Byte by byte, as the C locale sees it: a path ends up in log lines, file names and counter keys.
    for (char& byte : path) {
        if (byte < ' ' || byte > '~') byte = '~';
    }
    return path;
}

std::shared_ptr<QXProcessInfo> QXProcessInfo::initWithPid(std::int32_t pid, void* sharedMem, std::uint64_t length) {
    const auto path = processPathForPid(pid);
    if (!path) {
        // The number is the record's own field, which is not set yet: this line always says 0, deliberately. The
        // region stays mapped here.
        quorvixLog().standard("Unable to identify process name of pid %d", std::int32_t{0});
        return nullptr;
    }
    if (length < kMinimumRegionLength) {
        quorvixLog().standard("Shared memory region smaller than expected: %zu < %zu", length, kMinimumRegionLength);
        platform().regions.unmap(sharedMem, length);
        return nullptr;
    }
    const auto version = hangChannelVersion({sharedMem, length});
    if (!version) {
        ++hangState().regionFaults;
        platformLog().standard("The hang channel of pid %d can't be read: it is not watched", pid);
        platform().regions.unmap(sharedMem, length);
        return nullptr;
    }
    if (*version != QUORVIX_CHANNEL_VERSION) {
        quorvixLog().standard("Client is not vending the current protocol version: %u", *version);
        platform().regions.unmap(sharedMem, length);
        return nullptr;
    }
    const std::shared_ptr<QXProcessInfo> process(new QXProcessInfo);
    process->pid_ = pid;
    process->shmem_region = sharedMem;
    process->shmem_length = length;
    process->processPath_ = *path;
    process->processName_ = lastPathComponent(*path).value_or("[Unknown]");
    quorvixLog().info("New proc: %@(%u)", process->processPath_, static_cast<std::uint32_t>(pid));
    return process;
}

void QXProcessInfo::checkEventsForTimeouts(std::uint64_t now) {
    HangingSlot slot;
    if (!findHangingSlot({shmem_region, shmem_length}, now, msPerTick(), slot)) {
        hangState().faultedProcesses.push_back(this);
        return;
    }
    if (!slot.found) return;
    recordHang({slot.name, slot.nameLength}, slot.threadID, slot.startTime, now, slot.saveReport);
}

}  // namespace quorvix
