#include "connection.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "backoff.h"
#include "clock.h"
#include "endpoint.h"
#include "folders.h"
#include "queue.h"
#include "transport.h"

/* The daemon has applied a posted change by then: its own queue gets the notice before our messages. */
static const uint64_t kPostedDelayNs = 300 * QUORVIX_NS_PER_MS;
static const uint32_t kPostedJitterMs = 200;
/* For a lack of memory or descriptors, whose end nothing announces. */
static const uint64_t kSendAgainNs = QUORVIX_NS_PER_SECOND;
/* A connection that lived this long was a good one: the next attempt may come at once. */
static const uint64_t kGoodConnectionNs = 5 * QUORVIX_NS_PER_SECOND;
static const uint64_t kNever = UINT64_MAX;
static const size_t kStackBytes = 256 * 1024;

enum registration_step { kNothingToSend, kStopToSend, kStartToSend };

static struct {
    pthread_t thread;
    atomic_bool running; /* written with the lifecycle lock */

    /* Held while a descriptor is made or closed. */
    pthread_mutex_t descriptorLock;
    int socket;
    struct quorvix_folders folders;

    /* Any thread may write into it at any time, so it is made once and never closed: by then its number could be
     * somebody's file. Only a forked child, which has one thread, closes it. */
    atomic_int wakeDescriptor;
    atomic_bool stopAsked;
    atomic_bool watching;
    atomic_bool watchingChanged;

    /* Written before the thread starts, then read by it. */
    struct sockaddr_un address;
    char* name;
    int regionDescriptor;

    /* The thread's own. */
    struct quorvix_backoff backoff;
    uint64_t retryAtNs;
    uint64_t connectedAtNs;
    uint64_t registerAtNs;
    uint64_t postedAtNs;
    uint64_t sendAgainAtNs;
    enum registration_step step;
    bool waitsForRoom;
    uint32_t random;

    atomic_bool connected;
    atomic_ullong connections;
    atomic_ullong connectFailures;
    atomic_ullong registrations;
    atomic_ullong messagesSent;
    atomic_ullong droppedSendFailed;
    atomic_ullong wakeUps;
} self = {
    .descriptorLock = PTHREAD_MUTEX_INITIALIZER, .socket = -1, .folders = {.descriptor = -1}, .wakeDescriptor = -1};

static void drainWakes(int descriptor) {
    eventfd_t count;
    if (eventfd_read(descriptor, &count) != 0) return; /* EAGAIN: somebody's wake is already seen to */
}

/* Good enough to keep apps out of step. */
static uint32_t nextRandom(void) {
    self.random ^= self.random << 13;
    self.random ^= self.random >> 17;
    self.random ^= self.random << 5;
    return self.random;
}

static void closeSocket(void) {
    pthread_mutex_lock(&self.descriptorLock);
    if (self.socket >= 0) close(self.socket);
    self.socket = -1;
    pthread_mutex_unlock(&self.descriptorLock);
    atomic_store(&self.connected, false);
    self.waitsForRoom = false;
    self.sendAgainAtNs = kNever;
    self.step = kNothingToSend;
    self.registerAtNs = kNever;
}

static void scheduleRetry(uint64_t now, int error) {
    /* The folder tells when there is a socket: no attempt in vain. */
    if (error == ENOENT && quorvix_folders_see_socket(&self.folders)) {
        self.retryAtNs = kNever;
        return;
    }
    const bool hopeless = error == ENOENT || error == ENOTDIR || error == EACCES || error == EPERM;
    const uint32_t longest = hopeless ? QUORVIX_BACKOFF_LONGEST_HOPELESS_MS : QUORVIX_BACKOFF_LONGEST_MS;
    self.retryAtNs = now + quorvix_backoff_step(&self.backoff, longest, nextRandom()) * QUORVIX_NS_PER_MS;
}

static void connectionLost(uint64_t now) {
    closeSocket();
    if (now - self.connectedAtNs >= kGoodConnectionNs) quorvix_backoff_reset(&self.backoff);
    scheduleRetry(now, ECONNREFUSED);
}

