#include "service/Settings.h"

#include <optional>

#include "hang/QXProcessInfo.h"
#include "memsnapshot/MemorySnapshot.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

using namespace std::chrono_literals;

constexpr PreferenceDomain kDomain{"com.norvane.da", "mobile"};
constexpr PreferenceDomain kQuorvixDomain{"com.norvane.quorvix", "mobile"};
constexpr std::string_view kManagedProfilePath = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";

constexpr std::uint32_t kInternalSettingsVersion = 2;
constexpr TimerSchedule kHangCheckSchedule{.firstDelay = 5s, .interval = 5s, .leeway = 1s};
constexpr auto kMemoryLoggingLeeway = 1s;
// 24 hours of the 24 MHz tick clock. A raw tick count on purpose: it is not converted through msPerTick.
constexpr std::uint64_t kDailyPeriodTicks = 2073600000001;

using Value = std::optional<PropertyListValue>;

Value storeValue(std::string_view key, const PreferenceDomain& domain = kDomain) {
    return platform().preferences.value(key, domain);
}

// The managed profile decides where it holds a number for the key, the store otherwise.
Value profileOrStoreValue(const std::optional<PropertyListDictionary>& profile, std::string_view key) {
    if (profile) {
        const auto entry = profile->find(formatText("QXProfile.%@", key));
        if (entry != profile->end() && entry->second.isNumber()) return entry->second;
    }
    return storeValue(key);
}

// Values of the wrong kind read as absent.
std::optional<bool> booleanOf(const Value& value) { return value ? value->boolean() : std::nullopt; }
bool isTrue(const Value& value) { return booleanOf(value).value_or(false); }

struct PreferenceValues {
    Value enabled, reportPeriod, dailyLogLimit, enableSwivex, enableHUD, enableMemoryLogging, memoryLoggingInterval,
        enableAppActivationLogging, cpuUtilizationThreshold, maxActivationCount;
};

PreferenceValues readPreferences() {
    const auto profile = platform().propertyLists.readDictionary(kManagedProfilePath);
    platform().preferences.synchronise(kDomain);
    PreferenceValues values;
    values.enabled = profileOrStoreValue(profile, "QuorvixEnabled");
    values.reportPeriod = profileOrStoreValue(profile, "QuorvixReportPeriod");
    values.dailyLogLimit = profileOrStoreValue(profile, "QuorvixDailyLogLimit");
    values.enableSwivex = profileOrStoreValue(profile, "QuorvixEnableSwivex");
    values.enableHUD = storeValue("QuorvixEnableHUD");
    values.enableMemoryLogging = storeValue("QuorvixEnableMemoryLogging");
    values.memoryLoggingInterval = storeValue("QuorvixMemoryLoggingInterval");
    values.enableAppActivationLogging = storeValue("QuorvixEnableAppActivationLogging", kQuorvixDomain);
    values.cpuUtilizationThreshold = storeValue("QuorvixAppActivationLoggingCPUUtilizationThreshold");
    values.maxActivationCount = storeValue("QuorvixAppActivationLoggingMaxActivationCount");
    return values;
}

void switchMemoryLogging(bool on) {
    Settings& current = settings();
    current.memoryLoggingEnabled = on;
    if (!on) {
        quorvixLog().info("refreshPreferences: Memory Logging Disabled");
        current.memoryLoggingTimer.reset();
        return;
    }
    quorvixLog().info("refreshPreferences: Memory Logging Enabled");
    if (current.memoryLoggingTimer) return;
    current.memoryLoggingTimer = daemonQueue().makeTimer(takeMemorySnapshot);
    scheduleMemoryLoggingTimer();
    current.memoryLoggingTimer->start();
}

void switchHangTracing(bool on) {
    Settings& current = settings();
    if (!on) {
        quorvixLog().info("refreshPreferences: Hang Tracing Disabled");
        QXProcessInfo::stopWatchingAllPids();
        current.hangTracingEnabled = false;
        current.hangCheckTimer.reset();
        return;
    }
    quorvixLog().info("refreshPreferences: Hang Tracing Enabled");
    current.hangTracingEnabled = true;
    if (current.hangCheckTimer) return;
    current.hangCheckTimer = daemonQueue().makeTimer(hangCheckTick);
    current.hangCheckTimer->schedule(kHangCheckSchedule);
    current.hangCheckTimer->start();
}

void applyMemoryLoggingInterval(const Value& value) {
    const auto seconds = value ? value->uint32() : std::nullopt;
    if (!seconds || *seconds == settings().memoryLoggingInterval) return;
    settings().memoryLoggingInterval = *seconds;
    scheduleMemoryLoggingTimer();
    quorvixLog().info("refreshPreferences: change memoryLoggingInterval to %u", *seconds);
}

void applyReportPeriod(const Value& value) {
    const auto seconds = value ? value->single() : std::nullopt;
    if (!seconds) return;
    settings().reportPeriodTicks = saturated<std::uint64_t>(static_cast<double>(*seconds) * 1000.0 / msPerTick());
    quorvixLog().info("refreshPreferences: QuorvixReportPeriod = %d", *value->int32());
}

void applyDailyLogLimit(const Value& value) {
    const auto limit = value ? value->int32() : std::nullopt;
    if (!limit) return;
    QXProcessInfo::setMaxDailyLogs(*limit);
    quorvixLog().info("refreshPreferences: QuorvixDailyLogLimit = %d", *limit);
}

