// From StartService to SERVICE_RUNNING, the product and the idle service in turn. The services must be registered;
// the idle one is created here if it is missing and removed at the end.

#include <windows.h>

#include <cstdio>
#include <string>

#include "NetUtilities/Handles.h"
#include "bench/IdleServer.h"
#include "bench/Measure.h"

namespace
{

constexpr int kStateTimeoutMs = 60'000;

bool WaitForState(SC_HANDLE service, DWORD wanted)
{
    const std::int64_t limit = NowNanoseconds() + std::int64_t{kStateTimeoutMs} * 1'000'000;
    for (;;)
    {
        SERVICE_STATUS status{};
        if (!QueryServiceStatus(service, &status))
            return false;
        if (status.dwCurrentState == wanted)
            return true;
        if (NowNanoseconds() > limit)
            return false;
        Sleep(1);
    }
}

// Nanoseconds, or -1 if the service did not come up.
std::int64_t TimeStart(SC_HANDLE service)
{
    const std::int64_t start = NowNanoseconds();
    if (!StartServiceW(service, 0, nullptr))
        return -1;
    if (!WaitForState(service, SERVICE_RUNNING))
        return -1;
    return NowNanoseconds() - start;
}

// Stops the service and waits until its process has gone: a start that finds it still there is refused.
bool StopService(SC_HANDLE service)
{
    SERVICE_STATUS_PROCESS running{};
    DWORD needed = 0;
    QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&running), sizeof running, &needed);
    const UniqueHandle process{running.dwProcessId != 0 ? OpenProcess(SYNCHRONIZE, FALSE, running.dwProcessId)
                                                        : nullptr};
    SERVICE_STATUS status{};
    if (!ControlService(service, SERVICE_CONTROL_STOP, &status) && GetLastError() != ERROR_SERVICE_NOT_ACTIVE)
        return false;
    return WaitForState(service, SERVICE_STOPPED) &&
           (!process || WaitForSingleObject(process.get(), kStateTimeoutMs) == WAIT_OBJECT_0);
}

std::wstring IdleServerCommand()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder = path;
    folder.erase(folder.rfind(L'\\') + 1);
    return L"\"" + folder + L"BenchIdleServer.exe\" -service";
}

} // namespace

int RunStartBench(int rounds)
{
    const UniqueServiceHandle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    if (!manager)
        return 1;
    UniqueServiceHandle idle{OpenServiceW(manager.get(), BENCH_IDLE_SERVICE, SERVICE_ALL_ACCESS)};
    if (!idle)
    {
        const std::wstring command = IdleServerCommand();
        idle = UniqueServiceHandle{CreateServiceW(manager.get(), BENCH_IDLE_SERVICE, BENCH_IDLE_SERVICE,
                                                  SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                  SERVICE_ERROR_NORMAL, command.c_str(), nullptr, nullptr, L"RPCSS\0",
                                                  nullptr, nullptr)};
    }
    const UniqueServiceHandle product{OpenServiceW(manager.get(), L"Halcyd", SERVICE_ALL_ACCESS)};
    if (!idle || !product)
    {
        std::fprintf(stderr, "a service is missing: is the product registered?\n");
        return 1;
    }
    StopService(product.get());
    Samples idleTimes;
    Samples productTimes;
    bool good = true;
    for (int i = -1; i < rounds && good; ++i)
    {
        const std::int64_t idleTime = TimeStart(idle.get());
        good = idleTime >= 0 && StopService(idle.get());
        const std::int64_t productTime = good ? TimeStart(product.get()) : -1;
        good = good && productTime >= 0 && StopService(product.get());
        if (!good || i < 0)
            continue; // the first round warms the caches
        idleTimes.Add(idleTime);
        productTimes.Add(productTime);
    }
    DeleteService(idle.get());
    if (!good)
    {
        std::fprintf(stderr, "a service did not start or stop in time\n");
        return 1;
    }
    PrintResult("start",
                {{"idle_p50_ns", idleTimes.Percentile(0.5)}, {"product_p50_ns", productTimes.Percentile(0.5)}});
    return 0;
}
