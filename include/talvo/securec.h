/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Bounds-checked memory and text functions with the C11 Annex K interface.
 * The C library on our targets has none of them, so the framework layer
 * exports them and plugins import them like the rest of the function set.
 */
#ifndef TALVO_SECUREC_H
#define TALVO_SECUREC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef TALVO_ERRNO_T_DEFINED
#define TALVO_ERRNO_T_DEFINED
typedef int errno_t;
typedef size_t rsize_t;
#endif

#ifndef RSIZE_MAX
#define RSIZE_MAX (SIZE_MAX >> 1)
#endif

errno_t memcpy_s(void *dest, rsize_t destsz, const void *src, rsize_t count);
errno_t memset_s(void *dest, rsize_t destsz, int ch, rsize_t count);
errno_t strcpy_s(char *dest, rsize_t destsz, const char *src);
errno_t strcat_s(char *dest, rsize_t destsz, const char *src);
int sprintf_s(char *buffer, rsize_t bufsz, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif /* TALVO_SECUREC_H */
