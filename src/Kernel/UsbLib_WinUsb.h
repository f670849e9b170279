// The system calls of the Windows USB backend, gathered so that a test can stand in for the
// device side: wine implements none of WinUSB, and a test machine has no camera driver.
#pragma once

// clang-format off
#include <windows.h>
#include <setupapi.h>
#include <winusb.h>
// clang-format on

#include <memory>

#include "Kernel/UsbLib.h"

namespace orq {

struct WinUsbCalls {
    decltype(&SetupDiGetClassDevsW) getClassDevs = &SetupDiGetClassDevsW;
    decltype(&SetupDiEnumDeviceInfo) enumDeviceInfo = &SetupDiEnumDeviceInfo;
    decltype(&SetupDiEnumDeviceInterfaces) enumDeviceInterfaces = &SetupDiEnumDeviceInterfaces;
    decltype(&SetupDiGetDeviceInterfaceDetailW) getInterfaceDetail =
        &SetupDiGetDeviceInterfaceDetailW;
    decltype(&SetupDiDestroyDeviceInfoList) destroyDeviceInfoList = &SetupDiDestroyDeviceInfoList;
    decltype(&CreateFileW) createFile = &CreateFileW;
    decltype(&CloseHandle) closeHandle = &CloseHandle;
    decltype(&WinUsb_Initialize) initialize = &WinUsb_Initialize;
    decltype(&WinUsb_Free) free = &WinUsb_Free;
    decltype(&WinUsb_AbortPipe) abortPipe = &WinUsb_AbortPipe;
    decltype(&WinUsb_QueryInterfaceSettings) queryInterfaceSettings =
        &WinUsb_QueryInterfaceSettings;
    decltype(&WinUsb_QueryPipe) queryPipe = &WinUsb_QueryPipe;
    decltype(&WinUsb_SetPipePolicy) setPipePolicy = &WinUsb_SetPipePolicy;
    decltype(&WinUsb_GetDescriptor) getDescriptor = &WinUsb_GetDescriptor;
    decltype(&WinUsb_ReadPipe) readPipe = &WinUsb_ReadPipe;
    decltype(&WinUsb_WritePipe) writePipe = &WinUsb_WritePipe;
};

// Interface class that the cameras' driver package installs.
constexpr GUID kCameraInterfaceGuid = {
    0x05CA379D, 0xA202, 0x440B, {0xB8, 0xD0, 0x10, 0x1A, 0x37, 0x40, 0x4C, 0xAC}};
// Class and title of the hidden window that receives device-change messages.
constexpr wchar_t kNotifyWindowClass[] = L"_orq_sdk_wndcls";

std::unique_ptr<UsbLib> CreateUsbLib_WinUsb(IUsbLib_Notify* notify, const WinUsbCalls& calls);

}  // namespace orq
