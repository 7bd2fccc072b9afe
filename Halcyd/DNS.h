#pragma once

#include <windows.h>

#include <comdef.h>
#include <wbemidl.h>

#include <span>
#include <string_view>

#include "ComSupport/ComSupport.h"
#include "Halcyd/ComPointer.h"
#include "Halcyd_h.h"

// IP settings of one adapter at a time, through WMI. The client opens a session with ConnectNetCfg, calls any methods,
// and closes it with DisconnectNetCfg. Every method names the adapter by its GUID in braces, in the upper case that the
// system prints; also where the argument is called bstrMACAddress.
//
// Results: 0; a negative HRESULT when WMI itself fails or an argument is wrong; a small positive number when the WMI
// method reports one (1: done, reboot needed; 84: IP not enabled on the adapter), so callers test for non-zero.
// GetDNS also returns positive Windows error numbers. With no open session every method but DisconnectNetCfg returns
// NoSession (not in the right state for the call), or the error of an argument that is wrong in itself.
//
// Single-threaded object model: one call at a time on one object. Objects share only GlobalDeviceTable().
class CDNS : public CComObjectRootEx<CComSingleThreadModel>,
             public CComCoClass<CDNS, &CLSID_DNS>,
             public IDispatchImpl<IDNS>
{
public:
    // The result of a method that is called with no open session.
    static constexpr HRESULT NoSession = static_cast<HRESULT>(0x8007139FU);

    DECLARE_REGISTRY_RESOURCEID(101)
    BEGIN_COM_MAP(CDNS)
    COM_INTERFACE_ENTRY(IDNS)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    // Session. A second connect replaces the references, also when it fails on the way. When only the adapter is not
    // found (0x80041017, also for a GUID that two adapters report), the session is open all the same.
    STDMETHODIMP ConnectNetCfg(BSTR bstrGuid) noexcept override;
    STDMETHODIMP DisconnectNetCfg() noexcept override;

    // Setters. Arrays are one-dimensional VT_ARRAY | VT_BSTR, any other type gives 0x8000FFFF.
    STDMETHODIMP SetDNS(BSTR bstrGuid, VARIANT* vArray) noexcept override;
    STDMETHODIMP SetWINS(BSTR bstrMACAddress, BSTR bstrPrimary, BSTR bstrSecondary) noexcept override;
    STDMETHODIMP SetDNSSuffixSearchOrder(BSTR bstrMACAddress, VARIANT* vArray) noexcept override;
    STDMETHODIMP SetDNSDomain(BSTR bstrGuid, BSTR bstrDNSDomain) noexcept override;
    STDMETHODIMP EnableDHCP(BSTR bstrGuid) noexcept override;
    STDMETHODIMP SetGateways(BSTR bstrGuid, VARIANT* vGatewayIPArray, VARIANT* vMetric) noexcept override;
    STDMETHODIMP EnableStatic(BSTR bstrGuid, VARIANT* vIPArray, VARIANT* vSubnetArray) noexcept override;
    STDMETHODIMP ReleaseDHCPLease(BSTR bstrGuid) noexcept override;
    STDMETHODIMP RenewDHCPLease(BSTR bstrSettingId) noexcept override;

    // Getters. What stands at an output that is replaced is freed first; E_POINTER for a null output, except in
    // GetWINS, which passes over it.
    STDMETHODIMP GetDNS(BSTR bstrGuid, VARIANT* vArray) noexcept override;
    STDMETHODIMP GetWINS(BSTR bstrMACAddress, BSTR* pbstrPrimary, BSTR* pbstrSecondary) noexcept override;
    STDMETHODIMP GetDNSSuffixSearchOrder(BSTR bstrMACAddress, VARIANT* vArray) noexcept override;
    STDMETHODIMP GetDNSDomain(BSTR bstrGuid, BSTR* pbstrDNSDomain) noexcept override;
    STDMETHODIMP GetDefaultGateway(BSTR bstrGuid, BSTR* pbstrGateway) noexcept override;
    STDMETHODIMP GetIpAddress(BSTR bstrGuid, BSTR* pbstrIpAddr) noexcept override;

    // The WMI instance path of an adapter: from the table of the process, else by looking through all adapters. A null
    // `path` makes it a check that exactly one adapter has the GUID. The caller frees the path.
    [[nodiscard]] HRESULT GetInstancePathByGuid(const wchar_t* guid, wchar_t** path);

    // A new BSTR with the path of the instance of that number; the caller frees it. Null if memory ran out.
    [[nodiscard]] static BSTR BuildInstancePath(const VARIANT* index);

    // "ReturnValue" of a WMI method: 0, or the method's own result. An unreadable value counts as 0.
    [[nodiscard]] static HRESULT CheckWMIReturnCode(IWbemClassObject* outParams);

private:
    // One input property of a WMI method.
    struct InputProperty
    {
        const wchar_t* name;
        VARIANT* value;
        std::wstring_view failure; // the line when it cannot be set
    };
    // What tells one setter from another.
    struct SetterMethod
    {
        const wchar_t* name;        // the WMI method that runs
        const wchar_t* signatureOf; // the WMI method whose signature is asked for
        const wchar_t* noMethod;    // the lines of failing steps
        const wchar_t* noInstance;
        const wchar_t* noPath;
        const wchar_t* noExecute;
        const wchar_t* methodError; // with a place for the documentation
        bool onClass = false;       // runs on the class: an unknown adapter does not stop it
    };
    HRESULT RunSetter(const SetterMethod& method, const wchar_t* guid, std::span<const InputProperty> inputs);
    HRESULT SpawnInput(const SetterMethod& method, std::span<const InputProperty> inputs,
                       ComPointer<IWbemClassObject>& input);
    HRESULT GetInstance(const wchar_t* guid, const wchar_t* noPath, const wchar_t* noObject,
                        ComPointer<IWbemClassObject>& object);
    HRESULT GetFirstOfArray(const wchar_t* guid, const wchar_t* property, BSTR& output);
    HRESULT LookForAdapter(const wchar_t* guid, wchar_t** path);
    HRESULT RequireSession() const;
    static HRESULT OutputDNSArray(const VARIANT* array);

    ComPointer<IWbemServices> services;              // root\cimv2
    ComPointer<IWbemClassObject> configurationClass; // Win32_NetWorkAdapterConfiguration
};
