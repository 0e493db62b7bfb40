#pragma once

#include <array>
#include <memory>

#include "platform/MessageService.h"
#include "platform/Notifications.h"

namespace quorvix {

// What start-up holds for the whole process, in main's frame.
struct ServiceRegistrations {
    std::shared_ptr<MessageListener> listener;
    std::array<std::unique_ptr<NotificationToken>, 3> notifications;
};

// Starts the daemon, up to and with the first application of the preferences, which may end the process. The caller
// then gives the main thread to the queues for good; until it does, nothing is delivered.
[[nodiscard]] ServiceRegistrations startService();

// Makes the report directories. No failure stops start-up: later writers cope with a missing directory.
void createReportDirectories();

}  // namespace quorvix
