// CDNS: the setters. Each runs one WMI method on the adapter's instance.

#include <cstddef>

#include "Halcyd/DNS.h"
#include "Halcyd/MethodGuard.h"
#include "Halcyd/StringArrayAccess.h"
#include "Halcyd/VariantPayload.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
constexpr VARTYPE StringArray = VT_ARRAY | VT_BSTR;
constexpr HRESULT IpNotEnabled = 84;
constexpr const wchar_t* ClassPath = L"Win32_NetWorkAdapterConfiguration";
constexpr const wchar_t* MethodDocumentation =
    L"https://learn.microsoft.com/windows/win32/cimwin32prov/win32-networkadapterconfiguration";

// `text` is logged as it stands: it may hold what a client sent.
HRESULT Fail(HRESULT result, std::wstring_view text)
{
    LogErrorSource(Source, static_cast<std::uint32_t>(result), L"{}", text);
    return result;
}

// A string array by its type, and by the array's own account of its entries: a client can send an array of numbers
// under the type of a string array, and its numbers would be followed as texts. No array at all is an empty one.
bool IsStringArray(const VARIANT* variant)
{
    if (variant == nullptr || variant->vt != StringArray)
    {
        return false;
    }
    const SAFEARRAY* const entries = variant->parray;
    return entries == nullptr || ((entries->fFeatures & FADF_BSTR) != 0 && entries->cbElements == sizeof(BSTR));
}
} // namespace

// The pattern of all setters from the third step on; the steps keep their order, and the first failure ends it.
HRESULT CDNS::RunSetter(const SetterMethod& method, const wchar_t* guid, std::span<const InputProperty> inputs)
{
    if (const HRESULT session = RequireSession(); FAILED(session))
    {
        return session;
    }
    ComPointer<IWbemClassObject> input;
    HRESULT result = SpawnInput(method, inputs, input);
    if (FAILED(result))
    {
        return result;
    }

    BSTR foundPath = nullptr;
    result = GetInstancePathByGuid(TextOrEmpty(guid), &foundPath);
    const _bstr_t instancePath(foundPath, false);
    if (FAILED(result))
    {
        Fail(result, method.noPath);
        if (!method.onClass)
        {
            return result;
        }
    }

    ComPointer<IWbemClassObject> output;
    const _bstr_t target = method.onClass ? _bstr_t(ClassPath) : instancePath;
    result = services->ExecMethod(target, _bstr_t(method.name), 0, nullptr, input, &output, nullptr);
    if (FAILED(result))
    {
        return Fail(result, method.noExecute);
    }

    result = CheckWMIReturnCode(output);
    if (result != 0)
    {
        LogErrorSource(Source, static_cast<std::uint32_t>(result), method.methodError, MethodDocumentation);
    }
    return result;
}

// Looks the method up and, where it takes input, fills a new instance of its signature.
HRESULT CDNS::SpawnInput(const SetterMethod& method, std::span<const InputProperty> inputs,
                         ComPointer<IWbemClassObject>& input)
{
    ComPointer<IWbemClassObject> signature;
    HRESULT result = configurationClass->GetMethod(method.signatureOf, 0, &signature, nullptr);
    if (FAILED(result))
    {
        return Fail(result, method.noMethod);
    }
    if (inputs.empty())
    {
        return S_OK;
    }
    result = signature != nullptr ? signature->SpawnInstance(0, &input) : E_POINTER;
    if (SUCCEEDED(result) && input == nullptr)
    {
        result = E_POINTER;
    }
    if (FAILED(result))
    {
        return Fail(result, method.noInstance);
    }
    for (const InputProperty& property : inputs)
    {
        result = input->Put(property.name, 0, property.value, 0);
        if (FAILED(result))
        {
            return Fail(result, property.failure);
        }
    }
    return S_OK;
}

