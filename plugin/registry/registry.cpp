// SPDX-License-Identifier: Apache-2.0
// Camera service records: built from the vendor's capabilities, kept in the
// module's service list, announced to the framework and found again by id.
#include "registry/registry.h"

#include "common/limits.h"
#include "common/list.h"
#include "common/log.h"
#include "common/memory.h"
#include "talvo/securec.h"

namespace {

// The kind ReleaseCameraCapability is told; its meaning is the vendor's.
constexpr uint32_t kReleaseCapabilityKind = 1;

// Owns a new record and its list node until the node is linked into the
// registry; whatever is not handed over is freed on every way out.
class PendingService {
public:
    PendingService() = default;
    ~PendingService()
    {
        if (node_ != nullptr) {
            TalvoFree(node_);
        }
        if (record_ != nullptr) {
            TalvoFree(record_);
        }
    }
    PendingService(const PendingService &) = delete;
    PendingService &operator=(const PendingService &) = delete;

    // Record first, zeroed, then its node.
    [[nodiscard]] bool Create()
    {
        record_ = static_cast<KxCameraService *>(kx::Alloc(sizeof(KxCameraService)));
        if (record_ == nullptr) {
            return false;
        }
        if (memset_s(record_, sizeof(KxCameraService), 0, sizeof(KxCameraService)) != 0) {
            return false;
        }
        node_ = static_cast<TALVODllNode *>(kx::Alloc(sizeof(TALVODllNode)));
        if (node_ == nullptr) {
            return false;
        }
        node_->next = nullptr;
        node_->prev = nullptr;
        node_->data = record_;
        return true;
    }

    [[nodiscard]] KxCameraService *Record() const { return record_; }
    [[nodiscard]] TALVODllNode *Node() const { return node_; }

    // The registry owns both from now on.
    KxCameraService *HandOver()
    {
        KxCameraService *record = record_;
        record_ = nullptr;
        node_ = nullptr;
        return record;
    }

private:
    KxCameraService *record_ = nullptr;
    TALVODllNode *node_ = nullptr;
};

// A later ability entry may leave a list out only when it lists nothing;
// the builders must never be handed a list they cannot read.
int32_t CheckLaterAbilities(const KxCameraCapability &capability)
{
    for (uint32_t i = 1; i < capability.abilityNum; ++i) {
        const KxCameraAbility &ability = capability.abilities[i];
        if (ability.fpsRangeNum != 0 && ability.supportFpsRanges == nullptr) {
            LOGE("capabilities ability %u supportFpsRanges is nullptr, count %u", i, ability.fpsRangeNum);
            return kx::kErrMissing;
        }
        if (ability.sizeNum != 0 && ability.supportSizes == nullptr) {
            LOGE("capabilities ability %u supportSizes is nullptr, count %u", i, ability.sizeNum);
            return kx::kErrMissing;
        }
    }
    return 0;
}

int32_t CheckExtendInfos(const KxCameraCapability &capability)
{
    if (capability.extendInfoNum == 0) {
        return 0;
    }
    if (capability.extendInfos == nullptr) {
        LOGE("capabilities extendInfos is nullptr, count %u", capability.extendInfoNum);
        return kx::kErrMissing;
    }
    for (uint32_t i = 0; i < capability.extendInfoNum; ++i) {
        if (capability.extendInfos[i].key == nullptr || capability.extendInfos[i].value == nullptr) {
            LOGE("capabilities extendInfo %u key or value is nullptr", i);
            return kx::kErrMissing;
        }
    }
    return 0;
}

void AnnounceService(KxCameraService &record)
{
    KxCameraModule &module = g_cameraModule;
    record.vencHandler = &module.vencHandler;
    // Both records are lent for the call; the framework copies what it keeps.
    const KxServiceIdDesc info = {
        .id = record.serviceId,
        .idLen = record.serviceIdLen,
        .serviceType = static_cast<uint32_t>(kx::kDeviceServiceTypeCamera),
    };
    const KxServiceOps ops = {
        .setCommand = TALVOCameraSetCommand,
        .getCommand = TALVOCameraGetCommand,
        .setCmdCb = TALVOCameraSetCmdCb,
        .getCmdCb = TALVOCameraGetCmdCb,
    };
    if (module.serviceCb.AddService != nullptr) {
        (void)module.serviceCb.AddService(&info, &ops);
    }
}

} // namespace

int32_t CheckCameraAbility(const KxCameraCapability *capability)
{
    if (capability == nullptr) {
        LOGE("capabilities is nullptr");
        return kx::kErrMissing;
    }
    if (capability->id == nullptr) {
        LOGE("capabilities id is nullptr");
        return kx::kErrMissing;
    }
    if (capability->idLen > kMaxVendorIdLen) {
        LOGE("capabilities id %s length is too large", capability->id);
        return kx::kErrMissing;
    }
    if (capability->id[capability->idLen] != '\0') {
        LOGE("capabilities id not end width string end flag");
        return kx::kErrInvalid;
    }
    if (capability->abilities == nullptr) {
        LOGE("abilityItems abilities is nullptr");
        return kx::kErrMissing;
    }
    // The first entry must carry both lists whatever abilityNum says.
    if (capability->abilities[0].supportFpsRanges == nullptr) {
        LOGE("capabilities supportFpsRanges is nullptr");
        return kx::kErrMissing;
    }
    if (capability->abilities[0].supportSizes == nullptr) {
        LOGE("capabilities supportSizes is nullptr");
        return kx::kErrMissing;
    }
    int32_t ret = CheckLaterAbilities(*capability);
    if (ret != 0) {
        return ret;
    }
    return CheckExtendInfos(*capability);
}

