#pragma once
// Hooks on what the host of the process asks of the platform: service manager, class objects, processes, event log.

#include <windows.h>
#include <objbase.h>
#include <tlhelp32.h>

#include "PlatformHooks.h"

// A function without a result fails silently.
template <>
struct PlatformHooks::FailureResult<void>
{
    static void Make(DWORD code) { SetLastError(code); }
};

// clang-format off
PLATFORM_HOOK(RegisterServiceCtrlHandlerExW, L"advapi32.dll", SERVICE_STATUS_HANDLE(LPCWSTR, LPHANDLER_FUNCTION_EX, LPVOID))
PLATFORM_HOOK(SetServiceStatus, L"advapi32.dll", BOOL(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS))
PLATFORM_HOOK(StartServiceCtrlDispatcherW, L"advapi32.dll", BOOL(const SERVICE_TABLE_ENTRYW*))
PLATFORM_HOOK(CreateServiceW, L"advapi32.dll", SC_HANDLE(SC_HANDLE, LPCWSTR, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR))
PLATFORM_HOOK(DeleteService, L"advapi32.dll", BOOL(SC_HANDLE))
PLATFORM_HOOK(GetTokenInformation, L"advapi32.dll", BOOL(HANDLE, TOKEN_INFORMATION_CLASS, LPVOID, DWORD, PDWORD))
PLATFORM_HOOK(OpenThreadToken, L"advapi32.dll", BOOL(HANDLE, DWORD, BOOL, PHANDLE))
PLATFORM_HOOK(RegisterEventSourceW, L"advapi32.dll", HANDLE(LPCWSTR, LPCWSTR))
PLATFORM_HOOK(ReportEventW, L"advapi32.dll", BOOL(HANDLE, WORD, WORD, DWORD, PSID, WORD, DWORD, LPCWSTR*, LPVOID))
PLATFORM_HOOK(CoInitializeSecurity, L"ole32.dll", HRESULT(PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE*, void*, DWORD, DWORD, void*, DWORD, void*))
PLATFORM_HOOK(CoRegisterClassObject, L"ole32.dll", HRESULT(REFCLSID, LPUNKNOWN, DWORD, DWORD, LPDWORD))
PLATFORM_HOOK(CoRevokeClassObject, L"ole32.dll", HRESULT(DWORD))
PLATFORM_HOOK(CoResumeClassObjects, L"ole32.dll", HRESULT())
PLATFORM_HOOK(CoSuspendClassObjects, L"ole32.dll", HRESULT())
PLATFORM_HOOK(CoCreateInstance, L"ole32.dll", HRESULT(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*))
PLATFORM_HOOK(CreateEventW, L"kernel32.dll", HANDLE(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR))
PLATFORM_HOOK(OutputDebugStringW, L"kernel32.dll", void(LPCWSTR))
PLATFORM_HOOK(LoadStringW, L"user32.dll", int(HINSTANCE, UINT, LPWSTR, int))
PLATFORM_HOOK(GetSystemPowerStatus, L"kernel32.dll", BOOL(LPSYSTEM_POWER_STATUS))
PLATFORM_HOOK(OpenProcess, L"kernel32.dll", HANDLE(DWORD, BOOL, DWORD))
PLATFORM_HOOK(CreateToolhelp32Snapshot, L"kernel32.dll", HANDLE(DWORD, DWORD))
PLATFORM_HOOK(Process32FirstW, L"kernel32.dll", BOOL(HANDLE, LPPROCESSENTRY32W))
PLATFORM_HOOK(Process32NextW, L"kernel32.dll", BOOL(HANDLE, LPPROCESSENTRY32W))
// clang-format on
