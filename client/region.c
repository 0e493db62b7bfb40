#include "region.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utf8.h"

/* Since Linux 6.3; where a system demands memory files without the execute bit, one made without this flag fails. */
#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

enum { kNameRoom = QUORVIX_CHANNEL_NAME_LENGTH - 1 };

static struct {
    struct quorvix_hang_channel* channel; /* set once, never unmapped */
    int descriptor;                       /* -1: the slots are in private memory */
    bool taken[QUORVIX_CHANNEL_MINIMUM_SLOTS];
} region = {.descriptor = -1};

/* Where the slots lie when not even anonymous memory can be mapped. */
static struct quorvix_hang_channel lastResort;

static void formatChannel(struct quorvix_hang_channel* channel) {
    channel->version = QUORVIX_CHANNEL_VERSION;
    channel->slotCount = QUORVIX_CHANNEL_MINIMUM_SLOTS;
    for (uint32_t i = 0; i < QUORVIX_CHANNEL_MINIMUM_SLOTS; ++i) channel->slots[i].inactive = 1;
}

/* A memory file of exactly the channel's length that can change its size no more: the daemon maps nothing else. */
static int createMemoryFile(void) {
    const unsigned int flags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
    int descriptor = memfd_create("quorvix", flags | MFD_NOEXEC_SEAL);
    if (descriptor < 0) descriptor = memfd_create("quorvix", flags);
    if (descriptor < 0) return -1;
    if (ftruncate(descriptor, sizeof(struct quorvix_hang_channel)) != 0 ||
        fcntl(descriptor, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

static struct quorvix_hang_channel* mapAt(void* address, int descriptor) {
    const int place = address ? MAP_FIXED : 0;
    const int kind = descriptor >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
    void* mapped =
        mmap(address, sizeof(struct quorvix_hang_channel), PROT_READ | PROT_WRITE, kind | place, descriptor, 0);
    return mapped == MAP_FAILED ? NULL : mapped;
}

static void createRegion(void) {
    region.descriptor = createMemoryFile();
    if (region.descriptor >= 0) {
        region.channel = mapAt(NULL, region.descriptor);
        if (!region.channel) {
            close(region.descriptor);
            region.descriptor = -1;
        }
    }
    if (!region.channel) region.channel = mapAt(NULL, -1);
    if (!region.channel) region.channel = &lastResort;
    formatChannel(region.channel);
}

/* A mapping made over the old one keeps every watch valid. All slots are inactive in it, so that a unit of work which
 * ends during the change is not left running for ever. */
static void shareAgain(void) {
    if (region.channel == &lastResort) return;
    const int descriptor = createMemoryFile();
    if (descriptor < 0) return;
    struct quorvix_hang_channel copy = *region.channel;
    for (uint32_t i = 0; i < QUORVIX_CHANNEL_MINIMUM_SLOTS; ++i) copy.slots[i].inactive = 1;
    if (pwrite(descriptor, &copy, sizeof copy, 0) != (ssize_t)sizeof copy || !mapAt(region.channel, descriptor)) {
        close(descriptor);
        return;
    }
    region.descriptor = descriptor;
}

void quorvix_region_ensure(void) {
    if (!region.channel) createRegion();
}

void quorvix_region_share(void) {
    quorvix_region_ensure();
    if (region.descriptor < 0) shareAgain();
}

int quorvix_region_descriptor(void) { return region.descriptor; }

struct quorvix_watch* quorvix_region_open_slot(const char* name, uint32_t flags) {
    for (uint32_t i = 0; i < QUORVIX_CHANNEL_MINIMUM_SLOTS; ++i) {
        if (region.taken[i]) continue;
        region.taken[i] = true;
        struct quorvix_hang_slot* slot = &region.channel->slots[i];
        const char* text = name ? name : "";
        const size_t length = quorvix_utf8_cut(text, strlen(text), kNameRoom);
        memset(slot->name, 0, sizeof slot->name);
        memcpy(slot->name, text, length);
        slot->saveReport = (flags & QUORVIX_WATCH_SAVE_REPORT) ? 1 : 0;
        slot->threadID = (uint64_t)gettid();
        return (struct quorvix_watch*)slot;
    }
    return NULL;
}

void quorvix_region_close_slot(struct quorvix_watch* watch) {
    quorvix_end(watch);
    for (uint32_t i = 0; i < QUORVIX_CHANNEL_MINIMUM_SLOTS; ++i) {
        if (&region.channel->slots[i] == &watch->slot) region.taken[i] = false;
    }
}

void quorvix_region_leave_parent(void) {
    if (region.descriptor < 0) return;
    struct quorvix_hang_channel copy = *region.channel;
    /* Replacing one mapped page by another needs no new address space; should it fail all the same, the child would go
     * on writing into its parent's slots, which is wrong but harmful to nobody else. */
    if (mapAt(region.channel, -1)) {
        for (uint32_t i = 0; i < QUORVIX_CHANNEL_MINIMUM_SLOTS; ++i) {
            copy.slots[i].inactive = 1;
            /* The thread that called fork is the only one here, under a new id. */
            if (region.taken[i]) copy.slots[i].threadID = (uint64_t)gettid();
        }
        *region.channel = copy;
    }
    close(region.descriptor);
    region.descriptor = -1;
}
