// SPDX-License-Identifier: Apache-2.0
// Shared helpers of the plugin suites: captured log lines and a clean module.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kxcamera/plugin.h"
#include "talvo/testing.h"

namespace kxtest {

struct LogLine {
    int32_t level;
    std::string tag;
    std::string func;
    std::string fmt;
    std::string text;
    bool viaHook;
    bool viaLog;
};

std::vector<LogLine> CapturedLogs();
// Lines whose format string is exactly fmt.
std::vector<LogLine> LogsWithFormat(const std::string &fmt);
bool HasLog(int32_t level, const std::string &text);
std::string DumpLogs();

// Returns the module to its state at library load: vendor libraries closed,
// every field zero. Records left in the registry are freed first, so a
// suite that loads the service need not release it.
void ResetModule();

// Base fixture: clean module, no injected failures, capture on, and a check
// that the test gave back every block it took.
class PluginTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    int64_t allocBaseline_ = 0;
};

} // namespace kxtest
