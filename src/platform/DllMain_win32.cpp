// Library entry on Windows: COM for the loading thread, nothing per thread.
#include <windows.h>

#include "platform/Platform.h"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) orq::platform::LibraryAttach();
    if (reason == DLL_PROCESS_DETACH) orq::platform::LibraryDetach();
    return TRUE;
}
