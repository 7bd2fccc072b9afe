// AdapterConfig: disabling and restoring the IP bindings, and the record of what was disabled.

#include <ctime>

#include "Halcyd/AdapterConfig.h"
#include "Halcyd/BindingRules.h"
#include "Halcyd/ReferenceCount.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
constexpr const wchar_t* Line = L"-------------------------------------";

std::wstring ProtocolKey(std::wstring_view protocolId)
{
    return std::wstring(BindingRules::RootKey).append(protocolId);
}

std::wstring InstanceGuid(INetCfgComponent* component)
{
    GUID guid{};
    UniqueCoTaskMem<wchar_t> text;
    if (FAILED(component->GetInstanceGuid(&guid)) || FAILED(StringFromCLSID(guid, text.put())))
    {
        return {};
    }
    return TextOrEmpty(text.get());
}

std::wstring ComponentId(INetCfgComponent* component)
{
    UniqueCoTaskMem<wchar_t> text;
    return SUCCEEDED(component->GetId(text.put())) ? TextOrEmpty(text.get()) : L"";
}

std::wstring DisplayName(INetCfgComponent* component)
{
    UniqueCoTaskMem<wchar_t> text;
    return SUCCEEDED(component->GetDisplayName(text.put())) ? TextOrEmpty(text.get()) : L"";
}

// The paths below a protocol, from the first one. Null when they cannot be enumerated.
ComPointer<IEnumNetCfgBindingPath> PathsBelow(INetCfgComponent* protocol)
{
    ComPointer<INetCfgComponentBindings> bindings;
    ComPointer<IEnumNetCfgBindingPath> paths;
    if (FAILED(protocol->QueryInterface(__uuidof(INetCfgComponentBindings), reinterpret_cast<void**>(&bindings))) ||
        FAILED(bindings->EnumBindingPaths(EBP_BELOW, &paths)) || paths == nullptr)
    {
        return {};
    }
    static_cast<void>(paths->Reset());
    return paths;
}

// The lower component of the path's last interface that has one; null when none has, or the path has no interfaces.
ComPointer<INetCfgComponent> LowerComponent(INetCfgBindingPath* path)
{
    ComPointer<IEnumNetCfgBindingInterface> interfaces;
    ComPointer<INetCfgComponent> lower;
    if (FAILED(path->EnumBindingInterfaces(&interfaces)) || interfaces == nullptr)
    {
        return lower;
    }
    ComPointer<INetCfgBindingInterface> step;
    ULONG fetched = 0;
    while (interfaces->Next(1, &step, &fetched) == S_OK && step != nullptr)
    {
        ComPointer<INetCfgComponent> component;
        if (SUCCEEDED(step->GetLowerComponent(&component)) && component != nullptr)
        {
            lower = component;
        }
        step = nullptr;
    }
    return lower;
}

// Reads the list anew for each path, so that a change counts from the next path on.
bool IsExcepted(std::wstring_view componentId)
{
    RegistryKey key;
    std::wstring list;
    return key.Open(HKEY_LOCAL_MACHINE, std::wstring(BindingRules::RootKey), KEY_READ) == ERROR_SUCCESS &&
           key.ReadString(std::wstring(BindingRules::ExceptionListValue), list) == ERROR_SUCCESS &&
           BindingRules::IsInExceptionList(list, componentId);
}

// Leaves the record of one disabled binding.
void WriteRecord(std::wstring_view protocolId, std::wstring_view lowerComponentGuid)
{
    RegistryKey key;
    // Required to be made with read access only. The system refuses to write through such a handle, so the key stands
    // without its value and a restore passes it over; the binding stays disabled. Do not widen the mask: what is on
    // client machines today depends on it.
    if (key.Create(HKEY_LOCAL_MACHINE, BindingRules::RecordKey(protocolId, lowerComponentGuid), KEY_READ, 0) ==
            ERROR_SUCCESS &&
        key.WriteDword(std::wstring(BindingRules::DisabledValue), 1) == ERROR_SUCCESS)
    {
        LogMessage(Source, 4, L"\tadded binding to disabled binding list");
    }
}

// True if the record of this lower component says that we disabled the binding.
bool WasDisabledByUs(const RegistryKey& protocolKey, const std::wstring& lowerComponentGuid)
{
    RegistryKey key;
    std::uint32_t disabled = 0;
    DWORD error = key.Open(protocolKey, lowerComponentGuid, KEY_READ);
    if (error == ERROR_SUCCESS)
    {
        error = key.ReadDword(std::wstring(BindingRules::DisabledValue), disabled, 0);
    }
    if (error != ERROR_SUCCESS)
    {
        LogErrorSource(Source, error, L"problem reading value");
    }
    return disabled == 1;
}
} // namespace

