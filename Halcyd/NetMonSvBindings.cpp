// The client's requests for multi-homing prevention. Not offered yet.

#include "Halcyd/NetMonSv.h"

STDMETHODIMP CNetMonSv::DisableIpBindings(BSTR /*bstrAdapterNameNotToUnbind*/, long /*bPppDevice*/)
{
    return E_NOTIMPL;
}

STDMETHODIMP CNetMonSv::RestoreIpBindings()
{
    return E_NOTIMPL;
}

STDMETHODIMP CNetMonSv::ChangeMultiHomingPreferenceIfAllowed(long /*bEnable*/)
{
    return E_NOTIMPL;
}

STDMETHODIMP CNetMonSv::RestoreIpBindingsSync()
{
    return E_NOTIMPL;
}
