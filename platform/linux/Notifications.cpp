#include "platform/linux/Notifications.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/linux/Descriptor.h"
#include "platform/linux/FileName.h"
#include "platform/linux/Folders.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

namespace {

using std::chrono::seconds;

// Closing after a write, not the write: one post would be two events otherwise.
constexpr std::uint32_t kWatchedEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t kPosted = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// What one turn of the queue reads at most, so that a storm of posts does not keep its other work waiting.
constexpr int kReadsPerTurn = 16;
constexpr std::size_t kReadBytes = 4096;

constexpr seconds kFirstRetry{1};
constexpr seconds kLongestRetry{60};

// Makes the file that a program posts to. Opened for reading: closing it is no post.
Result<void> createFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) {
        if (errno == EEXIST) return {};
        return ErrorCode{errno};
    }
    if (::fchmod(file.get(), 0644) != 0) return ErrorCode{errno};
    return {};
}

}  // namespace

struct LinuxNotificationService::Counters {
    std::atomic<std::uint64_t> deliveries{0};
    std::atomic<std::uint64_t> overflows{0};
    std::atomic<std::uint64_t> folderLosses{0};
    std::atomic<std::uint64_t> registrationFailures{0};
};

// The folder as one queue sees it.
class LinuxNotificationService::FolderWatch : public std::enable_shared_from_this<FolderWatch> {
public:
    struct Listener {
        std::string name;
        Work handler;
    };

    FolderWatch(const LogHandle& log, std::string folder, std::shared_ptr<WorkQueue> queue,
                std::shared_ptr<Counters> counters)
        : log_(log), folder_(std::move(folder)), queue_(std::move(queue)), counters_(std::move(counters)) {}

    Result<void> open() {
        inotify_ = Descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!inotify_) return ErrorCode{errno};
        if (Result<void> watched = watchFolder(); !watched) return watched;
        // The service owns this object as long as the watch can call it.
        watch_ = LinuxWorkQueue::from(*queue_).watchDescriptor(inotify_.get(), EPOLLIN,
                                                               [this](std::uint32_t) { readEvents(); });
        if (!watch_) return ErrorCode{errno};
        return {};
    }

    void add(const std::shared_ptr<Listener>& listener) {
        listeners_.push_back(listener);
        createFileFor(listener->name);
    }

    const WorkQueue* queue() const { return queue_.get(); }

private:
    // What one turn learned from the kernel.
    struct News {
        std::vector<std::string> posted;  // each name once, in the order they came
        bool lost = false;
        bool folderGone = false;

        void add(const char* name) {
            if (std::find(posted.begin(), posted.end(), name) == posted.end()) posted.emplace_back(name);
        }
    };

    Result<void> watchFolder() {
        if (Result<void> made = makeFolders(folder_, 0755); !made) return made;
        folderWatch_ = ::inotify_add_watch(inotify_.get(), folder_.c_str(), kWatchedEvents);
        if (folderWatch_ < 0) return ErrorCode{errno};
        return {};
    }

    void readEvents() {
        const auto self = shared_from_this();
        News news;
        alignas(inotify_event) char buffer[kReadBytes];
        for (int reads = 0; reads < kReadsPerTurn; ++reads) {
            const ssize_t count = ::read(inotify_.get(), buffer, sizeof buffer);
            if (count <= 0) break;
            for (ssize_t at = 0; at < count;) {
                inotify_event event;
                std::memcpy(&event, buffer + at, sizeof event);
                note(event, buffer + at + sizeof event, news);
                at += static_cast<ssize_t>(sizeof event + event.len);
            }
        }
        if (news.lost) {
            ++counters_->overflows;
            log_.standard("notifications were lost by the kernel: all are delivered");
        }
        // Before the delivery: what is posted meanwhile must find the folder watched.
        if (news.folderGone) watchFolderAgain();
        if (news.lost) {
            deliverAll();
        } else {
            for (const std::string& name : news.posted) deliver(name);
        }
    }

    void note(const inotify_event& event, const char* name, News& news) const {
        if (event.mask & IN_Q_OVERFLOW) {
            news.lost = true;
        } else if (event.wd != folderWatch_) {
            // Of a folder that is no longer ours.
        } else if (event.mask & kFolderGone) {
            news.folderGone = true;
        } else if ((event.mask & kPosted) && event.len > 0) {
            news.add(name);
        }
    }

    void watchFolderAgain() {
        ++counters_->folderLosses;
        // It may only have been moved away, and would go on sending its events.
        ::inotify_rm_watch(inotify_.get(), folderWatch_);
        folderWatch_ = -1;
        retry_ = kFirstRetry;
        tryToWatchAgain();
    }

    void tryToWatchAgain() {
        const Result<void> watched = watchFolder();
        if (!watched) {
            if (retry_ == kFirstRetry) log_.standard("%@: can't be watched: %@", folder_, watched.error());
            queue_->asyncAfter(retry_, [weak = weak_from_this()] {
                if (const auto self = weak.lock()) self->tryToWatchAgain();
            });
            retry_ = std::min(2 * retry_, kLongestRetry);
            return;
        }
        log_.standard("%@: was gone, is watched again", folder_);
        for (const auto& listener : living()) createFileFor(listener->name);
        // Posts may have come and gone unseen.
        deliverAll();
    }

    void createFileFor(const std::string& name) {
        const Result<void> created = createFile(folder_ + "/" + name);
        // Not needed for the delivery: a post creates its file.
        if (!created) log_.standard("%@/%@: can't be created: %@", folder_, name, created.error());
    }

    std::vector<std::shared_ptr<Listener>> living() {
        std::erase_if(listeners_, [](const auto& weak) { return weak.expired(); });
        std::vector<std::shared_ptr<Listener>> held;
        for (const auto& weak : listeners_) held.push_back(weak.lock());
        return held;
    }

    template <class Wanted>
    void deliverTo(Wanted wanted) {
        std::vector<std::weak_ptr<Listener>> chosen;
        for (const auto& listener : living()) {
            if (wanted(*listener)) chosen.push_back(listener);
        }
        for (const auto& weak : chosen) {
            // A handler before this one may have dropped it.
            const std::shared_ptr<Listener> listener = weak.lock();
            if (!listener) continue;
            ++counters_->deliveries;
            listener->handler();
        }
    }
    void deliver(const std::string& name) {
        deliverTo([&](const Listener& listener) { return listener.name == name; });
    }
    void deliverAll() {
        deliverTo([](const Listener&) { return true; });
    }

    const LogHandle log_;
    const std::string folder_;
    const std::shared_ptr<WorkQueue> queue_;
    const std::shared_ptr<Counters> counters_;
    Descriptor inotify_;
    int folderWatch_ = -1;
    seconds retry_ = kFirstRetry;
    std::vector<std::weak_ptr<Listener>> listeners_;
    // After the descriptor that it watches: it must go first.
    std::unique_ptr<DescriptorWatch> watch_;
};

