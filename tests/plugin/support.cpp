// SPDX-License-Identifier: Apache-2.0
#include "support.h"

#include "fake_access.h"

#include <cstring>
#include <sstream>

namespace kxtest {

std::vector<LogLine> CapturedLogs()
{
    std::vector<LogLine> lines;
    const uint32_t count = TalvoTestLogCount();
    for (uint32_t i = 0; i < count; ++i) {
        TalvoTestLogEntry entry{};
        if (TalvoTestLogGet(i, &entry) != 0) {
            break;
        }
        lines.push_back({entry.level, entry.tag, entry.func, entry.fmt, entry.text, entry.viaHook != 0,
                         entry.viaLog != 0});
    }
    return lines;
}

std::vector<LogLine> LogsWithFormat(const std::string &fmt)
{
    std::vector<LogLine> found;
    for (auto &line : CapturedLogs()) {
        if (line.fmt == fmt) {
            found.push_back(line);
        }
    }
    return found;
}

bool HasLog(int32_t level, const std::string &text)
{
    for (const auto &line : CapturedLogs()) {
        if (line.level == level && line.text == text) {
            return true;
        }
    }
    return false;
}

std::string DumpLogs()
{
    std::ostringstream out;
    for (const auto &line : CapturedLogs()) {
        out << "  [" << line.level << "] " << line.func << ": " << line.text << "\n";
    }
    return out.str();
}

void ResetModule()
{
    KxCameraModule &module = g_cameraModule;
    // Records a test left registered are freed here, as release would.
    TALVODllNode *head = reinterpret_cast<TALVODllNode *>(&module.serviceList);
    if (module.serviceList.count != 0 && module.serviceList.first != nullptr) {
        for (TALVODllNode *node = module.serviceList.first; node != nullptr && node != head;) {
            TALVODllNode *next = node->next;
            TalvoFree(node->data);
            TalvoFree(node);
            node = next;
        }
    }
    if (module.cameraLibHandle != nullptr) {
        TALVODlClose(module.cameraLibHandle);
    }
    if (module.vencLibHandle != nullptr) {
        TALVODlClose(module.vencLibHandle);
    }
    if (module.eventsHandle != nullptr) {
        TALVOEventsDestroy(module.eventsHandle);
    }
    std::memset(&module, 0, sizeof(module));
}

void PluginTest::SetUp()
{
    TalvoTestReset();
    ResetModule();
    ASSERT_NE(FakeCamera(), nullptr);
    ASSERT_NE(FakeEncoder(), nullptr);
    FakeCamera()->Reset();
    FakeEncoder()->Reset();
    SetVendorPath({kFakeCameraDir, kFakeEncoderDir});
    TalvoTestLogCapture(1);
    allocBaseline_ = TalvoTestOutstandingAllocs();
}

void PluginTest::TearDown()
{
    ResetModule();
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u) << "encoder instances left behind";
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_) << "blocks taken and not given back";
    TalvoTestReset();
}

} // namespace kxtest
