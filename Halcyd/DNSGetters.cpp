// CDNS: the getters. Each reads properties from the adapter's WMI instance.

#include "Halcyd/DNS.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/StringArrayAccess.h"
#include "Halcyd/VariantPayload.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
constexpr const wchar_t* NoText = L"<NULL|EMPTY>";

HRESULT Fail(HRESULT result, const wchar_t* text)
{
    LogErrorSource(Source, static_cast<std::uint32_t>(result), text);
    return result;
}

// Puts a copy of `text` at `output` and frees what stood there.
HRESULT ReplaceText(BSTR& output, const wchar_t* text)
{
    BSTR copy = SysAllocString(text);
    if (copy == nullptr)
    {
        return E_OUTOFMEMORY;
    }
    SysFreeString(output);
    output = copy;
    return S_OK;
}

// The property's text; null when it has none or is of another type.
const wchar_t* PropertyText(const VARIANT& property)
{
    return property.vt == VT_BSTR ? property.bstrVal : nullptr;
}

// Hands `value` over to `output`, in the place of what was there.
void MoveInto(VARIANT& output, _variant_t& value)
{
    VariantClear(&output);
    output = value.Detach();
}
} // namespace

// The first two steps of all getters.
HRESULT CDNS::GetInstance(const wchar_t* guid, const wchar_t* noPath, const wchar_t* noObject,
                          ComPointer<IWbemClassObject>& object)
{
    if (const HRESULT session = RequireSession(); FAILED(session))
    {
        return session;
    }
    BSTR foundPath = nullptr;
    HRESULT result = GetInstancePathByGuid(TextOrEmpty(guid), &foundPath);
    const _bstr_t instancePath(foundPath, false);
    if (FAILED(result))
    {
        return Fail(result, noPath);
    }
    result = services->GetObject(instancePath, 0, nullptr, &object, nullptr);
    if (SUCCEEDED(result) && object == nullptr)
    {
        result = static_cast<HRESULT>(WBEM_E_NOT_FOUND);
    }
    return FAILED(result) ? Fail(result, noObject) : S_OK;
}

STDMETHODIMP CDNS::GetDNS(BSTR bstrGuid, VARIANT* vArray) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (vArray == nullptr)
            {
                return E_POINTER;
            }
            ComPointer<IWbemClassObject> object;
            HRESULT result =
                GetInstance(bstrGuid, L"could not get instance path", L"could not get class instance object", object);
            if (FAILED(result))
            {
                return result;
            }
            _variant_t settingId;
            result = object->Get(L"SettingID", 0, &settingId, nullptr, nullptr);
            if (FAILED(result))
            {
                return Fail(result, L"could not get object property from SettingID");
            }

            // WMI gives all servers, however the adapter got them. Only those that were set by hand are told, and those
            // stand in the registry.
            const std::wstring subkey =
                FormatText(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\{}",
                           TextOr(PropertyText(settingId), NoText));
            RegistryKey key;
            DWORD error = key.Open(HKEY_LOCAL_MACHINE, subkey, KEY_READ);
            if (error != ERROR_SUCCESS)
            {
                return Fail(static_cast<HRESULT>(error), L"could not open subkey");
            }
            std::wstring nameServer;
            error = key.ReadString(L"NameServer", nameServer);
            if (error != ERROR_SUCCESS)
            {
                // A plain Windows error number: positive, as the callers expect it.
                return Fail(static_cast<HRESULT>(error), L"could not read value");
            }
            _variant_t servers;
            if (nameServer.empty())
            {
                LogMessage(Source, 4, L"no bytes read from registry, using DHCP, returning NULL array");
                servers.parray = SafeArrayCreateVector(VT_BSTR, 0, 0);
                if (servers.parray == nullptr)
                {
                    return E_OUTOFMEMORY;
                }
                servers.vt = VT_ARRAY | VT_BSTR;
            }
            else
            {
                LogMessage(Source, 4, L"static DNS servers, using WMI to fetch DNS servers");
                result = object->Get(L"DNSServerSearchOrder", 0, &servers, nullptr, nullptr);
                if (FAILED(result))
                {
                    return Fail(result, L"could not get object property");
                }
            }
            MoveInto(*vArray, servers);
            return S_OK;
        });
}

