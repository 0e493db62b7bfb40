/* What the library must know of UTF-8: whether a key is valid, and where a name can be cut. */
#ifndef QUORVIX_CLIENT_UTF8_H
#define QUORVIX_CLIENT_UTF8_H

#include <stdbool.h>
#include <stddef.h>

/* No overlong forms, no surrogates, nothing above U+10FFFF. */
bool quorvix_is_utf8(const char* text, size_t length);

/* The length of the longest piece of at most maximum bytes that ends between two characters. Text that is not UTF-8 is
 * cut where the limit is. */
size_t quorvix_utf8_cut(const char* text, size_t length, size_t maximum);

#endif
