#pragma once

#include <string>

#include "simulate/Trace.h"

namespace quorvix::simulate {

// What a checker does where something does not hold.
inline void require(bool holds, const char* what) {
    if (!holds) throw Mismatch{std::string("checker: ") + what};
}

}  // namespace quorvix::simulate
