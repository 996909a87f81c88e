// SPDX-License-Identifier: Apache-2.0
// The single command entry of a camera service and its two queries.
#include "command/command.h"

#include "common/limits.h"
#include "common/log.h"
#include "common/module.h"
#include "common/mutex.h"

namespace {

constexpr uint32_t kAbilityParam = 2014;

int32_t RefuseUnknownCode(uint32_t code)
{
    LOGE("unknown camera set cmd type %d", code);
    return kx::kErrInvalid;
}

// Runs with the module lock held.
int32_t DispatchCommand(KxCameraService *service, KxCommand *command)
{
    switch (command->code) {
    case KX_CMD_GET_ABILITY:
        return DoGetCameraAbilityCmd(service, command);
    case KX_CMD_GET_WORK_MODE:
        return DoCameraGetWorkModeOpt(service, command);
    case KX_CMD_RESERVED_8:
    case KX_CMD_RESERVED_9:
        return 0;
    case KX_CMD_OPEN:
        return DoOpenCameraCmd(service, command);
    case KX_CMD_CLOSE:
        return DoCloseCameraCmd(service, command);
    case KX_CMD_SET_PARAMS:
        return DoSetCameraParamsCmd(service, command);
    case KX_CMD_TRIGGER_IFRAME:
        return DoTALVOCameraTriggerIFrameCmd(service, command);
    default:
        return RefuseUnknownCode(command->code);
    }
}

} // namespace

int32_t TALVOCameraSetCommand(const KxServiceIdDesc *index, KxCommand *command)
{
    if (index == nullptr || command == nullptr) {
        LOGE("camera set cmd params is null");
        return kx::kErrNoArgument;
    }
    if (!kx::ModuleInited()) {
        LOGE("camera module is not init, please init first");
        return kx::kErrNotInited;
    }
    int32_t ret = CameraCheckSetCommandPrams(index, command);
    if (ret != 0) {
        return ret;
    }

    const kx::LockedCamera camera(index, __func__);
    KxCameraService *service = camera.Get();
    if (service == nullptr) {
        return camera.Status();
    }
    LOGD("do camera service id %s operation cmd %d", service->anonyServiceId, command->code);
    return DispatchCommand(service, command);
}

int32_t CameraCheckSetCommandPrams(const KxServiceIdDesc *index, const KxCommand *command)
{
    if (index == nullptr || command == nullptr) {
        LOGE("camera service set command params: index %p command %p invalid", static_cast<const void *>(index),
             static_cast<const void *>(command));
        return kx::kErrMissing;
    }
    if (index->id == nullptr) {
        LOGE("camera service set command params: is is nullptr");
        return kx::kErrMissing;
    }
    return 0;
}

int32_t DoGetCameraAbilityCmd(KxCameraService *service, KxCommand *command)
{
    // The text was built at registration; the answer only points at it.
    service->abilityInfo.ability = service->abilityText;
    service->abilityInfo.abilityParam = kAbilityParam;
    command->output = &service->abilityInfo;
    command->outputLen = sizeof(service->abilityInfo);
    LOGI("get camera id %s ability success", service->anonyServiceId);
    return 0;
}

int32_t DoCameraGetWorkModeOpt(KxCameraService *service, KxCommand *command)
{
    KxWorkMode &mode = service->workMode;
    mode.isSupportVenc = kx::ModuleHasVideoEncoder() ? 1 : 0;
    mode.isRtp = 1;
    mode.isNeedTimeSyn = 1;
    mode.cryptoInfo.version = static_cast<uint32_t>(kx::kCryptoVersion);
    mode.cryptoInfo.ability = static_cast<uint32_t>(kx::kCryptoAbility);
    mode.cryptoInfo.alg = static_cast<uint32_t>(kx::kCryptoAlg);
    mode.transMode = 1;
    mode.direction = 0;
    mode.dataMode = 0;
    command->output = &mode;
    command->outputLen = sizeof(mode);
    LOGI("service %s getWorkMode: isRtp %d isNeedTimeSyn %d dataMode %d direction %d transMode %d",
         service->anonyServiceId, mode.isRtp, mode.isNeedTimeSyn, mode.dataMode, mode.direction, mode.transMode);
    LOGI("service %s getWorkMode: crypro info version %d ability %d alg %d", service->anonyServiceId,
         mode.cryptoInfo.version, mode.cryptoInfo.ability, mode.cryptoInfo.alg);
    return 0;
}
