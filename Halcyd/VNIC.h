#pragma once

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"

// Routes, addresses and device state of the tunnel's virtual adapter on behalf of the client. The class has no state:
// each method takes its arguments out of their wire form and hands them to the workers of Tunvex/vpnlib.
//
// This build has no workers yet: every method returns E_NOTIMPL and touches nothing.
class ATL_NO_VTABLE CVNIC : public CComObjectRootEx<CComSingleThreadModel>,
                            public CComCoClass<CVNIC, &CLSID_VNIC>,
                            public IDispatchImpl<IVNIC, &IID_IVNIC, &LIBID_HALCYDLib>
{
public:
    DECLARE_REGISTRY_RESOURCEID(104)
    BEGIN_COM_MAP(CVNIC)
    COM_INTERFACE_ENTRY(IVNIC)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    STDMETHODIMP CreateRouteEntry(VARIANT vDest, VARIANT vNetMask, VARIANT vGateway, VARIANT vInterface,
                                  VARIANT vMetric, VARIANT vIfIndex, VARIANT vIfMask) noexcept override;
    STDMETHODIMP DeleteRouteEntry(VARIANT vDest) noexcept override;
    STDMETHODIMP EnableVNICAdapter() noexcept override;
    STDMETHODIMP EnableVNICAdapterAsynch() noexcept override;
    STDMETHODIMP DisableVNICAdapter() noexcept override;
    STDMETHODIMP DisableVNICAdapterAsynch() noexcept override;
    STDMETHODIMP ResetVNICAdapterAsynch() noexcept override;
    STDMETHODIMP ResetVNICAdapter() noexcept override;
    STDMETHODIMP GetVNICStatus() noexcept override;
    STDMETHODIMP TunvexSetIpForwardEntry(VARIANT vVnicIpAddr, VARIANT vInterfaceIndex) noexcept override;
    STDMETHODIMP RouteCommand(BSTR bstrCommand) noexcept override;
    STDMETHODIMP TunvexUpdateVnicState(VARIANT vVnicState) noexcept override;
    STDMETHODIMP CleanUpVnicStateIfNecessary() noexcept override;
    STDMETHODIMP TunvexInitVnicForVista(VARIANT vVnicMetric, BSTR* Alias, LONG bIPv6) noexcept override;
    STDMETHODIMP TunvexGetInterfaceMetric(VARIANT vIpv6, VARIANT vIndex, VARIANT* vMetric) noexcept override;
    STDMETHODIMP ConfigureVnic(_VNIC_CONFIG_INFO* pVnicConfigInfo) noexcept override;
    STDMETHODIMP CreateMultipleRouteEntries(VARIANT vRouteList, VARIANT vNumRoutes, VARIANT vGateway,
                                            VARIANT vInterface, VARIANT vMetric, VARIANT vIfIndex,
                                            VARIANT vIfMask) noexcept override;
    STDMETHODIMP CreateMultipleIPv6RouteEntries(ULONG NumRoutes, _ip_transfer* IPv6Acl, byte Gateway[16],
                                                byte Interface[16], ULONG Metric, ULONG IfIndex,
                                                BSTR FriendlyName) noexcept override;
    STDMETHODIMP DeleteMultipleIPv6RouteEntries(ULONG ulNumACLEntries, _ip_transfer* pACL, BSTR FriendlyName,
                                                BSTR GatewayIpAddress) noexcept override;
    STDMETHODIMP PerformGenericAction(ULONG Action) noexcept override;
};
