#include "ctl/KnownPreferences.h"

#include <algorithm>

namespace quorvix::ctl {

namespace {

constexpr KnownPreference kKnown[] = {
    {"QuorvixEnabled", kDefaultDomain, PreferenceKind::boolean, "false", "hang tracing"},
    {"QuorvixReportPeriod", kDefaultDomain, PreferenceKind::real, "unchanged",
     "report period in seconds; credits come back every quarter of it"},
    {"QuorvixDailyLogLimit", kDefaultDomain, PreferenceKind::integer32, "unchanged", "hang reports a day"},
    {"QuorvixEnableSwivex", kDefaultDomain, PreferenceKind::boolean, "false", "hang reports with a system trace"},
    {"QuorvixEnableHUD", kDefaultDomain, PreferenceKind::boolean, "unchanged", "hang notice on the screen"},
    {"QuorvixEnableMemoryLogging", kDefaultDomain, PreferenceKind::boolean, "false", "memory snapshots"},
    {"QuorvixMemoryLoggingInterval", kDefaultDomain, PreferenceKind::unsigned32, "unchanged",
     "seconds between memory snapshots"},
    {"QuorvixEnableAppActivationLogging", kActivationDomain, PreferenceKind::boolean, "false",
     "app activation logging"},
    {"QuorvixAppActivationLoggingCPUUtilizationThreshold", kDefaultDomain, PreferenceKind::real, "unchanged",
     "milliseconds of CPU time above which a process has its own entry; 0 and less are ignored"},
    {"QuorvixAppActivationLoggingMaxActivationCount", kDefaultDomain, PreferenceKind::unsigned32, "unchanged",
     "app activations tracked at most"},
    {"QuorvixInternalSettingCreated", kDefaultDomain, PreferenceKind::boolean, "false",
     "the daemon's own: defaults of an internal install were written"},
    {"QuorvixInternalSettingsVersion", kDefaultDomain, PreferenceKind::integer32, "none",
     "the daemon's own: version of those defaults"},
};

}  // namespace

std::span<const KnownPreference> knownPreferences() { return kKnown; }

const KnownPreference* findKnownPreference(std::string_view key) {
    const auto* found = std::ranges::find(kKnown, key, &KnownPreference::key);
    return found == std::end(kKnown) ? nullptr : found;
}

}  // namespace quorvix::ctl
