// Cost of reading the adapter list against a call on the same object that carries nothing worth mentioning
// (the FilterMask property): what remains is the copy and its way through the proxy.

#include <windows.h>

#include <comdef.h>

#include <cstdio>

#include "Halcyd_h.h"
#include "bench/Measure.h"
#include "clients/common/DeviceList.h"

namespace
{

struct ListCount
{
    int adapters = 0;
};

ListCount CountAdapters(const _DEVICE_ELEMENT* head) noexcept
{
    ListCount count;
    for (; head != nullptr; head = head->pNext)
        ++count.adapters;
    return count;
}

} // namespace

int RunCallBench(int rounds)
{
    INetMonSv* monitor = nullptr;
    HRESULT result = CoCreateInstance(CLSID_NetMonSv, nullptr, CLSCTX_LOCAL_SERVER, IID_INetMonSv,
                                      reinterpret_cast<void**>(&monitor));
    if (FAILED(result))
    {
        std::fprintf(stderr, "cannot activate the monitor: 0x%08lx\n", static_cast<unsigned long>(result));
        return 1;
    }
    result = monitor->Open();
    if (result != S_OK)
    {
        std::fprintf(stderr, "cannot open the monitor: 0x%08lx\n", static_cast<unsigned long>(result));
        monitor->Release();
        return 1;
    }
    Samples null;
    Samples list;
    ListCount count;
    const int warmUp = rounds / 10 + 10;
    for (int i = -warmUp; i < rounds; ++i)
    {
        LONG mask = 0;
        const std::int64_t start = NowNanoseconds();
        monitor->get_FilterMask(&mask);
        const std::int64_t middle = NowNanoseconds();
        _DEVICE_ELEMENT* head = nullptr;
        monitor->GetDeviceInfoList(&head);
        const std::int64_t end = NowNanoseconds();
        count = CountAdapters(head);
        FreeDeviceList(head);
        if (i < 0)
            continue;
        null.Add(middle - start);
        list.Add(end - middle);
    }
    monitor->Close();
    monitor->Release();
    PrintResult("calls", {{"adapters", count.adapters},
                          {"null_p50_ns", null.Percentile(0.5)},
                          {"null_p99_ns", null.Percentile(0.99)},
                          {"list_p50_ns", list.Percentile(0.5)},
                          {"list_p99_ns", list.Percentile(0.99)}});
    return 0;
}
