#include "Halcyd/SimpleSink.h"

#include "Halcyd/MethodGuard.h"
#include "NetUtilities/Trace.h"

STDMETHODIMP CSimpleSink::Test(BSTR /*bstr*/) noexcept
{
    return GuardMethod(
        [](const std::source_location& /*method*/)
        {
            WriteDebuggerPlain(L"**** fired *****\n");
            return S_OK;
        });
}
