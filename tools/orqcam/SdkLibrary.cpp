#include "SdkLibrary.h"

#ifdef _WIN32
#include <windows.h>
// Its DeleteFile macro would rename our member at its use below, not at its declaration.
#undef DeleteFile
#else
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>
#endif

namespace {

std::string ExecutableFolder() {
#ifdef _WIN32
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path);
    return text.substr(0, text.find_last_of("\\/") + 1);
#else
    char path[PATH_MAX + 1] = {};
    ssize_t length = readlink("/proc/self/exe", path, PATH_MAX);
    std::string text(path, length > 0 ? static_cast<size_t>(length) : 0);
    return text.substr(0, text.rfind('/') + 1);
#endif
}

}  // namespace

void* SdkLibrary::Symbol(const char* name) {
#ifdef _WIN32
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
#else
    return dlsym(handle, name);
#endif
}

bool SdkLibrary::Load(bool simulated, std::string& error) {
#ifdef _WIN32
    std::string file = ExecutableFolder() + (simulated ? "orqsdk_sim.dll" : "orqsdk.dll");
    handle = LoadLibraryA(file.c_str());
    if (!handle) {
        error = "cannot load " + file;
        return false;
    }
#else
    // Beside the executable in a build tree; in the library folder of an installed kit; else
    // wherever the dynamic loader finds the soname.
    std::string name = simulated ? "liborqsdk_sim.so" : "liborqsdk.so";
    std::string soname = name + "." ORQ_SOVERSION;
    std::string folder = ExecutableFolder();
    std::string file;
    for (const std::string& candidate :
         {folder + soname, folder + name, folder + ORQ_RELATIVE_LIBDIR "/" + soname, soname}) {
        file = candidate;
        handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle) break;
        if (candidate == soname) error = dlerror();
    }
    if (!handle) return false;
#endif
    bool complete = true;
    auto bind = [&](auto& function, const char* name) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(Symbol(name));
        if (!function) complete = false;
    };
    bind(InitializeSDK, "OrqInitializeSDK");
    bind(TerminateSDK, "OrqTerminateSDK");
    bind(Free, "OrqFree");
    bind(GetCameraManager, "OrqGetCameraManager");
    bind(GetCameraList, "OrqGetCameraList");
    bind(OpenSession, "OrqOpenSession");
    bind(GetCameraInfo, "OrqGetCameraInfo");
    bind(GetPropertyList, "OrqGetPropertyList");
    bind(GetPropertyData, "OrqGetPropertyData");
    bind(SetPropertyData, "OrqSetPropertyData");
    bind(GetPropertyDesc, "OrqGetPropertyDesc");
    bind(GetPropertyName, "OrqGetPropertyName");
    bind(GetPropertyValName, "OrqGetPropertyValName");
    bind(CameraListChangedSubscribe, "OrqCameraListChangedSubscribe");
    bind(PropertyChangedSubscribe, "OrqPropertyChangedSubscribe");
    bind(CameraErrorSubscribe, "OrqCameraErrorSubscribe");
    bind(GetSDKVersion, "OrqGetSDKVersion");
    bind(CameraInitializationErrorSubscribe, "OrqCameraInitializationErrorSubscribe");
    bind(GetCameraConnectionState, "OrqGetCameraConnectionState");
    bind(ResetCamera, "OrqResetCamera");
    bind(UpdateAEAF, "OrqUpdateAEAF");
    bind(Shoot, "OrqShoot");
    bind(ShootCompletedSubscribe, "OrqShootCompletedSubscribe");
    bind(GetFileList, "OrqGetFileList");
    bind(DownloadFile, "OrqDownloadFile");
    bind(DownloadFileTo, "OrqDownloadFileTo");
    bind(DeleteFile, "OrqDeleteFile");
    bind(DownloadCompletedSubscribe, "OrqDownloadCompletedSubscribe");
    bind(IsVideoSupported, "OrqIsVideoSupported");
    bind(StartVideo, "OrqStartVideo");
    bind(StopVideo, "OrqStopVideo");
    bind(PropertyListChangedSubscribe, "OrqPropertyListChangedSubscribe");
    bind(GetMaximumZoom, "OrqGetMaximumZoom");
    bind(GetZoom, "OrqGetZoom");
    bind(SetZoom, "OrqSetZoom");
    bind(ZoomChangedSubscribe, "OrqZoomChangedSubscribe");
    bind(ZoomCompletedSubscribe, "OrqZoomCompletedSubscribe");
    bind(GetFocus, "OrqGetFocus");
    bind(SetFocus, "OrqSetFocus");
    bind(FocusShift, "OrqFocusShift");
    bind(FocusChangedSubscribe, "OrqFocusChangedSubscribe");
    bind(GetPreviewFrame, "OrqGetPreviewFrame");
    bind(SetPreviewState, "OrqSetPreviewState");
    bind(GetPreviewState, "OrqGetPreviewState");
    bind(NewPreviewFrameSubscribe, "OrqNewPreviewFrameSubscribe");
    ShootSynchronized =
        reinterpret_cast<decltype(ShootSynchronized)>(Symbol("OrqShootSynchronized"));
    ShootSynchronizedAt =
        reinterpret_cast<decltype(ShootSynchronizedAt)>(Symbol("OrqShootSynchronizedAt"));
    if (simulated) {
        SimSetCardFolder =
            reinterpret_cast<decltype(SimSetCardFolder)>(Symbol("OrqSimSetCardFolder"));
        bind(SimAttachCamera, "OrqSimAttachCamera");
        bind(SimDetachCamera, "OrqSimDetachCamera");
        bind(SimRemoveCamera, "OrqSimRemoveCamera");
        bind(SimGetPropCase, "OrqSimGetPropCase");
        bind(SimGetFileCount, "OrqSimGetFileCount");
        bind(SimCountOperations, "OrqSimCountOperations");
        bind(SimAddFile, "OrqSimAddFile");
        bind(SimRemoveAll, "OrqSimRemoveAll");
        bind(SimInjectFault, "OrqSimInjectFault");
        bind(SimSetZoom, "OrqSimSetZoom");
        bind(SimGetCameraPath, "OrqSimGetCameraPath");
        bind(SimSetLatency, "OrqSimSetLatency");
    }
    if (!complete) error = file + " lacks exports of this SDK version";
    return complete;
}
