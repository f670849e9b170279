// The numbers of the camera link: PTP operation and response codes, the sub-commands of the
// vendor operation and the bits of its event word. The host and the virtual camera both take
// them from here; what each side does with them stays its own.
#pragma once

#include <cstdint>

namespace orq {

// Operation codes.
enum : uint16_t {
    PTP_OC_OpenSession = 0x1002,
    PTP_OC_GetStorageIDs = 0x1004,
    PTP_OC_GetObjectHandles = 0x1007,
    PTP_OC_GetObjectInfo = 0x1008,
    PTP_OC_GetObject = 0x1009,
    PTP_OC_DeleteObject = 0x100B,
    PTP_OC_Vendor = 0x9999,
};

// Response codes.
enum : uint16_t {
    PTP_RC_OK = 0x2001,
    PTP_RC_GeneralError = 0x2002,
    PTP_RC_SessionNotOpen = 0x2003,
    PTP_RC_OperationNotSupported = 0x2005,
    PTP_RC_InvalidStorageID = 0x2008,
    PTP_RC_InvalidObjectHandle = 0x2009,
    PTP_RC_AccessDenied = 0x200F,
    PTP_RC_DeviceBusy = 0x2019,
    PTP_RC_InvalidParameter = 0x201D,
};

// Sub-commands of the vendor operation.
enum PtpSubCommand : uint32_t {
    CHDK_GetMemory = 1,
    CHDK_GetVideoSettings = 11,
    ORQM_GetPropCase = 129,
    ORQM_SetPropCase = 130,
    ORQM_GetZoom = 131,
    ORQM_SetZoom = 132,
    ORQM_Set_Play_Mode = 140,
    ORQM_GetOrqmVersion = 145,
    ORQM_Shoot = 147,
    ORQM_UpdateAEAF = 148,
    ORQM_GetEvents = 149,
    ORQM_GetMode = 150,
    ORQM_GetCamLog = 153,
    ORQM_MfOn = 154,
    ORQM_MfOff = 155,
    ORQM_MoveFocusTo = 156,
    ORQM_GetFocusParams = 157,
    ORQM_GetVBat = 158,
    ORQM_SetCaptureMode = 160,
    ORQM_GetSerialNumber = 161,
    ORQM_Reset = 162,
    ORQM_RemoteCaptureStart = 163,
    ORQM_RemoteCaptureIsReady = 164,
    ORQM_RemoteCaptureGetData = 165,
    ORQM_StartVideo = 166,
    ORQM_StopVideo = 167,
};

// Event bits of ORQM_GetEvents.
enum : uint32_t {
    SHOOT_FINISHED = 0x0002,
    ZOOM_FINISHED = 0x0008,
    EVENT_RAW_AVAILABLE = 0x0200,
    EVENT_REMOTE_AVAILABLE = 0x0400,
    EVENT_REMOTE_TIMEOUT = 0x0800,
    EVENT_GET_JPEG_CHUNK = 0x1000,
    EVENT_GET_JPEG_TIMEOUT = 0x2000,
    EVENT_LAST_JPEG_CHUNK = 0x4000,
};

}  // namespace orq
