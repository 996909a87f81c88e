// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the fuzz targets: a front-to-back reader of the input,
// blocks of exact size, and a check that turns a broken promise into a crash
// libFuzzer records.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// Fields are little-endian and read from the front, so that a seed can be
// written field by field. Past the end every field reads as zero: any byte
// string is a complete input.
class FuzzInput {
public:
    FuzzInput(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    template <typename T> T Take()
    {
        uint64_t value = 0;
        for (size_t i = 0; i < sizeof(T) && pos_ < size_; ++i) {
            value |= uint64_t{data_[pos_++]} << (8 * i);
        }
        return static_cast<T>(value);
    }
    uint8_t U8() { return Take<uint8_t>(); }
    // Up to n bytes; fewer when the input ends first.
    std::string Bytes(size_t n)
    {
        const size_t count = n < size_ - pos_ ? n : size_ - pos_;
        pos_ += count;
        return std::string(reinterpret_cast<const char *>(data_) + pos_ - count, count);
    }
    bool Empty() const { return pos_ == size_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// A block of exactly these bytes, and a NUL when asked, so that a read past it
// is caught; never null, even when empty.
template <typename T = char> std::unique_ptr<T[]> Block(const std::string &bytes, bool terminated = false)
{
    auto block = std::make_unique<T[]>(bytes.size() + (terminated ? 1 : 0));
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

// A promise the code under test broke: say which, and the values the
// optional message names, then abort so that libFuzzer keeps the input.
#define FUZZ_CHECK(cond, ...)                                                                                          \
    ((cond) ? void()                                                                                                   \
            : (std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond)                            \
                   __VA_OPT__(, std::fprintf(stderr, __VA_ARGS__), std::fputc('\n', stderr)),                          \
               std::abort()))

// The plugin's log lines would drown the fuzzer's output and slow it down;
// an operator who wants them sets TALVO_LOG_LEVEL before starting a target.
inline const int kQuietPluginLog = setenv("TALVO_LOG_LEVEL", "0", 0);
