#pragma once

#include <string_view>

namespace quorvix::simulate {

// The rule that is broken in this program; empty in the healthy one.
std::string_view canaryName();

}  // namespace quorvix::simulate
