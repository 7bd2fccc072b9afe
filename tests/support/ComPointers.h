// Smart pointers for the product's interfaces, for tests.
#pragma once

#include <windows.h>

#include <comdef.h>

#include "Halcyd_h.h"

_COM_SMARTPTR_TYPEDEF(IDNS, IID_IDNS);
_COM_SMARTPTR_TYPEDEF(INetRegistry, IID_INetRegistry);
_COM_SMARTPTR_TYPEDEF(IServiceControlEx, IID_IServiceControlEx);
_COM_SMARTPTR_TYPEDEF(IVNIC, IID_IVNIC);
_COM_SMARTPTR_TYPEDEF(INetMonSv, IID_INetMonSv);
_COM_SMARTPTR_TYPEDEF(ISimpleSink, IID_ISimpleSink);

// Activates a class in its server; the HRESULT of the activation goes to `result` when that is given, and a failed
// activation yields a null pointer.
template <class Pointer>
Pointer ActivateLocal(REFCLSID classId, HRESULT* result = nullptr)
{
    Pointer object;
    const HRESULT created = object.CreateInstance(classId, nullptr, CLSCTX_LOCAL_SERVER);
    if (result != nullptr)
        *result = created;
    return object;
}

// The monitor of the registered server.
inline INetMonSvPtr ActivateMonitor(HRESULT* result = nullptr)
{
    return ActivateLocal<INetMonSvPtr>(CLSID_NetMonSv, result);
}