STDMETHODIMP CDNS::SetDNS(BSTR bstrGuid, VARIANT* vArray) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (!IsStringArray(vArray))
            {
                return Fail(E_UNEXPECTED, L"pass string array by reference to SetDNS");
            }
            if (const HRESULT shown = OutputDNSArray(vArray); FAILED(shown))
            {
                Fail(shown, L"could not display DNS search order array");
            }
            const SetterMethod method{L"SetDNSServerSearchOrder",
                                      L"SetDNSServerSearchOrder",
                                      L"could not get SetDNSServerSearchOrder method",
                                      L"could not create new instance of the WMI set DNS method",
                                      L"could not get instance path",
                                      L"could not execute set DNS method",
                                      L"WMI error after SetDNSServerSearchOrder method see {} for more info"};
            const InputProperty inputs[] = {
                {L"DNSServerSearchOrder", vArray, L"could not setup parameter for set DNS call"}};
            return RunSetter(method, bstrGuid, inputs);
        });
}

STDMETHODIMP CDNS::SetWINS(BSTR bstrMACAddress, BSTR bstrPrimary, BSTR bstrSecondary) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            // An empty text is a value: it takes the server away.
            if (bstrPrimary == nullptr || bstrSecondary == nullptr)
            {
                return Fail(E_INVALIDARG, L"can't pass NULL for primary or secondary WINS server");
            }
            _variant_t primary(bstrPrimary);
            _variant_t secondary(bstrSecondary);
            const SetterMethod method{L"SetWINSServer",
                                      L"SetWINSServer",
                                      L"could not get SetWINSServer method",
                                      L"could not create new instance of the WMI set WINS method",
                                      L"could not get instance path",
                                      L"could not execute set WINS method",
                                      L"WMI error after SetWINSServer method see {} for more info"};
            const InputProperty inputs[] = {
                {L"WINSPrimaryServer", &primary, L"could not setup parameter for primary wins server"},
                {L"WINSSecondaryServer", &secondary, L"could not setup parameter for secondary wins server"}};
            return RunSetter(method, bstrMACAddress, inputs);
        });
}

STDMETHODIMP CDNS::SetDNSSuffixSearchOrder(BSTR bstrMACAddress, VARIANT* vArray) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (!IsStringArray(vArray))
            {
                return Fail(E_UNEXPECTED, L"Pass string array by reference to SetDNSSuffixSearchOrder");
            }
            if (const HRESULT shown = OutputDNSArray(vArray); FAILED(shown))
            {
                Fail(shown, L"Could not display DNS array");
            }
            // The WMI method belongs to the class and sets the machine's list; the adapter is looked up all the same.
            SetterMethod method{L"SetDNSSuffixSearchOrder",
                                L"SetDNSSuffixSearchOrder",
                                L"Could not get SetDNSSuffixSearchOrder method",
                                L"Could not create new instance of the WMI SetDNSSuffixSearchOrder method",
                                L"Could not get instance path, to execute method anyway",
                                L"Could not execute SetDNSSuffixSearchOrder method",
                                L"WMI error after SetDNSSuffixSearchOrder method see {} for more info"};
            method.onClass = true;
            const InputProperty inputs[] = {
                {L"DNSDomainSuffixSearchOrder", vArray, L"Could not setup parameter for SetDNSSuffixSearchOrder"}};
            return RunSetter(method, bstrMACAddress, inputs);
        });
}

STDMETHODIMP CDNS::SetDNSDomain(BSTR bstrGuid, BSTR bstrDNSDomain) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            _variant_t domain;
            domain.vt = VT_BSTR;
            domain.bstrVal = bstrDNSDomain != nullptr ? SysAllocString(bstrDNSDomain) : nullptr;
            if (bstrDNSDomain != nullptr && domain.bstrVal == nullptr)
            {
                return E_OUTOFMEMORY; // a null text would take the domain away
            }
            const std::wstring failure = FormatText(L"Could not setup parameter for the DNS suffix of '{}'",
                                                    TextOr(bstrDNSDomain, L"<NULL|EMPTY>"));
            const SetterMethod method{L"SetDNSDomain", L"SetDNSDomain", L"Could not get SetDNSDomain method",
                                      // Required in these words, though the method sets no WINS server.
                                      L"Could not create new instance of the WMI set WINS method",
                                      L"Could not get instance path", L"Could not execute SetDNSDomain method",
                                      L"WMI error after SetDNSDomain method see {} for more info"};
            const InputProperty inputs[] = {{L"DNSDomain", &domain, failure}};
            const HRESULT result = RunSetter(method, bstrGuid, inputs);
            if (result == IpNotEnabled)
            {
                LogMessage(Source, 2, L"IP was not enabled on the adapter when the SetDNSDomain WMI method was called");
            }
            return result;
        });
}

