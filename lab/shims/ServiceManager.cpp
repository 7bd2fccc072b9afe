// What Wine's service manager does not know: which services depend on another, and who may open a service. From the
// state, for the services that it names; all others, and all other calls, are the manager's own:
//   "services": { "PolicyAgent": { "dependents": ["First", "Second"], "sddl": "D:(A;;CCLC;;;BA)" } }
//
// `dependents`: EnumDependentServicesW gives those of them that are not stopped, in this order. `sddl`: the service's
// DACL. Without an entry that allows SY, the account of the service under test, OpenServiceW refuses with 5 all rights
// but READ_CONTROL and WRITE_DAC, which an owner keeps. QueryServiceObjectSecurity and SetServiceObjectSecurity read
// and write it. Names are told apart by case here.
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"
#include "lab/shims/Shim.h"
#include "lab/state/Handles.h"

#include <sddl.h>
#include <winsvc.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace
{

using lab::Json;

decltype(&OpenServiceW) g_open = nullptr;
decltype(&CloseServiceHandle) g_close = nullptr;
decltype(&EnumDependentServicesW) g_dependents = nullptr;
decltype(&QueryServiceObjectSecurity) g_query = nullptr;
decltype(&SetServiceObjectSecurity) g_set = nullptr;

struct OpenedService
{
    std::string name;
    SC_HANDLE manager;
};

// The services of the state that the program has open, by handle.
class OpenedServices
{
public:
    void Add(SC_HANDLE handle, const OpenedService& service)
    {
        const std::scoped_lock lock{m_mutex};
        m_services[handle] = service;
    }
    void Remove(SC_HANDLE handle)
    {
        const std::scoped_lock lock{m_mutex};
        m_services.erase(handle);
    }
    [[nodiscard]] OpenedService Find(SC_HANDLE handle)
    {
        const std::scoped_lock lock{m_mutex};
        const auto found = m_services.find(handle);
        return found == m_services.end() ? OpenedService{} : found->second;
    }

private:
    std::mutex m_mutex;
    std::map<SC_HANDLE, OpenedService> m_services;
};

OpenedServices& Opened()
{
    static auto* const opened = new OpenedServices; // used until the process has gone
    return *opened;
}

// A member of the service's entry in the state; a null value if the state does not name the service.
Json Described(const std::string& service, const char* member)
{
    const auto state = lab::Machine::Attach().Snapshot();
    return lab::Member(lab::Member(lab::Member(*state, "services"), service.c_str()), member);
}

BOOL Refuse(DWORD error)
{
    SetLastError(error);
    return FALSE;
}

// True if one of the entries allows the account of the service under test.
bool AllowsSystem(const std::string& sddl)
{
    for (std::size_t at = sddl.find("(A;"); at != std::string::npos; at = sddl.find("(A;", at + 1))
    {
        const std::size_t end = sddl.find(')', at);
        if (end != std::string::npos && std::string_view(sddl).substr(at, end - at).ends_with(";SY"))
            return true;
    }
    return false;
}

SC_HANDLE WINAPI Open(SC_HANDLE manager, LPCWSTR name, DWORD access)
{
    const std::string service = lab::Utf8(name != nullptr ? name : L"");
    const Json sddl = Described(service, "sddl");
    if (sddl.is_string() && (access & ~static_cast<DWORD>(READ_CONTROL | WRITE_DAC)) != 0 &&
        !AllowsSystem(sddl.get<std::string>()))
    {
        Refuse(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const SC_HANDLE handle = g_open(manager, name, access);
    const DWORD error = GetLastError();
    if (handle != nullptr)
        Opened().Add(handle, {service, manager});
    SetLastError(error);
    return handle;
}

BOOL WINAPI Close(SC_HANDLE handle)
{
    Opened().Remove(handle);
    return g_close(handle);
}

// Its state, or nothing for a service that is stopped or not there.
std::optional<SERVICE_STATUS> ActiveStatus(SC_HANDLE manager, const std::wstring& name)
{
    const lab::Owned<SC_HANDLE, &CloseServiceHandle> handle{g_open(manager, name.c_str(), SERVICE_QUERY_STATUS)};
    SERVICE_STATUS status{};
    const bool told = handle && QueryServiceStatus(handle.get(), &status) != FALSE;
    return told && status.dwCurrentState != SERVICE_STOPPED ? std::optional(status) : std::nullopt;
}

BOOL WINAPI Dependents(SC_HANDLE handle, DWORD states, LPENUM_SERVICE_STATUSW out, DWORD size, LPDWORD needed,
                       LPDWORD count)
{
    const OpenedService service = Opened().Find(handle);
    const Json names = Described(service.name, "dependents");
    if (!names.is_array())
        return g_dependents(handle, states, out, size, needed, count);
    std::vector<std::pair<std::wstring, SERVICE_STATUS>> active;
    DWORD bytes = 0;
    for (const Json& name : names)
    {
        const std::wstring wide = lab::Wide(name.get<std::string>());
        if (const auto status = ActiveStatus(service.manager, wide))
        {
            active.emplace_back(wide, *status);
            bytes += static_cast<DWORD>(sizeof *out + (wide.size() + 1) * sizeof(wchar_t));
        }
    }
    *needed = bytes;
    *count = 0;
    if (bytes > size)
        return Refuse(ERROR_MORE_DATA);
    auto* text = reinterpret_cast<wchar_t*>(out + active.size());
    for (std::size_t index = 0; index < active.size(); ++index)
    {
        const auto& [name, status] = active[index];
        out[index] = {text, text, status};
        text = std::copy_n(name.c_str(), name.size() + 1, text);
    }
    *needed = 0;
    *count = static_cast<DWORD>(active.size());
    return TRUE;
}

BOOL WINAPI QuerySecurity(SC_HANDLE handle, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR out, DWORD size,
                          LPDWORD needed)
{
    const Json sddl = Described(Opened().Find(handle).name, "sddl");
    if (!sddl.is_string())
        return g_query(handle, information, out, size, needed);
    lab::Owned<PSECURITY_DESCRIPTOR, &LocalFree> descriptor;
    ULONG length = 0;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(lab::Wide(sddl.get<std::string>()).c_str(),
                                                              SDDL_REVISION_1, descriptor.put(), &length))
        return FALSE;
    *needed = length;
    if (length > size)
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(out, descriptor.get(), length);
    return TRUE;
}

BOOL WINAPI SetSecurity(SC_HANDLE handle, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor)
{
    const std::string service = Opened().Find(handle).name;
    if (!Described(service, "sddl").is_string())
        return g_set(handle, information, descriptor);
    lab::Owned<wchar_t*, &LocalFree> text;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                              text.put(), nullptr))
        return FALSE;
    lab::Machine::Attach().Update(
        [&](Json& state, lab::Events&)
        {
            Json& entry = state["services"][service];
            entry["sddl"] = lab::Utf8(text.get());
            entry["amended"] = lab::NumberField(entry, "amended", 0) + 1;
        });
    return TRUE;
}

template <class Function>
void Hook(Function& original, const char* name, Function replacement)
{
    original = reinterpret_cast<Function>(lab::shim::ReplaceImport(name, reinterpret_cast<void*>(replacement)));
}

} // namespace

void lab::shim::HookServiceManager()
{
    Hook(g_open, "OpenServiceW", &Open);
    Hook(g_close, "CloseServiceHandle", &Close);
    Hook(g_dependents, "EnumDependentServicesW", &Dependents);
    Hook(g_query, "QueryServiceObjectSecurity", &QuerySecurity);
    Hook(g_set, "SetServiceObjectSecurity", &SetSecurity);
}
