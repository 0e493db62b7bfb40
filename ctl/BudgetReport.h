#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace quorvix::ctl {

// The part of the daemon's state that is about report credits, as a page to read and as JSON. What the daemon does not
// give (an older one) reads as unknown. Precondition: an object.
std::string budgetReport(const nlohmann::ordered_json& state);
nlohmann::ordered_json budgetJson(const nlohmann::ordered_json& state);

}  // namespace quorvix::ctl
