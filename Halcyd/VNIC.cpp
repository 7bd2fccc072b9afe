#include "Halcyd/VNIC.h"

#include "Halcyd/MethodGuard.h"
#include "NetUtilities/Trace.h"

namespace
{
HRESULT NotImplemented(std::source_location method = std::source_location::current()) noexcept
{
    return GuardMethod(
        [](const std::source_location& location)
        {
            const ScopeTrace scope{Log::Source::ConfigServer, 19, 0, {}, location};
            return E_NOTIMPL;
        },
        method);
}
} // namespace

STDMETHODIMP CVNIC::CreateRouteEntry(VARIANT /*vDest*/, VARIANT /*vNetMask*/, VARIANT /*vGateway*/,
                                     VARIANT /*vInterface*/, VARIANT /*vMetric*/, VARIANT /*vIfIndex*/,
                                     VARIANT /*vIfMask*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::DeleteRouteEntry(VARIANT /*vDest*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::EnableVNICAdapter() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::EnableVNICAdapterAsynch() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::DisableVNICAdapter() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::DisableVNICAdapterAsynch() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::ResetVNICAdapterAsynch() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::ResetVNICAdapter() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::GetVNICStatus() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::TunvexSetIpForwardEntry(VARIANT /*vVnicIpAddr*/, VARIANT /*vInterfaceIndex*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::RouteCommand(BSTR /*bstrCommand*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::TunvexUpdateVnicState(VARIANT /*vVnicState*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::CleanUpVnicStateIfNecessary() noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::TunvexInitVnicForVista(VARIANT /*vVnicMetric*/, BSTR* /*Alias*/, LONG /*bIPv6*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::TunvexGetInterfaceMetric(VARIANT /*vIpv6*/, VARIANT /*vIndex*/, VARIANT* /*vMetric*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::ConfigureVnic(_VNIC_CONFIG_INFO* /*pVnicConfigInfo*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::CreateMultipleRouteEntries(VARIANT /*vRouteList*/, VARIANT /*vNumRoutes*/, VARIANT /*vGateway*/,
                                               VARIANT /*vInterface*/, VARIANT /*vMetric*/, VARIANT /*vIfIndex*/,
                                               VARIANT /*vIfMask*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::CreateMultipleIPv6RouteEntries(ULONG /*NumRoutes*/, _ip_transfer* /*IPv6Acl*/, byte /*Gateway*/[16],
                                                   byte /*Interface*/[16], ULONG /*Metric*/, ULONG /*IfIndex*/,
                                                   BSTR /*FriendlyName*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::DeleteMultipleIPv6RouteEntries(ULONG /*ulNumACLEntries*/, _ip_transfer* /*pACL*/,
                                                   BSTR /*FriendlyName*/, BSTR /*GatewayIpAddress*/) noexcept
{
    return NotImplemented();
}

STDMETHODIMP CVNIC::PerformGenericAction(ULONG /*Action*/) noexcept
{
    return E_NOTIMPL;
}
