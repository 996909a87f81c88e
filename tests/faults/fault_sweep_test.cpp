// SPDX-License-Identifier: Apache-2.0
// Every framework call the scenario makes, made to fail once: for each kind
// of call that can fail, the scenario runs once without failure to count the
// calls, then once per call with that call failing. Each run must end with
// nothing left behind and no frame lost or posted twice (see RunScenario).
#include "scenario.h"

#include <cstdio>

#include <gtest/gtest.h>

#include "service_support.h"
#include "support.h"

namespace kxfault {
namespace {

class FaultScenario : public kxtest::PluginTest {};

TEST_F(FaultScenario, CleanRunTakesEveryStep)
{
    const Outcome run = RunScenario({});
    ASSERT_FALSE(HasFailure()) << run.log;

    EXPECT_EQ(run.load, 0);
    EXPECT_TRUE(run.loaded);
    EXPECT_EQ(run.announced, 2u);
    EXPECT_EQ(run.glbCmdCb, 0);
    for (const auto *statuses : {&run.cmdCb, &run.openParams, &run.open, &run.fpsUpdate, &run.keyFrame, &run.close}) {
        EXPECT_EQ(*statuses, (std::array<int32_t, 2>{0, 0}));
    }
    EXPECT_EQ(run.queries, (std::array<int32_t, 4>{0, 0, 0, 0}));
    EXPECT_EQ(run.rawPushes, std::vector<int32_t>(kFramesPerRoad, 0));
    EXPECT_EQ(run.directPushes, std::vector<int32_t>(kFramesPerRoad, 0));
    EXPECT_EQ(run.reports, (std::vector<int32_t>{0, 0, 0}));

    const std::vector<uint32_t> all = {0, 1, 2, 3};
    EXPECT_EQ(run.directPosted, all);
    // Without colour conversion no raw frame can be prepared for the encoder.
    EXPECT_EQ(run.rawPosted, kxtest::ColourConversionBuiltIn() ? all : std::vector<uint32_t>{});

    // Opened (4) and closed (3) twice, and the camera state action 205.
    EXPECT_EQ(run.stateReports, 5u);
    // Facing and rotation at each open, facing at each close.
    EXPECT_EQ(run.binaryReports, 6u);
    // Service online (201), the state action 205 and service offline (208).
    EXPECT_EQ(run.notifications, 3u);
    // Only the camera whose encoder thread runs passes the rate on at once.
    EXPECT_EQ(run.updateConfigCalls, 1u);
    EXPECT_EQ(run.keyFrameCalls, 2u);
    // The pacer saw the encoder thread, so its polls were the test's to count.
    EXPECT_GT(run.encoderPauses, 0u);
    for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
        EXPECT_GT(run.calls[fn], 0u) << FnName(static_cast<TalvoTestFn>(fn)) << " is never called";
    }
}

TEST_F(FaultScenario, CleanRunsMakeTheSameFrameworkCalls)
{
    const Outcome first = RunScenario({});
    for (int again = 0; again < 3; ++again) {
        const Outcome next = RunScenario({});
        for (int fn = 0; fn < TALVO_FN_COUNT; ++fn) {
            EXPECT_EQ(next.calls[fn], first.calls[fn]) << FnName(static_cast<TalvoTestFn>(fn));
        }
        EXPECT_EQ(next.encoderPauses, first.encoderPauses);
    }
}

class FrameworkFailure : public kxtest::PluginTest, public ::testing::WithParamInterface<TalvoTestFn> {};

TEST_P(FrameworkFailure, EachCallFailingOnceLeavesNothingBehind)
{
    const TalvoTestFn fn = GetParam();
    const Outcome clean = RunScenario({fn, 0});
    ASSERT_FALSE(HasFailure()) << clean.log;
    const uint64_t calls = clean.calls[fn];
    ASSERT_GT(calls, 0u) << "the scenario never calls " << FnName(fn);

    uint64_t runs = 0;
    for (uint32_t nth = 1; nth <= calls; ++nth) {
        SCOPED_TRACE(testing::Message() << FnName(fn) << " call " << nth << " of " << calls << " fails");
        const Outcome run = RunScenario({fn, nth});
        ++runs;
        // The calls before the failing one are those of the clean run.
        EXPECT_GE(run.calls[fn], nth) << "the failing call was never made";
        if (HasFailure()) {
            ADD_FAILURE() << "messages of the failing run:\n" << run.log;
            break;
        }
    }
    RecordProperty("K", static_cast<int>(calls));
    RecordProperty("runs", static_cast<int>(runs));
    std::printf("fault sweep: %s K=%llu runs=%llu\n", FnName(fn), static_cast<unsigned long long>(calls),
                static_cast<unsigned long long>(runs));
}

INSTANTIATE_TEST_SUITE_P(Framework, FrameworkFailure,
                         ::testing::Values(TALVO_FN_MALLOC, TALVO_FN_MUTEX_INIT, TALVO_FN_MUTEX_LOCK,
                                           TALVO_FN_MUTEX_UNLOCK, TALVO_FN_MUTEX_DESTROY, TALVO_FN_THREAD_CREATE,
                                           TALVO_FN_THREAD_JOIN, TALVO_FN_EVENTS_CREATE, TALVO_FN_EVENTS_CALL,
                                           TALVO_FN_PACKET_INIT, TALVO_FN_PACKET_WRITE, TALVO_FN_DLOPEN,
                                           TALVO_FN_DLSYM),
                         [](const ::testing::TestParamInfo<TalvoTestFn> &info) { return FnName(info.param); });

} // namespace
} // namespace kxfault
