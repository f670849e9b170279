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
    decltype(&OrqSimAttachCamera) SimAttachCamera = nullptr;  // simulator build only

private:
    void* handle = nullptr;
    void* Symbol(const char* name);
};