static void tryToConnect(uint64_t now) {
    /* First the watch, then the attempt: a socket that is made in between is seen by one of them. */
    quorvix_folders_watch(&self.folders);
    pthread_mutex_lock(&self.descriptorLock);
    const int result = quorvix_transport_connect(&self.address);
    self.socket = result >= 0 ? result : -1;
    pthread_mutex_unlock(&self.descriptorLock);
    if (result < 0) {
        atomic_fetch_add(&self.connectFailures, 1);
        scheduleRetry(now, -result);
        return;
    }
    self.connectedAtNs = now;
    self.retryAtNs = kNever;
    self.step = kStopToSend;
    if (self.postedAtNs + kPostedDelayNs > now) self.registerAtNs = self.postedAtNs + kPostedDelayNs;
    atomic_fetch_add(&self.connections, 1);
    atomic_store(&self.connected, true);
}

static struct quorvix_message* startMessage(void) {
    struct quorvix_message* message = quorvix_message_for_command(1);
    if (message && (quorvix_message_set_shared_memory(message, "shmem", self.regionDescriptor) != 0 ||
                    quorvix_message_set_string(message, "name", self.name) != 0)) {
        quorvix_message_destroy(message);
        return NULL;
    }
    return message;
}

/* Books what a send did; true when the message is done with. */
static bool finishSend(enum quorvix_send_result result, uint64_t now) {
    switch (result) {
        case QUORVIX_SENT: atomic_fetch_add(&self.messagesSent, 1); return true;
        case QUORVIX_SEND_REFUSED: atomic_fetch_add(&self.droppedSendFailed, 1); return true;
        case QUORVIX_SEND_LATER: self.waitsForRoom = true; return false;
        case QUORVIX_SEND_NO_ROOM: self.sendAgainAtNs = now + kSendAgainNs; return false;
        case QUORVIX_SEND_BROKEN: connectionLost(now); return false;
    }
    return false;
}

/* True when nothing of the registration is left to send. */
static bool sendRegistration(uint64_t now) {
    while (self.step != kNothingToSend) {
        const bool stopping = self.step == kStopToSend;
        const bool canStart = atomic_load(&self.watching) && self.regionDescriptor >= 0;
        if (!stopping && !canStart) {
            self.step = kNothingToSend;
            break;
        }
        /* Its descriptor is a copy that a fork must not catch. */
        pthread_mutex_lock(&self.descriptorLock);
        struct quorvix_message* message = stopping ? quorvix_message_for_command(2) : startMessage();
        enum quorvix_send_result result = QUORVIX_SEND_NO_ROOM;
        if (message) result = quorvix_transport_send(self.socket, message);
        quorvix_message_destroy(message);
        pthread_mutex_unlock(&self.descriptorLock);
        if (!finishSend(result, now)) return false;
        if (!stopping && result == QUORVIX_SENT) atomic_fetch_add(&self.registrations, 1);
        self.step = stopping ? kStartToSend : kNothingToSend;
    }
    return true;
}

/* True when the queue is empty. */
static bool sendQueue(uint64_t now) {
    struct quorvix_message* message;
    while ((message = quorvix_queue_front(now)) != NULL) {
        if (!finishSend(quorvix_transport_send(self.socket, message), now)) {
            quorvix_queue_keep_front();
            return false;
        }
        quorvix_queue_remove_front();
    }
    return true;
}

static void beginPostedRegistration(uint64_t now) {
    self.step = kStopToSend;
    self.registerAtNs = kNever;
    /* Posted again since: the daemon may not have applied that yet. */
    if (self.postedAtNs + kPostedDelayNs > now) self.registerAtNs = self.postedAtNs + kPostedDelayNs;
}

/*
 * A wish to be watched goes before what is queued, since reports of an app that is not watched are ignored; a wish not
 * to be goes after it, for the same reason.
 */
static void sendWhatIsDue(uint64_t now) {
    if (self.socket < 0) return;
    if (self.registerAtNs <= now) beginPostedRegistration(now);
    const bool watching = atomic_load(&self.watching);
    if (watching && atomic_exchange(&self.watchingChanged, false)) self.step = kStopToSend;
    if (!sendRegistration(now) || !sendQueue(now)) return;
    if (!watching && atomic_exchange(&self.watchingChanged, false)) {
        self.step = kStopToSend;
        sendRegistration(now);
    }
}