STDMETHODIMP CDNS::EnableDHCP(BSTR bstrGuid) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            const SetterMethod method{L"EnableDHCP",
                                      L"EnableDHCP",
                                      L"Could not get EnableDHCP method",
                                      L"",
                                      L"Could not get instance path",
                                      L"Could not execute EnableDHCP",
                                      L"WMI error after EnableDHCP method see {} for more info"};
            return RunSetter(method, bstrGuid, {});
        });
}

STDMETHODIMP CDNS::SetGateways(BSTR /*bstrGuid*/, VARIANT* /*vGatewayIPArray*/, VARIANT* /*vMetric*/) noexcept
{
    return GuardMethod(
        [](const std::source_location& here)
        {
            // Required: never offered, whatever the arguments.
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            return E_UNEXPECTED;
        });
}

STDMETHODIMP CDNS::EnableStatic(BSTR bstrGuid, VARIANT* vIPArray, VARIANT* vSubnetArray) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (!IsStringArray(vIPArray) || !IsStringArray(vSubnetArray))
            {
                return Fail(E_UNEXPECTED, L"Pass IP array by reference to EnableStatic");
            }
            const SetterMethod method{L"EnableStatic",
                                      L"EnableStatic",
                                      L"Could not get Enable Static method",
                                      L"Could not create new instance of the WMI set EnableStatic method",
                                      L"Could not get instance path",
                                      L"Could not execute EnableStatic method",
                                      L"WMI error after EnableStatic method see {} for more info"};
            const InputProperty inputs[] = {
                {L"IPAddress", vIPArray, L"Could not setup IP Address parameter for EnableStatic call"},
                {L"SubnetMask", vSubnetArray, L"Could not setup Subnet parameter for EnableStatic call"}};
            return RunSetter(method, bstrGuid, inputs);
        });
}

STDMETHODIMP CDNS::ReleaseDHCPLease(BSTR bstrGuid) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            const SetterMethod method{L"ReleaseDHCPLease",
                                      L"ReleaseDHCPLease",
                                      L"Could not get ReleaseDHCPLease method",
                                      L"",
                                      L"Could not get adapter instance path",
                                      L"Could not execute method",
                                      L"WMI error after ReleaseDHCPLease method see {} for more info"};
            return RunSetter(method, bstrGuid, {});
        });
}

STDMETHODIMP CDNS::RenewDHCPLease(BSTR bstrSettingId) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            // Required: it looks for the release method, only to see that it is there, and then runs the renewal.
            const SetterMethod method{L"RenewDHCPLease",
                                      L"ReleaseDHCPLease",
                                      L"Could not get ReleaseDHCPLease method",
                                      L"",
                                      L"Could not get adapter instance path",
                                      L"Could not execute method",
                                      L"WMI error after RenewDHCPLease method see {} for more info"};
            return RunSetter(method, bstrSettingId, {});
        });
}

HRESULT CDNS::OutputDNSArray(const VARIANT* array)
{
    const ScopeTrace scope{Source, ScopeFlag};
    SAFEARRAY* const entries = array->parray;
    if (entries == nullptr)
    {
        LogMessage(Source, 4, L"empty safearray was passed in");
        return S_OK;
    }
    if (SafeArrayGetDim(entries) != 1)
    {
        LogMessage(Source, 2, L"Pass a one - dimensional DNS safearray");
        return E_UNEXPECTED;
    }
    const StringArrayAccess access(entries);
    std::size_t index = 0;
    for (const BSTR entry : access.Entries())
    {
        LogFormat(Source, 4, L"array[{}]\t:{}", index++, TextOrEmpty(entry));
    }
    return access.Result();
}
