// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the fuzz targets: a front-to-back reader of the input and
// a check that turns a broken promise into a crash libFuzzer records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// Fields are little-endian and read from the front, so that a seed can be
// written field by field. Past the end every field reads as zero: any byte
// string is a complete input.
class FuzzInput {
public:
    FuzzInput(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    uint8_t U8() { return static_cast<uint8_t>(Take(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Take(2)); }
    uint32_t U32() { return static_cast<uint32_t>(Take(4)); }
    int16_t I16() { return static_cast<int16_t>(U16()); }
    int32_t I32() { return static_cast<int32_t>(U32()); }
    // Up to n bytes; fewer when the input ends first.
    std::vector<uint8_t> Bytes(size_t n)
    {
        const size_t count = n < size_ - pos_ ? n : size_ - pos_;
        pos_ += count;
        return std::vector<uint8_t>(data_ + pos_ - count, data_ + pos_);
    }
    std::vector<uint8_t> Rest() { return Bytes(size_ - pos_); }
    bool Empty() const { return pos_ == size_; }

private:
    uint64_t Take(size_t n)
    {
        uint64_t value = 0;
        for (size_t i = 0; i < n && pos_ < size_; ++i) {
            value |= uint64_t{data_[pos_++]} << (8 * i);
        }
        return value;
    }

    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// A promise the code under test broke: print what and where, then abort so
// that libFuzzer keeps the input.
#define FUZZ_CHECK(cond, ...)                                                                                          \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            std::fprintf(stderr, "%s:%d: check failed: %s\n  ", __FILE__, __LINE__, #cond);                            \
            std::fprintf(stderr, __VA_ARGS__);                                                                         \
            std::fprintf(stderr, "\n");                                                                                \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

// The plugin's own log lines would drown the fuzzer's output; an operator who
// wants them sets TALVO_LOG_LEVEL before starting the target.
inline void QuietPluginLog()
{
    (void)setenv("TALVO_LOG_LEVEL", "0", 0);
}
