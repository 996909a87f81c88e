// SPDX-License-Identifier: Apache-2.0
// Framework text helpers: length, comparison, number parsing, masking.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "internal.h"

uint32_t TALVOStrlen(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    const size_t len = std::strlen(text);
    return len > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(len);
}

int32_t TALVOStrcmp(const char *a, const char *b)
{
    // A missing text equals nothing, not even another missing one: lookups
    // by a null id must never match.
    if (a == nullptr) {
        return -1;
    }
    if (b == nullptr) {
        return 1;
    }
    const int order = std::strcmp(a, b);
    return (order > 0) - (order < 0);
}

int32_t TalvoAtoi(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    // strtol reads what atoi reads and saturates at the long range, which
    // covers int32_t on every target we build for.
    static_assert(sizeof(long) >= sizeof(int32_t));
    const long value = std::strtol(text, nullptr, 10);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    if (value < INT32_MIN) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

int32_t TALVOAnonyString(const char *text, char *out, uint32_t outSize)
{
    if (out == nullptr || outSize == 0) {
        return EINVAL;
    }
    if (text == nullptr) {
        out[0] = '\0';
        return EINVAL;
    }
    const size_t len = std::strlen(text);
    if (len >= outSize) {
        out[0] = '\0';
        return ERANGE;
    }
    // A quarter at each end stays readable, at least half is masked; texts
    // shorter than 4 keep nothing.
    const size_t keep = len / 4;
    std::memcpy(out, text, keep);
    std::memset(out + keep, '*', len - 2 * keep);
    std::memcpy(out + len - keep, text + len - keep, keep);
    out[len] = '\0';
    return 0;
}