namespace {

// Owns what it keeps alive.
template <class Listener>
class Token : public NotificationToken {
public:
    explicit Token(std::shared_ptr<Listener> listener) : listener_(std::move(listener)) {}

private:
    std::shared_ptr<Listener> listener_;
};

}  // namespace

LinuxNotificationService::LinuxNotificationService(SystemLog& log, std::string folder)
    : log_(log, "com.norvane.quorvix", "platform"),
      folder_(std::move(folder)),
      counters_(std::make_shared<Counters>()) {}

LinuxNotificationService::~LinuxNotificationService() = default;

std::unique_ptr<NotificationToken> LinuxNotificationService::registerHandler(std::string_view name,
                                                                             const std::shared_ptr<WorkQueue>& queue,
                                                                             Work handler) {
    const int error = fileNameError(name);
    if (error != 0) log_.standard("notification %@: %@", name, ErrorCode{error});
    auto listener =
        std::make_shared<FolderWatch::Listener>(FolderWatch::Listener{std::string(name), std::move(handler)});
    const auto add = [this, queue](const std::shared_ptr<FolderWatch::Listener>& added) {
        FolderWatch* const watch = watchOn(queue);
        if (watch) watch->add(added);
        if (!watch) ++counters_->registrationFailures;
        return watch != nullptr;
    };
    if (error != 0) {
        ++counters_->registrationFailures;
        return nullptr;
    }
    if (LinuxWorkQueue::from(*queue).mayUseSources()) {
        if (!add(listener)) return nullptr;
    } else {
        // A folder that can't be watched shows in the log and in the count only.
        queue->async([add, weak = std::weak_ptr(listener)] {
            if (const auto living = weak.lock()) add(living);
        });
    }
    return std::make_unique<Token<FolderWatch::Listener>>(std::move(listener));
}

LinuxNotificationService::FolderWatch* LinuxNotificationService::watchOn(const std::shared_ptr<WorkQueue>& queue) {
    const std::lock_guard lock(mutex_);
    for (const auto& watch : watches_) {
        if (watch->queue() == queue.get()) return watch.get();
    }
    auto watch = std::make_shared<FolderWatch>(log_, folder_, queue, counters_);
    if (const Result<void> opened = watch->open(); !opened) {
        log_.standard("%@: notifications can't be watched: %@", folder_, opened.error());
        return nullptr;
    }
    watches_.push_back(std::move(watch));
    return watches_.back().get();
}

JsonObject LinuxNotificationService::selfCounters() const {
    return {{"deliveries", counters_->deliveries.load()},
            {"overflows", counters_->overflows.load()},
            {"folderLosses", counters_->folderLosses.load()},
            {"registrationFailures", counters_->registrationFailures.load()}};
}

Result<void> postNotification(const std::string& folder, std::string_view name) {
    if (const int error = fileNameError(name); error != 0) return ErrorCode{error};
    if (Result<void> made = makeFolders(folder, 0755); !made) return made;
    const std::string path = folder + "/" + std::string(name);
    // Made first, so that its mode does not depend on who posts first.
    if (Result<void> created = createFile(path); !created) return created;
    // Not waiting: a pipe that someone put there would block the poster for good.
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) return ErrorCode{errno};
    if (::write(file.get(), "\n", 1) != 1) return ErrorCode{errno};
    return {};
}

}  // namespace quorvix::linuxos
