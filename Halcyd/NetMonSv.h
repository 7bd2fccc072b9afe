#pragma once

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"

// The network monitor: one object for all clients (its class factory keeps the one instance).
class ATL_NO_VTABLE CNetMonSv : public CComObjectRootEx<CComMultiThreadModel>,
                                public CComCoClass<CNetMonSv, &CLSID_NetMonSv>,
                                public IConnectionPointContainerImpl<CNetMonSv>,
                                public IDispatchImpl<INetMonSv, &IID_INetMonSv, &LIBID_HALCYDLib>,
                                public IConnectionPointImpl<CNetMonSv, &DIID__INetMonSv>
{
public:
    DECLARE_CLASSFACTORY_SINGLETON(CNetMonSv)
    DECLARE_NOT_AGGREGATABLE(CNetMonSv)
    DECLARE_REGISTRY_RESOURCEID(105)
    BEGIN_COM_MAP(CNetMonSv)
        COM_INTERFACE_ENTRY(INetMonSv)
        COM_INTERFACE_ENTRY(IDispatch)
        COM_INTERFACE_ENTRY(IConnectionPointContainer)
    END_COM_MAP()
    BEGIN_CONNECTION_POINT_MAP(CNetMonSv)
        CONNECTION_POINT_ENTRY(DIID__INetMonSv, CNetMonSv)
    END_CONNECTION_POINT_MAP()

    STDMETHOD(Open)() override { return E_NOTIMPL; }
    STDMETHOD(Close)() override { return E_NOTIMPL; }
    STDMETHOD(get_FilterMask)(LONG*) override { return E_NOTIMPL; }
    STDMETHOD(put_FilterMask)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(GetDeviceInfoList)(_DEVICE_ELEMENT**) override { return E_NOTIMPL; }
    STDMETHOD(StartNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(StopNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(WiFiSurvey)() override { return E_NOTIMPL; }
    STDMETHOD(DisableIpBindings)(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindings)() override { return E_NOTIMPL; }
    STDMETHOD(ChangeMultiHomingPreferenceIfAllowed)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindingsSync)() override { return E_NOTIMPL; }
    STDMETHOD(ResetSsidList)() override { return E_NOTIMPL; }
    STDMETHOD(IsOpen)(VARIANT_BOOL*) override { return E_NOTIMPL; }
};
