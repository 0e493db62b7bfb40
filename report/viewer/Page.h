#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace quorvix::report {

// One page that shows this data, with everything in it that it needs: page.html with page.css, page.js and the data.
// The page forbids itself to load anything, and to run any script but its own: the styles and the script are named by
// their hashes. The data's keys are what page.js reads.
std::string viewerPage(const nlohmann::ordered_json& data);

// A JSON document that can stand within a script element of a page: plain ASCII without '<', '>' and '&', so that no
// text in it can end the element or begin another one.
std::string embeddableJson(const nlohmann::ordered_json& data);

// The page around the data, made at build time (embed.py).
extern const std::string_view kPageBeforeData;
extern const std::string_view kPageAfterData;

}  // namespace quorvix::report
