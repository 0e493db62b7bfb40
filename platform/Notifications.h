#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "platform/WorkQueue.h"

namespace quorvix {

// Keeps a registration alive; its destruction cancels it.
class NotificationToken {
public:
    virtual ~NotificationToken() = default;
};

// Named system-wide notifications without content. Posts that come while one of the same name waits to be delivered
// may be delivered once.
class NotificationService {
public:
    virtual ~NotificationService() = default;
    // Runs handler on `queue` after each post of `name`. nullptr: could not register (said in the log).
    [[nodiscard]] virtual std::unique_ptr<NotificationToken> registerHandler(std::string_view name,
                                                                             const std::shared_ptr<WorkQueue>& queue,
                                                                             Work handler) = 0;
};

}  // namespace quorvix