static void noticePost(uint64_t now) {
    self.postedAtNs = now;
    if (self.socket < 0 || !atomic_load(&self.watching) || self.registerAtNs != kNever) return;
    self.registerAtNs = now + kPostedDelayNs + nextRandom() % kPostedJitterMs * QUORVIX_NS_PER_MS;
}

static int waitMs(uint64_t now) {
    uint64_t due = self.retryAtNs;
    if (self.registerAtNs < due) due = self.registerAtNs;
    if (self.sendAgainAtNs < due) due = self.sendAgainAtNs;
    if (due == kNever) return -1;
    if (due <= now) return 0;
    /* Rounded up: a millisecond early would be one more wake-up. Never above the longest wait of about a minute. */
    return (int)((due - now + QUORVIX_NS_PER_MS - 1) / QUORVIX_NS_PER_MS);
}

static void sleepUntilSomethingHappens(void) {
    const int wakeDescriptor = atomic_load(&self.wakeDescriptor);
    struct pollfd descriptors[] = {
        {.fd = wakeDescriptor, .events = POLLIN},
        {.fd = self.folders.descriptor, .events = POLLIN}, /* poll skips descriptors below 0 */
        /* No POLLIN: the daemon sends nothing, and whatever somebody sends in its place is left lying. */
        {.fd = self.socket, .events = (short)(POLLRDHUP | (self.waitsForRoom ? POLLOUT : 0))},
    };
    poll(descriptors, sizeof descriptors / sizeof descriptors[0], waitMs(quorvix_monotonic_ns()));
    atomic_fetch_add(&self.wakeUps, 1);

    const uint64_t now = quorvix_monotonic_ns();
    if (descriptors[0].revents) drainWakes(wakeDescriptor);
    if (descriptors[2].revents & (POLLRDHUP | POLLHUP | POLLERR)) connectionLost(now);
    if (descriptors[2].revents & POLLOUT) self.waitsForRoom = false;
    if (self.sendAgainAtNs <= now) self.sendAgainAtNs = kNever;
    if (descriptors[1].revents) {
        const struct quorvix_folder_events events = quorvix_folders_read(&self.folders);
        if (events.preferencesPosted) noticePost(now);
        if (self.socket < 0 && events.socketAppeared) {
            quorvix_backoff_reset(&self.backoff);
            self.retryAtNs = now;
        }
        /* The folder itself went: nothing tells any more, so look again now and then. */
        if (self.socket < 0 && self.retryAtNs == kNever && !quorvix_folders_see_socket(&self.folders)) {
            scheduleRetry(now, ENOENT);
        }
    }
}

static void* threadMain(void* unused) {
    (void)unused;
    /* Ten milliseconds late is early enough for everything here, and lets the kernel join wake-ups. */
    prctl(PR_SET_TIMERSLACK, 10 * QUORVIX_NS_PER_MS, 0, 0, 0);
    while (!atomic_load(&self.stopAsked)) {
        const uint64_t now = quorvix_monotonic_ns();
        if (self.socket < 0 && self.retryAtNs <= now) tryToConnect(now);
        if (!self.waitsForRoom && self.sendAgainAtNs == kNever) sendWhatIsDue(now);
        sleepUntilSomethingHappens();
    }
    if (self.socket >= 0) {
        const uint64_t now = quorvix_monotonic_ns();
        atomic_store(&self.watching, false);
        atomic_store(&self.watchingChanged, true);
        sendWhatIsDue(now);
    }
    closeSocket();
    return NULL;
}

static int startThread(void) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error) return error;
    pthread_attr_setstacksize(&attributes, kStackBytes);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    /* The new thread inherits the mask: no signal handler of the app ever runs on it. */
    pthread_sigmask(SIG_SETMASK, &all, &before);
    error = pthread_create(&self.thread, &attributes, threadMain, NULL);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    pthread_attr_destroy(&attributes);
    if (!error) pthread_setname_np(self.thread, "quorvix");
    return error;
}

static void closeDescriptors(void) {
    pthread_mutex_lock(&self.descriptorLock);
    quorvix_folders_close(&self.folders);
    pthread_mutex_unlock(&self.descriptorLock);
    free(self.name);
    self.name = NULL;
}

