// SPDX-License-Identifier: Apache-2.0
// Routing of plugin log messages: hook of the level's slot, else TALVOLog;
// always the diagnostics log; trace never reaches a hook.
#include "common/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "support.h"

namespace kxtest {
namespace {

struct HookCall {
    std::string tag;
    std::string func;
    std::string text;
};
std::vector<HookCall> g_hookCalls;

void RecordingHook(const char *tag, const char *func, const char *fmt, ...)
{
    char text[256];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    g_hookCalls.push_back({tag, func, text});
}

class LogRoutingTest : public PluginTest {
protected:
    void SetUp() override
    {
        PluginTest::SetUp();
        g_hookCalls.clear();
        for (auto &slot : g_talvoLogFunc) {
            slot = nullptr;
        }
    }
};

struct LevelCase {
    int32_t level;
    int slot;
};

class LogLevelTest : public LogRoutingTest, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(LogLevelTest, HookOfTheLevelSlotGetsTagFunctionAndArguments)
{
    const auto [level, slot] = GetParam();
    g_talvoLogFunc[slot] = RecordingHook;
    KX_LOG(level, ::kx::kTag, "value %d of %s", 42, "x");
    ASSERT_EQ(g_hookCalls.size(), 1u);
    EXPECT_EQ(g_hookCalls[0].tag, "libKXCamera");
    EXPECT_EQ(g_hookCalls[0].func, "TestBody");
    EXPECT_EQ(g_hookCalls[0].text, "value 42 of x");
    auto lines = CapturedLogs();
    ASSERT_EQ(lines.size(), 1u) << "the diagnostics log sees every message once";
    EXPECT_EQ(lines[0].level, level);
    EXPECT_EQ(lines[0].text, "value 42 of x");
    EXPECT_FALSE(lines[0].viaLog);
}

TEST_P(LogLevelTest, WithoutHookTheMessageGoesToTalvoLog)
{
    const auto [level, slot] = GetParam();
    // Hooks of the other levels must not be taken for this one.
    for (int other = 0; other < 4; ++other) {
        if (other != slot) {
            g_talvoLogFunc[other] = RecordingHook;
        }
    }
    KX_LOG(level, ::kx::kMediaTag, "plain");
    EXPECT_TRUE(g_hookCalls.empty());
    auto lines = CapturedLogs();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].viaLog);
    EXPECT_EQ(lines[0].tag, "TALVO_MediaDataProc");
    EXPECT_EQ(lines[0].level, level);
}

INSTANTIATE_TEST_SUITE_P(Levels, LogLevelTest,
                         ::testing::Values(LevelCase{1, 3}, LevelCase{2, 2}, LevelCase{3, 1}, LevelCase{4, 0}));

TEST_F(LogRoutingTest, TraceNeverCallsAHookAndSkipsTalvoLogWhenInfoHookIsSet)
{
    for (auto &slot : g_talvoLogFunc) {
        slot = RecordingHook;
    }
    LOGT("frame %d", 7);
    EXPECT_TRUE(g_hookCalls.empty());
    auto lines = CapturedLogs();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 5);
    EXPECT_FALSE(lines[0].viaLog);
    EXPECT_FALSE(lines[0].viaHook);
}

TEST_F(LogRoutingTest, TraceGoesToTalvoLogWhenInfoSlotIsEmpty)
{
    g_talvoLogFunc[1] = RecordingHook;
    g_talvoLogFunc[2] = RecordingHook;
    g_talvoLogFunc[3] = RecordingHook;
    LOGT("frame %d", 8);
    EXPECT_TRUE(g_hookCalls.empty());
    auto lines = CapturedLogs();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].viaLog);
    EXPECT_EQ(lines[0].text, "frame 8");
}

} // namespace
} // namespace kxtest
