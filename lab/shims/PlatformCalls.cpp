// The platform calls that the fault sweeps fail one by one: each is journalled under its own name, with its texts and
// numbers by position, and a rule for the name makes it fail as its documentation says that it fails.
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"
#include "lab/shims/Shim.h"

#include <winsock2.h>
#include <objbase.h>
#include <oleauto.h>
#include <process.h>
#include <sddl.h>
#include <shellapi.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <type_traits>

namespace
{

enum class Failure
{
    Zero,          // returns 0, FALSE or null, the code is the last error
    ZeroAfter,     // the same, and it has been done all the same: what is given back is gone whatever it says
    InvalidHandle, // returns INVALID_HANDLE_VALUE, the code is the last error
    Code,          // returns the code itself: HRESULT, registry functions
    Null,          // returns null and says no more
};

template <std::size_t N>
struct Name
{
    char text[N];
    constexpr Name(const char (&from)[N]) { std::copy_n(from, N, text); } // NOLINT: a literal is meant to convert
};

// A number below 64 K in place of a text is an identifier.
bool IsText(const wchar_t* text)
{
    return reinterpret_cast<std::uintptr_t>(text) > 0xFFFF;
}

template <class T>
void JournalArgument(lab::Call& call, int position, const T& value)
{
    if (!call.Journalled())
        return;
    const std::string key = std::to_string(position);
    if constexpr (std::is_same_v<T, const wchar_t*>)
    {
        if (IsText(value))
            call.Arg(key, lab::Utf8(value));
    }
    else if constexpr (std::is_integral_v<T>)
    {
        call.Arg(key, value);
    }
}

template <class T>
void NoteDetail(const wchar_t*& detail, const T& value)
{
    if constexpr (std::is_same_v<T, const wchar_t*>)
    {
        if (detail == nullptr && IsText(value))
            detail = value;
    }
}

template <Name name, Failure failure, class Signature>
struct Hooked;

template <Name name, Failure failure, class R, class... A>
struct Hooked<name, failure, R(WINAPI*)(A...)>
{
    static inline R(WINAPI* original)(A...) = nullptr;

    static R Failed(std::uint32_t code)
    {
        if constexpr (failure == Failure::Code)
            return static_cast<R>(code);
        else if constexpr (failure == Failure::InvalidHandle)
            return SetLastError(code), INVALID_HANDLE_VALUE;
        else if constexpr (failure == Failure::Zero || failure == Failure::ZeroAfter)
            return SetLastError(code), R{};
        else
            return R{};
    }

    static std::uint32_t CodeOf(const R& result, std::uint32_t error)
    {
        if constexpr (failure == Failure::Code)
            return static_cast<std::uint32_t>(result);
        else if constexpr (failure == Failure::InvalidHandle)
            return result == INVALID_HANDLE_VALUE ? error : 0;
        else if constexpr (failure == Failure::Zero || failure == Failure::ZeroAfter)
            return result == R{} ? error : 0;
        else
            return result == R{} ? static_cast<std::uint32_t>(ERROR_OUTOFMEMORY) : 0;
    }

