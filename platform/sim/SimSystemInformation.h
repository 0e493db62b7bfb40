#pragma once

#include "platform/KernelMemory.h"

namespace quorvix::sim {

// The device's version record and model as a test sets them. One thread.
class SimSystemInformation : public SystemInformation {
public:
    SystemVersion record{.productName = "Corvel OS", .productVersion = "9.3", .buildVersion = "13E230"};
    std::string machineName = "Corvel7,1";

    SystemVersion version() override { return record; }
    std::string machine() override { return machineName; }
};

}  // namespace quorvix::sim
