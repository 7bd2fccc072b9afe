#include "tests/unit/Halcyd/FakeServices.h"

#include <sddl.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

#include "NetUtilities/Format.h"
#include "NetUtilities/Handles.h"

namespace
{
BOOL Refuse(DWORD error)
{
    SetLastError(error);
    return FALSE;
}

template <class T>
bool TooSmall(DWORD size, DWORD needed, T* neededOut)
{
    *neededOut = needed;
    return size < needed;
}
} // namespace

FakeServices::FakeServices(SleepClock& virtualClock) : clock(virtualClock)
{
    HookManager();
    HookQueries();
    HookControls();
    HookSecurity();
    HookPrivileges();
}

std::wstring FakeServices::Upper(std::wstring text)
{
    for (wchar_t& character : text)
    {
        character = static_cast<wchar_t>(std::towupper(character));
    }
    return text;
}

FakeService& FakeServices::Add(const std::wstring& keyName)
{
    auto service = std::make_unique<FakeService>();
    service->keyName = keyName;
    service->displayName = L"Display of " + keyName;
    FakeService& added = *service;
    services[Upper(keyName)] = std::move(service);
    return added;
}

FakeService* FakeServices::ServiceOf(SC_HANDLE handle)
{
    const auto found = handles.find(handle);
    if (found == handles.end() || found->second->service == nullptr)
    {
        return nullptr;
    }
    Advance(*found->second->service);
    return found->second->service;
}

SC_HANDLE FakeServices::NewHandle(FakeService* service, DWORD access)
{
    auto handle = std::make_unique<Handle>(Handle{service, access});
    const auto key = reinterpret_cast<SC_HANDLE>(handle.get());
    handles[key] = std::move(handle);
    return key;
}

void FakeServices::Advance(FakeService& service)
{
    if (service.changesTo != 0 && clock.Now() >= service.changesAt)
    {
        service.state = service.changesTo;
        service.changesTo = 0;
    }
}

void FakeServices::HookManager()
{
    OpenSCManagerWHook::Replace(
        [this](LPCWSTR, LPCWSTR, DWORD access)
        {
            Note(FormatText(L"manager {:#x}", access));
            return NewHandle(nullptr, access);
        });
    OpenServiceWHook::Replace(
        [this](SC_HANDLE, LPCWSTR name, DWORD access) -> SC_HANDLE
        {
            Note(FormatText(L"open {} {:#x}", name, access));
            const auto found = services.find(Upper(name));
            if (found == services.end())
            {
                SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
                return nullptr;
            }
            const bool security = access == READ_CONTROL || access == WRITE_DAC;
            if (!found->second->opens && !security)
            {
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            return NewHandle(found->second.get(), access);
        });
    CloseServiceHandleHook::Replace(
        [this](SC_HANDLE handle) -> BOOL
        {
            // A handle that is closed twice, or was never given out, fails the test by its count.
            return handles.erase(handle) == 1 ? TRUE : Refuse(ERROR_INVALID_HANDLE);
        });
    GetServiceKeyNameWHook::Replace(
        [this](SC_HANDLE, LPCWSTR display, LPWSTR out, LPDWORD size) -> BOOL
        {
            for (const auto& [key, service] : services)
            {
                if (service->displayName == display && service->keyName.size() < *size)
                {
                    std::wcscpy(out, service->keyName.c_str());
                    *size = static_cast<DWORD>(service->keyName.size());
                    return TRUE;
                }
            }
            return Refuse(ERROR_SERVICE_DOES_NOT_EXIST);
        });
}

void FakeServices::HookQueries()
{
    QueryServiceConfigWHook::Replace(
        [this](SC_HANDLE handle, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            const DWORD text = static_cast<DWORD>((service->displayName.size() + 1) * sizeof(wchar_t));
            if (TooSmall(size, static_cast<DWORD>(sizeof(*config)) + text, needed))
            {
                return Refuse(ERROR_INSUFFICIENT_BUFFER);
            }
            *config = {};
            config->dwStartType = service->startType;
            config->lpDisplayName = reinterpret_cast<LPWSTR>(config + 1);
            std::memcpy(config->lpDisplayName, service->displayName.c_str(), text);
            return TRUE;
        });
    QueryServiceStatusHook::Replace(
        [this](SC_HANDLE handle, LPSERVICE_STATUS status) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            *status = {};
            status->dwCurrentState = service->state;
            return TRUE;
        });
    QueryServiceStatusExHook::Replace(
        [this](SC_HANDLE handle, SC_STATUS_TYPE, LPBYTE out, DWORD size, LPDWORD needed) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            if (TooSmall(size, static_cast<DWORD>(sizeof(SERVICE_STATUS_PROCESS)), needed))
            {
                return Refuse(ERROR_INSUFFICIENT_BUFFER);
            }
            SERVICE_STATUS_PROCESS status{};
            status.dwCurrentState = service->state;
            std::memcpy(out, &status, sizeof(status));
            return TRUE;
        });
    EnumDependentServicesWHook::Replace(
        [this](SC_HANDLE handle, DWORD, LPENUM_SERVICE_STATUSW out, DWORD size, LPDWORD needed, LPDWORD count) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            *count = 0;
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            std::vector<FakeService*> active;
            DWORD bytes = 0;
            for (const std::wstring& name : service->dependents)
            {
                FakeService& dependent = (*this)[name];
                Advance(dependent);
                if (dependent.state != SERVICE_STOPPED)
                {
                    active.push_back(&dependent);
                    bytes += static_cast<DWORD>(sizeof(*out) + (dependent.keyName.size() + 1) * sizeof(wchar_t));
                }
            }
            if (TooSmall(size, bytes, needed))
            {
                return Refuse(ERROR_MORE_DATA);
            }
            auto* text = reinterpret_cast<wchar_t*>(out + active.size());
            for (std::size_t index = 0; index < active.size(); ++index)
            {
                out[index] = {};
                out[index].lpServiceName = text;
                std::wcscpy(text, active[index]->keyName.c_str());
                text += active[index]->keyName.size() + 1;
            }
            *count = static_cast<DWORD>(active.size());
            return TRUE;
        });
}

