/* OrqSDK: remote control of compact digital cameras over USB.
 *
 * Every pointer the SDK hands out (lists, records, strings, handles, subscriptions, preview
 * frames) goes back through OrqFree. Callbacks run on SDK threads; they may call back into the
 * SDK. Strings are NUL-terminated 16-bit units on every platform.
 */
#ifndef ORQSDK_H
#define ORQSDK_H

#include <stdint.h>

#if !defined(__cplusplus)
#include <uchar.h>
#endif

#ifdef _WIN32
#ifdef ORQSDK_BUILD
#define ORQ_API __declspec(dllexport)
#else
#define ORQ_API __declspec(dllimport)
#endif
typedef wchar_t OrqChar;
#else
#define ORQ_API __attribute__((visibility("default")))
typedef char16_t OrqChar;
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum OrqResult {
    ORQ_OK = 0,
    ORQ_ERROR = 1,
    ORQ_SESSION_BUSY = 2,
    ORQ_DEVICE_NOT_READY = 3,
    ORQ_NOT_READY = 4,
    ORQ_UNKNOWN_PROPERTY = 6,
    ORQ_PROPERTY_CONSTRAINT = 7,
    ORQ_BATTERY_LOW = 8,
    ORQ_DISCONNECTED = 9,
    ORQ_SECOND_PROCESS = 10,
    ORQ_OLD_MODULE = 13
} OrqResult;

typedef struct OrqCameraInfo {
    uint32_t id; /* pass back to OrqOpenSession */
    OrqChar name[128];
    OrqChar path[256];
    OrqChar version[256];
    OrqChar serial[64];
} OrqCameraInfo;

typedef struct OrqFileInfo {
    int32_t id; /* >= 0: object on the card; <= -100: picture held in host memory */
    OrqChar name[128];
    uint32_t size;
} OrqFileInfo;

typedef struct OrqSize {
    int32_t width;
    int32_t height;
} OrqSize;

typedef struct OrqPropertyDesc {
    int32_t* values; /* SDK values on offer now, in profile order */
    OrqSize* sizes;  /* one per offered value that has a size; null when none */
    int32_t count;
    uint8_t readOnly;
} OrqPropertyDesc;

typedef struct OrqCameraManagerCell* OrqCameraManagerHandle;
typedef struct OrqSessionRecord* OrqSessionHandle;
typedef struct OrqSubscriber* OrqSubscription;

typedef void (*OrqCameraListChangedCallback)(void* context, OrqCameraInfo* info, int state);
typedef void (*OrqCameraInitializationErrorCallback)(void* context, int result, OrqChar* path);
typedef void (*OrqShootCompletedCallback)(void* context, OrqFileInfo* file);
typedef void (*OrqDownloadCompletedCallback)(void* context, int fileId, OrqChar* path);
typedef void (*OrqPropertyChangedCallback)(void* context, int propertyId);
typedef void (*OrqCameraErrorCallback)(void* context, OrqResult result);
typedef void (*OrqNotifyCallback)(void* context);

/* Lifecycle */
ORQ_API OrqResult OrqInitializeSDK(void);
ORQ_API void OrqTerminateSDK(void);
ORQ_API void OrqGetSDKVersion(OrqChar** version);
ORQ_API void OrqFree(void* pointer);

/* Cameras and sessions */
ORQ_API OrqCameraManagerHandle OrqGetCameraManager(void);
ORQ_API OrqSubscription OrqCameraListChangedSubscribe(OrqCameraManagerHandle handle,
                                                      OrqCameraListChangedCallback callback,
                                                      void* context);
ORQ_API OrqSubscription OrqCameraInitializationErrorSubscribe(
    OrqCameraManagerHandle handle, OrqCameraInitializationErrorCallback callback, void* context);
ORQ_API OrqResult OrqGetCameraList(OrqCameraManagerHandle handle, OrqCameraInfo** list, int* count);
ORQ_API OrqResult OrqOpenSession(OrqCameraManagerHandle handle, int cameraId,
                                 OrqSessionHandle* session);
