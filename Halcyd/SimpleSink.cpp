#include "Halcyd/SimpleSink.h"

#include "NetUtilities/Trace.h"

STDMETHODIMP CSimpleSink::Test(BSTR /*bstr*/)
{
    WriteDebuggerPlain(L"**** fired *****\n");
    return S_OK;
}