    // The program must find the last error as the platform left it, whatever the journal did in between.
    static R WINAPI Replacement(A... arguments)
    {
        const DWORD before = GetLastError();
        lab::Call call{name.text};
        int position = 0;
        (JournalArgument(call, ++position, arguments), ...);
        const wchar_t* detail = nullptr;
        (NoteDetail(detail, arguments), ...);
        if (const auto code = detail == nullptr ? call.Fault() : call.Fault(detail))
        {
            call.Result(*code);
            if constexpr (failure == Failure::ZeroAfter)
                original(arguments...);
            return Failed(*code);
        }
        SetLastError(before);
        const R result = original(arguments...);
        const DWORD after = GetLastError();
        call.Result(CodeOf(result, after));
        SetLastError(after);
        return result;
    }
};

// Names of the imports that are hooked in this program.
std::set<std::string>& HookedNames()
{
    static std::set<std::string> names;
    return names;
}

template <Name name, Failure failure, class Signature>
void Hook()
{
    using Entry = Hooked<name, failure, Signature>;
    Entry::original =
        reinterpret_cast<Signature>(lab::shim::ReplaceImport(name.text, reinterpret_cast<void*>(&Entry::Replacement)));
    HookedNames().insert(name.text);
}

#define HOOK(function, failure) Hook<#function, Failure::failure, decltype(&::function)>()

void HookKernel()
{
    HOOK(CreateEventW, Zero);
    HOOK(OpenEventW, Zero);
    HOOK(CreateMutexW, Zero);
    HOOK(CreateSemaphoreW, Zero);
    HOOK(CreateTimerQueue, Zero);
    HOOK(CreateTimerQueueTimer, Zero);
    HOOK(ChangeTimerQueueTimer, Zero);
    HOOK(DeleteTimerQueueTimer, ZeroAfter);
    HOOK(DeleteTimerQueueEx, ZeroAfter);
    HOOK(CreateThread, Zero);
    HOOK(_beginthreadex, Zero); // what the C++ library's threads are made with
    HOOK(LoadLibraryW, Zero);
    HOOK(LoadLibraryExW, Zero);
    HOOK(GetProcAddress, Zero);
    HOOK(CreateFileW, InvalidHandle);
    HOOK(DeviceIoControl, Zero);
    HOOK(CreateToolhelp32Snapshot, InvalidHandle);
    HOOK(Process32FirstW, Zero);
    HOOK(Process32NextW, Zero);
    HOOK(OpenProcess, Zero);
    HOOK(CreateProcessW, Zero);
    HOOK(CreatePipe, Zero);
    HOOK(CreateDirectoryW, Zero);
    HOOK(FindFirstFileW, InvalidHandle);
    HOOK(GetModuleFileNameW, Zero);
    HOOK(FindResourceW, Zero);
    HOOK(LoadResource, Zero);
    HOOK(ShellExecuteExW, Zero);
    HOOK(SHGetKnownFolderPath, Code);
    HOOK(GetFileVersionInfoSizeW, Zero);
    HOOK(GetFileVersionInfoW, Zero);
}

void HookSecurityAndServices()
{
    HOOK(OpenProcessToken, Zero);
    HOOK(OpenThreadToken, Zero);
    HOOK(GetTokenInformation, Zero);
    HOOK(DuplicateTokenEx, Zero);
    HOOK(ImpersonateLoggedOnUser, Zero);
    HOOK(RevertToSelf, Zero);
    HOOK(LookupPrivilegeValueW, Zero);
    HOOK(AdjustTokenPrivileges, Zero);
    HOOK(ConvertSidToStringSidW, Zero);
    HOOK(ConvertStringSecurityDescriptorToSecurityDescriptorW, Zero);
    HOOK(StartServiceCtrlDispatcherW, Zero);
    HOOK(SetServiceStatus, Zero);
    HOOK(OpenSCManagerW, Zero);
    HOOK(OpenServiceW, Zero);
    HOOK(CreateServiceW, Zero);
    HOOK(DeleteService, Zero);
    HOOK(ChangeServiceConfigW, Zero);
    HOOK(ChangeServiceConfig2W, Zero);
    HOOK(QueryServiceConfigW, Zero);
    HOOK(QueryServiceStatus, Zero);
    HOOK(QueryServiceStatusEx, Zero);
    HOOK(ControlService, Zero);
    HOOK(StartServiceW, Zero);
    HOOK(EnumDependentServicesW, Zero);
    HOOK(QueryServiceObjectSecurity, Zero);
    HOOK(SetServiceObjectSecurity, Zero);
    HOOK(GetServiceKeyNameW, Zero);
    HOOK(LookupAccountNameW, Zero);
    HOOK(ConvertSecurityDescriptorToStringSecurityDescriptorW, Zero);
    HOOK(RegisterEventSourceW, Zero);
    HOOK(ReportEventW, Zero);
}

void HookRegistry()
{
    HOOK(RegOpenKeyExW, Code);
    HOOK(RegCloseKey, Code);
    HOOK(RegCreateKeyExW, Code);
    HOOK(RegOpenCurrentUser, Code);
    HOOK(RegQueryValueExW, Code);
    HOOK(RegSetValueExW, Code);
    HOOK(RegEnumKeyExW, Code);
    HOOK(RegEnumValueW, Code);
    HOOK(RegQueryInfoKeyW, Code);
    HOOK(RegDeleteKeyW, Code);
    HOOK(RegDeleteKeyExW, Code);
    HOOK(RegDeleteTreeW, Code);
    HOOK(RegDeleteValueW, Code);
    HOOK(RegNotifyChangeKeyValue, Code);
}

void HookCom()
{
    HOOK(CoInitializeEx, Code);
    HOOK(CoInitializeSecurity, Code);
    // Below the hook: a rule for CoCreateInstance comes first.
    lab::shim::HookInterfaceTable();
    HOOK(CoCreateInstance, Code);
    HOOK(CoGetClassObject, Code);
    HOOK(CoRegisterClassObject, Code);
    HOOK(CoResumeClassObjects, Code);
    HOOK(CoSuspendClassObjects, Code);
    HOOK(CoRevokeClassObject, Code);
    HOOK(CoSetProxyBlanket, Code);
    HOOK(CoImpersonateClient, Code);
    HOOK(CoRevertToSelf, Code);
    HOOK(OleRun, Code);
    HOOK(CLSIDFromString, Code);
    HOOK(StringFromCLSID, Code);
    HOOK(CoTaskMemAlloc, Null);
    HOOK(CoTaskMemRealloc, Null);
    HOOK(SysAllocString, Null);
    HOOK(SafeArrayCreateVector, Null);
    HOOK(SafeArrayPutElement, Code);
    HOOK(SafeArrayAccessData, Code);
    HOOK(VariantChangeType, Code);
    HOOK(VariantCopyInd, Code);
    HOOK(LoadTypeLib, Code);
    HOOK(LoadTypeLibEx, Code);
    HOOK(LoadRegTypeLib, Code);
    HOOK(RegisterTypeLib, Code);
    HOOK(UnRegisterTypeLib, Code);
}

} // namespace

void lab::shim::HookPlatformCalls()
{
    HookKernel();
    HookSecurityAndServices();
    HookRegistry();
    HookCom();
    lab::Call call{"HookPlatformCalls"};
    lab::Json plain = lab::Json::array();
    for (const std::string& name : ImportedFunctions())
    {
        if (!HookedNames().contains(name))
            plain.push_back(name);
    }
    call.Out("notHooked", plain).Result(0);
}
