#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quorvix {

// One client process whose main thread is watched for hangs, and on its class side the registry of all of them and the
// report credits. Lives on daemonQueue. A record owns its mapping of the client's hang channel and is kept by the
// registry and by whatever still works on it (a delayed fence capture outlives the registry entry). It never trusts the
// region: the client writes it at any time.
class QXProcessInfo : public std::enable_shared_from_this<QXProcessInfo> {
public:
    // Registry.

    // Nothing when the pid is already watched (the mapping is then untouched) or the record could not be made.
    static std::shared_ptr<QXProcessInfo> startWatchingPid(std::int32_t pid, void* sharedMem, std::uint64_t length);
    // Silent when the pid is not watched.
    static void stopWatchingPid(std::int32_t pid);
    static void stopWatchingAllPids();
    static std::shared_ptr<QXProcessInfo> processForPid(std::int32_t pid);
    // One of all watched processes, each as likely: a fence hang carries no pid. Nothing when none is watched.
    static std::shared_ptr<QXProcessInfo> processForFenceHangs();
    // now: ticks.
    static void checkForHangTimeouts(std::uint64_t now);

    // Report credits, class side.

    static bool checkDailyCredit();
    static void deductDailyCredit();
    static void replenishAppCredits();
    static void resetDailyLogCredits();
    static void setMaxDailyLogs(std::int32_t newLimit);

    // Instances.

    // Validates the region and names the process. On failure nothing, and the region is unmapped unless it was the
    // process's path that could not be found.
    static std::shared_ptr<QXProcessInfo> initWithPid(std::int32_t pid, void* sharedMem, std::uint64_t length);
    ~QXProcessInfo();
    QXProcessInfo(const QXProcessInfo&) = delete;
    QXProcessInfo& operator=(const QXProcessInfo&) = delete;

    // Looks at every slot and records the first hang, if any: at most one a check. now: ticks.
    void checkEventsForTimeouts(std::uint64_t now);

    // What a hang sets off: line, on-screen message, counter and, when asked for and within the budgets, a report.
    // Times in ticks. name has no NUL and may be any bytes.
    void recordHang(std::string_view name, std::uint64_t threadID, std::uint64_t startTime, std::uint64_t endTime,
                    bool saveSwivex);

    // Writes one report. True: the trace was taken, also when it could then not be moved to the spool.
    [[nodiscard]] bool saveSwivexForService(std::string_view service, std::string_view reason, std::uint64_t threadID,
                                            std::uint64_t startTime, std::uint64_t endTime);

    bool checkAppCredit() const;
    void deductAppCredit();
    static constexpr std::uint32_t kFullAppCredits = 4;
    // Credits left, 0..4.
    std::uint32_t appCredit() const;

    // "name(pid)".
    std::string description() const;
    std::int32_t pid() const { return pid_; }
    const std::string& processName() const { return processName_; }
    const std::string& processPath() const { return processPath_; }

private:
    QXProcessInfo() = default;

    std::uint64_t shmem_length = 0;
    void* shmem_region = nullptr;
    std::string processName_;
    std::string processPath_;
    [[maybe_unused]] std::uint64_t hangStartTime = 0;  // part of the record, used by no operation
    std::int32_t pid_ = 0;
};

// The executable's path with every byte that is not printable ASCII as "~"; nothing when the process is gone.
std::optional<std::string> processPathForPid(std::int32_t pid);

}  // namespace quorvix
