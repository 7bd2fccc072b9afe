#pragma once
// Put in front of the generated proxy sources. Their vtables name the three forwarders of IUnknown, which rpcrt4
// exports and the cross compiler's headers do not declare.
#include <objbase.h>

HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* This, REFIID riid, void** ppvObject);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* This);