HRESULT AdapterConfig::DisableBindings(const wchar_t* adapterNotToUnbind, int bPppDevice)
{
    const ScopeTrace scope{Source, ScopeFlag};
    const LockGuard guard(&bindingsMutex);
    const std::clock_t start = std::clock();
    const std::wstring adapter = TextOrEmpty(adapterNotToUnbind);
    HRESULT result = S_OK;
    ComPointer<INetCfg> config = CurrentINetCfg();
    if (config != nullptr)
    {
        LogFormat(Source, 4, L"adapter to not unbind: {}", adapter);
        for (const std::wstring_view protocolId : BindingRules::ComponentIds)
        {
            DisableProtocol(config, protocolId, adapter, bPppDevice);
        }
        result = config->Apply();
        if (FAILED(result))
        {
            LogErrorSource(Source, static_cast<std::uint32_t>(result), L"error trying to apply network changes");
        }
        else
        {
            LogMessage(Source, 4, L"applied network changes");
        }
        LogFormat(Source, 4, L"INetCfg interface ref count: {} (DisableBindings-exit)", ReleaseAndCount(config));
    }
    LogFormat(Source, 4, L"\tDisableBindings total time was {} ms", std::clock() - start);
    return result;
}

void AdapterConfig::DisableProtocol(INetCfg* config, std::wstring_view protocolId, std::wstring_view adapterNotToUnbind,
                                    int bPppDevice)
{
    if (BindingRules::SkipsProtocol(protocolId, bPppDevice))
    {
        LogMessage(Source, 4, L"don't disable any NDISWAN bindings for PPP devices");
        return;
    }
    ComPointer<INetCfgComponent> protocol;
    // A protocol that the machine does not have is normal. S_FALSE comes without a component.
    if (FAILED(config->FindComponent(std::wstring(protocolId).c_str(), &protocol)) || protocol == nullptr)
    {
        return;
    }
    LogFormat(Source, 4, L"{}:", DisplayName(protocol));
    LogMessage(Source, 4, Line);
    const ComPointer<IEnumNetCfgBindingPath> paths = PathsBelow(protocol);
    ComPointer<INetCfgBindingPath> path;
    ULONG fetched = 0;
    while (paths != nullptr && paths->Next(1, &path, &fetched) == S_OK && path != nullptr)
    {
        ApplyPathRule(path, protocolId, adapterNotToUnbind, bPppDevice);
        path = nullptr;
    }
}

void AdapterConfig::ApplyPathRule(INetCfgBindingPath* path, std::wstring_view protocolId,
                                  std::wstring_view adapterNotToUnbind, int bPppDevice)
{
    const ComPointer<INetCfgComponent> lower = LowerComponent(path);
    if (lower == nullptr)
    {
        return;
    }
    BindingRules::PathFacts facts;
    facts.componentId = ComponentId(lower);
    facts.componentGuid = InstanceGuid(lower);
    facts.displayName = DisplayName(lower);
    LogFormat(Source, 4, L"Component Info: {} -- {} [{}] ", facts.componentId, facts.componentGuid, facts.displayName);
    facts.disabled = path->IsEnabled() == S_FALSE;

    const BindingRules::PathDecision decision =
        BindingRules::DecidePath(facts, adapterNotToUnbind, bPppDevice, IsExcepted);
    if (decision.action == BindingRules::PathAction::LeaveAlone)
    {
        LogMessage(Source, 4, decision.line);
        return;
    }
    // A path that could not be disabled gets no record and no line.
    if (path->Enable(FALSE) == S_OK)
    {
        LogMessage(Source, 4, L"\tdisabled binding");
        WriteRecord(protocolId, facts.componentGuid);
    }
}

HRESULT AdapterConfig::RestoreBindings()
{
    const ScopeTrace scope{Source, ScopeFlag};
    const LockGuard guard(&bindingsMutex);
    const std::clock_t start = std::clock();
    HRESULT result = S_OK;
    ComPointer<INetCfg> config = CurrentINetCfg();
    if (config != nullptr)
    {
        for (const std::wstring_view protocolId : BindingRules::ComponentIds)
        {
            RestoreProtocol(protocolId);
        }
        result = config->Apply();
        if (FAILED(result))
        {
            // The record stays for a later attempt.
            LogErrorSource(Source, static_cast<std::uint32_t>(result),
                           L"\nfailed to apply the INetCfg network changes");
        }
        else
        {
            LogMessage(Source, 4, L"\tapplied the INetCfg network changes");
            DeleteOldBindingInfo();
        }
        LogFormat(Source, 4, L"INetCfg interface ref count: {} (RestoreBindings-exit)", ReleaseAndCount(config));
    }
    LogFormat(Source, 4, L"    total time was {}", std::clock() - start);
    return result;
}

