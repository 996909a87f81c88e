// SPDX-License-Identifier: Apache-2.0
// One complete life of the camera service, driven the way the framework
// drives it, over the fake vendor libraries: load with a raw-frame camera
// ("0") and a camera that encodes its own stream ("1"), callbacks,
// parameters, open, frames on both roads, vendor reports of both kinds, a
// frame-rate update, key frames, close and release. Every step waits for
// its effect before the next begins, so that a run without failures makes
// the same framework calls, in the same order, every time.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "talvo/testing.h"

struct KxCameraService;

namespace kxfault {

// Which framework call a run makes fail; nth 0 is a run without failure.
struct Injection {
    TalvoTestFn fn = TALVO_FN_MALLOC;
    uint32_t nth = 0;
};

const char *FnName(TalvoTestFn fn);

// What one run did and saw.
struct Outcome {
    int32_t load = 0;
    bool loaded = false; // the module was initialised by the load
    size_t announced = 0;
    int32_t glbCmdCb = 0;
    std::array<int32_t, 2> cmdCb{};
    std::array<int32_t, 2> openParams{}, open{}, fpsUpdate{}, keyFrame{}, close{};
    std::array<int32_t, 4> queries{}; // ability and work mode of both cameras
    std::vector<int32_t> rawPushes, directPushes; // frame callback results
    std::vector<int32_t> reports;                 // listener results
    int32_t release = 0;
    bool releasedAll = false; // module down, cameras closed at the vendor, no encoder, no thread left
    // Frames that reached the framework, by index of the frame pushed.
    std::vector<uint32_t> rawPosted, directPosted;
    size_t stateReports = 0, binaryReports = 0, notifications = 0;
    size_t updateConfigCalls = 0, keyFrameCalls = 0;
    uint64_t encoderPauses = 0;
    std::array<uint64_t, TALVO_FN_COUNT> calls{}; // framework calls by kind
    int64_t blocksLeft = 0;                       // TalvoMalloc blocks not given back
    std::string log;                              // the plugin's messages, for a failure report
};

// Frames pushed on each road per run.
inline constexpr uint32_t kFramesPerRoad = 4;

// Runs the scenario once with the injection armed and checks what must hold
// whatever failed: no block left over, no frame posted twice or from
// nowhere, every camera closed and every thread gone after release. Expects
// a clean module and fakes (PluginTest's set-up) and leaves them clean.
Outcome RunScenario(const Injection &injection);

} // namespace kxfault