int32_t InitCameraServiceId(const char *vendorId, KxCameraService *service)
{
    int32_t ret = strcpy_s(service->vendorId, kServiceIdSize, vendorId);
    if (ret != 0) {
        LOGE("init camera service id copy failed, error %d", ret);
        return kx::kErrTextFailed;
    }
    ret = kx::FormatServiceId(service->serviceId, kServiceIdSize, vendorId);
    if (ret <= 0) {
        LOGE("init anony camera id string failed, error %d", ret);
        return kx::kErrUnsupported;
    }
    service->serviceIdLen = TALVOStrlen(service->serviceId);
    ret = TALVOAnonyString(service->serviceId, service->anonyServiceId, kServiceIdSize);
    if (ret != 0) {
        LOGE("get camera id anony string failed, error code %d", ret);
        return ret;
    }
    LOGI("camera id: %s %s", service->anonyServiceId, service->serviceId);
    return 0;
}

KxCameraService *AddServiceToCameraList(const KxCameraCapability *capability)
{
    if (CheckCameraAbility(capability) != 0) {
        return nullptr;
    }
    PendingService pending;
    if (!pending.Create()) {
        LOGE("malloc for camera service failed");
        return nullptr;
    }
    KxCameraService &record = *pending.Record();
    if (InitCameraServiceId(capability->id, &record) != 0) {
        LOGE("malloc for camera service failed");
        return nullptr;
    }
    record.vendorIdLen = capability->idLen;
    record.serviceType = static_cast<uint32_t>(kx::kDeviceServiceTypeCamera);
    if (BuildCameraAbilityString(capability, record.abilityText, static_cast<int32_t>(kAbilityTextSize)) != 0) {
        LOGW("convert camera ability to string failed ");
        return nullptr;
    }
    TALVODllHead &list = g_cameraModule.serviceList;
    // Vendor reports may already be handled, walking the list under the lock.
    kx::MutexGuard guard(&g_cameraModule.lock);
    const int32_t ret =
        guard.Locked() ? TALVODllInsertInMiddle(&list, kx::ListTail(list), pending.Node()) : guard.Status();
    if (ret != 0) {
        LOGE("link camera service into the service list failed, error %d", ret);
        return nullptr;
    }
    LOGI("add to service %s to camera list success", record.anonyServiceId);
    return pending.HandOver();
}

int32_t GetCameraService(void)
{
    KxCameraModule &module = g_cameraModule;
    if (module.cameraHandler.GetCameraCapability == nullptr) {
        LOGE("camera handler for GetCameraCapability is NULL");
        return kx::kErrMissing;
    }
    {
        kx::MutexGuard guard(&module.lock);
        kx::ListReset(module.serviceList);
    }

    KxCameraCapability *items = nullptr;
    uint32_t num = 0;
    int32_t ret = module.cameraHandler.GetCameraCapability(&items, &num);
    if (ret != 0) {
        LOGE("GetCameraCapability ret=%d", ret);
        return 0;
    }
    if (num != 0 && items == nullptr) {
        LOGE("GetCameraCapability failed num %d abilityItems %p", num, static_cast<void *>(items));
        return kx::kErrMissing;
    }
    for (uint32_t i = 0; i < num; ++i) {
        KxCameraService *record = AddServiceToCameraList(&items[i]);
        if (record == nullptr) {
            LOGE("add camera service failed, create service failed");
            continue;
        }
        AnnounceService(*record);
    }
    (void)module.cameraHandler.ReleaseCameraCapability(kReleaseCapabilityKind, items, num);
    LOGI("GetCameraCapability and build ability string success");
    return 0;
}

KxCameraService *GetCameraHandlerById(const char *id, uint32_t)
{
    if (id == nullptr) {
        LOGE("get camera service by id, id is nullptr");
        return nullptr;
    }
    return kx::ListFind<KxCameraService>(g_cameraModule.serviceList, [id](const KxCameraService &record) {
        return TALVOStrcmp(record.serviceId, id) == 0;
    });
}

KxCameraService *GetCameraHandlerByVendorId(const char *vendorId, uint32_t)
{
    KxCameraService *found =
        vendorId == nullptr
            ? nullptr
            : kx::ListFind<KxCameraService>(g_cameraModule.serviceList, [vendorId](const KxCameraService &record) {
                  return TALVOStrcmp(record.vendorId, vendorId) == 0;
              });
    if (found != nullptr) {
        return found;
    }
    // Never the clear id in a log line.
    char anony[kServiceIdSize] = {};
    if (vendorId != nullptr) {
        (void)TALVOAnonyString(vendorId, anony, kServiceIdSize);
    }
    LOGE("can not find camera vendor id %s in service list", anony);
    return nullptr;
}

kx::LockedCamera::LockedCamera(const KxServiceIdDesc *index, const char *caller) : guard_(&g_cameraModule.lock)
{
    if (!guard_.Locked()) {
        status_ = guard_.Status();
        KX_LOG_AS(caller, kLogError, kTag, "lock camera module failed ,error code %d", status_);
        return;
    }
    service_ = GetCameraHandlerById(index->id, index->idLen);
    if (service_ == nullptr) {
        status_ = kErrInvalid;
        KX_LOG_AS(caller, kLogError, kTag, "do get camera ability failed");
    }
}
