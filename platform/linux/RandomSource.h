#pragma once

#include "platform/Services.h"

namespace quorvix::linuxos {

// The kernel's random numbers. Callable from any thread.
class LinuxRandomSource : public RandomSource {
public:
    std::uint32_t uniform(std::uint32_t bound) override;
};

}  // namespace quorvix::linuxos
