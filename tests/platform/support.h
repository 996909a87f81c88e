// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Shared helpers of the framework layer suite.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "talvo/testing.h"

namespace talvotest {

// Every test starts and ends with no injected failure, zero counts, no capture.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { TalvoTestReset(); }
    void TearDown() override { TalvoTestReset(); }
};

// Sets (or, with null, removes) an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        if (const char *old = std::getenv(name)) {
            had_ = true;
            old_ = old;
        }
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { had_ ? setenv(name_.c_str(), old_.c_str(), 1) : unsetenv(name_.c_str()); }

private:
    std::string name_;
    std::string old_;
    bool had_ = false;
};

// Sends file descriptor 2 to a temporary file for one scope.
class StderrCapture {
public:
    StderrCapture() : file_(std::tmpfile()), saved_(dup(STDERR_FILENO))
    {
        std::fflush(stderr);
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture()
    {
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        std::fclose(file_);
    }
    std::string Text()
    {
        std::fflush(stderr);
        char text[4096];
        const ssize_t n = pread(fileno(file_), text, sizeof(text), 0);
        return std::string(text, n > 0 ? static_cast<size_t>(n) : 0);
    }

private:
    FILE *file_;
    int saved_;
};

} // namespace talvotest
