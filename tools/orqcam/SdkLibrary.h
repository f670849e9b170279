// The SDK's exports, looked up in a library loaded at run time.
#pragma once

#include <string>

#include "orqsdk.h"
#include "orqsdk_sim.h"

struct SdkLibrary {
    // Loads the library beside the executable: the simulator build when simulated is true.
    bool Load(bool simulated, std::string& error);

    decltype(&OrqInitializeSDK) InitializeSDK = nullptr;
    decltype(&OrqTerminateSDK) TerminateSDK = nullptr;
    decltype(&OrqFree) Free = nullptr;
    decltype(&OrqGetCameraManager) GetCameraManager = nullptr;
    decltype(&OrqGetCameraList) GetCameraList = nullptr;
    decltype(&OrqOpenSession) OpenSession = nullptr;
    decltype(&OrqGetCameraInfo) GetCameraInfo = nullptr;
    decltype(&OrqGetPropertyList) GetPropertyList = nullptr;
    decltype(&OrqGetPropertyData) GetPropertyData = nullptr;
    decltype(&OrqSetPropertyData) SetPropertyData = nullptr;
    decltype(&OrqGetPropertyDesc) GetPropertyDesc = nullptr;
    decltype(&OrqGetPropertyName) GetPropertyName = nullptr;
    decltype(&OrqGetPropertyValName) GetPropertyValName = nullptr;
    decltype(&OrqCameraListChangedSubscribe) CameraListChangedSubscribe = nullptr;
    decltype(&OrqPropertyChangedSubscribe) PropertyChangedSubscribe = nullptr;
    decltype(&OrqCameraErrorSubscribe) CameraErrorSubscribe = nullptr;
    decltype(&OrqGetSDKVersion) GetSDKVersion = nullptr;
    decltype(&OrqCameraInitializationErrorSubscribe) CameraInitializationErrorSubscribe = nullptr;
    decltype(&OrqGetCameraConnectionState) GetCameraConnectionState = nullptr;
    decltype(&OrqResetCamera) ResetCamera = nullptr;
    decltype(&OrqUpdateAEAF) UpdateAEAF = nullptr;
    decltype(&OrqShoot) Shoot = nullptr;
    decltype(&OrqShootCompletedSubscribe) ShootCompletedSubscribe = nullptr;
    decltype(&OrqGetFileList) GetFileList = nullptr;
    decltype(&OrqDownloadFile) DownloadFile = nullptr;
    decltype(&OrqDownloadFileTo) DownloadFileTo = nullptr;
    decltype(&OrqDeleteFile) DeleteFile = nullptr;
    decltype(&OrqDownloadCompletedSubscribe) DownloadCompletedSubscribe = nullptr;
    decltype(&OrqIsVideoSupported) IsVideoSupported = nullptr;
    decltype(&OrqStartVideo) StartVideo = nullptr;
    decltype(&OrqStopVideo) StopVideo = nullptr;
    decltype(&OrqPropertyListChangedSubscribe) PropertyListChangedSubscribe = nullptr;
    decltype(&OrqGetMaximumZoom) GetMaximumZoom = nullptr;
    decltype(&OrqGetZoom) GetZoom = nullptr;
    decltype(&OrqSetZoom) SetZoom = nullptr;
    decltype(&OrqZoomChangedSubscribe) ZoomChangedSubscribe = nullptr;
    decltype(&OrqZoomCompletedSubscribe) ZoomCompletedSubscribe = nullptr;
    decltype(&OrqGetFocus) GetFocus = nullptr;
    decltype(&OrqSetFocus) SetFocus = nullptr;
    decltype(&OrqFocusShift) FocusShift = nullptr;
    decltype(&OrqFocusChangedSubscribe) FocusChangedSubscribe = nullptr;
    decltype(&OrqGetPreviewFrame) GetPreviewFrame = nullptr;
    decltype(&OrqSetPreviewState) SetPreviewState = nullptr;
    decltype(&OrqGetPreviewState) GetPreviewState = nullptr;
    decltype(&OrqNewPreviewFrameSubscribe) NewPreviewFrameSubscribe = nullptr;
    // Optional: null in SDK versions without it.
    decltype(&OrqShootSynchronized) ShootSynchronized = nullptr;
    decltype(&OrqShootSynchronizedAt) ShootSynchronizedAt = nullptr;
    // Simulator build only; null in versions without it.
    decltype(&OrqSimSetCardFolder) SimSetCardFolder = nullptr;
    // Simulator build only.
    decltype(&OrqSimAttachCamera) SimAttachCamera = nullptr;
    decltype(&OrqSimDetachCamera) SimDetachCamera = nullptr;
    decltype(&OrqSimRemoveCamera) SimRemoveCamera = nullptr;
    decltype(&OrqSimGetPropCase) SimGetPropCase = nullptr;
    decltype(&OrqSimGetFileCount) SimGetFileCount = nullptr;
    decltype(&OrqSimCountOperations) SimCountOperations = nullptr;
    decltype(&OrqSimAddFile) SimAddFile = nullptr;
    decltype(&OrqSimRemoveAll) SimRemoveAll = nullptr;
    decltype(&OrqSimInjectFault) SimInjectFault = nullptr;
    decltype(&OrqSimSetZoom) SimSetZoom = nullptr;
    decltype(&OrqSimGetCameraPath) SimGetCameraPath = nullptr;
    decltype(&OrqSimSetLatency) SimSetLatency = nullptr;

private:
    void* handle = nullptr;
    void* Symbol(const char* name);
};
