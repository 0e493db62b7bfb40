#include "utf8.h"

static bool isContinuation(unsigned char byte) { return (byte & 0xC0u) == 0x80u; }

/* Bytes of the character that starts here, or 0 when there is no valid one. */
static size_t characterLength(const unsigned char* text, size_t left) {
    const unsigned char first = text[0];
    if (first < 0x80) return 1;
    if (first < 0xC2 || first > 0xF4) return 0;
    const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (left < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[i])) return 0;
    }
    /* The second byte tells overlong forms, surrogates and what lies above U+10FFFF. */
    if (first == 0xE0 && text[1] < 0xA0) return 0;
    if (first == 0xED && text[1] > 0x9F) return 0;
    if (first == 0xF0 && text[1] < 0x90) return 0;
    if (first == 0xF4 && text[1] > 0x8F) return 0;
    return length;
}

bool quorvix_is_utf8(const char* text, size_t length) {
    const unsigned char* bytes = (const unsigned char*)text;
    for (size_t position = 0; position < length;) {
        const size_t step = characterLength(bytes + position, length - position);
        if (step == 0) return false;
        position += step;
    }
    return true;
}

size_t quorvix_utf8_cut(const char* text, size_t length, size_t maximum) {
    if (length <= maximum) return length;
    size_t cut = maximum;
    /* A character has at most three continuation bytes: more than that is not UTF-8. */
    while (cut > 0 && maximum - cut < 3 && isContinuation((unsigned char)text[cut])) --cut;
    return isContinuation((unsigned char)text[cut]) ? maximum : cut;
}
