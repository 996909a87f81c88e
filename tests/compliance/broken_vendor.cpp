// SPDX-License-Identifier: Apache-2.0
// Deliberately broken vendor libraries for faults the virtual camera does
// not offer: the reference library's table, with one slot spoiled.
#include <dlfcn.h>

#include <cstdint>

#include "kxcamera/camera_handler.h"
#include "kxcamera/video_encoder.h"

namespace {

template <typename Table> int32_t RealTable(const char *getter, Table *table)
{
    void *library = dlopen(KXCOMPLIANCE_REAL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    auto fill = library == nullptr ? nullptr : reinterpret_cast<int32_t (*)(Table *)>(dlsym(library, getter));
    return fill == nullptr ? -1 : fill(table);
}

#ifdef KXCOMPLIANCE_WRAP_TIMESTAMPS
KxVideoEncoderHandler g_real;

// Keeps time stamps in 32 bits, as a careless library might.
int32_t WrappingProcess(void *handle, const KxVencInputFrame *input, uint32_t flags, KxVencOutput *output)
{
    const int32_t status = g_real.VideoEncoderProcess(handle, input, flags, output);
    output->timeStamp = static_cast<uint32_t>(output->timeStamp);
    return status;
}
#endif

} // namespace

#ifdef KXCOMPLIANCE_WRAP_TIMESTAMPS
extern "C" __attribute__((visibility("default"))) int32_t TALVOGetVideoEncoderHandler(KxVideoEncoderHandler *table)
{
    const int32_t status = RealTable(KX_VIDEO_ENCODER_GETTER, &g_real);
    *table = g_real;
    table->VideoEncoderProcess = WrappingProcess;
    return status;
}
#else
extern "C" __attribute__((visibility("default"))) int32_t TALVOGetCameraHandler(KxCameraHandler *table)
{
    const int32_t status = RealTable(KX_CAMERA_HANDLER_GETTER, table);
    table->BusinessControl = nullptr;
    return status;
}
#endif
