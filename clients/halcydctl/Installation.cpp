#include "clients/halcydctl/Installation.h"

#include <cwchar>
#include <vector>

#include "NetUtilities/Handles.h"

namespace
{
constexpr const wchar_t* ServiceName = L"Halcyd";
constexpr const wchar_t* MonitorClass = L"CLSID\\{EB0A2BB8-5AA4-4787-99FE-F92A56BB39CD}";
constexpr const wchar_t* MonitorInterface = L"Interface\\{E2FB2D06-5F8C-4406-8CA2-4DBDC3A93885}\\ProxyStubClsid32";
constexpr const wchar_t* ApplicationKey = L"AppID\\{5FC2628B-D382-48C0-8B04-3A80AC9CF8AB}";
constexpr const wchar_t* TraceClass = L"CLSID\\{904D1B57-4C3C-4F54-B426-1A62D5CAA8DE}";
constexpr const wchar_t* GenericMarshaler = L"{00020424-0000-0000-C000-000000000046}";

// A text of the merged classes root, empty if it is not there.
std::wstring ReadClassText(const std::wstring& key, const wchar_t* value)
{
    std::wstring text(1024, L'\0');
    DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), value, RRF_RT_REG_SZ, nullptr, text.data(), &size) !=
            ERROR_SUCCESS ||
        size < sizeof(wchar_t))
    {
        return {};
    }
    text.resize(size / sizeof(wchar_t) - 1);
    return text;
}

ServiceCondition ConditionOf(DWORD state)
{
    switch (state)
    {
    case SERVICE_RUNNING:
    case SERVICE_PAUSED:
    case SERVICE_PAUSE_PENDING:
    case SERVICE_CONTINUE_PENDING:
        return ServiceCondition::Running;
    case SERVICE_START_PENDING:
        return ServiceCondition::Starting;
    case SERVICE_STOP_PENDING:
        return ServiceCondition::Stopping;
    default:
        return ServiceCondition::Stopped;
    }
}

void ReadService(InstallationFacts& facts)
{
    facts.startType = 0xFFFFFFFF;
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const UniqueServiceHandle service(
        manager ? OpenServiceW(manager.get(), ServiceName, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG) : nullptr);
    if (!service)
    {
        facts.service = manager && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST ? ServiceCondition::NotInstalled
                                                                                  : ServiceCondition::Unknown;
        return;
    }
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                             &needed))
    {
        facts.service = ConditionOf(status.dwCurrentState);
        facts.processId = status.dwProcessId;
    }
    else
    {
        facts.service = ServiceCondition::Unknown;
    }
    std::vector<BYTE> buffer(8192); // the documented upper limit
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    if (QueryServiceConfigW(service.get(), configuration, static_cast<DWORD>(buffer.size()), &needed))
    {
        facts.startType = configuration->dwStartType;
        facts.binaryPath = configuration->lpBinaryPathName != nullptr ? configuration->lpBinaryPathName : L"";
    }
}
} // namespace

InstallationFacts ReadInstallation()
{
    InstallationFacts facts;
    ReadService(facts);
    facts.serverPath = ReadClassText(std::wstring(MonitorClass) + L"\\LocalServer32", nullptr);
    facts.classesRegistered = !facts.serverPath.empty();
    facts.startedAsService = !ReadClassText(ApplicationKey, L"LocalService").empty();
    const std::wstring proxy = ReadClassText(MonitorInterface, nullptr);
    facts.proxiesClaimedByTypeLibrary = _wcsicmp(proxy.c_str(), GenericMarshaler) == 0;
    if (!proxy.empty() && !facts.proxiesClaimedByTypeLibrary)
    {
        facts.proxyPath = ReadClassText(L"CLSID\\" + proxy + L"\\InprocServer32", nullptr);
        facts.proxiesRegistered = !facts.proxyPath.empty();
    }
    facts.traceServicePath = ReadClassText(std::wstring(TraceClass) + L"\\LocalServer32", nullptr);
    facts.traceServiceRegistered = !facts.traceServicePath.empty();
    return facts;
}

const wchar_t* ConditionName(ServiceCondition condition) noexcept
{
    switch (condition)
    {
    case ServiceCondition::NotInstalled:
        return L"not installed";
    case ServiceCondition::Stopped:
        return L"stopped";
    case ServiceCondition::Starting:
        return L"starting";
    case ServiceCondition::Running:
        return L"running";
    case ServiceCondition::Stopping:
        return L"stopping";
    case ServiceCondition::Unknown:
        break;
    }
    return L"unknown";
}
