// CDNS: the WMI session and the way from an adapter's GUID to its instance.

#include "Halcyd/DNS.h"

#include <string>

#include "Halcyd/MethodGuard.h"
#include "Halcyd/VariantPayload.h"
#include "Halcyd/WmiAdapterSession.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
// No adapter has the GUID, or more than one.
constexpr auto AdapterNotFound = static_cast<HRESULT>(WBEM_E_INVALID_QUERY);

HRESULT Fail(HRESULT result, const wchar_t* text)
{
    LogErrorSource(Source, static_cast<std::uint32_t>(result), text);
    return result;
}

HRESULT SetBlanket(IUnknown* proxy)
{
    return CoSetProxyBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                             RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
}

// Nothing when `path` is null, for want of memory: an empty path would stay for the life of the process.
void AddToTable(const wchar_t* guid, const wchar_t* path)
{
    if (path != nullptr && GlobalDeviceTable().Add(guid, path) == AdapterPathTable::AddResult::Added)
    {
        LogFormat(Source, 4, L"Added to global device table: {}, {}", guid, path);
    }
}

// The variant as text, if it can be turned into one.
bool ToText(_variant_t& variant, std::wstring& text)
{
    _variant_t copy;
    if (FAILED(VariantChangeType(&copy, &variant, 0, VT_BSTR)))
    {
        return false;
    }
    text = TextOf(copy.bstrVal);
    return true;
}
} // namespace

STDMETHODIMP CDNS::ConnectNetCfg(BSTR bstrGuid) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            ComPointer<IWbemLocator> locator;
            HRESULT result = locator.CreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER);
            if (FAILED(result))
            {
                return Fail(result, L"could not an instance of WbemLocator");
            }
            // Taking a member's address releases what an earlier connect left in it.
            result = locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                            &services);
            if (SUCCEEDED(result) && services == nullptr)
            {
                result = E_POINTER;
            }
            if (FAILED(result))
            {
                return Fail(result, L"could not connect to WMI");
            }
            result = SetBlanket(services);
            if (FAILED(result))
            {
                return Fail(result, L"could not set the proxy blanket");
            }
            result = services->GetObject(_bstr_t(L"Win32_NetWorkAdapterConfiguration"), 0, nullptr, &configurationClass,
                                         nullptr);
            if (FAILED(result))
            {
                return Fail(result, L"could not get the object class");
            }
            // An adapter that is not found leaves the session open.
            return GetInstancePathByGuid(TextOrEmpty(bstrGuid), nullptr);
        });
}

STDMETHODIMP CDNS::DisconnectNetCfg() noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            configurationClass = nullptr;
            services = nullptr;
            return S_OK;
        });
}

HRESULT CDNS::RequireSession() const
{
    if (services != nullptr && configurationClass != nullptr)
    {
        return S_OK;
    }
    return Fail(NoSession, L"there is no WMI session, ConnectNetCfg comes first");
}

HRESULT CDNS::GetInstancePathByGuid(const wchar_t* guid, wchar_t** path)
{
    const ScopeTrace scope{Source, ScopeFlag};
    if (const std::optional<std::wstring> known = GlobalDeviceTable().Find(guid))
    {
        LogFormat(Source, 4, L"found match in global device table ({})", guid);
        if (path != nullptr)
        {
            *path = SysAllocString(known->c_str());
            if (*path != nullptr)
            {
                LogFormat(Source, 4, L"allocated bstr '{}' ({:#x},{:#x})", *path,
                          reinterpret_cast<std::uintptr_t>(*path), reinterpret_cast<std::uintptr_t>(path));
            }
            else
            {
                LogMessage(Source, 2, L"could not allocate");
            }
        }
        return S_OK;
    }
    if (services == nullptr)
    {
        return RequireSession();
    }
    return LookForAdapter(guid, path);
}

HRESULT CDNS::LookForAdapter(const wchar_t* guid, wchar_t** path)
{
    HRESULT result = AdapterNotFound;
    bool matched = false;
    ComPointer<IEnumWbemClassObject> enumerator;
    HRESULT step =
        services->CreateInstanceEnum(_bstr_t(L"Win32_NetWorkAdapterConfiguration"),
                                     WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, &enumerator);
    if (FAILED(step))
    {
        Fail(step, L"Could not create the enumerator");
    }
    else if (enumerator != nullptr)
    {
        step = SetBlanket(enumerator);
        if (FAILED(step))
        {
            // The walk goes on: its first call fails by itself if the blanket mattered.
            Fail(step, L"Could not set the proxy blanket");
        }
    }

    ULONG returned = 0;
    ComPointer<IWbemClassObject> object;
    while (enumerator != nullptr && enumerator->Next(static_cast<LONG>(WBEM_INFINITE), 1, &object, &returned) == 0 &&
           object != nullptr)
    {
        _variant_t index;
        _variant_t settingId;
        step = object->Get(L"Index", 0, &index, nullptr, nullptr);
        if (SUCCEEDED(step))
        {
            step = object->Get(L"SettingID", 0, &settingId, nullptr, nullptr);
        }
        object = nullptr;
        if (FAILED(step))
        {
            Fail(step, L"Could not get the property for current instance");
            continue;
        }
        std::wstring text;
        if (index.vt == VT_NULL || settingId.vt == VT_NULL || !ToText(settingId, text) || text != guid)
        {
            continue;
        }
        LogMessage(Source, 4, L"That adapter matches");
        if (path != nullptr)
        {
            LogMessage(Source, 4, L"Found match");
            *path = BuildInstancePath(&index);
            AddToTable(guid, *path);
            matched = true;
            result = S_OK;
            break;
        }
        LogMessage(Source, 4, L"Just looking for duplicates");
        if (matched)
        {
            LogMessage(Source, 2, L"Found more than one matching GUID match, ERROR");
            result = AdapterNotFound;
            break;
        }
        LogMessage(Source, 4, L"Found one matching GUID match so far");
        matched = true;
        result = S_OK;
        const _bstr_t instancePath(BuildInstancePath(&index), false);
        AddToTable(guid, instancePath);
    }
    if (!matched)
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"could not find a matching adapter '{}'", guid);
    }
    return result;
}

BSTR CDNS::BuildInstancePath(const VARIANT* index)
{
    const ScopeTrace scope{Source, ScopeFlag};
    const std::wstring path = FormatText(L"Win32_NetWorkAdapterConfiguration.Index='{}'", NumberOf(*index));
    LogFormat(Source, 4, L"path is '{}'", path);
    return SysAllocString(path.c_str());
}

HRESULT CDNS::CheckWMIReturnCode(IWbemClassObject* outParams)
{
    const ScopeTrace scope{Source, ScopeFlag};
    // An unreadable value is no failure of its own: it counts as 0. Looked at only when it was read, because a variant
    // that is merely empty has an undefined number in it.
    _variant_t value;
    const bool readable = outParams != nullptr &&
                          SUCCEEDED(outParams->Get(L"ReturnValue", 0, &value, nullptr, nullptr)) &&
                          value.vt != VT_NULL && value.vt != VT_EMPTY;
    const HRESULT result = readable ? NumberOf(value) : S_OK;
    if (result != 0)
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), L"Bad return value from last method call");
    }
    return result;
}
