// CServiceControlEx: opening with repair of the security descriptor.

#include "Halcyd/ServiceControlEx.h"

#include <sddl.h>

#include <new>

#include "Halcyd/ServiceModeRules.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;

// The thread's last error as a caller is to find it. Declared ahead of a function's ScopeTrace, so that it is set
// behind the exit line: nothing that the trace calls can hide why the function failed.
class LastErrorForCaller
{
public:
    LastErrorForCaller() noexcept = default;
    LastErrorForCaller(const LastErrorForCaller&) = delete;
    LastErrorForCaller& operator=(const LastErrorForCaller&) = delete;
    ~LastErrorForCaller() { SetLastError(error); }
    // Takes the thread's last error as it is now.
    DWORD Take() noexcept { return error = GetLastError(); }

private:
    DWORD error = GetLastError();
};

// A privilege of the process that is on for as long as this object lives, and off again whatever ends it.
class PrivilegeScope
{
public:
    // `tokenHandle` outlives this object and needs TOKEN_ADJUST_PRIVILEGES.
    PrivilegeScope(HANDLE tokenHandle, const wchar_t* privilegeName)
        : token(tokenHandle), name(privilegeName), enabled(CServiceControlEx::SetPrivilege(token, name, 1) != 0)
    {
    }
    PrivilegeScope(const PrivilegeScope&) = delete;
    PrivilegeScope& operator=(const PrivilegeScope&) = delete;
    ~PrivilegeScope()
    {
        try
        {
            if (enabled && CServiceControlEx::SetPrivilege(token, name, 0) == 0)
            {
                LogErrorSource(Source, GetLastError(), L"could not remove the SE_TAKE_OWNERSHIP_NAME privilege");
            }
        }
        catch (const std::bad_alloc&)
        {
            // Only the trace allocates: its line is lost, nothing else.
            return;
        }
    }
    [[nodiscard]] bool Enabled() const noexcept { return enabled; }

private:
    HANDLE token;
    const wchar_t* name;
    bool enabled;
};

// Applies the text `sddl` as the DACL of `service`. Non-zero on success.
int ApplyDescriptor(SC_HANDLE service, const std::wstring& sddl)
{
    UniqueLocal descriptor;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, descriptor.put(),
                                                             nullptr) == FALSE)
    {
        LogErrorSource(Source, GetLastError(), L"could not convert the amended security descriptor");
        return 0;
    }
    LogMessage(Source, 4, L"Converted security descriptor");
    if (SetServiceObjectSecurity(service, DACL_SECURITY_INFORMATION, descriptor.get()) == FALSE)
    {
        LogErrorSource(Source, GetLastError(), L"could not set the amended security descriptor");
        return 0;
    }
    LogMessage(Source, 4, L"updated the security descriptor");
    return 1;
}
} // namespace

SC_HANDLE CServiceControlEx::MyOpenService(SC_HANDLE scm, const wchar_t* name, DWORD access)
{
    // The callers report the open's own error, not that of the repair.
    LastErrorForCaller lastError;
    const ScopeTrace scope{Source, ScopeFlag};
    SC_HANDLE service = OpenServiceW(scm, TextOrEmpty(name), access);
    if (service != nullptr)
    {
        return service;
    }
    const DWORD error = lastError.Take();
    LogErrorSource(Source, error, L"could not open {}", TextOrEmpty(name));
    if (error == ERROR_ACCESS_DENIED && CheckServiceSecurity(scm, name, L"SY") &&
        AmendServiceSecurity(scm, name, ServiceModeRules::DescriptorAddition.data()) != 0)
    {
        service = OpenServiceW(scm, TextOrEmpty(name), access);
        lastError.Take();
    }
    return service;
}

DWORD CServiceControlEx::GetServiceSddl(SC_HANDLE scm, const wchar_t* name, std::wstring& out)
{
    const ScopeTrace scope{Source, ScopeFlag};
    out.clear();
    const UniqueServiceHandle service(OpenServiceW(scm, TextOrEmpty(name), READ_CONTROL));
    if (!service)
    {
        const DWORD error = GetLastError();
        LogErrorSource(Source, error, L"could not open {} to get security descriptor", TextOrEmpty(name));
        return error;
    }
    alignas(SECURITY_DESCRIPTOR) BYTE descriptor[1024] = {};
    DWORD needed = 0;
    if (QueryServiceObjectSecurity(service.get(), DACL_SECURITY_INFORMATION, descriptor, sizeof(descriptor), &needed) ==
        FALSE)
    {
        const DWORD error = GetLastError();
        LogErrorSource(Source, error, L"QueryServiceObjectSecurity failed");
        return error;
    }
    UniqueLocalMemory<wchar_t> text;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             text.put(), nullptr) == FALSE)
    {
        const DWORD error = GetLastError();
        LogErrorSource(Source, error, L"problem converting descriptor to a string");
        return error;
    }
    out = TextOrEmpty(text.get());
    return ERROR_SUCCESS;
}

bool CServiceControlEx::CheckServiceSecurity(SC_HANDLE scm, const wchar_t* name, const wchar_t* entity)
{
    const ScopeTrace scope{Source, ScopeFlag};
    std::wstring sddl;
    if (GetServiceSddl(scm, name, sddl) != ERROR_SUCCESS)
    {
        return false;
    }
    if (!ServiceModeRules::DescriptorNames(sddl, entity))
    {
        LogFormat(Source, 4, L"we need to add '{}'", entity);
        return true;
    }
    LogMessage(Source, 4, L"security permissions are okay");
    return false;
}

int CServiceControlEx::AmendServiceSecurity(SC_HANDLE scm, const wchar_t* name, const wchar_t* sddl)
{
    const ScopeTrace scope{Source, ScopeFlag};
    UniqueHandle token;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put()) == FALSE)
    {
        LogErrorSource(Source, GetLastError(), L"OpenProcessToken failed");
        return 0;
    }
    // Made before the service is opened: the service is closed first, then the privilege goes.
    const PrivilegeScope privilege(token.get(), SE_TAKE_OWNERSHIP_NAME);
    if (!privilege.Enabled())
    {
        LogErrorSource(Source, GetLastError(), L"could not set the SE_TAKE_OWNERSHIP_NAME privilege");
        return 0;
    }
    const UniqueServiceHandle service(OpenServiceW(scm, TextOrEmpty(name), WRITE_DAC));
    if (!service)
    {
        LogErrorSource(Source, GetLastError(), L"could not open the service WRITE_DAC rights");
        return 0;
    }
    std::wstring text;
    if (GetServiceSddl(scm, name, text) != ERROR_SUCCESS)
    {
        return 0;
    }
    return ApplyDescriptor(service.get(), text + sddl);
}

int CServiceControlEx::SetPrivilege(HANDLE token, const wchar_t* name, int enable)
{
    LastErrorForCaller lastError;
    const ScopeTrace scope{Source, ScopeFlag};
    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = enable != 0 ? SE_PRIVILEGE_ENABLED : 0;
    if (LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid) == FALSE)
    {
        LogErrorSource(Source, lastError.Take(), L"LookupPrivilegeValue");
        return 0;
    }
    // A privilege that the token does not hold is no failure here (ERROR_NOT_ALL_ASSIGNED): the account of the service
    // holds it, and what it is needed for fails by itself otherwise.
    if (AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr) == FALSE)
    {
        LogErrorSource(Source, lastError.Take(), L"AdjustTokenPrivileges");
        return 0;
    }
    return 1;
}
