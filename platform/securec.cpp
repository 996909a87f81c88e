// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Bounds-checked memory and text functions with the C11 Annex K contract,
// over the C library.
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "internal.h"

namespace {

bool Overlap(const void *a, size_t aLen, const void *b, size_t bLen)
{
    const auto x = reinterpret_cast<uintptr_t>(a);
    const auto y = reinterpret_cast<uintptr_t>(b);
    return aLen != 0 && bLen != 0 && x < y + bLen && y < x + aLen;
}

// A fill the compiler must not drop even when the object dies right after.
void FillKept(void *dest, int ch, size_t count)
{
    std::memset(dest, ch, count);
    __asm__ __volatile__("" : : "r"(dest) : "memory");
}

// The string functions clear dest[0] on a violation only when dest is
// usable: not null and 0 < destsz <= RSIZE_MAX.
errno_t StringViolation(char *dest, rsize_t destsz, errno_t code)
{
    if (dest != nullptr && destsz != 0 && destsz <= RSIZE_MAX) {
        dest[0] = '\0';
    }
    return code;
}

enum class Length { kNone, kChar, kShort, kLong, kLongLong, kIntMax, kSize, kPtrDiff, kLongDouble };

const char *ReadLength(const char *p, Length &length)
{
    switch (*p) {
    case 'h':
        length = p[1] == 'h' ? Length::kChar : Length::kShort;
        return p + (p[1] == 'h' ? 2 : 1);
    case 'l':
        length = p[1] == 'l' ? Length::kLongLong : Length::kLong;
        return p + (p[1] == 'l' ? 2 : 1);
    case 'q':
        length = Length::kLongLong;
        return p + 1;
    case 'j':
        length = Length::kIntMax;
        return p + 1;
    case 'z':
        length = Length::kSize;
        return p + 1;
    case 't':
        length = Length::kPtrDiff;
        return p + 1;
    case 'L':
        length = Length::kLongDouble;
        return p + 1;
    default:
        length = Length::kNone;
        return p;
    }
}

void SkipInteger(va_list &args, Length length)
{
    switch (length) {
    case Length::kLong:
        (void)va_arg(args, long);
        break;
    case Length::kLongLong:
    case Length::kLongDouble: // glibc reads %Ld as long long
        (void)va_arg(args, long long);
        break;
    case Length::kIntMax:
        (void)va_arg(args, intmax_t);
        break;
    case Length::kSize:
        (void)va_arg(args, size_t);
        break;
    case Length::kPtrDiff:
        (void)va_arg(args, ptrdiff_t);
        break;
    default:
        (void)va_arg(args, int);
        break;
    }
}

// Walks the conversions of format with their arguments. False for what
// sprintf_s must refuse: %n, a null %s argument, and anything we cannot walk
// safely (positional arguments, unknown conversions).
bool FormatAllowed(const char *format, va_list &args)
{
    for (const char *p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            continue;
        }
        ++p;
        if (*p == '%') {
            continue;
        }
        const char *digits = p;
        while (std::isdigit(static_cast<unsigned char>(*digits))) {
            ++digits;
        }
        if (*digits == '$') {
            return false;
        }
        while (*p != '\0' && std::strchr("-+ #0'I", *p) != nullptr) {
            ++p;
        }
        if (*p == '*') {
            (void)va_arg(args, int);
            ++p;
        }
        while (std::isdigit(static_cast<unsigned char>(*p))) {
            ++p;
        }
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                (void)va_arg(args, int);
                ++p;
            }
            while (std::isdigit(static_cast<unsigned char>(*p))) {
                ++p;
            }
        }
        Length length;
        p = ReadLength(p, length);
        switch (*p) {
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            SkipInteger(args, length);
            break;
        case 'c':
            if (length == Length::kLong) {
                (void)va_arg(args, wint_t);
            } else {
                (void)va_arg(args, int);
            }
            break;
        case 'C':
            (void)va_arg(args, wint_t);
            break;
        case 's':
            if (length == Length::kLong ? va_arg(args, const wchar_t *) == nullptr
                                        : va_arg(args, const char *) == nullptr) {
                return false;
            }
            break;
        case 'S':
            if (va_arg(args, const wchar_t *) == nullptr) {
                return false;
            }
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (length == Length::kLongDouble) {
                (void)va_arg(args, long double);
            } else {
                (void)va_arg(args, double);
            }
            break;
        case 'p':
            (void)va_arg(args, void *);
            break;
        case 'm': // glibc: strerror(errno), no argument
            break;
        default: // %n, unknown conversions, a format ending in '%'
            return false;
        }
    }
    return true;
}

