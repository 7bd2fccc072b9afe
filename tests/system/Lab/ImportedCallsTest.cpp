// The fault sweeps can only fail what the lab stands in front of. A platform function that the service begins to import
// must therefore either get its hook (lab/shims/PlatformCalls.cpp) or a place in the list below, with its reason.

#include <gtest/gtest.h>

#include <windows.h>

#include <set>
#include <string>

#include "Lab/ServiceCalls.h"
#include "Monitor/MonitorMachine.h"

namespace
{
const std::set<std::string>& NotHooked()
{
    static const std::set<std::string> names = {
        // Shims and stand-ins of the lab answer these themselves, with journal and fault rules of their own.
        "CM_Get_Child", "CM_Get_DevNode_Registry_PropertyW", "CM_Get_DevNode_Status", "CM_Get_Device_IDW",
        "CM_Get_Parent", "CM_Get_Sibling", "CM_Locate_DevNodeW", "SendARP", "SetupDiCreateDeviceInfoList",
        "SetupDiDestroyDeviceInfoList", "SetupDiEnumDeviceInfo", "SetupDiGetClassDevsW", "SetupDiGetDeviceInstanceIdW",
        "SetupDiGetDeviceRegistryPropertyW", "SetupDiOpenDevRegKey", "SetupDiOpenDeviceInfoW", "GetSystemPowerStatus",
        "RegisterServiceCtrlHandlerExW",
        // They cannot fail, or only for an argument that is never given.
        "AcquireSRWLockExclusive", "ReleaseSRWLockExclusive", "TryAcquireSRWLockExclusive", "SleepConditionVariableSRW",
        "WakeAllConditionVariable", "WakeConditionVariable", "DeleteCriticalSection", "EnterCriticalSection",
        "InitializeCriticalSection", "LeaveCriticalSection", "TryEnterCriticalSection", "CompareStringOrdinal",
        "FileTimeToSystemTime", "GetCommandLineW", "GetCurrentProcess", "GetCurrentProcessId", "GetCurrentThread",
        "GetCurrentThreadId", "GetLastError", "SetLastError", "GetLocalTime", "GetSystemTimeAsFileTime",
        "GetTickCount64", "QueryPerformanceCounter", "QueryPerformanceFrequency", "GetModuleHandleA",
        "GetModuleHandleW", "GetModuleHandleExW", "GetStartupInfoW", "IsDebuggerPresent", "MultiByteToWideChar",
        "WideCharToMultiByte", "OutputDebugStringA", "OutputDebugStringW", "Sleep", "VerifyVersionInfoW",
        "VerSetConditionMask", "Wow64DisableWow64FsRedirection", "Wow64RevertWow64FsRedirection",
        "RtlIpv4AddressToStringW", "RtlIpv4StringToAddressW", "RtlIpv6AddressToStringW", "SafeArrayGetDim",
        "SafeArrayGetLBound", "SafeArrayGetUBound", "SafeArrayUnaccessData", "SysFreeString", "SysStringLen",
        "VariantClear", "VariantInit", "CopySid", "GetLengthSid", "GetSidIdentifierAuthority", "GetSidSubAuthority",
        "GetSidSubAuthorityCount", "IsValidSid", "InitializeSecurityDescriptor", "SetSecurityDescriptorGroup",
        "SetSecurityDescriptorOwner", "GetFileAttributesW", "LoadStringW", "VerQueryValueW",
        // A live handle or event cannot refuse these; a failure of a wait or of a signal would be the service's own
        // error.
        "SetEvent", "ResetEvent", "WaitForMultipleObjects", "WaitForSingleObject", "ReleaseMutex", "GetProcessTimes",
        // They give back: what they say changes nothing.
        "CloseHandle", "CloseServiceHandle", "CoTaskMemFree", "CoUninitialize", "DeregisterEventSource", "FreeLibrary",
        "LocalFree", "RegCloseKey",
        // The trace's own: its lines pass through here at any time and would disturb the counting.
        "SysAllocStringLen", "FormatMessageA", "FormatMessageW", "CryptAcquireContextA", "CryptGenRandom",
        "CryptReleaseContext", "SystemFunction036",
        // Before the service does anything, or while it dies.
        "AddVectoredExceptionHandler", "RemoveVectoredExceptionHandler", "SetUnhandledExceptionFilter",
        "MiniDumpWriteDump", "RaiseException", "SHGetFolderPathW", "GetUserNameW", "LocalAlloc", "VirtualProtect",
        "VirtualQuery",
        // The C++ library, the loading of libraries when first needed, and threads underneath.
        "LoadLibraryA", "SwitchToThread", "CreateEventA", "CreateSemaphoreA", "ReleaseSemaphore", "DuplicateHandle",
        "GetHandleInformation", "GetProcessAffinityMask", "SetProcessAffinityMask", "GetSystemTimeAdjustment",
        "SetSystemTime", "GetThreadContext", "SetThreadContext", "GetThreadPriority", "SetThreadPriority",
        "GetThreadTimes", "ResumeThread", "SuspendThread", "IsDBCSLeadByteEx", "IsWow64Process", "RtlCaptureContext",
        "RtlLookupFunctionEntry", "RtlUnwindEx", "RtlVirtualUnwind", "TlsAlloc", "TlsGetValue", "TlsSetValue",
        "__C_specific_handler", "___lc_codepage_func", "___mb_cur_max_func", "__iob_func", "__set_app_type",
        "__setusermatherr", "__wgetmainargs", "__winitenv", "_amsg_exit", "_assert", "_cexit", "_close", "_commode",
        "_endthreadex", "_errno", "_exit", "_fmode", "_initterm", "_lock", "_onexit", "_open", "_read",
        "_set_error_mode", "_setjmp", "_snwprintf", "_strdup", "_ultoa", "_unlock", "_wcmdln", "_write", "_wsopen_s",
        "abort", "calloc", "clock", "exit", "fprintf", "fputc", "fputs", "fputwc", "free", "fwprintf", "fwrite",
        "getenv", "isspace", "localeconv", "longjmp", "malloc", "memchr", "memcmp", "memcpy", "memmove", "memset",
        "printf", "realloc", "signal", "sprintf", "strcmp", "strerror", "strlen", "strncmp", "strstr", "strtoul",
        "towlower", "vfprintf", "wcslen", "wcsncmp"};
    return names;
}

using ImportedCalls = MonitorTest;

TEST_F(ImportedCalls, EachImportOfTheServiceIsHookedOrKnownNotToNeedIt)
{
    Lab(L"hooks on");
    ASSERT_TRUE(service.StopAndWait());
    Lab(L"journal --clear");
    ASSERT_TRUE(service.StartAndWait());
    lab::JournalPosition position;
    std::size_t looked = 0;
    for (const lab::Json& line : lab::Machine::Attach().ReadJournal(position))
    {
        if (line.value("call", "") != "HookPlatformCalls" || line.value("process", "") != "Halcyd.exe")
        {
            continue;
        }
        for (const lab::Json& name : line["out"]["notHooked"])
        {
            ++looked;
            EXPECT_TRUE(NotHooked().contains(name.get<std::string>()))
                << name << " is imported, and no fault sweep can fail it";
        }
    }
    EXPECT_GT(looked, 50u);
}
} // namespace
