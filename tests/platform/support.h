// SPDX-License-Identifier: Apache-2.0
// Shared helpers of the framework layer suite.
#pragma once

#include <cstdlib>

#include <gtest/gtest.h>

#include "talvo/talvo.h"
#include "talvo/testing.h"

namespace talvotest {

// Every test starts and ends with no injected failure, zero counts, no
// capture, and without the variables the suite sets.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override
    {
        TalvoTestReset();
        unsetenv("TALVO_LOG_LEVEL");
        unsetenv("TALVO_VENDOR_PATH");
    }
};

template <typename Case> class PlatformTable : public PlatformTest, public ::testing::WithParamInterface<Case> {};

} // namespace talvotest
