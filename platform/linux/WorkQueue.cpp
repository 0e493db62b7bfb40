#include "platform/linux/WorkQueue.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "platform/Check.h"
#include "platform/linux/WorkQueueTags.h"

namespace quorvix::linuxos {

namespace {

// Steps that lie within the classes by which this system tells quality of service from nice values.
int niceValue(QualityOfService quality) {
    switch (quality) {
        case QualityOfService::userInteractive: return -10;
        case QualityOfService::userInitiated: return -5;
        case QualityOfService::standard: return 0;
        case QualityOfService::utility: return 5;
        case QualityOfService::background: return 15;
    }
    return 0;
}

// All signals but those that a fault raises in the thread itself: blocked, these would end the process unheard, and
// the guarded reads of client memory live by them.
sigset_t signalsKeptFromQueues() {
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&set, fault);
    return set;
}

std::string threadName(const std::string& label) {
    const std::string::size_type dot = label.rfind('.');
    const std::string last = dot == std::string::npos ? label : label.substr(dot + 1);
    return last.substr(0, 15);  // The kernel refuses a longer name.
}

// Descriptors in one round. More may be ready: the kernel reports the others first in the next round.
constexpr int kEventsARound = 64;

void drain(int descriptor) {
    std::uint64_t count = 0;
    // Its value does not matter, and ECANCELED (the wall clock was set) is as good a reason to look at the clock.
    [[maybe_unused]] const ssize_t size = ::read(descriptor, &count, sizeof count);
}

}  // namespace

LinuxWorkQueue::LinuxWorkQueue(std::string_view label, QualityOfService quality) : label_(label), quality_(quality) {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wakeUp_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    monotonicTimer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    wallTimer_ = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
    // Queues are made at start only, and a daemon without its queues can't do anything.
    check(epoll_ >= 0 && wakeUp_ >= 0 && monotonicTimer_ >= 0 && wallTimer_ >= 0, "a queue has its descriptors");
    const std::pair<int, std::uint64_t> own[] = {
        {wakeUp_, tag::kWakeUp}, {monotonicTimer_, tag::kMonotonic}, {wallTimer_, tag::kWall}};
    for (const auto& [descriptor, tag] : own) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = tag;
        check(epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) == 0, "a queue watches its own descriptors");
    }
}

LinuxWorkQueue::~LinuxWorkQueue() {
    check(!thread_.joinable(), "a queue's thread ends before the queue");
    for (const int descriptor : {wallTimer_, monotonicTimer_, wakeUp_, epoll_}) ::close(descriptor);
}

LinuxWorkQueue& LinuxWorkQueue::from(WorkQueue& queue) {
    auto* const linuxQueue = dynamic_cast<LinuxWorkQueue*>(&queue);
    check(linuxQueue != nullptr, "Linux services run on Linux queues");
    return *linuxQueue;
}

bool LinuxWorkQueue::onQueue() const noexcept { return threadId_.load() == std::this_thread::get_id(); }

bool LinuxWorkQueue::mayUseSources() const noexcept {
    const std::thread::id thread = threadId_.load();
    return thread == std::thread::id{} || thread == std::this_thread::get_id();
}

LinuxWorkQueue::Counters LinuxWorkQueue::counters() const {
    const std::lock_guard lock(mutex_);
    return {turns_.load(std::memory_order_relaxed), pendingHighWater_,
            memoryGivenBack_.load(std::memory_order_relaxed)};
}

void LinuxWorkQueue::wakeLocked() {
    if (!asleep_) return;  // It looks at its lists before it sleeps.
    asleep_ = false;
    const std::uint64_t one = 1;
    // Fails only when the counter is full, and then the thread wakes up anyway.
    [[maybe_unused]] const ssize_t size = ::write(wakeUp_, &one, sizeof one);
}

void LinuxWorkQueue::async(Work work) {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
    pendingHighWater_ = std::max<std::uint64_t>(pendingHighWater_, posted_.size());
    wakeLocked();
}

void LinuxWorkQueue::startThread() {
    if (thread_.joinable()) return;
    sigset_t kept = signalsKeptFromQueues();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &kept, &before);
    // The thread waits for the lock, so that nothing runs before its id is known.
    const std::unique_lock lock(mutex_);
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void LinuxWorkQueue::stopThread() {
    if (!thread_.joinable()) return;
    check(!onQueue(), "a queue is not ended by its own work");
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        wakeLocked();
    }
    thread_.join();
    threadId_ = std::thread::id{};
}

void LinuxWorkQueue::dropPending() {
    // What goes may post again or cancel timers; so it goes outside the lock and until nothing is left.
    for (;;) {
        std::vector<Work> posted;
        std::array<std::vector<OneShot>, 4> oneShots;
        {
            const std::lock_guard lock(mutex_);
            posted.swap(posted_);
            oneShots[0].swap(addedMonotonic_);
            oneShots[1].swap(addedWall_);
        }
        oneShots[2].swap(monotonicOneShots_);
        oneShots[3].swap(wallOneShots_);
        const auto empty = [](const std::vector<OneShot>& list) { return list.empty(); };
        if (posted.empty() && std::all_of(oneShots.begin(), oneShots.end(), empty)) return;
    }
}

void LinuxWorkQueue::run() {
    { const std::lock_guard lock(mutex_); }
    pthread_setname_np(pthread_self(), threadName(label_).c_str());
    // Ignored where it fails: without the right to it all queues run alike, which is slower under load and not wrong.
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), niceValue(quality_));
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            asleep_ = false;
            if (stopping_) return;
            batch_.swap(posted_);
            absorb(addedMonotonic_, monotonicOneShots_);
            absorb(addedWall_, wallOneShots_);
        }
        hadDelayed_ = hadDelayed_ || !monotonicOneShots_.empty();
        turns_.fetch_add(1, std::memory_order_relaxed);
        runPosted();
        fireMonotonic();
        fireWall();
        waitForEvents();
    }
}

void LinuxWorkQueue::runPosted() {
    for (Work& posted : batch_) {
        // Each lets go of what it holds before the next runs.
        const Work work = std::exchange(posted, nullptr);
        work();
    }
    batch_.clear();
}

void LinuxWorkQueue::waitForEvents() {
    armMonotonic();
    armWall();
    int timeout = 0;
    {
        const std::lock_guard lock(mutex_);
        asleep_ = !stopping_ && posted_.empty() && addedMonotonic_.empty() && addedWall_.empty();
        if (asleep_) timeout = -1;
    }
    // What comes meanwhile makes the wait below end at once.
    if (timeout < 0) giveMemoryBackAfterTheLastDelayed();
    std::array<epoll_event, kEventsARound> events;
    // An error is an interruption by a debugger: the next turn looks again.
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), timeout);
    for (int index = 0; index < count; ++index) {
        const epoll_event& event = events[static_cast<std::size_t>(index)];
        dispatchEvent(event.data.u64, event.events);
    }
}

void LinuxWorkQueue::giveMemoryBackAfterTheLastDelayed() {
    if (!hadDelayed_ || !monotonicOneShots_.empty()) return;
    hadDelayed_ = false;
    memoryGivenBack_.fetch_add(1, std::memory_order_relaxed);
    malloc_trim(0);
}

void LinuxWorkQueue::dispatchEvent(std::uint64_t data, std::uint32_t events) {
    switch (data) {
        case tag::kWakeUp: return drain(wakeUp_);
        case tag::kMonotonic: return drain(monotonicTimer_);
        case tag::kWall:
            drain(wallTimer_);
            wallArmed_.reset();
            return;
        default: return dispatchWatch(data, events);
    }
}

}  // namespace quorvix::linuxos
