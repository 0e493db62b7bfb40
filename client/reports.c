/* The messages whose meaning the library knows: hangs, fences, activations. */
#include <errno.h>
#include <time.h>

#include "message.h"

enum command {
    kHangDetected = 3,
    kActivationBegin = 4,
    kActivationEnd = 5,
    kFenceBegin = 6,
    kFenceEnd = 7,
    kFenceBlown = 8
};

/* Between 1970-01-01 and 2001-01-01, both UTC. */
static const int64_t kSecondsTo2001 = 978307200;

/* Sends what was built, or gives the first error of its building. */
static int sendUnless(int error, struct quorvix_message* message) {
    if (!error) return quorvix_message_send(message);
    quorvix_message_destroy(message);
    return error;
}

int quorvix_report_hang(const struct quorvix_hang* hang) {
    if (!hang || !hang->name) return EINVAL;
    struct quorvix_message* message = quorvix_message_for_command(kHangDetected);
    if (!message) return ENOMEM;
    int error = quorvix_message_set_int64(message, "startTime", (int64_t)hang->startTime);
    if (!error) error = quorvix_message_set_int64(message, "endTime", (int64_t)hang->endTime);
    if (!error) error = quorvix_message_set_int64(message, "threadID", hang->threadID);
    if (!error) error = quorvix_message_set_string(message, "name", hang->name);
    if (!error) error = quorvix_message_set_bool(message, "saveReport", hang->saveReport);
    return sendUnless(error, message);
}

static int sendFence(enum command command, int64_t name, const char* timeKey) {
    /* Read first: it is the moment of the call that counts. */
    const uint64_t now = quorvix_ticks_now();
    struct quorvix_message* message = quorvix_message_for_command(command);
    if (!message) return ENOMEM;
    int error = quorvix_message_set_int64(message, "name", name);
    if (!error) error = quorvix_message_set_int64(message, timeKey, (int64_t)now);
    return sendUnless(error, message);
}

int quorvix_fence_begin(int64_t name) { return sendFence(kFenceBegin, name, "startTime"); }
int quorvix_fence_end(int64_t name) { return sendFence(kFenceEnd, name, "endTime"); }

int quorvix_fence_blown(const struct quorvix_fence_span* span) {
    if (!span) return EINVAL;
    struct quorvix_message* message = quorvix_message_for_command(kFenceBlown);
    if (!message) return ENOMEM;
    int error = quorvix_message_set_int64(message, "startTime", (int64_t)span->startTime);
    if (!error) error = quorvix_message_set_int64(message, "endTime", (int64_t)span->endTime);
    return sendUnless(error, message);
}

uint64_t quorvix_wall_clock_now(void) {
    struct timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    const int64_t seconds = (int64_t)time.tv_sec - kSecondsTo2001;
    return seconds < 0 ? 0 : (uint64_t)seconds * 1000u + (uint64_t)time.tv_nsec / 1000000u;
}

int quorvix_report_activation_begin(const struct quorvix_activation_begin* activation) {
    if (!activation || !activation->bundleID) return EINVAL;
    const uint64_t now = quorvix_wall_clock_now();
    struct quorvix_message* message = quorvix_message_for_command(kActivationBegin);
    if (!message) return ENOMEM;
    int error = quorvix_message_set_int64(message, "pid", activation->pid);
    if (!error) error = quorvix_message_set_string(message, "bundle-id", activation->bundleID);
    const uint64_t startTime = activation->startTime ? activation->startTime : now;
    if (!error) error = quorvix_message_set_uint64(message, "startTime", startTime);
    /* Despite its name not a span: the moment of sending, from which the daemon takes the message's latency. */
    if (!error) error = quorvix_message_set_uint64(message, "vexStartLatency", now);
    if (!error) error = quorvix_message_set_int64(message, "app-activation-state", activation->state);
    if (!error) error = quorvix_message_set_int64(message, "app-activation-type", activation->type);
    return sendUnless(error, message);
}

int quorvix_report_activation_end(const struct quorvix_activation_end* activation) {
    if (!activation || !activation->bundleID) return EINVAL;
    const uint64_t endTime = activation->endTime ? activation->endTime : quorvix_wall_clock_now();
    struct quorvix_message* message = quorvix_message_for_command(kActivationEnd);
    if (!message) return ENOMEM;
    int error = quorvix_message_set_int64(message, "pid", activation->pid);
    if (!error) error = quorvix_message_set_string(message, "bundle-id", activation->bundleID);
    if (!error) error = quorvix_message_set_uint64(message, "endTime", endTime);
    if (!error) error = quorvix_message_set_int64(message, "app-activation-state", activation->state);
    if (!error) error = quorvix_message_set_int64(message, "app-activation-result", activation->result);
    return sendUnless(error, message);
}
