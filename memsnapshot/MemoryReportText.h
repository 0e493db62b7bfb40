#pragma once

#include <string>
#include <string_view>

#include "platform/KernelMemory.h"

namespace quorvix {

// "name version (build)"; what the system does not say is "???".
std::string systemVersionText(const SystemVersion& version);

// The whole report, asked of the platform now. Names are written as they are: the text is for people and for readers
// that cope with a name that breaks a record. timestamp: the date text.
std::string memoryReportText(std::string_view timestamp);

}  // namespace quorvix