ORQ_API OrqResult OrqGetCameraConnectionState(OrqSessionHandle session, int* state);
ORQ_API OrqResult OrqGetCameraInfo(OrqSessionHandle session, OrqCameraInfo* info);
ORQ_API OrqResult OrqResetCamera(OrqSessionHandle session);
ORQ_API OrqSubscription OrqCameraErrorSubscribe(OrqSessionHandle session,
                                                OrqCameraErrorCallback callback, void* context);

/* Capture and files */
ORQ_API OrqResult OrqUpdateAEAF(OrqSessionHandle session);
ORQ_API OrqResult OrqShoot(OrqSessionHandle session);
ORQ_API OrqSubscription OrqShootCompletedSubscribe(OrqSessionHandle session,
                                                   OrqShootCompletedCallback callback,
                                                   void* context);
ORQ_API OrqResult OrqGetFileList(OrqSessionHandle session, OrqFileInfo** list, int* count);
ORQ_API OrqResult OrqDownloadFile(OrqSessionHandle session, int fileId, int deleteAfter);
ORQ_API OrqResult OrqDownloadFileTo(OrqSessionHandle session, int fileId, OrqChar* path,
                                    int deleteAfter);
ORQ_API OrqResult OrqDeleteFile(OrqSessionHandle session, int fileId);
ORQ_API OrqSubscription OrqDownloadCompletedSubscribe(OrqSessionHandle session,
                                                      OrqDownloadCompletedCallback callback,
                                                      void* context);
ORQ_API int OrqIsVideoSupported(OrqSessionHandle session);
ORQ_API OrqResult OrqStartVideo(OrqSessionHandle session);
ORQ_API OrqResult OrqStopVideo(OrqSessionHandle session, OrqFileInfo* file);

/* Properties */
ORQ_API OrqResult OrqGetPropertyData(OrqSessionHandle session, int propertyId, int* value);
ORQ_API OrqResult OrqSetPropertyData(OrqSessionHandle session, int propertyId, int value);
ORQ_API OrqResult OrqGetPropertyList(OrqSessionHandle session, int** list, int* count);
ORQ_API OrqResult OrqGetPropertyDesc(OrqSessionHandle session, int propertyId,
                                     OrqPropertyDesc** description);
ORQ_API OrqSubscription OrqPropertyListChangedSubscribe(OrqSessionHandle session,
                                                        OrqNotifyCallback callback, void* context);
ORQ_API OrqSubscription OrqPropertyChangedSubscribe(OrqSessionHandle session,
                                                    OrqPropertyChangedCallback callback,
                                                    void* context);
ORQ_API OrqResult OrqGetPropertyName(int propertyId, OrqChar** name);
ORQ_API OrqResult OrqGetPropertyValName(int propertyId, int value, OrqChar** name);

/* Zoom and focus */
ORQ_API OrqResult OrqGetMaximumZoom(OrqSessionHandle session, int* maximum);
ORQ_API OrqResult OrqGetZoom(OrqSessionHandle session, int* zoom);
ORQ_API OrqResult OrqSetZoom(OrqSessionHandle session, int zoom);
ORQ_API OrqSubscription OrqZoomChangedSubscribe(OrqSessionHandle session,
                                                OrqNotifyCallback callback, void* context);
ORQ_API OrqSubscription OrqZoomCompletedSubscribe(OrqSessionHandle session,
                                                  OrqNotifyCallback callback, void* context);
ORQ_API OrqResult OrqGetFocus(OrqSessionHandle session, int* focus);
ORQ_API OrqResult OrqSetFocus(OrqSessionHandle session, int focus);
ORQ_API OrqResult OrqFocusShift(OrqSessionHandle session, int shift);
ORQ_API OrqSubscription OrqFocusChangedSubscribe(OrqSessionHandle session,
                                                 OrqNotifyCallback callback, void* context);

/* Preview */
ORQ_API OrqResult OrqGetPreviewFrame(OrqSessionHandle session, void** frame, int* size);
ORQ_API OrqResult OrqSetPreviewState(OrqSessionHandle session, int state);
ORQ_API OrqResult OrqGetPreviewState(OrqSessionHandle session, int* state);
ORQ_API OrqSubscription OrqNewPreviewFrameSubscribe(OrqSessionHandle session,
                                                    OrqNotifyCallback callback, void* context);

#ifdef __cplusplus
}
#endif

#endif /* ORQSDK_H */
