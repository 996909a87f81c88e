// SPDX-License-Identifier: Apache-2.0
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

// What a conversion letter takes from the arguments.
enum class Arg { kInteger, kChar, kWideChar, kString, kWideString, kFloating, kPointer, kNothing };

struct Conversion {
    char letter;
    Arg arg;
};

// Everything else (%n among them) is refused. %m is glibc's strerror(errno).
constexpr Conversion kConversions[] = {
    {'d', Arg::kInteger},  {'i', Arg::kInteger},  {'o', Arg::kInteger},  {'u', Arg::kInteger},  {'x', Arg::kInteger},
    {'X', Arg::kInteger},  {'c', Arg::kChar},     {'C', Arg::kWideChar}, {'s', Arg::kString},   {'S', Arg::kWideString},
    {'f', Arg::kFloating}, {'F', Arg::kFloating}, {'e', Arg::kFloating}, {'E', Arg::kFloating}, {'g', Arg::kFloating},
    {'G', Arg::kFloating}, {'a', Arg::kFloating}, {'A', Arg::kFloating}, {'p', Arg::kPointer},  {'m', Arg::kNothing},
};

const Conversion *FindConversion(char letter)
{
    for (const Conversion &conversion : kConversions) {
        if (conversion.letter == letter) {
            return &conversion;
        }
    }
    return nullptr;
}

const char *SkipDigits(const char *p)
{
    while (std::isdigit(static_cast<unsigned char>(*p))) {
        ++p;
    }
    return p;
}

// Reads flags, width and precision, taking the arguments a '*' stands for.
// Null for a positional argument ("%1$d"), which cannot be walked in order.
const char *SkipFieldSpec(const char *p, va_list &args)
{
    if (*SkipDigits(p) == '$') {
        return nullptr;
    }
    while (*p != '\0' && std::strchr("-+ #0'I", *p) != nullptr) {
        ++p;
    }
    if (*p == '*') {
        (void)va_arg(args, int);
        ++p;
    }
    p = SkipDigits(p);
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            (void)va_arg(args, int);
            ++p;
        }
        p = SkipDigits(p);
    }
    return p;
}

// Takes the argument of one conversion; false for a null string.
bool TakeArgument(Arg arg, Length length, va_list &args)
{
    switch (arg) {
    case Arg::kInteger:
        SkipInteger(args, length);
        return true;
    case Arg::kChar:
        if (length == Length::kLong) {
            (void)va_arg(args, wint_t);
        } else {
            (void)va_arg(args, int);
        }
        return true;
    case Arg::kWideChar:
        (void)va_arg(args, wint_t);
        return true;
    case Arg::kString:
        return length == Length::kLong ? va_arg(args, const wchar_t *) != nullptr
                                       : va_arg(args, const char *) != nullptr;
    case Arg::kWideString:
        return va_arg(args, const wchar_t *) != nullptr;
    case Arg::kFloating:
        if (length == Length::kLongDouble) {
            (void)va_arg(args, long double);
        } else {
            (void)va_arg(args, double);
        }
        return true;
    case Arg::kPointer:
        (void)va_arg(args, void *);
        return true;
    case Arg::kNothing:
        return true;
    }
    return false;
}

// Walks the conversions of format with their arguments. False for what
// sprintf_s must refuse: %n, a null %s argument, and anything we cannot walk
// safely (positional arguments, unknown conversions, a trailing '%').
bool FormatAllowed(const char *format, va_list &args)
{
    for (const char *p = std::strchr(format, '%'); p != nullptr; p = std::strchr(p + 1, '%')) {
        if (p[1] == '%') {
            ++p;
            continue;
        }
        p = SkipFieldSpec(p + 1, args);
        if (p == nullptr) {
            return false;
        }
        Length length;
        p = ReadLength(p, length);
        const Conversion *conversion = FindConversion(*p);
        if (conversion == nullptr || !TakeArgument(conversion->arg, length, args)) {
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
