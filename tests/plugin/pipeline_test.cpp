// SPDX-License-Identifier: Apache-2.0
// End to end: raw NV21 frames from the vendor camera come back to the
// framework as bitstream units of an encoder that was fed the converted
// frames, and nothing is left once the service is released.
#include "kxcamera/plugin.h"

#include <string>
#include <vector>

#include "service_support.h"

namespace kxtest {
namespace {

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;
constexpr size_t kLumaSize = kWidth * kHeight;
constexpr size_t kFrameSize = kLumaSize * 3 / 2;
constexpr uint32_t kFrames = 12;

using Bytes = std::vector<uint8_t>;

// An NV21 frame whose every byte depends on its position and the frame.
Bytes Nv21Frame(uint32_t index)
{
    Bytes frame(kFrameSize);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint8_t>(i * 7 + (i >> 8) * 13 + index * 31);
    }
    return frame;
}

// The same picture in the layout the encoder asked for: the luma plane
// unchanged, the chroma samples NV21 interleaves as V,U regrouped.
Bytes Converted(const Bytes &nv21, int32_t csp)
{
    Bytes out(nv21.begin(), nv21.begin() + kLumaSize);
    const size_t pairs = kLumaSize / 4;
    Bytes u(pairs), v(pairs);
    for (size_t i = 0; i < pairs; ++i) {
        v[i] = nv21[kLumaSize + 2 * i];
        u[i] = nv21[kLumaSize + 2 * i + 1];
    }
    if (csp == KX_CSP_I420) {
        out.insert(out.end(), u.begin(), u.end());
        out.insert(out.end(), v.begin(), v.end());
    } else {
        for (size_t i = 0; i < pairs; ++i) {
            out.push_back(u[i]);
            out.push_back(v[i]);
        }
    }
    return out;
}

struct EncoderInput {
    const char *name;
    int32_t cspTypeMask;
    int32_t csp;
};

void PrintTo(const EncoderInput &e, std::ostream *out) { *out << e.name; }

class PipelineTest : public ServiceTest, public ::testing::WithParamInterface<EncoderInput> {
protected:
    void ScriptVendors() override
    {
        FakeEncoder()->ability.items[0].cspTypeMask = GetParam().cspTypeMask;
        FakeEncoder()->inputCopyBytes = kFrameSize;
    }
};

TEST_P(PipelineTest, RawFramesComeBackEncodedFromConvertedInput)
{
    if (!ColourConversionBuiltIn()) {
        GTEST_SKIP() << "this build converts no colours, so no raw frame can be encoded";
    }
    const int32_t csp = GetParam().csp;
    ASSERT_EQ(SetParams("0", OpenParams(kWidth, kHeight, 2, 0)), 0) << DumpLogs();
    ASSERT_EQ(Send("0", KX_CMD_OPEN), 0) << DumpLogs();
    const auto created = FakeEncoder()->CallsTo("VideoEncoderCreate");
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(created[0].create.mColorType, static_cast<uint32_t>(csp));

    std::vector<Bytes> expected;
    for (uint32_t i = 0; i < kFrames; ++i) {
        const Bytes frame = Nv21Frame(i);
        expected.push_back(Converted(frame, csp));
        ASSERT_EQ(FakeCamera()->PushFrame("0", frame.data(), kFrameSize, kFakeOnVendorThread), 0);
    }
    ASSERT_TRUE(UnitSink::Get().WaitFor(KX_MSG_BITSTREAM, kFrames)) << DumpLogs();

    const auto processed = FakeEncoder()->CallsTo("VideoEncoderProcess");
    const auto units = UnitSink::Get().Units(KX_MSG_BITSTREAM);
    ASSERT_EQ(processed.size(), kFrames);
    ASSERT_EQ(units.size(), kFrames);
    for (uint32_t i = 0; i < kFrames; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const KxVencInputFrame &input = processed[i].input;
        EXPECT_TRUE(processed[i].handleKnown);
        EXPECT_EQ(input.csp, csp);
        EXPECT_EQ(input.width, static_cast<uint32_t>(kWidth));
        EXPECT_EQ(input.height, static_cast<uint32_t>(kHeight));
        EXPECT_EQ(input.length, kFrameSize);
        EXPECT_EQ(processed[i].inputHead, expected[i]);
        EXPECT_EQ(processed[i].inputHash, FakeHash(expected[i].data(), kFrameSize));

        // Posted in order, naming the camera by its vendor id.
        EXPECT_EQ(units[i].bytes, FakeEncoderBitstream(i, expected[i].data(), kFrameSize));
        EXPECT_EQ(units[i].identity, "0");
        EXPECT_EQ(units[i].outputLen, 160u);
        EXPECT_EQ(units[i].streamType, 0);
        EXPECT_EQ(units[i].dataType, 102);
        EXPECT_EQ(units[i].timeStamp, input.timeStamp);
    }

    ASSERT_EQ(Send("0", KX_CMD_CLOSE), 0);
    ASSERT_EQ(Release(), 0);
    EXPECT_EQ(FakeEncoder()->LiveInstances(), 0u);
    EXPECT_EQ(TalvoTestOutstandingAllocs(), allocBaseline_);
}

INSTANTIATE_TEST_SUITE_P(EncoderInputs, PipelineTest,
                         ::testing::Values(EncoderInput{"I420", 1 << KX_CSP_I420, KX_CSP_I420},
                                           EncoderInput{"NV12Only", 1 << KX_CSP_NV12, KX_CSP_NV12}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace kxtest
