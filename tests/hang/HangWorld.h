#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "hang/HangDisplay.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {

// A device whose daemon runs, with short words for what tests of hangs say often. Apps are called "Mail", pid 412,
// unless a test says otherwise.
class HangWorld : public DaemonWorld {
protected:
    using Lines = std::vector<std::string>;
    using Counted = std::vector<sim::CounterOperation>;

    static constexpr std::int32_t kPid = 412;
    static constexpr std::string_view kMailPath = "/Applications/Mail.app/Mail";

    using DaemonWorld::DaemonWorld;

    // Every line since the log was cleared, with its level: "info: text". Lines of our own begin with their category;
    // the one of every report that came into its place is left out (LogEventsTest looks at it).
    Lines lines() {
        static constexpr const char* kLevels[] = {"default: ", "info: ", "debug: "};
        Lines found;
        for (const auto& line : device.log.lines()) {
            if (line.category == "platform" && line.text.starts_with("Report written: ")) continue;
            const std::string category = line.category.empty() ? "" : line.category + " ";
            found.push_back(category + kLevels[static_cast<std::size_t>(line.level)] + line.text);
        }
        return found;
    }
    // The lines that `act` writes.
    template <class Act>
    Lines linesOf(Act act) {
        device.log.clear();
        act();
        return lines();
    }
    // What `act` asks of the counters.
    template <class Act>
    Counted countedBy(Act act) {
        const std::size_t before = device.counters.operations().size();
        act();
        const auto& all = device.counters.operations();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }

    // Watches an app and gives its record. It is held by the registry alone.
    QXProcessInfo& watchedRecord(std::int32_t pid = kPid, std::string path = std::string(kMailPath)) {
        (void)watch(pid, std::move(path));
        device.log.clear();
        return *QXProcessInfo::processForPid(pid);
    }
    // A hang of `durationMs` that ends at tick 1,000,000.
    void recordHang(QXProcessInfo& process, std::string_view name, std::uint64_t durationMs = 6000,
                    bool saveSwivex = true) {
        process.recordHang(name, 77, 1'000'000 - durationMs, 1'000'000, saveSwivex);
    }
    // The daemon's view of a client's memory.
    SharedMemoryMapping mapped(const std::shared_ptr<sim::SimSharedMemory>& memory) {
        memories_.push_back(memory);
        return memory->map();
    }
    std::shared_ptr<QXProcessInfo> startWatching(std::int32_t pid, const SharedMemoryMapping& mapping) {
        return QXProcessInfo::startWatchingPid(pid, mapping.address, mapping.length);
    }
    // Credits as a table, so that a whole one is compared.
    std::map<std::string, std::uint32_t> appCredits() const {
        return {hangState().appCredits.begin(), hangState().appCredits.end()};
    }
    std::vector<std::int32_t> watchedPids() const {
        std::vector<std::int32_t> pids;
        for (const auto& process : hangState().watchedProcesses) pids.push_back(process->pid());
        return pids;
    }

    static std::string inTmp(std::string_view name) { return std::string(kTmp) + "/" + std::string(name); }
    static std::string inSpool(std::string_view name) { return std::string(kSpool) + "/" + std::string(name); }

private:
    std::vector<std::shared_ptr<sim::SimSharedMemory>> memories_;
};

}  // namespace quorvix::test
