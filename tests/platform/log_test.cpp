// SPDX-License-Identifier: Apache-2.0
// Logging, dynamic loading and the test controls.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "log_line.h"
#include "support.h"

namespace {

using namespace talvotest;

// (TALVO_LOG_LEVEL, level) -> what TALVOLog prints to stderr after the time: one whole line, or nothing.
using Threshold = std::tuple<const char *, int32_t, const char *>;
class LogTest : public PlatformTable<Threshold> {};

TEST_P(LogTest, TalvoLogPrintsOneLineUpToTheThresholdAndTheRecorderNothing)
{
    const auto [setting, level, expected] = GetParam();
    if (setting != nullptr) {
        setenv("TALVO_LOG_LEVEL", setting, 1);
    }
    FILE *file = std::tmpfile();
    const int saved = dup(STDERR_FILENO);
    dup2(fileno(file), STDERR_FILENO);
    TALVOLog(level, "libKXCamera", "camera %s", "Camera_1");
    TalvoDfxlog(1, "libKXCamera", "recorded only");
    dup2(saved, STDERR_FILENO);
    close(saved);
    char text[256] = {};
    EXPECT_GE(pread(fileno(file), text, sizeof(text) - 1, 0), 0);
    std::fclose(file);
    EXPECT_STREQ(std::strchr(text, ' ') != nullptr ? std::strchr(text, ' ') : text, expected) << level;
}

INSTANTIATE_TEST_SUITE_P(Settings, LogTest,
                         ::testing::Values(Threshold{nullptr, 2, " W libKXCamera: camera Camera_1\n"},
                                           Threshold{nullptr, 3, ""}, Threshold{"4x", 3, ""}, Threshold{"0", 1, ""},
                                           Threshold{"5", 5, " T libKXCamera: camera Camera_1\n"},
                                           Threshold{"4", 5, ""},
                                           Threshold{"4", 4, " I libKXCamera: camera Camera_1\n"},
                                           Threshold{"3", 3, " D libKXCamera: camera Camera_1\n"}));

TEST_F(PlatformTest, LogLineCarriesTheMonotonicTimeAndIsCutToFitButStaysOneWholeLine)
{
    char line[64];
    talvo::FormatLogLine(line, sizeof(line), 12003456789LL, 1, "libKXCamera", "open failed");
    EXPECT_STREQ(line, "12003.456789 E libKXCamera: open failed\n");
    EXPECT_EQ(talvo::FormatLogLine(line, 16, 5, 5, "tag", "too long to fit"), 15u);
    EXPECT_STREQ(line, "0.000005 T tag\n");
}

// The controls' contract with every suite: the nth call of a kind from now
// fails, once, however many threads call.
TEST_F(PlatformTest, InjectedFailureHitsTheNthCallOnceEvenUnderConcurrentCalls)
{
    const int64_t before = TalvoTestOutstandingAllocs();
    TalvoTestFailNth(TALVO_FN_MALLOC, 500);
    std::atomic<int> failures{0};
    auto work = [&] {
        std::vector<void *> blocks;
        for (int i = 0; i < 250; ++i) {
            blocks.push_back(TalvoMalloc(2, i % 3)); // size 0 still gives a block
            failures += blocks.back() == nullptr;
        }
        for (void *block : blocks) {
            TalvoFree(block);
        }
    };
    std::thread a(work), b(work), c(work), d(work);
    a.join(), b.join(), c.join(), d.join();
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(TalvoTestCallCount(TALVO_FN_MALLOC), 1000u) << "failed calls count too";
    EXPECT_EQ(TalvoTestOutstandingAllocs(), before);
}

// (TALVO_VENDOR_PATH, file) -> which probe loads: 1, 2, 0 for none (the reason names the file), -1 for
// another library (the reason names the missing symbol)
const std::string kDir1 = TALVO_TEST_VENDOR_DIR1, kDir2 = TALVO_TEST_VENDOR_DIR2, kProbe = "libtalvoprobe.so";
class DlTest : public PlatformTable<std::tuple<std::string, std::string, int>> {};

TEST_P(DlTest, FirstVendorDirectoryHoldingTheLibraryWinsThenTheSystem)
{
    const auto &[path, file, expected] = GetParam();
    setenv("TALVO_VENDOR_PATH", path.c_str(), 1);
    void *handle = TALVODlOpen(file.c_str(), 1);
    int copy = 0;
    EXPECT_TRUE(handle != nullptr || std::strstr(TALVODlError(), file.c_str()) != nullptr) << TALVODlError();
    if (handle != nullptr) {
        auto probe = reinterpret_cast<int (*)()>(TALVODlSym(handle, "TalvoProbeValue"));
        copy = probe != nullptr ? probe() : std::strstr(TALVODlError(), "TalvoProbeValue") != nullptr ? -1 : -2;
        EXPECT_EQ(TALVODlClose(handle), 0);
    }
    EXPECT_EQ(copy, expected) << path << " " << file;
}

INSTANTIATE_TEST_SUITE_P(
    Paths, DlTest,
    ::testing::Values(std::tuple{kDir1 + ":" + kDir2, kProbe, 1}, std::tuple{kDir2 + ":" + kDir1, kProbe, 2},
                      std::tuple{TALVO_TEST_MISSING_DIR ":" + kDir2 + ":" + kDir1, kProbe, 2},
                      std::tuple{"::" + kDir1 + "::" + kDir2 + ":", kProbe, 1},
                      std::tuple{std::string(TALVO_TEST_MISSING_DIR), kProbe, 0}, std::tuple{std::string(), kProbe, 0},
                      std::tuple{kDir1, kDir2 + "/" + kProbe, 2}, std::tuple{kDir1, std::string("libm.so.6"), -1}));

} // namespace
