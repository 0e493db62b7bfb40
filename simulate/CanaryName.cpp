#include "simulate/CanaryName.h"

namespace quorvix::simulate {

std::string_view canaryName() { return QUORVIX_CANARY; }

}  // namespace quorvix::simulate
