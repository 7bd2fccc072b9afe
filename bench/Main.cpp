// HalcydBench.exe: the measurements that have to be made inside Windows. tools/dev/benchmarks.py decides which and
// prints them.

#include <windows.h>

#include <objbase.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/Measure.h"

namespace
{

struct Bench
{
    std::wstring_view name;
    int (*run)(int count);
};

constexpr Bench kBenches[] = {
    {L"calls", RunCallBench},
    {L"start", RunStartBench},
    {L"open-call", RunOpenCallBench},
    {L"events", RunEventBench},
    {L"event-rates", RunEventRateBench},
    {L"event-list", RunEventListBench},
    {L"touch", RunTouch},
    {L"lab-off", RunLabOff},
    {L"trace-cost", RunTraceCostBench},
    {L"trace-delivery", RunTraceDeliveryBench},
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const int count = argc == 3 ? static_cast<int>(std::wcstol(argv[2], nullptr, 10)) : 0;
    for (const Bench& bench : kBenches)
    {
        if (count <= 0 || bench.name != argv[1])
            continue;
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        const int code = bench.run(count);
        CoUninitialize();
        return code;
    }
    std::fprintf(stderr, "usage: HalcydBench NAME COUNT, COUNT above 0, NAME one of");
    for (const Bench& bench : kBenches)
        std::fprintf(stderr, " %ls", bench.name.data());
    std::fprintf(stderr, "\n");
    return 2;
}