STDMETHODIMP CDNS::GetWINS(BSTR bstrMACAddress, BSTR* pbstrPrimary, BSTR* pbstrSecondary) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            ComPointer<IWbemClassObject> object;
            HRESULT result = GetInstance(bstrMACAddress, L"could not get instance path",
                                         L"could not get class instance object", object);
            if (FAILED(result))
            {
                return result;
            }
            _variant_t primary;
            result = object->Get(L"WINSPrimaryServer", 0, &primary, nullptr, nullptr);
            if (FAILED(result))
            {
                return Fail(result, L"could not get primary WINS server property");
            }
            if (PropertyText(primary) != nullptr && pbstrPrimary != nullptr)
            {
                result = ReplaceText(*pbstrPrimary, PropertyText(primary));
                if (FAILED(result))
                {
                    return result;
                }
            }
            _variant_t secondary;
            result = object->Get(L"WINSSecondaryServer", 0, &secondary, nullptr, nullptr);
            if (FAILED(result))
            {
                return Fail(result, L"could not get secondary WINS server property");
            }
            if (PropertyText(secondary) != nullptr && pbstrSecondary != nullptr)
            {
                result = ReplaceText(*pbstrSecondary, PropertyText(secondary));
            }
            return result;
        });
}

STDMETHODIMP CDNS::GetDNSSuffixSearchOrder(BSTR bstrMACAddress, VARIANT* vArray) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            // The one failure that is told: without a session there is nothing to ask.
            if (const HRESULT session = RequireSession(); FAILED(session))
            {
                return session;
            }
            ComPointer<IWbemClassObject> object;
            if (FAILED(GetInstance(bstrMACAddress, L"Could not get instance path",
                                   L"Could not get class instance object", object)))
            {
                // Required: 0 whatever happened from here on; failures are in the trace only.
                return S_OK;
            }
            _variant_t suffixes;
            const HRESULT result = vArray != nullptr
                                       ? object->Get(L"DNSDomainSuffixSearchOrder", 0, &suffixes, nullptr, nullptr)
                                       : E_POINTER;
            if (FAILED(result))
            {
                Fail(result, L"Could not get object property");
                return S_OK;
            }
            MoveInto(*vArray, suffixes);
            return S_OK;
        });
}

STDMETHODIMP CDNS::GetDNSDomain(BSTR bstrGuid, BSTR* pbstrDNSDomain) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (pbstrDNSDomain == nullptr)
            {
                return E_POINTER;
            }
            ComPointer<IWbemClassObject> object;
            HRESULT result =
                GetInstance(bstrGuid, L"Could not get instance path", L"Could not get class instance object", object);
            if (FAILED(result))
            {
                return result;
            }
            _variant_t domain;
            result = object->Get(L"DNSDomain", 0, &domain, nullptr, nullptr);
            if (FAILED(result))
            {
                return Fail(result, L"Could not get object property");
            }
            // Without a value the output stays as it came.
            return PropertyText(domain) != nullptr ? ReplaceText(*pbstrDNSDomain, PropertyText(domain)) : S_OK;
        });
}

STDMETHODIMP CDNS::GetDefaultGateway(BSTR bstrGuid, BSTR* pbstrGateway) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            return pbstrGateway != nullptr ? GetFirstOfArray(bstrGuid, L"DefaultIPGateway", *pbstrGateway) : E_POINTER;
        });
}

STDMETHODIMP CDNS::GetIpAddress(BSTR bstrGuid, BSTR* pbstrIpAddr) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (pbstrIpAddr == nullptr)
            {
                return E_POINTER;
            }
            // An output only: what stands there is not ours to free.
            BSTR address = nullptr;
            const HRESULT result = GetFirstOfArray(bstrGuid, L"IPAddress", address);
            if (address != nullptr)
            {
                *pbstrIpAddr = address;
            }
            return result;
        });
}

HRESULT CDNS::GetFirstOfArray(const wchar_t* guid, const wchar_t* property, BSTR& output)
{
    ComPointer<IWbemClassObject> object;
    HRESULT result = GetInstance(guid, L"could not get instance path", L"could not get class instance object", object);
    if (FAILED(result))
    {
        return result;
    }
    _variant_t value;
    result = object->Get(property, 0, &value, nullptr, nullptr);
    if (FAILED(result))
    {
        return Fail(result, L"could not get property");
    }
    if (value.vt == VT_NULL)
    {
        LogMessage(Source, 4, L"variant returned was VT_NULL");
        return S_OK;
    }
    if (value.vt == VT_EMPTY)
    {
        LogMessage(Source, 4, L"variant returned was VT_EMPTY");
        return S_OK;
    }
    // Anything but a string array, and an array without entries, has no first entry to give.
    if (value.vt != (VT_ARRAY | VT_BSTR) || value.parray == nullptr || SafeArrayGetDim(value.parray) != 1 ||
        value.parray->rgsabound[0].cElements == 0)
    {
        return Fail(DISP_E_BADINDEX, L"Could not access safearray");
    }
    const StringArrayAccess access(value.parray);
    if (FAILED(access.Result()))
    {
        return Fail(access.Result(), L"Could not access safearray");
    }
    return ReplaceText(output, TextOrEmpty(access.Entries().front()));
}
