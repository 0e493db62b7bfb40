#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "platform/Notifications.h"
#include "platform/Result.h"
#include "platform/SystemLog.h"

namespace quorvix::linuxos {

inline constexpr std::string_view kNotificationFolder = "/run/vex/notify";

// Posts a notification: writes a byte to `<folder>/<name>`, which is created where it is missing, and the folder with
// it. Whoever watches the folder gets it once. ENOENT, EINVAL, EISDIR, ENAMETOOLONG: not a name.
Result<void> postNotification(const std::string& folder, std::string_view name);

// Notifications as files of one folder: a post is a file closed after writing, or moved there; so `touch`, `echo` and
// postNotification are one post each. The files belong to root and are readable by all.
//
// One inotify descriptor for each queue that handlers run on, watched by that queue: handlers are called from there.
// A registration from elsewhere than its queue begins with that queue's next turn; it is dropped on its queue, or
// before the main thread was given away. When the kernel lost posts, and after the folder was gone and is there again,
// every handler runs: better once too often than never. The service outlives its queues' threads.
class LinuxNotificationService final : public NotificationService {
public:
    explicit LinuxNotificationService(SystemLog& log, std::string folder = std::string(kNotificationFolder));
    ~LinuxNotificationService() override;

    std::unique_ptr<NotificationToken> registerHandler(std::string_view name, const std::shared_ptr<WorkQueue>& queue,
                                                       Work handler) override;

    // Callable from any thread.
    JsonObject selfCounters() const;

private:
    class FolderWatch;
    struct Counters;

    FolderWatch* watchOn(const std::shared_ptr<WorkQueue>& queue);

    LogHandle log_;
    std::string folder_;
    std::shared_ptr<Counters> counters_;
    std::mutex mutex_;  // guards what follows: queues register on their own threads
    std::vector<std::shared_ptr<FolderWatch>> watches_;
};

}  // namespace quorvix::linuxos
