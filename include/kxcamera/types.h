/* SPDX-License-Identifier: Apache-2.0 */
/* Records the plugin exchanges with the framework: ids, commands, callbacks, video units. */
#ifndef KXCAMERA_TYPES_H
#define KXCAMERA_TYPES_H

#include <stdint.h>

#include "kxcamera/abi_check.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Names one camera service; also the service info given to AddService. */
typedef struct {
    const char *id;       /* NUL-terminated; service id, or vendor id in vendor-side reports */
    uint32_t idLen;       /* characters in id, without the terminator */
    uint32_t serviceType; /* 1: camera */
} KxServiceIdDesc;
KX_ABI_SIZE(KxServiceIdDesc, 16);
KX_ABI_OFFSET(KxServiceIdDesc, id, 0);
KX_ABI_OFFSET(KxServiceIdDesc, idLen, 8);
KX_ABI_OFFSET(KxServiceIdDesc, serviceType, 12);

/* A command from the framework, and the shape of every callback message. */
typedef struct {
    uint32_t code;
    uint32_t reserved0;
    void *input;       /* owned by the sender */
    uint32_t inputLen; /* bytes */
    uint32_t reserved1;
    void *output;       /* answer block or callback payload; owned by the plugin */
    uint32_t outputLen; /* bytes */
    uint32_t reserved2;
} KxCommand;
KX_ABI_SIZE(KxCommand, 40);
KX_ABI_OFFSET(KxCommand, code, 0);
KX_ABI_OFFSET(KxCommand, input, 8);
KX_ABI_OFFSET(KxCommand, inputLen, 16);
KX_ABI_OFFSET(KxCommand, output, 24);
KX_ABI_OFFSET(KxCommand, outputLen, 32);

/* Command codes. */
enum {
    KX_CMD_GET_ABILITY = 0,
    KX_CMD_OPEN = 2,
    KX_CMD_CLOSE = 3,
    KX_CMD_SET_PARAMS = 4,
    KX_CMD_GET_WORK_MODE = 7,
    KX_CMD_RESERVED_8 = 8,
    KX_CMD_RESERVED_9 = 9,
    KX_CMD_TRIGGER_IFRAME = 10,
};

/* Callback message types (KxCommand.code of a callback message). */
enum {
    KX_MSG_CAMERA_FRAME = 0,
    KX_MSG_CAMERA_STATE = 1,
    KX_MSG_DEVICE_NOTIFY = 2,
    KX_MSG_BINARY_DATA = 4,
    KX_MSG_BITSTREAM = 5,
};

/* Payload of a callback message (KxCommand.output). */
typedef struct {
    uint8_t reserved0[136]; /* zero */
    uint32_t module;        /* sending module */
    uint32_t type;          /* state value or binary-data type */
    void *data;             /* frame, bitstream unit, packet or value text */
    uint32_t len;           /* bytes in data, where the message carries it */
    uint8_t reserved1[4];   /* zero */
} KxCallbackPayload;
KX_ABI_SIZE(KxCallbackPayload, 160);
KX_ABI_OFFSET(KxCallbackPayload, module, 136);
KX_ABI_OFFSET(KxCallbackPayload, type, 140);
KX_ABI_OFFSET(KxCallbackPayload, data, 144);
KX_ABI_OFFSET(KxCallbackPayload, len, 152);

/* Camera state messages send only the leading part of the payload. */
#define KX_STATE_PAYLOAD_LEN 148u

/* One frame or one encoded unit; belongs to the framework once handed over. */
typedef struct {
    uint8_t *data;  /* the unit's own copy of the bytes */
    int32_t length; /* bytes in data */
    uint8_t reserved0[4];
    int64_t timeStamp;  /* microseconds */
    int32_t streamType; /* 0 raw frame, 1 H.264, 2 H.265 */
    int32_t dataType;   /* always 102 */
    uint8_t reserved1[12];
    int32_t csp;    /* colour space of a raw frame: 0 I420, 1 NV12, 2 NV21, 4 RGB565 */
    int32_t width;  /* pixels */
    int32_t height; /* pixels */
    uint8_t reserved2[8];
} KxVideoAccessUnit;
KX_ABI_SIZE(KxVideoAccessUnit, 64);
KX_ABI_OFFSET(KxVideoAccessUnit, data, 0);
KX_ABI_OFFSET(KxVideoAccessUnit, length, 8);
KX_ABI_OFFSET(KxVideoAccessUnit, timeStamp, 16);
KX_ABI_OFFSET(KxVideoAccessUnit, streamType, 24);
KX_ABI_OFFSET(KxVideoAccessUnit, dataType, 28);
KX_ABI_OFFSET(KxVideoAccessUnit, csp, 44);
KX_ABI_OFFSET(KxVideoAccessUnit, width, 48);
KX_ABI_OFFSET(KxVideoAccessUnit, height, 52);

#define KX_VIDEO_DATA_TYPE 102

/* Answer to the ability query (code 0); lives in the camera service record. */
typedef struct {
    uint8_t reserved0[136];
    const char *ability;   /* the camera's JSON ability text */
    uint32_t abilityParam; /* always 2014 */
    uint8_t reserved1[4];
} KxAbilityInfo;
KX_ABI_SIZE(KxAbilityInfo, 152);
KX_ABI_OFFSET(KxAbilityInfo, ability, 136);
KX_ABI_OFFSET(KxAbilityInfo, abilityParam, 144);

typedef struct {
    uint32_t version;
    uint32_t ability;
    uint32_t alg;
} KxCryptoInfo;
KX_ABI_SIZE(KxCryptoInfo, 12);

/* Answer to the work-mode query (code 7); lives in the camera service record. */
typedef struct {
    uint8_t reserved0[136];
    uint8_t isSupportVenc;
    uint8_t isRtp;
    uint8_t isNeedTimeSyn;
    uint8_t reserved1;
    KxCryptoInfo cryptoInfo;
    uint32_t transMode;
    uint32_t direction;
    uint32_t dataMode;
    uint8_t reserved2[8];
} KxWorkMode;
KX_ABI_SIZE(KxWorkMode, 172);
KX_ABI_OFFSET(KxWorkMode, isSupportVenc, 136);
KX_ABI_OFFSET(KxWorkMode, isRtp, 137);
KX_ABI_OFFSET(KxWorkMode, isNeedTimeSyn, 138);
KX_ABI_OFFSET(KxWorkMode, cryptoInfo.version, 140);
KX_ABI_OFFSET(KxWorkMode, cryptoInfo.ability, 144);
KX_ABI_OFFSET(KxWorkMode, cryptoInfo.alg, 148);
KX_ABI_OFFSET(KxWorkMode, transMode, 152);
KX_ABI_OFFSET(KxWorkMode, direction, 156);
KX_ABI_OFFSET(KxWorkMode, dataMode, 160);

/* Input of the set-parameters command (code 4). */
typedef struct {
    uint8_t reserved0[144];
    const char *para; /* negotiated parameter text, NUL-terminated */
    uint8_t reserved1[8];
} KxSetParamsInput;
KX_ABI_SIZE(KxSetParamsInput, 160);
KX_ABI_OFFSET(KxSetParamsInput, para, 144);

#ifdef __cplusplus
}
#endif

#endif /* KXCAMERA_TYPES_H */
