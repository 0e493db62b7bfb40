#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/KnownPreferences.h"
#include "ctl/ToolServices.h"
#include "platform/PropertyList.h"

namespace quorvix::ctl {

// What the daemon asks for a value, in this order; the fallback is what holds when neither answers.
enum class PreferenceDecider { profile, store, fallback };

// One preference as the daemon takes it at its next refresh.
struct PreferenceOrigin {
    const KnownPreference* known = nullptr;
    PreferenceDecider decider = PreferenceDecider::fallback;
    // As the daemon reads it: a number stored for a switch is true or false here.
    std::string value;
    // The profile decides, so that what is stored has no effect.
    bool locked = false;
    // What an operator may not expect: a value that was passed over.
    std::string remark;
};

PreferenceOrigin originOf(const KnownPreference& known, const PropertyListDictionary& stored,
                          const PropertyListDictionary& profile);

// Empty where there is none; where it can't be read too, and that is said.
PropertyListDictionary readManagedProfile(const ToolServices& services);

std::string_view deciderName(PreferenceDecider decider);
std::string originsTable(const std::vector<PreferenceOrigin>& origins);
nlohmann::ordered_json originsJson(const std::vector<PreferenceOrigin>& origins);

}  // namespace quorvix::ctl
