// Small helps for the figures of a service at rest.

#include <windows.h>

#include <comdef.h>

#include <cstdio>

#include "bench/IdleServer.h"
#include "bench/LabSwitch.h"
#include "bench/Measure.h"
#include "tests/support/ComPointers.h"

_COM_SMARTPTR_TYPEDEF(IUnknown, IID_IUnknown);

int RunTouch(int)
{
    IUnknownPtr idle;
    HRESULT result = idle.CreateInstance(CLSID_BenchIdle, nullptr, CLSCTX_LOCAL_SERVER);
    const INetMonSvPtr monitor = SUCCEEDED(result) ? ActivateMonitor(&result) : INetMonSvPtr();
    if (FAILED(result))
    {
        std::fprintf(stderr, "a service does not answer: 0x%08lx\n", static_cast<unsigned long>(result));
        return 1;
    }
    LONG mask = 0;
    monitor->get_FilterMask(&mask);
    std::printf("{\"bench\":\"touch\"}\n");
    return 0;
}

int RunLabOff(int)
{
    // Not given back: the prefix ends with the bench.
    static LabSwitch* const lab = new LabSwitch;
    lab->Off();
    std::printf("{\"bench\":\"lab-off\"}\n");
    return 0;
}
