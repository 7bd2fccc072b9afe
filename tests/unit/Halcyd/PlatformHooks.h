#pragma once
// Lets a test answer platform functions in the place of the platform, with the code under test unchanged: the import
// slots that the linker would take from the platform's import library are defined in this program and lead to
// Hook<...>::Call, which passes on to the real function unless a test has put a replacement in its place.
//
// Replacements are set while no other thread calls; PlatformHooks::Reset brings all real functions back.

#include <windows.h>
#include <oleauto.h>
#include <winsvc.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace PlatformHooks
{
// One failure to come: the call number `nth` (from 1) of the function answers `code`.
struct Failure
{
    int nth = 0;
    DWORD code = 0;
};

struct State
{
    std::map<std::string, int> calls;
    std::map<std::string, Failure> failures;
    std::vector<std::function<void()>> clear;
};
State& Current();

// Counts a call; true if it is the one to fail, with its code.
bool Fails(const std::string& name, DWORD& code);
// The call number `nth` of `name` fails with `code`.
void FailCall(const std::string& name, int nth, DWORD code);
[[nodiscard]] int Calls(const std::string& name);
void Reset();

// How a function tells its failure.
template <class Result>
struct FailureResult
{
    static Result Make(DWORD code)
    {
        SetLastError(code);
        return Result{};
    }
};
template <>
struct FailureResult<LONG>
{
    static LONG Make(DWORD code) { return static_cast<LONG>(code); }
};

template <class Tag, class Signature>
struct Hook;

template <class Tag, class Result, class... Args>
struct Hook<Tag, Result(Args...)>
{
    static inline std::function<Result(Args...)> replacement;

    static Result Real(Args... args)
    {
        using Function = Result (*)(Args...);
        static const auto function =
            reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(Tag::dll), Tag::name)));
        return function(args...);
    }
    static Result Call(Args... args)
    {
        DWORD code = 0;
        if (Fails(Tag::name, code))
        {
            return FailureResult<Result>::Make(code);
        }
        return replacement ? replacement(args...) : Real(args...);
    }
    template <class Function>
    static void Replace(Function&& function)
    {
        replacement = std::forward<Function>(function);
        Current().clear.push_back([] { replacement = nullptr; });
    }
};
} // namespace PlatformHooks

#define PLATFORM_HOOK(function, library, signature)                                                                    \
    struct function##Tag                                                                                               \
    {                                                                                                                  \
        static constexpr const char* name = #function;                                                                 \
        static constexpr const wchar_t* dll = library;                                                                 \
    };                                                                                                                 \
    using function##Hook = PlatformHooks::Hook<function##Tag, signature>;

// clang-format off
PLATFORM_HOOK(OpenSCManagerW, L"advapi32.dll", SC_HANDLE(LPCWSTR, LPCWSTR, DWORD))
PLATFORM_HOOK(OpenServiceW, L"advapi32.dll", SC_HANDLE(SC_HANDLE, LPCWSTR, DWORD))
PLATFORM_HOOK(CloseServiceHandle, L"advapi32.dll", BOOL(SC_HANDLE))
PLATFORM_HOOK(QueryServiceConfigW, L"advapi32.dll", BOOL(SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD))
PLATFORM_HOOK(QueryServiceStatus, L"advapi32.dll", BOOL(SC_HANDLE, LPSERVICE_STATUS))
PLATFORM_HOOK(QueryServiceStatusEx, L"advapi32.dll", BOOL(SC_HANDLE, SC_STATUS_TYPE, LPBYTE, DWORD, LPDWORD))
PLATFORM_HOOK(GetServiceKeyNameW, L"advapi32.dll", BOOL(SC_HANDLE, LPCWSTR, LPWSTR, LPDWORD))
PLATFORM_HOOK(ChangeServiceConfigW, L"advapi32.dll", BOOL(SC_HANDLE, DWORD, DWORD, DWORD, LPCWSTR, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR))
PLATFORM_HOOK(ControlService, L"advapi32.dll", BOOL(SC_HANDLE, DWORD, LPSERVICE_STATUS))
PLATFORM_HOOK(StartServiceW, L"advapi32.dll", BOOL(SC_HANDLE, DWORD, LPCWSTR*))
PLATFORM_HOOK(EnumDependentServicesW, L"advapi32.dll", BOOL(SC_HANDLE, DWORD, LPENUM_SERVICE_STATUSW, DWORD, LPDWORD, LPDWORD))
PLATFORM_HOOK(QueryServiceObjectSecurity, L"advapi32.dll", BOOL(SC_HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR, DWORD, LPDWORD))
PLATFORM_HOOK(SetServiceObjectSecurity, L"advapi32.dll", BOOL(SC_HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR))
PLATFORM_HOOK(OpenProcessToken, L"advapi32.dll", BOOL(HANDLE, DWORD, PHANDLE))
PLATFORM_HOOK(LookupPrivilegeValueW, L"advapi32.dll", BOOL(LPCWSTR, LPCWSTR, PLUID))
PLATFORM_HOOK(AdjustTokenPrivileges, L"advapi32.dll", BOOL(HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD))
PLATFORM_HOOK(VerifyVersionInfoW, L"kernel32.dll", BOOL(LPOSVERSIONINFOEXW, DWORD, DWORDLONG))
PLATFORM_HOOK(RegCreateKeyExW, L"advapi32.dll", LONG(HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD))
PLATFORM_HOOK(RegOpenKeyExW, L"advapi32.dll", LONG(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY))
PLATFORM_HOOK(RegQueryValueExW, L"advapi32.dll", LONG(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD))
PLATFORM_HOOK(RegSetValueExW, L"advapi32.dll", LONG(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD))
PLATFORM_HOOK(RegDeleteValueW, L"advapi32.dll", LONG(HKEY, LPCWSTR))
PLATFORM_HOOK(RegDeleteTreeW, L"advapi32.dll", LONG(HKEY, LPCWSTR))
PLATFORM_HOOK(RegDeleteKeyExW, L"advapi32.dll", LONG(HKEY, LPCWSTR, REGSAM, DWORD))
PLATFORM_HOOK(CoInitializeEx, L"ole32.dll", HRESULT(LPVOID, DWORD))
PLATFORM_HOOK(ConvertSecurityDescriptorToStringSecurityDescriptorW, L"advapi32.dll", BOOL(PSECURITY_DESCRIPTOR, DWORD, SECURITY_INFORMATION, LPWSTR*, PULONG))
PLATFORM_HOOK(LocalAlloc, L"kernel32.dll", HLOCAL(UINT, SIZE_T))
PLATFORM_HOOK(SafeArrayCreateVector, L"oleaut32.dll", SAFEARRAY*(VARTYPE, LONG, ULONG))
PLATFORM_HOOK(RegEnumKeyExW, L"advapi32.dll", LONG(HKEY, DWORD, LPWSTR, LPDWORD, LPDWORD, LPWSTR, LPDWORD, PFILETIME))
// clang-format on

// A fixture's member: whatever a test hooks is unhooked behind it.
class HookScope
{
public:
    HookScope() { PlatformHooks::Reset(); }
    ~HookScope() { PlatformHooks::Reset(); }
    HookScope(const HookScope&) = delete;
    HookScope& operator=(const HookScope&) = delete;
};