void AdapterConfig::RestoreProtocol(std::wstring_view protocolId)
{
    LogFormat(Source, 4, L"Restoring bindings for {}:", protocolId);
    LogMessage(Source, 4, Line);
    RegistryKey protocolKey;
    if (protocolKey.Open(HKEY_LOCAL_MACHINE, ProtocolKey(protocolId), KEY_READ) != ERROR_SUCCESS)
    {
        return;
    }
    std::wstring guid;
    FILETIME lastWrite{};
    DWORD error = ERROR_SUCCESS;
    // Only the end of the list ends the walk. A subkey that cannot be named costs its own binding and no other: the
    // record goes as a whole afterwards.
    for (DWORD index = 0; (error = protocolKey.EnumSubkey(index, guid, lastWrite)) != ERROR_NO_MORE_ITEMS; ++index)
    {
        if (error != ERROR_SUCCESS)
        {
            continue;
        }
        LogFormat(Source, 4, L"checking binding with lower component of {}", guid);
        if (!WasDisabledByUs(protocolKey, guid))
        {
            continue;
        }
        LogMessage(Source, 4, L"\tbinding was disabled by QRL");
        ComPointer<INetCfgBindingPath> path;
        std::wstring lowerComponentId;
        if (GetBindPath(protocolId, guid, path, lowerComponentId) != S_OK || path == nullptr)
        {
            continue;
        }
        if (path->Enable(TRUE) == S_OK)
        {
            LogFormat(Source, 4, L"\tenabled: {} -> {}", protocolId, lowerComponentId);
        }
        else
        {
            // Required: the result does not tell of this, and the record goes all the same when Apply succeeds.
            LogFormat(Source, 2, L"\tfailed to enable: {} -> {}", protocolId, lowerComponentId);
        }
    }
    LogMessage(Source, 4, L"no more bindings to restore");
}

HRESULT AdapterConfig::GetBindPath(std::wstring_view protocolId, const std::wstring& lowerComponentGuid,
                                   ComPointer<INetCfgBindingPath>& path, std::wstring& lowerComponentId)
{
    const ScopeTrace scope{Source, ScopeFlag};
    path = nullptr;
    lowerComponentId.clear();
    ComPointer<INetCfg> config = CurrentINetCfg();
    ComPointer<INetCfgComponent> protocol;
    HRESULT result = config != nullptr ? config->FindComponent(std::wstring(protocolId).c_str(), &protocol) : E_POINTER;
    if (result == S_OK && protocol != nullptr)
    {
        const ComPointer<IEnumNetCfgBindingPath> paths = PathsBelow(protocol);
        ComPointer<INetCfgBindingPath> candidate;
        ULONG fetched = 0;
        result = E_FAIL;
        while (paths != nullptr && (result = paths->Next(1, &candidate, &fetched)) == S_OK && candidate != nullptr)
        {
            const ComPointer<INetCfgComponent> lower = LowerComponent(candidate);
            if (lower != nullptr && InstanceGuid(lower) == lowerComponentGuid)
            {
                lowerComponentId = ComponentId(lower);
                path = candidate;
                break;
            }
            candidate = nullptr;
        }
        protocol = nullptr;
    }
    if (config != nullptr)
    {
        LogFormat(Source, 4, L"INetCfg interface ref count: {} (GetBindPath-exit)", ReleaseAndCount(config));
    }
    if (path == nullptr)
    {
        LogFormat(Source, 3, L"\tdid not find a match for the binding {} -> {}", protocolId, lowerComponentGuid);
    }
    return result;
}

void AdapterConfig::DeleteOldBindingInfo()
{
    const ScopeTrace scope{Source, ScopeFlag};
    for (const std::wstring_view protocolId : BindingRules::ComponentIds)
    {
        const std::wstring path = ProtocolKey(protocolId);
        RegistryKey key;
        if (key.Open(HKEY_LOCAL_MACHINE, path, KEY_READ) != ERROR_SUCCESS)
        {
            continue;
        }
        std::wstring guid;
        FILETIME lastWrite{};
        DWORD listed = ERROR_SUCCESS;
        // Required: goes on until no subkey is left, without a guard against one that cannot be deleted. Giving up
        // would leave a record behind that enables bindings at some later start.
        while ((listed = key.EnumSubkey(0, guid, lastWrite)) != ERROR_NO_MORE_ITEMS)
        {
            if (listed == ERROR_SUCCESS && key.DeleteKey(guid) == ERROR_SUCCESS)
            {
                LogFormat(Source, 4, L"deleted registry value {}", guid);
            }
        }
        // Required: asks the key's own handle for the whole path, which lies nowhere below it. So this fails with 2 and
        // the empty key stays, harmless, for the next disable.
        const DWORD error = key.DeleteKey(path);
        if (error == ERROR_SUCCESS)
        {
            LogFormat(Source, 4, L"deleted registry key {}", path);
        }
        else
        {
            LogErrorSource(Source, error, L"could not delete registry key {}", path);
        }
    }
}
