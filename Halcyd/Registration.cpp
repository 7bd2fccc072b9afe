// What the registration words of the command line do: on the main thread of a process that does nothing else, with no
// class object registered. A step that fails is told, and nearly always the next one is taken all the same.

#include "Halcyd/InstallErrors.h"
#include "Halcyd/ResourceIds.h"
#include "Halcyd/ServiceModule.h"

#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

long CServiceModule::RegisterServer(int bRegTypeLib, int bService)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    const ComApartment apartment;

    Uninstall();
    LogMessageDefault(4, L"done removing old service (if needed)");

    LogMessageDefault(4, L"add registry entries required for the object the service houses");
    HRESULT result = UpdateRegistryFromResource(IDR_HALCYD, TRUE);
    if (FAILED(result))
    {
        LogError(static_cast<std::uint32_t>(result),
                 L"Could not update AppID registry subkeys for Local Server or Service");
    }

    LogMessageDefault(4, L"open the AppID key for the server/service");
    RegistryKey appIds;
    DWORD error = appIds.Open(HKEY_CLASSES_ROOT, L"AppID", KEY_WRITE);
    if (error != ERROR_SUCCESS)
    {
        LogError(error, L"could not set the AppID for Local Server or Service");
        return static_cast<long>(error);
    }
    LogMessageDefault(4, L"open the AppID registry value");
    RegistryKey appId;
    error = appId.Open(appIds, AppIdGuid, KEY_WRITE);
    if (error != ERROR_SUCCESS)
    {
        LogError(error, L"Error: could not set the AppID {} for Local Server or Service", AppIdGuid);
        return static_cast<long>(error);
    }
    LogMessageDefault(4, L"configure the module to run as a service or server");
    // A value that is not there is no problem. "ServiceParameters" is left behind: without this value nobody reads it.
    appId.DeleteValue(L"LocalService");

    if (bService != 0)
    {
        LogMessageDefault(4, L"flag to create service is set");
        appId.WriteString(L"LocalService", L"Halcyd");
        appId.WriteString(L"ServiceParameters", L"-Service");
        Install();
        LogMessageDefault(4, L"Installed Service"); // said even when it failed: required
    }

    result = CComModule::RegisterServer(bRegTypeLib);
    if (FAILED(result))
    {
        LogError(static_cast<std::uint32_t>(result), L"failed to update the system registry for objects");
    }
    else
    {
        LogMessageDefault(4, L"updated the system registry for all objects in the object map");
    }
    return result;
}

long CServiceModule::UnregisterServer()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    const ComApartment apartment;

    LogMessageDefault(4, L"updating the registry from the Halcyd registry resource");
    UpdateRegistryFromResource(IDR_HALCYD, FALSE);
    Uninstall();
    LogMessageDefault(4, L"remove Halcyd COM object entries");
    CComModule::UnregisterServer(TRUE);
    return S_OK;
}

int CServiceModule::Install()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    if (IsInstalled())
    {
        LogMessageDefault(4, L"server is already installed");
        return TRUE;
    }
    UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        LogError(GetLastError(), L"could not open SCM");
        return FALSE;
    }

    wchar_t path[MAX_PATH]{};
    GetModuleFileNameW(nullptr, path, ARRAYSIZE(path));
    LogFormatDefault(4, L"'{}' is the path for the current executable", std::wstring_view(path));
    LogMessageDefault(4, L"about to add the service to the SCM");

    const UniqueServiceHandle service(
        CreateServiceW(manager.get(), m_szServiceName, m_szDisplayName, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                       SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, path, nullptr, nullptr, L"RPCSS\0", nullptr, nullptr));
    if (service)
    {
        LogFormatDefault(4, L"created '{}' service", std::wstring_view(m_szServiceName));
        return TRUE;
    }

    manager.reset();
    const DWORD error = GetLastError();
    if (const auto words = DescribeCreateServiceError(error))
    {
        LogMessageDefault(2, *words);
    }
    else
    {
        LogError(error, L"Error creating the service");
    }
    LogError(error, L"could not create service");
    return FALSE;
}

int CServiceModule::IsInstalled()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        LogError(GetLastError(), L"could not open SCM");
        return FALSE;
    }
    const UniqueServiceHandle service(OpenServiceW(manager.get(), m_szServiceName, SERVICE_QUERY_CONFIG));
    if (!service)
    {
        // A level 2 line even where a missing service is what was hoped for: required.
        LogError(GetLastError(), L"could not open '{}' service", std::wstring_view(m_szServiceName));
        return FALSE;
    }
    LogFormatDefault(4, L"able to open '{}' service", std::wstring_view(m_szServiceName));
    return TRUE;
}

int CServiceModule::Uninstall()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    if (!IsInstalled())
    {
        LogFormatDefault(4, L"'{}' was not present, uninstall skipped", std::wstring_view(m_szServiceName));
        return TRUE;
    }
    UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        LogError(GetLastError(), L"Couldn't open service control manager");
        return FALSE;
    }
    UniqueServiceHandle service(OpenServiceW(manager.get(), m_szServiceName, SERVICE_STOP | DELETE));
    if (!service)
    {
        const DWORD error = GetLastError();
        manager.reset();
        LogError(error, L"Couldn't open service");
        return FALSE;
    }

    // Nobody waits for the stop, so the service may be marked for deletion while it still ends, and a creation that
    // follows at once can fail with 1072. That is required.
    LogMessageDefault(4, L"stopping service");
    SERVICE_STATUS status{};
    ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    LogMessageDefault(4, L"deleting service");
    const BOOL deleted = DeleteService(service.get());
    const DWORD error = GetLastError();
    service.reset();
    manager.reset();
    if (deleted)
    {
        LogMessageDefault(4, L"Deleted service");
        return TRUE;
    }
    LogError(error, L"Service could not be deleted");
    return FALSE;
}
