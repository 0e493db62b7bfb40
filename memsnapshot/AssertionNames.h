#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/TextFormat.h"

namespace quorvix {

// Assertion reasons by bit. The table is shared with those who take assertions: entries are only ever added.
inline constexpr std::array<const char*, 27> kAssertionNames = {
    "Audio",
    "Location",
    "Accessory",
    "Bg_Finish_Task",
    "Bluetooth",
    "Network_Auth",
    "Bg_UI",
    "InterApp_Audio",
    "Bg_Resume",
    "Bg_Suspend",
    "Bg_Transient_Wakeup",
    "Bg_Periodic_Task",
    "Bg_Finish_Task_Unbounded",
    "Bg_Continuous",
    "Bg_Download",
    "Newsstand_Download",
    "Foreground",
    "ViewService",
    "Bg_Content_Fetch",
    "Notification_Handling",
    "Bg_Finish_Task_Aft_Bg_Content_Fetch",
    "Bg_Finish_Task_Aft_Bg_Download",
    "Bg_Finish_Task_Aft_Periodic_Task",
    "Finish_Task_Aft_Notification",
    "VoIP",
    "Extension",
    "Continuity",
};

inline std::string assertionName(std::uint32_t bit) {
    if (bit < kAssertionNames.size()) return kAssertionNames[bit];
    return formatText("UnknownAssertion_%d", static_cast<std::int32_t>(bit));
}

}  // namespace quorvix
