// SPDX-License-Identifier: Apache-2.0
// The encoder lane of a raw-frame camera: the gate frames pass to reach the
// queue, the bounded queue itself, the encoder thread's start and stop, the
// teardown of thread and encoder, and the camera's frame counters. Other
// subsystems use only these operations; the record's lane fields mean:
//
// - vencRunning: 1 while the thread is to run; the thread polls it.
// - laneGate: 0 while closed; while a thread runs, 1 plus the number of
//   frames on their way into the queue. A frame enters only while it is
//   non-zero, so the stop, which takes it from 1 to 0, knows that no frame is
//   in the queue's lock any more.
// - laneLockLive: vencLock is initialised. A retired thread may still take
//   the lock to learn that it is retired, so the lock outlives the lane
//   until a stop has joined every retired thread.
// - laneThread: the running thread's own state (buffers, encoder, size);
//   laneStarting hands it to the thread as it starts.
// - retiredLanes: threads of lanes torn down from inside their own encoding
//   path (a callback on the encoder thread, or the encoder library's output
//   callback). Such a teardown cannot wait for the thread; the thread
//   destroys its encoder and frees its buffers once it has left the
//   encoder, and the next stop from outside joins it.
// - vencWidth, vencHeight: the frame size the encoder instance was made for.
// - laneQueueBytes: bytes of the frames in vencQueue, under vencLock.
#pragma once

#include <cstdint>

#include "registry/registry.h"

// One encoder thread's own state. The thread encodes with these, not with
// the record's fields, so that a lane retired from another thread never
// pulls anything from under it.
struct KxLaneThread {
    KxCameraService *service;
    const KxVideoEncoderHandler *handler;
    TALVOThread thread;
    void *vencHandle; // the record's instance; the thread's own once retired
    int32_t width;    // the size the instance was made for
    int32_t height;
    KxVideoAccessUnit convFrame; // stand for the record's convFrame and encFrame
    KxVideoAccessUnit encFrame;
    uint8_t retired;    // the teardown was left to this thread
    uint8_t live;       // cleared as the thread's last touch of this state
    KxLaneThread *next; // in the record's retiredLanes
};

namespace kx {

// Frame intake: a frame may be queued only between a successful LaneEnter
// and its LaneLeave.
bool LaneEnter(KxCameraService *service);
void LaneLeave(KxCameraService *service);
bool LaneRunning(const KxCameraService *service);

// Appends a raw frame, then drops the oldest waiting frames beyond the
// queue's bound (VENC_QUEUE_MAX_*). The unit is the lane's in any case.
int32_t LaneQueueFrame(KxCameraService *service, KxVideoAccessUnit *unit);

// Releases a raw frame that arrived while no encoder thread runs.
void LaneDropIdleFrame(KxCameraService *service, KxVideoAccessUnit *unit);

// The camera has an encoder thread or an encoder instance.
bool LaneExists(const KxCameraService *service);

// Stops and joins the encoder thread, then destroys the encoder, so that the
// thread never calls an encoder that is gone. Harmless when neither exists.
// Called from inside the lane's own encoding path, it cannot wait for the
// thread: the lane is then retired instead, and its thread destroys the
// encoder and frees its buffers once it has left the encoder.
void LaneTearDown(KxCameraService *service);

// Marks the calling thread as inside the encoding path of `service` for the
// scope's life.
class EncodingPathScope {
public:
    explicit EncodingPathScope(const KxCameraService *service);
    ~EncodingPathScope();
    EncodingPathScope(const EncodingPathScope &) = delete;
    EncodingPathScope &operator=(const EncodingPathScope &) = delete;

private:
    const KxCameraService *previous_;
};

// The encoder thread's side: its own state, taken once as it starts.
KxLaneThread *LaneThreadBegin(KxCameraService *service);
bool LaneThreadKeepsRunning(const KxLaneThread *lane);
// Encodes one queued frame with the lane's encoder and buffers.
void LaneEncodeFrame(KxLaneThread *lane, const KxVideoAccessUnit *frame);
// The thread's last touch of the record and of its state.
void LaneThreadEnd(KxLaneThread *lane);

enum class FrameFate { kIn, kEncoded, kDroppedOverload, kDroppedError };
void CountFrame(KxCameraService *service, FrameFate fate);

} // namespace kx
