#pragma once

#include <span>
#include <string_view>

namespace quorvix::ctl {

enum class PreferenceKind { boolean, integer32, unsigned32, real, text };

// One preference key that the daemon reads or writes.
struct KnownPreference {
    std::string_view key;
    std::string_view domain;
    PreferenceKind kind;
    // What the daemon does while the key is absent.
    std::string_view whenAbsent;
    // What holds where the key was absent from the daemon's start on.
    std::string_view initially;
    std::string_view meaning;
    // The managed profile may decide it.
    bool managed = false;
};

inline constexpr std::string_view kDefaultDomain = "com.norvane.da";
inline constexpr std::string_view kActivationDomain = "com.norvane.quorvix";

// Every known key, in the order the daemon reads them.
std::span<const KnownPreference> knownPreferences();
// nullptr: not a key of the daemon's.
const KnownPreference* findKnownPreference(std::string_view key);

}  // namespace quorvix::ctl
