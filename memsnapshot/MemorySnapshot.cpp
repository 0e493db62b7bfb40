#include "memsnapshot/MemorySnapshot.h"

#include <system_error>

#include "memsnapshot/MemoryReportText.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::string_view kCacheDirectory = "/var/root/Library/Caches/quorvixd/";
constexpr std::string_view kReportDirectory = "/Library/Logs/Faultbox/";
// A reader of the report folder passes over names that begin with a dot.
constexpr std::string_view kIncompletePrefix = ".";
constexpr std::uint32_t kReportMode = 0644;
// Readable at any time, also before the first unlock. It has no meaning here; the platform's call asks for one.
constexpr int kProtectionClass = 4;
constexpr ErrorCode kCrossDevice{static_cast<int>(std::errc::cross_device_link)};

// Creates, writes and closes one file; what was not completely written is removed again.
Result<void> writeFile(const FileLocation& file, int descriptor, std::string_view text) {
    Files& files = platform().files;
    auto written = files.write(descriptor, text);
    const auto closed = files.closeChecked(descriptor);
    if (written && !closed) written = closed.error();
    // Ignored: what can't be removed now goes before the next start, and the name is stamped with the time.
    if (!written) (void)files.unlinkFile(file);
    return written;
}

// Where the report folder lies on another file system: a complete copy under a name that readers pass over, renamed.
Result<void> copyIntoPlace(const FileLocation& report, std::string_view text) {
    Files& files = platform().files;
    const std::string name = std::string(kIncompletePrefix) + std::string(report.name);
    const FileLocation incomplete{report.directory, name};
    const auto created = files.createNewFile(incomplete, kReportMode, kProtectionClass);
    if (!created) return created.error();
    if (const auto written = writeFile(incomplete, *created, text); !written) return written;
    const auto renamed = files.replaceFile(incomplete, report);
    if (!renamed) (void)files.unlinkFile(incomplete);
    return renamed;
}

}  // namespace

void takeMemorySnapshot() {
    Files& files = platform().files;
    const std::string timestamp = serviceState().reportDateFormatter->format(platform().wallClock.now());
    const std::string fileName = formatText("memory-snapshot-%@.ips", timestamp);
    const std::string cachePath = formatText("/var/root/Library/Caches/quorvixd//%@", fileName);
    const std::string reportPath = formatText("/Library/Logs/Faultbox//%@", fileName);
    const FileLocation cache{kCacheDirectory, fileName};
    const FileLocation report{kReportDirectory, fileName};

    const auto created = files.createNewFile(cache, kReportMode, kProtectionClass);
    if (!created) {
        quorvixLog().standard("Could not create file - won't take a memory snapshot: %s %s", cachePath,
                              created.error());
        return;
    }
    const std::string text = memoryReportText(timestamp);
    if (const auto written = writeFile(cache, *created, text); !written) {
        platformLog().standard("Could not write memory snapshot %s: %s", cachePath, written.error());
        return;
    }
    auto moved = files.replaceFile(cache, report);
    if (!moved && moved.error() == kCrossDevice) {
        moved = copyIntoPlace(report, text);
        (void)files.unlinkFile(cache);
    } else if (!moved) {
        (void)files.unlinkFile(cache);
    }
    if (!moved) {
        platformLog().standard("Could not move memory snapshot to %s: %s", reportPath, moved.error());
        return;
    }
    platformLog()
        .about(LogEventKind::snapshotWritten)
        .info("Memory snapshot written: %s (%zu bytes)", reportPath, text.size());
}

}  // namespace quorvix