[[gnu::format(printf, 3, 0)]] int VSprintfS(char *buffer, rsize_t bufsz, const char *format, va_list args)
{
    // Unlike the copy functions, sprintf_s clears buffer[0] only for
    // bufsz strictly below RSIZE_MAX.
    const bool clearable = buffer != nullptr && bufsz != 0 && bufsz < RSIZE_MAX;
    if (format == nullptr || buffer == nullptr || bufsz == 0 || bufsz > RSIZE_MAX) {
        if (clearable) {
            buffer[0] = '\0';
        }
        return 0;
    }
    va_list walk;
    va_copy(walk, args);
    const bool allowed = FormatAllowed(format, walk);
    va_end(walk);
    if (!allowed) {
        if (clearable) {
            buffer[0] = '\0';
        }
        return 0;
    }
    const int needed = std::vsnprintf(buffer, bufsz, format, args);
    if (needed < 0 || static_cast<rsize_t>(needed) >= bufsz) {
        buffer[0] = '\0';
        return -1;
    }
    return needed;
}

} // namespace

errno_t memcpy_s(void *dest, rsize_t destsz, const void *src, rsize_t count)
{
    if (dest == nullptr) {
        return EINVAL;
    }
    if (destsz > RSIZE_MAX) {
        return ERANGE;
    }
    errno_t code = 0;
    if (src == nullptr) {
        code = EINVAL;
    } else if (count > RSIZE_MAX || count > destsz) {
        code = ERANGE;
    } else if (Overlap(dest, count, src, count)) {
        code = EINVAL;
    }
    if (code != 0) {
        std::memset(dest, 0, destsz);
        return code;
    }
    if (count != 0) {
        std::memcpy(dest, src, count);
    }
    return 0;
}

errno_t memset_s(void *dest, rsize_t destsz, int ch, rsize_t count)
{
    if (dest == nullptr) {
        return EINVAL;
    }
    if (destsz > RSIZE_MAX) {
        return ERANGE;
    }
    // On a too large count the whole object is still set before the
    // violation is reported.
    const bool fits = count <= RSIZE_MAX && count <= destsz;
    FillKept(dest, ch, fits ? count : destsz);
    return fits ? 0 : ERANGE;
}

errno_t strcpy_s(char *dest, rsize_t destsz, const char *src)
{
    if (dest == nullptr || src == nullptr) {
        return StringViolation(dest, destsz, EINVAL);
    }
    if (destsz == 0 || destsz > RSIZE_MAX) {
        return StringViolation(dest, destsz, ERANGE);
    }
    const size_t len = strnlen(src, destsz);
    if (len >= destsz) {
        return StringViolation(dest, destsz, ERANGE);
    }
    if (Overlap(dest, len + 1, src, len + 1)) {
        return StringViolation(dest, destsz, EINVAL);
    }
    std::memcpy(dest, src, len + 1);
    return 0;
}

errno_t strcat_s(char *dest, rsize_t destsz, const char *src)
{
    if (dest == nullptr || src == nullptr) {
        return StringViolation(dest, destsz, EINVAL);
    }
    if (destsz == 0 || destsz > RSIZE_MAX) {
        return StringViolation(dest, destsz, ERANGE);
    }
    const size_t used = strnlen(dest, destsz);
    const size_t room = destsz - used;
    if (room == 0) { // dest is not terminated within destsz
        return StringViolation(dest, destsz, EINVAL);
    }
    const size_t len = strnlen(src, room);
    if (len >= room) {
        return StringViolation(dest, destsz, ERANGE);
    }
    if (Overlap(dest, used + len + 1, src, len + 1)) {
        return StringViolation(dest, destsz, EINVAL);
    }
    std::memcpy(dest + used, src, len + 1);
    return 0;
}

int sprintf_s(char *buffer, rsize_t bufsz, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int written = VSprintfS(buffer, bufsz, format, args);
    va_end(args);
    return written;
}
