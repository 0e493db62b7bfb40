#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Preferences.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// The preferences store in memory. What is set stays staged until it is synchronised, as on disk; change() stands for
// another program that writes the list behind the daemon's back. Records every write and synchronise in order.
// Operations that can fail: "value" (reads as absent), "synchronise" (nothing is written, what was set stays set).
class SimPreferences : public PreferencesStore {
public:
    struct Call {
        enum class Kind { set, remove, synchronise };
        Kind kind;
        std::string domain;
        std::string user;
        std::string key = {};
        std::optional<PropertyListValue> value = {};
        bool operator==(const Call&) const = default;
    };

    // Another program's write: on disk at once, unseen by calls(). Nothing removes the key.
    void change(std::string_view key, std::optional<PropertyListValue> value, const PreferenceDomain& domain);
    // What is on disk, without what is only staged.
    PropertyListDictionary stored(const PreferenceDomain& domain) const;
    const std::vector<Call>& calls() const { return calls_; }
    void clearCalls() { calls_.clear(); }

    std::optional<PropertyListValue> value(std::string_view key, const PreferenceDomain& domain) override;
    void setValue(std::string_view key, std::optional<PropertyListValue> value,
                  const PreferenceDomain& domain) override;
    bool synchronise(const PreferenceDomain& domain) override;

    Faults faults;

private:
    using Name = std::pair<std::string, std::string>;
    using Staged = std::map<std::string, std::optional<PropertyListValue>, std::less<>>;

    static Name nameOf(const PreferenceDomain& domain) { return {std::string(domain.name), std::string(domain.user)}; }

    std::map<Name, PropertyListDictionary> stored_;
    std::map<Name, Staged> staged_;
    std::vector<Call> calls_;
};

}  // namespace quorvix::sim