int quorvix_connection_start(const struct quorvix_connection_settings* settings) {
    if (!quorvix_endpoint_address(settings->directory, &self.address)) return ENAMETOOLONG;
    self.name = strdup(settings->name);
    if (!self.name) return ENOMEM;
    pthread_mutex_lock(&self.descriptorLock);
    int error = 0;
    if (atomic_load(&self.wakeDescriptor) < 0) {
        const int wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeDescriptor < 0) error = errno;
        atomic_store(&self.wakeDescriptor, wakeDescriptor);
    }
    if (!error) quorvix_folders_open(&self.folders, settings->directory);
    pthread_mutex_unlock(&self.descriptorLock);
    if (error) {
        closeDescriptors();
        return error;
    }
    const uint64_t now = quorvix_monotonic_ns();
    self.regionDescriptor = settings->regionDescriptor;
    self.random = (uint32_t)(now ^ (now >> 32) ^ ((uint64_t)getpid() << 16)) | 1u;
    self.retryAtNs = 0;
    self.registerAtNs = kNever;
    self.postedAtNs = 0;
    self.sendAgainAtNs = kNever;
    self.waitsForRoom = false;
    self.step = kNothingToSend;
    quorvix_backoff_reset(&self.backoff);
    atomic_store(&self.stopAsked, false);
    atomic_store(&self.watching, settings->watching);
    atomic_store(&self.watchingChanged, false);
    /* Left by the stop before, whose thread may have seen the wish without the wake. */
    drainWakes(atomic_load(&self.wakeDescriptor));
    error = startThread();
    if (error) {
        closeDescriptors();
        return error;
    }
    self.running = true;
    return 0;
}

void quorvix_connection_stop(void) {
    if (!self.running) return;
    atomic_store(&self.stopAsked, true);
    quorvix_connection_wake();
    pthread_join(self.thread, NULL);
    self.running = false;
    closeDescriptors();
    quorvix_queue_clear();
}

bool quorvix_connection_is_running(void) { return self.running; }

void quorvix_connection_set_watching(bool watching) {
    atomic_store(&self.watching, watching);
    atomic_store(&self.watchingChanged, true);
    quorvix_connection_wake();
}

void quorvix_connection_wake(void) {
    const int descriptor = atomic_load(&self.wakeDescriptor);
    /* It can fail only when it is already about to wake the thread. */
    if (descriptor >= 0) (void)eventfd_write(descriptor, 1);
}

void quorvix_connection_read_statistics(struct quorvix_statistics* statistics) {
    statistics->connected = atomic_load(&self.connected) ? 1 : 0;
    statistics->connections = atomic_load(&self.connections);
    statistics->connectFailures = atomic_load(&self.connectFailures);
    statistics->registrations = atomic_load(&self.registrations);
    statistics->messagesSent = atomic_load(&self.messagesSent);
    statistics->droppedSendFailed = atomic_load(&self.droppedSendFailed);
    statistics->wakeUps = atomic_load(&self.wakeUps);
}

void quorvix_connection_lock_for_fork(void) { pthread_mutex_lock(&self.descriptorLock); }

void quorvix_connection_unlock_after_fork(void) { pthread_mutex_unlock(&self.descriptorLock); }

void quorvix_connection_forget_in_child(void) {
    /* The thread does not exist here; only what it left behind is put away. */
    if (self.socket >= 0) close(self.socket);
    self.socket = -1;
    quorvix_folders_close(&self.folders);
    const int wakeDescriptor = atomic_exchange(&self.wakeDescriptor, -1);
    if (wakeDescriptor >= 0) close(wakeDescriptor);
    free(self.name);
    self.name = NULL;
    atomic_store(&self.running, false);
    atomic_store(&self.connected, false);
    atomic_store(&self.connections, 0);
    atomic_store(&self.connectFailures, 0);
    atomic_store(&self.registrations, 0);
    atomic_store(&self.messagesSent, 0);
    atomic_store(&self.droppedSendFailed, 0);
    atomic_store(&self.wakeUps, 0);
    pthread_mutex_unlock(&self.descriptorLock);
}
