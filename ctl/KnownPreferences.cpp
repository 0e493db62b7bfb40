#include "ctl/KnownPreferences.h"

#include <algorithm>

namespace quorvix::ctl {

namespace {

constexpr KnownPreference kKnown[] = {
    {"QuorvixEnabled", kDefaultDomain, PreferenceKind::boolean, "false", "false", "hang tracing", true},
    {"QuorvixReportPeriod", kDefaultDomain, PreferenceKind::real, "unchanged", "3600",
     "report period in seconds; credits come back every quarter of it", true},
    {"QuorvixDailyLogLimit", kDefaultDomain, PreferenceKind::integer32, "unchanged", "25", "hang reports a day", true},
    {"QuorvixEnableSwivex", kDefaultDomain, PreferenceKind::boolean, "false", "false",
     "hang reports with a system trace", true},
    {"QuorvixEnableHUD", kDefaultDomain, PreferenceKind::boolean, "unchanged", "false", "hang notice on the screen"},
    {"QuorvixEnableMemoryLogging", kDefaultDomain, PreferenceKind::boolean, "false", "false", "memory snapshots"},
    {"QuorvixMemoryLoggingInterval", kDefaultDomain, PreferenceKind::unsigned32, "unchanged", "3600",
     "seconds between memory snapshots"},
    {"QuorvixEnableAppActivationLogging", kActivationDomain, PreferenceKind::boolean, "false", "false",
     "app activation logging"},
    {"QuorvixAppActivationLoggingCPUUtilizationThreshold", kDefaultDomain, PreferenceKind::real, "unchanged", "50",
     "milliseconds of CPU time above which a process has its own entry; 0 and less are ignored"},
    {"QuorvixAppActivationLoggingMaxActivationCount", kDefaultDomain, PreferenceKind::unsigned32, "unchanged", "200",
     "app activations tracked at most"},
    {"QuorvixInternalSettingCreated", kDefaultDomain, PreferenceKind::boolean, "false", "false",
     "the daemon's own: defaults of an internal install were written"},
    {"QuorvixInternalSettingsVersion", kDefaultDomain, PreferenceKind::integer32, "none", "none",
     "the daemon's own: version of those defaults"},
};

}  // namespace

std::span<const KnownPreference> knownPreferences() { return kKnown; }

const KnownPreference* findKnownPreference(std::string_view key) {
    const auto* found = std::ranges::find(kKnown, key, &KnownPreference::key);
    return found == std::end(kKnown) ? nullptr : found;
}

}  // namespace quorvix::ctl
