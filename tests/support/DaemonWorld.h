#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "perfstats/PerfState.h"
#include "platform/sim/SimPlatform.h"
#include "platform/swivex.h"
#include "service/Service.h"
#include "service/ServiceState.h"

namespace quorvix::test {

inline constexpr PreferenceDomain kDaemonDomain{"com.norvane.da", "mobile"};
inline constexpr PreferenceDomain kQuorvixDomain{"com.norvane.quorvix", "mobile"};
inline constexpr std::string_view kEndpoint = "com.norvane.quorvixd";
inline constexpr std::string_view kTraceLibraryPath = "/usr/lib/libswivex.dylib";
inline constexpr std::string_view kCaches = "/var/root/Library/Caches";
inline constexpr std::string_view kTmp = "/var/root/Library/Caches/quorvixd/tmp";
inline constexpr std::string_view kSpool = "/var/root/Library/Caches/quorvixd/spool";
inline constexpr std::string_view kManagedProfile = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";

// What the simulated trace library was asked, and how it answers.
struct TraceLibraryScript {
    struct Call {
        std::vector<std::string> keys;  // in order
        std::string reason;
        std::optional<bool> noSymbolicate;
        std::optional<std::uint64_t> minTimestamp;
        std::optional<std::uint64_t> maxTimestamp;
    };
    bool succeeds = true;
    std::string writes = "trace";
    std::vector<Call> calls;
};

inline TraceLibraryScript traceLibrary;

namespace trace_library_keys {
inline const char* reason = "reason-key";
inline const char* noSymbolicate = "no-symbolicate-key";
inline const char* minTimestamp = "min-key";
inline const char* maxTimestamp = "max-key";
}  // namespace trace_library_keys

inline bool dumpTrace(int fd, const swivex_options* options) {
    TraceLibraryScript::Call call;
    for (std::size_t i = 0; i < options->count; ++i) {
        const swivex_option& option = options->options[i];
        const std::string key = option.key;
        call.keys.push_back(key);
        if (key == trace_library_keys::reason && option.type == SWIVEX_OPTION_STRING) call.reason = option.value.text;
        if (key == trace_library_keys::noSymbolicate && option.type == SWIVEX_OPTION_BOOL) {
            call.noSymbolicate = option.value.boolean;
        }
        if (key == trace_library_keys::minTimestamp && option.type == SWIVEX_OPTION_UINT64) {
            call.minTimestamp = option.value.number;
        }
        if (key == trace_library_keys::maxTimestamp && option.type == SWIVEX_OPTION_UINT64) {
            call.maxTimestamp = option.value.number;
        }
    }
    traceLibrary.calls.push_back(call);
    const ssize_t written = ::write(fd, traceLibrary.writes.data(), traceLibrary.writes.size());
    return traceLibrary.succeeds && written == static_cast<ssize_t>(traceLibrary.writes.size());
}

// A simulated device with the real daemon on it. One tick is a millisecond unless a test asks for device ticks, so
// that thresholds can be hit exactly. The subsystems' state is new for every test.
class DaemonWorld : public ::testing::Test {
protected:
    explicit DaemonWorld(TickRatio ratio = sim::SimTickClock::kMillisecondTicks) : device(ratio) {
        setPlatform(&device.services);
        resetServiceState();
        resetHangState();
        resetActivationState();
        resetPerfState();
        traceLibrary = {};
        device.files.addDirectory(kCaches);
    }
    ~DaemonWorld() override {
        // What is still queued and recorded goes while the device lives.
        registrations.reset();
        device.scheduler.dropEverything();
        resetActivationState();
        resetPerfState();
        resetHangState();
        resetServiceState();
        setPlatform(nullptr);
    }

    // Preferences as an administrator has set them, before or after the start.
    void prefer(std::string_view key, PropertyListValue value, const PreferenceDomain& domain = kDaemonDomain) {
        device.preferences.change(key, std::move(value), domain);
    }

    void installTraceLibrary() {
        device.libraries.setLibrary(kTraceLibraryPath,
                                    {{"swivex_dump_output_with_options_sync", reinterpret_cast<void*>(&dumpTrace)},
                                     {"SWXDumpOptions_ReasonString", &trace_library_keys::reason},
                                     {"SWXDumpOptions_NoSymbolicate", &trace_library_keys::noSymbolicate},
                                     {"SWXDumpOptions_MinTimestamp", &trace_library_keys::minTimestamp},
                                     {"SWXDumpOptions_MaxTimestamp", &trace_library_keys::maxTimestamp}});
    }

    // Runs the start-up and gives the main thread away. Throws sim::SimulatedExit where everything is switched off.
    void start() {
        registrations.emplace(startService());
        device.queues.giveMainThread();
        device.scheduler.runPending();
    }
    // The usual device: hang tracing and trace reports on, library there; the log is cleared after the start.
    void startWithHangTracing() {
        prefer("QuorvixEnabled", true);
        prefer("QuorvixEnableSwivex", true);
        installTraceLibrary();
        start();
        device.log.clear();
    }
    void refresh() {
        device.notifications.post("com.norvane.da.tasking_changed");
        device.scheduler.runPending();
    }

    // An app connects; its executable path exists.
    std::shared_ptr<sim::SimClient> connect(std::int32_t pid, std::string path = "/Applications/Mail.app/Mail") {
        device.processes.setExecutablePath(pid, std::move(path));
        auto client = device.messages.connect(kEndpoint, pid);
        device.scheduler.runPending();
        return client;
    }
    void send(sim::SimClient& client, sim::SimMessage message) {
        client.send(std::move(message));
        device.scheduler.runPending();
    }

    // An app that is watched, with its region.
    struct App {
        std::shared_ptr<sim::SimClient> client;
        std::shared_ptr<sim::SimSharedMemory> memory;
        quorvix_hang_channel& channel() { return memory->channel(); }
        // Its main thread begins a unit of work at this tick.
        void begin(std::size_t slot, std::uint64_t startTime, std::string_view name = "main", bool saveReport = true) {
            quorvix_hang_slot& target = channel().slots[slot];
            target.startTime = startTime;
            target.threadID = 77;
            target.saveReport = saveReport ? 1 : 0;
            std::memset(target.name, 0, sizeof target.name);
            std::memcpy(target.name, name.data(), std::min(name.size(), sizeof target.name));
            target.inactive = 0;
        }
    };
    App watch(std::int32_t pid, std::string path = "/Applications/Mail.app/Mail") {
        App app{connect(pid, std::move(path)), sim::SimSharedMemory::hangChannel(device.regions)};
        send(*app.client,
             sim::SimMessage{}.int64("command", 1).sharedMemory("shmem", app.memory).string("name", "app"));
        return app;
    }

    std::uint64_t now() { return device.tickClock.now(); }
    void advanceMs(std::int64_t ms) { device.scheduler.advance(std::chrono::milliseconds(ms)); }
    std::vector<std::string> texts() { return device.log.texts(); }
    std::size_t countText(std::string_view text) {
        std::size_t count = 0;
        for (const std::string& line : texts()) count += line == text;
        return count;
    }
    bool hasText(std::string_view text) { return countText(text) > 0; }
    // The level of the first line with this text; fails the test where there is none.
    LogLevel levelOf(std::string_view text) {
        for (const auto& line : device.log.lines()) {
            if (line.text == text && line.category.empty()) return line.level;
        }
        ADD_FAILURE() << "no line: " << text;
        return LogLevel::standard;
    }

    sim::SimPlatform device;
    std::optional<ServiceRegistrations> registrations;
};

}  // namespace quorvix::test