void FakeServices::HookControls()
{
    ChangeServiceConfigWHook::Replace(
        [this](SC_HANDLE handle, DWORD type, DWORD startType, DWORD error, LPCWSTR, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR,
               LPCWSTR, LPCWSTR) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr || type != SERVICE_NO_CHANGE || error != SERVICE_NO_CHANGE)
            {
                return Refuse(ERROR_INVALID_PARAMETER);
            }
            Note(FormatText(L"change {} {:#x}", service->keyName, startType));
            if (startType != SERVICE_NO_CHANGE)
            {
                if (startType > SERVICE_DISABLED)
                {
                    return Refuse(ERROR_INVALID_PARAMETER);
                }
                service->startType = startType;
            }
            return TRUE;
        });
    ControlServiceHook::Replace(
        [this](SC_HANDLE handle, DWORD control, LPSERVICE_STATUS status) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            Note(FormatText(L"control {} {}", service->keyName, control));
            service->controls.push_back(control);
            if (service->refuseControl != 0)
            {
                return Refuse(service->refuseControl);
            }
            if (control == SERVICE_CONTROL_STOP)
            {
                service->state = service->stopMilliseconds == 0 ? SERVICE_STOPPED : SERVICE_STOP_PENDING;
                service->changesAt = clock.Now() + service->stopMilliseconds;
                service->changesTo = SERVICE_STOPPED;
            }
            *status = {};
            status->dwCurrentState = service->state;
            return TRUE;
        });
    StartServiceWHook::Replace(
        [this](SC_HANDLE handle, DWORD, LPCWSTR*) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            Note(L"start " + service->keyName);
            if (service->refuseStart != 0)
            {
                return Refuse(service->refuseStart);
            }
            service->state = SERVICE_START_PENDING;
            service->changesAt = clock.Now() + service->startMilliseconds;
            service->changesTo = SERVICE_RUNNING;
            return TRUE;
        });
}

void FakeServices::HookSecurity()
{
    QueryServiceObjectSecurityHook::Replace(
        [this](SC_HANDLE handle, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR out, DWORD size, LPDWORD needed) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr)
            {
                return Refuse(ERROR_INVALID_HANDLE);
            }
            UniqueLocal descriptor;
            ULONG length = 0;
            if (ConvertStringSecurityDescriptorToSecurityDescriptorW(service->sddl.c_str(), SDDL_REVISION_1,
                                                                     descriptor.put(), &length) == FALSE)
            {
                return FALSE;
            }
            if (TooSmall(size, length, needed))
            {
                return Refuse(ERROR_INSUFFICIENT_BUFFER);
            }
            std::memcpy(out, descriptor.get(), length);
            return TRUE;
        });
    SetServiceObjectSecurityHook::Replace(
        [this](SC_HANDLE handle, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) -> BOOL
        {
            FakeService* service = ServiceOf(handle);
            if (service == nullptr || information != DACL_SECURITY_INFORMATION || !privilege)
            {
                return Refuse(ERROR_ACCESS_DENIED);
            }
            UniqueLocalMemory<wchar_t> text;
            if (ConvertSecurityDescriptorToStringSecurityDescriptorW(
                    descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, text.put(), nullptr) == FALSE)
            {
                return FALSE;
            }
            service->sddl = text.get();
            service->opens = service->sddl.find(L";SY") != std::wstring::npos;
            Note(L"amend " + service->keyName);
            return TRUE;
        });
}

void FakeServices::HookPrivileges()
{
    OpenProcessTokenHook::Replace(
        [this](HANDLE, DWORD access, PHANDLE token) -> BOOL
        {
            Note(FormatText(L"token {:#x}", access));
            *token = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            return TRUE;
        });
    LookupPrivilegeValueWHook::Replace(
        [this](LPCWSTR system, LPCWSTR name, PLUID luid) -> BOOL
        {
            Note(FormatText(L"lookup {} {}", system == nullptr, name));
            *luid = {9, 0};
            return TRUE;
        });
    AdjustTokenPrivilegesHook::Replace(
        [this](HANDLE, BOOL, PTOKEN_PRIVILEGES privileges, DWORD, PTOKEN_PRIVILEGES, PDWORD) -> BOOL
        {
            privilege = privileges->PrivilegeCount == 1 && privileges->Privileges[0].Luid.LowPart == 9 &&
                        privileges->Privileges[0].Attributes == SE_PRIVILEGE_ENABLED;
            Note(privilege ? L"privilege on" : L"privilege off");
            return TRUE;
        });
}