void applyActivationLogging(const PreferenceValues& values) {
    Settings& current = settings();
    current.appActivationLoggingEnabled = isTrue(values.enableAppActivationLogging);
    if (current.appActivationLoggingEnabled) {
        quorvixLog().info("refreshPreferences: App Activation Logging Enabled");
    } else {
        quorvixLog().info("refreshPreferences: App Activation Logging Disabled");
    }
    if (const auto count = values.maxActivationCount ? values.maxActivationCount->uint32() : std::nullopt) {
        current.maxActivationCount = *count;
        quorvixLog().info("refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = %d",
                          static_cast<std::int32_t>(*count));
    }
    const auto threshold = values.cpuUtilizationThreshold ? values.cpuUtilizationThreshold->real() : std::nullopt;
    if (threshold && *threshold > 0.0) {
        current.cpuUtilizationThreshold = *threshold;
        quorvixLog().info("refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = %f", *threshold);
    }
}

}  // namespace

void checkPreferences() {
    settings().internalBuild = platform().capabilities.booleanAnswer("InternalBuild");
    if (!settings().internalBuild) return;

    PreferencesStore& store = platform().preferences;
    if (!isTrue(storeValue("QuorvixInternalSettingCreated"))) {
        quorvixLog().info("checkPreferences: Internal install, force enabled.");
        store.setValue("QuorvixEnabled", true, kDomain);
        store.setValue("QuorvixInternalSettingCreated", true, kDomain);
    }
    // A version of the wrong kind is present and not 2. "QuorvixDuration" goes only where there is no version at all:
    // an install that already carries another number has had its own migration, which may have kept the key.
    const Value version = storeValue("QuorvixInternalSettingsVersion");
    if (!version) store.setValue("QuorvixDuration", std::nullopt, kDomain);
    if (!version || version->uint32() != kInternalSettingsVersion) {
        store.setValue("QuorvixInternalSettingsVersion", std::int64_t{kInternalSettingsVersion}, kDomain);
    }
    if (!booleanOf(storeValue("QuorvixEnableSwivex"))) store.setValue("QuorvixEnableSwivex", true, kDomain);
    store.setValue("QuorvixEnableMemoryLogging", true, kDomain);
    store.synchronise(kDomain);
}

void refreshPreferences() {
    const PreferenceValues values = readPreferences();
    Settings& current = settings();

    switchMemoryLogging(isTrue(values.enableMemoryLogging));
    applyMemoryLoggingInterval(values.memoryLoggingInterval);
    switchHangTracing(isTrue(values.enabled));
    if (const auto hud = booleanOf(values.enableHUD)) {
        current.hudEnabled = *hud;
        quorvixLog().info("refreshPreferences: QuorvixEnableHUD: %d", *hud);
    }
    applyReportPeriod(values.reportPeriod);
    applyDailyLogLimit(values.dailyLogLimit);
    current.swivexEnabled = isTrue(values.enableSwivex);
    quorvixLog().info("refreshPreferences: QuorvixEnableSwivex = %d", current.swivexEnabled);
    applyActivationLogging(values);

    if (!current.hangTracingEnabled && !current.memoryLoggingEnabled && !current.appActivationLoggingEnabled) {
        quorvixLog().standard("quorvixd is exiting. All sources turned off");
        platform().lifecycle.exit(0);
    }
}

std::optional<std::uint64_t> ticksToCreditRefill(std::uint64_t now) {
    const Settings& current = settings();
    if (!current.hangCheckTimer) return std::nullopt;
    const std::uint64_t gone = now - current.lastCreditRefillTicks;
    const std::uint64_t quarter = current.reportPeriodTicks >> 2;
    return gone > quarter ? 0 : quarter - gone + 1;
}

std::optional<std::uint64_t> ticksToDailyReset(std::uint64_t now) {
    const Settings& current = settings();
    if (!current.hangCheckTimer) return std::nullopt;
    // The first tick begins the day.
    if (current.dailyPeriodStartTicks == 0) return kDailyPeriodTicks;
    const std::uint64_t gone = now - current.dailyPeriodStartTicks;
    return gone < kDailyPeriodTicks ? kDailyPeriodTicks - gone : 0;
}

void scheduleMemoryLoggingTimer() {
    if (!settings().memoryLoggingTimer) return;
    const std::chrono::seconds interval(settings().memoryLoggingInterval);
    settings().memoryLoggingTimer->schedule(
        {.firstDelay = interval, .interval = interval, .leeway = kMemoryLoggingLeeway});
}

void hangCheckTick() {
    Settings& current = settings();
    const std::uint64_t now = platform().tickClock.now();
    if (now - current.lastCreditRefillTicks > current.reportPeriodTicks >> 2) {
        QXProcessInfo::replenishAppCredits();
        current.lastCreditRefillTicks = now;
    }
    const bool dayRuns = current.dailyPeriodStartTicks != 0 && now - current.dailyPeriodStartTicks < kDailyPeriodTicks;
    if (!dayRuns) {
        if (current.dailyPeriodStartTicks != 0) QXProcessInfo::resetDailyLogCredits();
        current.dailyPeriodStartTicks = now;
    }
    QXProcessInfo::checkForHangTimeouts(now);
}

}  // namespace quorvix
