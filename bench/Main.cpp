// HalcydBench.exe: the measurements that have to be made inside Windows. bench.py decides which and prints them.

#include <windows.h>

#include <objbase.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/Measure.h"

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3)
    {
        std::fprintf(stderr, "usage: HalcydBench calls|start|trace-cost|trace-delivery COUNT\n");
        return 2;
    }
    const std::wstring_view what = argv[1];
    const int count = static_cast<int>(std::wcstol(argv[2], nullptr, 10));
    if (count <= 0)
    {
        std::fprintf(stderr, "COUNT must be a number above 0\n");
        return 2;
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int code = 2;
    if (what == L"calls")
        code = RunCallBench(count);
    else if (what == L"start")
        code = RunStartBench(count);
    else if (what == L"trace-cost")
        code = RunTraceCostBench(count);
    else if (what == L"trace-delivery")
        code = RunTraceDeliveryBench(count);
    else
        std::fprintf(stderr, "unknown bench\n");
    CoUninitialize();
    return code;
}
