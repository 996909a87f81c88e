// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Logging: stderr lines and their threshold; capture of plugin messages with
// the route they took.
#include "talvo/talvo.h"

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "log_line.h"
#include "support.h"

namespace talvotest {
namespace {

class LogTest : public PlatformTest {};

TEST_F(LogTest, LineCarriesMonotonicTimeLevelLetterTagAndText)
{
    char line[64];
    talvo::FormatLogLine(line, sizeof(line), 12003456789LL, 1, "libKXCamera", "open failed");
    EXPECT_STREQ(line, "12003.456789 E libKXCamera: open failed\n");
    EXPECT_EQ(talvo::FormatLogLine(line, 16, 5, 5, "tag", "too long to fit"), 15u);
    EXPECT_STREQ(line, "0.000005 T tag\n") << "cut, but still one whole line";
    EXPECT_EQ(talvo::ParseLogThreshold(nullptr), 2);
    EXPECT_EQ(talvo::ParseLogThreshold("4x"), 2);
}

TEST_F(LogTest, TalvoLogPrintsOneLineUpToTheThresholdAndTheRecorderNothing)
{
    const struct {
        const char *setting;
        int32_t level;
        const char *line; // null: nothing printed
    } cases[] = {{nullptr, 2, " W libKXCamera: camera Camera_1\n"},
                 {nullptr, 3, nullptr},
                 {"0", 1, nullptr},
                 {"5", 5, " T libKXCamera: camera Camera_1\n"},
                 {"4", 5, nullptr},
                 {"4", 4, " I libKXCamera: camera Camera_1\n"}};
    for (const auto &c : cases) {
        ScopedEnv env("TALVO_LOG_LEVEL", c.setting);
        StderrCapture capture;
        TALVOLog(c.level, "libKXCamera", "camera %s", "Camera_1");
        TalvoDfxlog(1, "libKXCamera", "recorded only");
        const std::string text = capture.Text();
        const std::string expected = c.line != nullptr ? c.line : "";
        EXPECT_EQ(text.substr(std::min(text.find(' '), text.size())), expected) << c.level;
    }
}

// The plugin's routing: the level's hook or TALVOLog (trace: only while the
// info slot is empty), then TalvoDfxlog.
template <typename... Args>
void PluginLog(int32_t level, const char *func, const char *fmt, Args... args)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    if (level <= 4 && g_talvoLogFunc[4 - level] != nullptr) {
        g_talvoLogFunc[4 - level]("libKXCamera", func, fmt, args...);
    } else if (level <= 4 || g_talvoLogFunc[0] == nullptr) {
        TALVOLog(level, "libKXCamera", fmt, args...);
    }
    TalvoDfxlog(level, "libKXCamera", fmt, args...);
#pragma GCC diagnostic pop
}

std::vector<TalvoTestLogEntry> Captured()
{
    std::vector<TalvoTestLogEntry> entries(TalvoTestLogCount());
    for (uint32_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(TalvoTestLogGet(i, &entries[i]), 0);
    }
    return entries;
}

// Route of a captured entry: 'h' hook, 'l' TALVOLog, '-' none.
char Route(const TalvoTestLogEntry &e) { return e.viaHook ? 'h' : e.viaLog ? 'l' : '-'; }

void HostHook(const char *, const char *, const char *, ...) {}

class LogCaptureTest : public LogTest {
protected:
    void SetUp() override
    {
        LogTest::SetUp();
        TalvoTestLogCapture(1);
    }
    StderrCapture quiet_; // TALVOLog copies stay out of the test output
};

TEST_F(LogCaptureTest, EachMessageIsCapturedOnceWithItsRoute)
{
    for (int32_t level = 1; level <= 4; ++level) {
        PluginLog(level, "DoOpenCameraCmd", "open %s failed, error code %d", "Camera_1", -level);
    }
    g_talvoLogFunc[2] = nullptr;
    PluginLog(2, "GetCameraService", "no camera");
    PluginLog(5, "OutputCameraDataCB", "frame %d", 7); // info slot set: no TALVOLog
    g_talvoLogFunc[3]("libKXCamera", "Stale", "a hook call without its diagnostics line");
    TalvoDfxlog(2, "libKXCamera", "warning of its own"); // must not borrow the stale route
    g_talvoLogFunc[0] = nullptr;
    PluginLog(5, "OutputCameraDataCB", "frame %d", 8);

    const auto logs = Captured();
    ASSERT_EQ(logs.size(), 8u);
    std::string routes, funcs;
    for (const auto &entry : logs) {
        routes += Route(entry);
        funcs += std::string(entry.func) + ",";
    }
    EXPECT_EQ(routes, "hhhhl--l");
    EXPECT_EQ(funcs, "DoOpenCameraCmd,DoOpenCameraCmd,DoOpenCameraCmd,DoOpenCameraCmd,,,,,");
    EXPECT_EQ(logs[3].level, 4);
    EXPECT_STREQ(logs[3].tag, "libKXCamera");
    EXPECT_STREQ(logs[3].fmt, "open %s failed, error code %d");
    EXPECT_STREQ(logs[3].text, "open Camera_1 failed, error code -4");
    EXPECT_STREQ(logs[7].text, "frame 8");
}

TEST_F(LogCaptureTest, ThreadsKeepTheirOwnRoutes)
{
    std::vector<std::thread> threads;
    for (const char *func : {"WorkerA", "WorkerB", "WorkerC", "WorkerD"}) {
        threads.emplace_back([func] {
            for (int i = 0; i < 200; ++i) {
                PluginLog(1 + i % 4, func, "from %s", func);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    const auto logs = Captured();
    ASSERT_EQ(logs.size(), 800u);
    for (const auto &entry : logs) {
        ASSERT_EQ(std::string(entry.text), std::string("from ") + entry.func);
    }
}

TEST_F(LogCaptureTest, StopRemovesOnlyOurHooksAndResetClearsEverything)
{
    PluginLog(1, "Before", "kept");
    g_talvoLogFunc[2] = HostHook;
    TalvoTestLogCapture(0);
    EXPECT_EQ(g_talvoLogFunc[3], nullptr);
    EXPECT_EQ(g_talvoLogFunc[2], HostHook);
    g_talvoLogFunc[2] = nullptr;
    TalvoDfxlog(1, "libKXCamera", "not captured");
    ASSERT_EQ(TalvoTestLogCount(), 1u);
    TalvoTestLogCapture(1);
    TalvoTestReset();
    TalvoTestLogEntry entry;
    EXPECT_EQ(TalvoTestLogGet(0, &entry), -1);
    for (TALVOLogHook hook : g_talvoLogFunc) {
        EXPECT_EQ(hook, nullptr);
    }
}

} // namespace
} // namespace talvotest
