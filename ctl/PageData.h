#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace quorvix::ctl {

// What the page of "quorvixctl report html" shows besides hangs. Each is an object that holds either what there is or,
// in words, a "problem": a page without it is still a page. Names are escaped as for a terminal.

// Launches and resumes by app with their percentiles, from the power log.
nlohmann::ordered_json launchData(const std::string& powerLogPath);

// The device's memory over time, from the snapshot reports in a folder: sums, and what grew from the first to the last
// of them.
nlohmann::ordered_json memoryData(const std::string& folder);

// So many snapshots are looked at, the newest: two weeks of one an hour.
inline constexpr std::size_t kMostSnapshots = 336;
// So many names that grew are shown of each kind.
inline constexpr std::size_t kMostGrown = 12;

}  // namespace quorvix::ctl
