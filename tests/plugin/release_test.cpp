// SPDX-License-Identifier: Apache-2.0
// Service release: every camera closed and freed, nothing of the service
// left running, and a later load starting from scratch.
#include "kxcamera/plugin.h"

#include <string>
#include <vector>

#include "registry/registry.h"
#include "registry_support.h"
#include "service_support.h"

namespace kxtest {
namespace {

using Texts = std::vector<std::string>;

constexpr const char kCloseLine[] = "close camera id %s success, ret %d";

class ReleaseTest : public ServiceTest {
protected:
    // The close line of each registered camera, in registry order.
    static Texts CloseLines(int32_t ret)
    {
        Texts lines;
        for (const KxCameraService *service : RegisteredServices()) {
            lines.push_back(std::string("close camera id ") + service->anonyServiceId + " success, ret " +
                            std::to_string(ret));
        }
        return lines;
    }
    static void ExpectModuleEmpty()
    {
        const KxCameraModule &module = g_cameraModule;
        const auto *head = reinterpret_cast<const TALVODllNode *>(&module.serviceList);
        EXPECT_EQ(module.inited, 0);
        EXPECT_EQ(module.serviceList.count, 0u);
        EXPECT_EQ(module.serviceList.first, head);
        EXPECT_EQ(module.serviceList.last, head);
        EXPECT_EQ(module.eventsHandle, nullptr);
        EXPECT_EQ(module.cameraLibHandle, nullptr);
        EXPECT_EQ(module.vencLibHandle, nullptr);
    }
    static Texts LinesWithFormat(const char *fmt)
    {
        Texts texts;
        for (const auto &line : LogsWithFormat(fmt)) {
            texts.push_back(line.text);
        }
        return texts;
    }
};

TEST_F(ReleaseTest, ClosesEveryCameraOpenOrNotAndLeavesNothingBehind)
{
    EXPECT_EQ(table_.releaseService, &TALVOCameraReleaseService);
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0);
    ASSERT_EQ(FakeEncoder()->LiveInstances(), 1u);
    const Texts expected = CloseLines(0);
    CallbackLog::Get().Clear();
    TalvoTestLogClear();

    ASSERT_EQ(Release(), 0);
    EXPECT_EQ(LinesWithFormat(kCloseLine), expected) << DumpLogs();
    EXPECT_EQ(FakeCamera()->CallsTo("CloseCamera").size(), 2u);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    // Only the opened camera reports its closing.
    const auto reports = CallbackLog::Get().CmdCalls();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].identityText, "0");
    EXPECT_EQ(reports[0].payload.type, 3u);
    const Texts info = TextsAtLevel(4);
    ASSERT_FALSE(info.empty());
    EXPECT_EQ(info.front(), "TALVOCameraReleaseService start");
    EXPECT_EQ(info.back(), "TALVOCameraReleaseService end");
    ExpectModuleEmpty();
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_);
}

TEST_F(ReleaseTest, CameraThatWillNotCloseIsFreedAllTheSame)
{
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    const Texts expected = CloseLines(-7);
    FakeCamera()->status.closeCamera = -7;
    ASSERT_EQ(Release(), 0);
    EXPECT_EQ(LinesWithFormat(kCloseLine), expected) << DumpLogs();
    // Its encoder thread must not outlive the record it works on.
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    ExpectModuleEmpty();
}

TEST_F(ReleaseTest, SecondReleaseReturnsAtOnce)
{
    ASSERT_EQ(Release(), 0);
    TalvoTestLogClear();
    EXPECT_EQ(Release(), 0);
    EXPECT_EQ(TextsAtLevel(4), Texts{"camera service is not init, release service just return"});
    EXPECT_EQ(CapturedLogs().size(), 1u);
}

TEST_F(ReleaseTest, LaterLoadStartsAfresh)
{
    ASSERT_EQ(Send("1", KX_CMD_OPEN), 0);
    ASSERT_EQ(Release(), 0);
    ASSERT_EQ(Send("1", KX_CMD_OPEN), -1000);

    ASSERT_EQ(table_.loadService(&callbacks_), 0) << DumpLogs();
    ASSERT_EQ(RegisteredServices().size(), 2u);
    EXPECT_EQ(FakeCamera()->CallsTo("GetCameraCapability").size(), 2u);
    EXPECT_EQ(Camera("1")->isOpened, 0);
    EXPECT_EQ(Camera("1")->cmdCb, nullptr);
    ASSERT_EQ(SetParams("0", OpenParams(64, 48, 2, 0)), 0);
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0);
    EXPECT_EQ(Camera("0")->isOpened, 1);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 1u);
}

class EmptyReleaseTest : public ReleaseTest {
protected:
    void ScriptVendors() override { FakeCamera()->capability.num = 0; }
};

TEST_F(EmptyReleaseTest, ReleaseOfEmptyRegistryClosesNothing)
{
    ASSERT_TRUE(RegisteredServices().empty());
    ASSERT_EQ(Release(), 0);
    EXPECT_TRUE(LogsWithFormat(kCloseLine).empty());
    EXPECT_TRUE(FakeCamera()->CallsTo("CloseCamera").empty());
    EXPECT_EQ(TextsAtLevel(4), (Texts{"TALVOCameraReleaseService start", "TALVOCameraReleaseService end"}));
    ExpectModuleEmpty();
}

} // namespace
} // namespace kxtest
