#include "Halcyd/VNIC.h"

#include "NetUtilities/Trace.h"

STDMETHODIMP CVNIC::CreateRouteEntry(VARIANT /*vDest*/, VARIANT /*vNetMask*/, VARIANT /*vGateway*/,
                                     VARIANT /*vInterface*/, VARIANT /*vMetric*/, VARIANT /*vIfIndex*/,
                                     VARIANT /*vIfMask*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::DeleteRouteEntry(VARIANT /*vDest*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::EnableVNICAdapter()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::EnableVNICAdapterAsynch()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::DisableVNICAdapter()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::DisableVNICAdapterAsynch()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::ResetVNICAdapterAsynch()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::ResetVNICAdapter()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::GetVNICStatus()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::TunvexSetIpForwardEntry(VARIANT /*vVnicIpAddr*/, VARIANT /*vInterfaceIndex*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::RouteCommand(BSTR /*bstrCommand*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::TunvexUpdateVnicState(VARIANT /*vVnicState*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::CleanUpVnicStateIfNecessary()
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::TunvexInitVnicForVista(VARIANT /*vVnicMetric*/, BSTR* /*Alias*/, LONG /*bIPv6*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::TunvexGetInterfaceMetric(VARIANT /*vIpv6*/, VARIANT /*vIndex*/, VARIANT* /*vMetric*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::ConfigureVnic(_VNIC_CONFIG_INFO* /*pVnicConfigInfo*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::CreateMultipleRouteEntries(VARIANT /*vRouteList*/, VARIANT /*vNumRoutes*/, VARIANT /*vGateway*/,
                                               VARIANT /*vInterface*/, VARIANT /*vMetric*/, VARIANT /*vIfIndex*/,
                                               VARIANT /*vIfMask*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::CreateMultipleIPv6RouteEntries(ULONG /*NumRoutes*/, _ip_transfer* /*IPv6Acl*/, byte /*Gateway*/[16],
                                                   byte /*Interface*/[16], ULONG /*Metric*/, ULONG /*IfIndex*/,
                                                   BSTR /*FriendlyName*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::DeleteMultipleIPv6RouteEntries(ULONG /*ulNumACLEntries*/, _ip_transfer* /*pACL*/,
                                                   BSTR /*FriendlyName*/, BSTR /*GatewayIpAddress*/)
{
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    return E_NOTIMPL;
}

STDMETHODIMP CVNIC::PerformGenericAction(ULONG /*Action*/)
{
    return E_NOTIMPL;
}
