// The built orqsdk.dll as an application loads it: on a thread of the application's, whose COM
// apartment stays the application's to choose, and beside another copy of the backend (this
// program's own), each window running its own copy's procedure.
#include <gtest/gtest.h>

// clang-format off
#include <windows.h>
#include <objbase.h>
#include <dbt.h>
// clang-format on

#include <set>
#include <thread>

#include "Kernel/UsbLib_WinUsb.h"
#include "tests/usb/UsbTestSupport.h"

namespace orqtest {
namespace {

template <typename Function>
Function Export(HMODULE dll, const char* name) {
    FARPROC address = GetProcAddress(dll, name);
    EXPECT_NE(address, nullptr) << name;
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(address));
}

// A fresh thread must be free to choose its apartment, whether or not COM is set up already.
HRESULT EnterMultithreadedApartment() {
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result)) CoUninitialize();
    return result;
}

std::set<HINSTANCE> NotifyWindowModules() {
    std::set<HINSTANCE> modules;
    HWND window = nullptr;
    while ((window =
                FindWindowExW(nullptr, window, orq::kNotifyWindowClass, orq::kNotifyWindowClass))) {
        modules.insert(reinterpret_cast<HINSTANCE>(GetWindowLongPtrW(window, GWLP_HINSTANCE)));
    }
    return modules;
}

TEST(WinUsbDllTest, LeavesTheApplicationsApartmentAloneAndKeepsItsWindowClassToItself) {
    std::thread application([] {
        HMODULE dll = LoadLibraryW(L"orqsdk.dll");
        ASSERT_NE(dll, nullptr) << GetLastError();
        EXPECT_EQ(EnterMultithreadedApartment(), S_OK);

        auto start = Export<int (*)()>(dll, "OrqInitializeSDK");
        auto stop = Export<void (*)()>(dll, "OrqTerminateSDK");
        ASSERT_TRUE(start && stop);
        ASSERT_EQ(start(), 0);
        EXPECT_EQ(EnterMultithreadedApartment(), S_OK);

        // This program's own copy of the backend starts second, as a second plug-in would.
        ChangeRecorder recorder;
        auto own = orq::CreateUsbLib_WinUsb(&recorder, orq::WinUsbCalls{});
        const HINSTANCE program = GetModuleHandleW(nullptr);
        EXPECT_EQ(NotifyWindowModules(), (std::set<HINSTANCE>{dll, program}));
        WNDCLASSEXW found{};
        found.cbSize = sizeof(found);
        EXPECT_TRUE(GetClassInfoExW(dll, orq::kNotifyWindowClass, &found));
        WNDPROC dllProcedure = found.lpfnWndProc;
        EXPECT_TRUE(GetClassInfoExW(program, orq::kNotifyWindowClass, &found));
        EXPECT_NE(found.lpfnWndProc, dllProcedure);

        // Unloaded, the DLL leaves no class of its own behind, and the program's window still
        // runs: it never used the DLL's procedure.
        stop();
        EXPECT_FALSE(GetClassInfoExW(dll, orq::kNotifyWindowClass, &found));
        FreeLibrary(dll);
        EXPECT_EQ(NotifyWindowModules(), std::set<HINSTANCE>{program});
        for (HWND window = nullptr;
             (window = FindWindowExW(nullptr, window, orq::kNotifyWindowClass,
                                     orq::kNotifyWindowClass));) {
            DWORD_PTR answer = 0;
            EXPECT_TRUE(SendMessageTimeoutW(window, WM_DEVICECHANGE, DBT_DEVICEARRIVAL, 0,
                                            SMTO_ABORTIFHUNG, 5000, &answer));
        }
        EXPECT_EQ(recorder.calls.load(), 1);
        // A window left with the unloaded DLL's procedure would never close: the failure shows
        // at once rather than as a hang at the end.
        if (::testing::Test::HasFailure()) static_cast<void>(own.release());
    });
    application.join();
}

}  // namespace
}  // namespace orqtest
