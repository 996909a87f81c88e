/* SPDX-License-Identifier: Apache-2.0 */
/* Compile-time layout checks for the records exchanged across the ABI. */
#ifndef KXCAMERA_ABI_CHECK_H
#define KXCAMERA_ABI_CHECK_H

#include <stddef.h>

#ifdef __cplusplus
#define KX_ABI_CHECK(cond, msg) static_assert(cond, msg)
#else
#define KX_ABI_CHECK(cond, msg) _Static_assert(cond, msg)
#endif

#define KX_ABI_SIZE(type, size) KX_ABI_CHECK(sizeof(type) == (size), #type " must be " #size " bytes")
#define KX_ABI_OFFSET(type, field, off)                                                                                \
    KX_ABI_CHECK(offsetof(type, field) == (off), #type "." #field " must sit at " #off)

/* Every layout below is the LP64 one of the 64-bit targets. */
KX_ABI_CHECK(sizeof(void *) == 8, "the camera ABI is defined for 64-bit targets");

#endif /* KXCAMERA_ABI_CHECK_H */
