#pragma once

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"

// A tool of developers: a sink that shows in a debugger that it was called. The product does not use it.
//
// Its class id has a quirk that has to stay: the process serves it under the id of the type library, while its registry
// script registers the class under another one. An activation through the registered ProgID therefore never reaches it.
class ATL_NO_VTABLE CSimpleSink : public CComObjectRootEx<CComSingleThreadModel>,
                                  public CComCoClass<CSimpleSink, &CLSID_SimpleSink>,
                                  public IDispatchImpl<ISimpleSink, &IID_ISimpleSink, &LIBID_HALCYDLib>
{
public:
    DECLARE_REGISTRY_RESOURCEID(106)
    BEGIN_COM_MAP(CSimpleSink)
    COM_INTERFACE_ENTRY(ISimpleSink)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    // Writes a fixed text to the debugger channel. The argument is not used. Always S_OK.
    STDMETHODIMP Test(BSTR bstr) noexcept override;
};
