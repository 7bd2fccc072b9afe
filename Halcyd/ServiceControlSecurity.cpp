// CServiceControlEx: opening with repair of the security descriptor.

#include "Halcyd/ServiceControlEx.h"

#include <sddl.h>

#include "Halcyd/ServiceModeRules.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;

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
    const ScopeTrace scope{Source, ScopeFlag};
    SC_HANDLE service = OpenServiceW(scm, TextOrEmpty(name), access);
    if (service != nullptr)
    {
        return service;
    }
    DWORD error = GetLastError();
    LogErrorSource(Source, error, L"could not open {}", TextOrEmpty(name));
    if (error == ERROR_ACCESS_DENIED && CheckServiceSecurity(scm, name, L"SY") &&
        AmendServiceSecurity(scm, name, ServiceModeRules::DescriptorAddition.data()) != 0)
    {
        service = OpenServiceW(scm, TextOrEmpty(name), access);
        error = service != nullptr ? error : GetLastError();
    }
    // The callers report the open's own error, not that of the repair.
    if (service == nullptr)
    {
        SetLastError(error);
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
    if (SetPrivilege(token.get(), SE_TAKE_OWNERSHIP_NAME, 1) == 0)
    {
        LogErrorSource(Source, GetLastError(), L"could not set the SE_TAKE_OWNERSHIP_NAME privilege");
        return 0;
    }

    int updated = 0;
    UniqueServiceHandle service(OpenServiceW(scm, TextOrEmpty(name), WRITE_DAC));
    if (!service)
    {
        LogErrorSource(Source, GetLastError(), L"could not open the service WRITE_DAC rights");
    }
    else
    {
        std::wstring text;
        if (GetServiceSddl(scm, name, text) == ERROR_SUCCESS)
        {
            updated = ApplyDescriptor(service.get(), text + sddl);
        }
    }
    service.reset();

    if (SetPrivilege(token.get(), SE_TAKE_OWNERSHIP_NAME, 0) == 0)
    {
        LogErrorSource(Source, GetLastError(), L"could not remove the SE_TAKE_OWNERSHIP_NAME privilege");
    }
    return updated;
}

int CServiceControlEx::SetPrivilege(HANDLE token, const wchar_t* name, int enable)
{
    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = enable != 0 ? SE_PRIVILEGE_ENABLED : 0;
    if (LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid) == FALSE)
    {
        LogErrorSource(Source, GetLastError(), L"LookupPrivilegeValue");
        return 0;
    }
    if (AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr) == FALSE)
    {
        LogErrorSource(Source, GetLastError(), L"AdjustTokenPrivileges");
        return 0;
    }
    return 1;
}
