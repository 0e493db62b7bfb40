// Writes one hang report: made in tmp by the trace library, moved to the spool when complete.

#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::string_view kTemporaryDirectory = "/var/root/Library/Caches/quorvixd/tmp";
constexpr std::string_view kSpoolDirectory = "/var/root/Library/Caches/quorvixd/spool";
constexpr std::string_view kExtension = "swivex";
constexpr std::uint32_t kReportMode = 0644;
// The class without file protection. It has no meaning here; the platform's call asks for one.
constexpr int kProtectionClass = 4;

// The temporary file while it is being written: unlinked and closed, in this order, unless it was kept.
class TemporaryReport {
public:
    TemporaryReport(const FileLocation& location, int descriptor) : location_(location), descriptor_(descriptor) {}
    ~TemporaryReport() {
        if (!kept_) unlink();
        close();
    }
    TemporaryReport(const TemporaryReport&) = delete;
    TemporaryReport& operator=(const TemporaryReport&) = delete;

    int descriptor() const { return descriptor_; }
    void close() {
        if (descriptor_ >= 0) platform().files.close(descriptor_);
        descriptor_ = -1;
    }
    void unlink() {
        // Ignored: what can't be unlinked is left in tmp, which is emptied before the daemon starts.
        (void)platform().files.unlinkFile(location_);
        kept_ = true;
    }
    void keep() { kept_ = true; }

private:
    FileLocation location_;
    int descriptor_;
    bool kept_ = false;
};

}  // namespace

bool QXProcessInfo::saveSwivexForService(std::string_view service, std::string_view reason, std::uint64_t threadID,
                                         std::uint64_t startTime, std::uint64_t endTime) {
    Files& files = platform().files;
    const std::string fileName =
        formatText("%@-%@-%@.%s", service, processName_,
                   serviceState().reportDateFormatter->format(platform().wallClock.now()), kExtension);
    const FileLocation temporary{kTemporaryDirectory, fileName};
    const FileLocation final{kSpoolDirectory, fileName};
    const std::string temporaryPath = formatText("%s/%@", kTemporaryDirectory, fileName);
    const std::string finalPath = formatText("%s/%@", kSpoolDirectory, fileName);

    quorvixLog().info("%@: Attempting to save swivex at %@", processName_, temporaryPath);
    const auto created = files.createFile(temporary, kReportMode, kProtectionClass);
    if (!created) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "no-file")
            .standard("%@: Could not create file - won't take a swivex: %@ %s", processName_, temporaryPath,
                      created.error());
        return false;
    }
    TemporaryReport report(temporary, *created);

    const JsonObject info{
        {"Reason", reason},
        {"ServiceName", service},
        {"ProcessPath", processPath_},
        {"PID", pid_},
        {"ThreadID", static_cast<std::int64_t>(threadID)},
        {"StartTime", static_cast<std::int64_t>(startTime)},
        {"EndTime", static_cast<std::int64_t>(endTime)},
    };
    const auto json = platform().json.serialise(info);
    if (!json) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "no-reason")
            .standard("%@: Unable to serialize Info Dict into JSON: %@ - %@\n", processName_, info, json.error());
        return false;
    }
    const auto text = platform().json.makeText(*json);
    if (!text) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "no-reason")
            .standard("%@: Unable to create UTF8 string from JSON: %@\n", processName_, info);
        return false;
    }
    const bool written = hangState().traceLibrary.writeSwivexData(report.descriptor(), startTime, endTime, *text);
    report.close();
    if (!written) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "no-trace")
            .standard("%@: Unable to save swivex data to file.\n", processName_);
        return false;
    }
    quorvixLog().info("%@: Moving swivex to spool: %@\n", processName_, finalPath);
    if (const auto moved = files.moveFile(temporary, final); !moved) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "not-moved")
            .standard("%@: Unable to move swivex to final path: %@", processName_, moved.error());
        report.unlink();
    } else {
        // The line before the move is not yet a report in its place.
        platformLog().about(LogEventKind::reportWritten).info("Report written: %@", finalPath);
    }
    report.keep();
    // Also when the move failed: the trace was taken, and that is what the credits pay for.
    return true;
}

}  // namespace quorvix
