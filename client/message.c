#include "message.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "utf8.h"

/* The wire format: see docs/message-protocol.md. */
enum { kHeaderBytes = 8, kEntryCountOffset = 4, kFirstCapacity = 256 };
enum entry_type { kInt64 = 1, kUint64 = 2, kString = 3, kBool = 4, kSharedMemory = 5 };

static void putLittleEndian(unsigned char* target, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) target[i] = (unsigned char)(value >> (8 * i));
}

static size_t getLittleEndian(const unsigned char* source, size_t bytes) {
    size_t value = 0;
    for (size_t i = 0; i < bytes; ++i) value |= (size_t)source[i] << (8 * i);
    return value;
}

struct quorvix_message* quorvix_message_create(void) {
    struct quorvix_message* message = calloc(1, sizeof *message);
    if (!message) return NULL;
    message->bytes = calloc(1, kFirstCapacity);
    if (!message->bytes) {
        free(message);
        return NULL;
    }
    memcpy(message->bytes, "VEX1", 4);
    message->length = kHeaderBytes;
    message->capacity = kFirstCapacity;
    return message;
}

void quorvix_message_destroy(struct quorvix_message* message) {
    if (!message) return;
    for (uint8_t i = 0; i < message->descriptorCount; ++i) close(message->descriptors[i]);
    free(message->bytes);
    free(message);
}

struct quorvix_message* quorvix_message_for_command(int64_t command) {
    struct quorvix_message* message = quorvix_message_create();
    if (message && quorvix_message_set_int64(message, "command", command) != 0) {
        quorvix_message_destroy(message);
        return NULL;
    }
    return message;
}

static size_t valueBytes(const unsigned char* value, enum entry_type type) {
    switch (type) {
        case kInt64:
        case kUint64: return 8;
        case kString: return 4 + getLittleEndian(value, 4);
        case kBool:
        case kSharedMemory: return 1;
    }
    return 0;
}

/* Walks the entries written so far: at most 64, so no index is kept. */
static bool hasKey(const struct quorvix_message* message, const char* key, size_t keyLength) {
    size_t position = kHeaderBytes;
    while (position < message->length) {
        const enum entry_type type = (enum entry_type)message->bytes[position];
        const size_t length = message->bytes[position + 1];
        const unsigned char* text = message->bytes + position + 2;
        if (length == keyLength && memcmp(text, key, length) == 0) return true;
        position += 2 + length + valueBytes(text + length, type);
    }
    return false;
}

static int reserve(struct quorvix_message* message, size_t length) {
    if (length <= message->capacity) return 0;
    size_t capacity = message->capacity;
    while (capacity < length) capacity *= 2;
    unsigned char* bytes = realloc(message->bytes, capacity);
    if (!bytes) return ENOMEM;
    message->bytes = bytes;
    message->capacity = capacity;
    return 0;
}

/* Whether an entry of this key and value size can be added, with the memory for it. Changes nothing that is seen. */
static int checkEntry(struct quorvix_message* message, const char* key, size_t valueLength) {
    if (!message || !key) return EINVAL;
    const size_t keyLength = strlen(key);
    if (keyLength == 0 || keyLength > QUORVIX_MESSAGE_MAXIMUM_KEY_BYTES) return EINVAL;
    if (!quorvix_is_utf8(key, keyLength)) return EINVAL;
    if (hasKey(message, key, keyLength)) return EEXIST;
    if (message->entryCount >= QUORVIX_MESSAGE_MAXIMUM_ENTRIES) return E2BIG;
    /* In this order no sum can overflow. */
    if (valueLength > QUORVIX_MESSAGE_MAXIMUM_BYTES) return E2BIG;
    const size_t length = message->length + 2 + keyLength + valueLength;
    if (length > QUORVIX_MESSAGE_MAXIMUM_BYTES) return E2BIG;
    return reserve(message, length);
}

/* After checkEntry: writes type and key and gives back the place of the value. */
static unsigned char* appendEntry(struct quorvix_message* message, enum entry_type type, const char* key,
                                  size_t valueLength) {
    const size_t keyLength = strlen(key);
    unsigned char* entry = message->bytes + message->length;
    entry[0] = (unsigned char)type;
    entry[1] = (unsigned char)keyLength;
    memcpy(entry + 2, key, keyLength);
    message->length += 2 + keyLength + valueLength;
    ++message->entryCount;
    putLittleEndian(message->bytes + kEntryCountOffset, message->entryCount, 2);
    return entry + 2 + keyLength;
}

static int setNumber(struct quorvix_message* message, enum entry_type type, const char* key, uint64_t value,
                     size_t bytes) {
    const int error = checkEntry(message, key, bytes);
    if (error) return error;
    putLittleEndian(appendEntry(message, type, key, bytes), value, bytes);
    return 0;
}

int quorvix_message_set_int64(struct quorvix_message* message, const char* key, int64_t value) {
    return setNumber(message, kInt64, key, (uint64_t)value, 8);
}

int quorvix_message_set_uint64(struct quorvix_message* message, const char* key, uint64_t value) {
    return setNumber(message, kUint64, key, value, 8);
}

int quorvix_message_set_bool(struct quorvix_message* message, const char* key, bool value) {
    return setNumber(message, kBool, key, value ? 1 : 0, 1);
}

int quorvix_message_set_string(struct quorvix_message* message, const char* key, const char* text) {
    if (!text) return EINVAL;
    const size_t textLength = strlen(text);
    if (textLength > QUORVIX_MESSAGE_MAXIMUM_BYTES) return E2BIG;
    const int error = checkEntry(message, key, 4 + textLength);
    if (error) return error;
    unsigned char* value = appendEntry(message, kString, key, 4 + textLength);
    putLittleEndian(value, textLength, 4);
    memcpy(value + 4, text, textLength);
    return 0;
}

int quorvix_message_set_shared_memory(struct quorvix_message* message, const char* key, int descriptor) {
    const int error = checkEntry(message, key, 1);
    if (error) return error;
    if (message->descriptorCount >= QUORVIX_MESSAGE_MAXIMUM_DESCRIPTORS) return E2BIG;
    const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) return errno;
    *appendEntry(message, kSharedMemory, key, 1) = message->descriptorCount;
    message->descriptors[message->descriptorCount++] = duplicate;
    return 0;
}
