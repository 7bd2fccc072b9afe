// From StartService to SERVICE_RUNNING: the idle service, the product without the lab and the product with it, in turn,
// so that whatever else the machine does hits all three. The services must be registered; the idle one is created here
// if it is missing and removed at the end. The trace service runs all the while, as it does on a machine where anything
// else traces: otherwise each start of the product would start that process beside it.

#include <windows.h>

#include <comdef.h>

#include <cstdio>
#include <string>

#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/TraceLogManager.h"
#include "bench/IdleServer.h"
#include "bench/LabSwitch.h"
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

// Waits for the manager to tell it. Asking again and again would keep the manager and Wine's server busy, and that
// slows down the very start that is measured.
bool WaitForRunning(SC_HANDLE service)
{
    bool told = false;
    SERVICE_NOTIFYW notification{};
    notification.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    notification.pfnNotifyCallback = [](void* about)
    { *static_cast<bool*>(static_cast<SERVICE_NOTIFYW*>(about)->pContext) = true; };
    notification.pContext = &told;
    if (NotifyServiceStatusChangeW(service, SERVICE_NOTIFY_RUNNING, &notification) != ERROR_SUCCESS)
        return false;
    while (!told && SleepEx(kStateTimeoutMs, TRUE) == WAIT_IO_COMPLETION)
    {
    }
    return told;
}

UniqueHandle ProcessOf(SC_HANDLE service, DWORD access)
{
    SERVICE_STATUS_PROCESS running{};
    DWORD needed = 0;
    QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&running), sizeof running, &needed);
    return UniqueHandle{running.dwProcessId != 0 ? OpenProcess(access, FALSE, running.dwProcessId) : nullptr};
}

// Processor time of all threads so far: what the wall clock would show on a machine with nothing else to do.
std::int64_t ProcessorNanoseconds(HANDLE process)
{
    FILETIME created{};
    FILETIME exited{};
    ULARGE_INTEGER kernel{};
    ULARGE_INTEGER user{};
    if (!GetProcessTimes(process, &created, &exited, reinterpret_cast<FILETIME*>(&kernel),
                         reinterpret_cast<FILETIME*>(&user)))
        return 0;
    return static_cast<std::int64_t>((kernel.QuadPart + user.QuadPart) * 100);
}

struct Starts
{
    Samples wall;
    Samples processor;
};

// Starts the service once, through a handle of its own as each is told once of a state, and takes the two times; `keep`
// is false for a round that only warms the caches.
bool TimeStart(SC_HANDLE manager, const wchar_t* name, Starts& starts, bool keep)
{
    Sleep(300); // the process before has gone, but what its end sets off in Wine's server slows the next start
    const UniqueServiceHandle opened{OpenServiceW(manager, name, SERVICE_ALL_ACCESS)};
    SC_HANDLE service = opened.get();
    const std::int64_t start = NowNanoseconds();
    if (!StartServiceW(service, 0, nullptr) || !WaitForRunning(service))
        return false;
    const std::int64_t end = NowNanoseconds();
    const UniqueHandle process = ProcessOf(service, PROCESS_QUERY_INFORMATION);
    if (keep)
    {
        starts.wall.Add(end - start);
        starts.processor.Add(ProcessorNanoseconds(process.get()));
    }
    return true;
}

// Stops the service and waits until its process has gone: a start that finds it still there is refused.
bool StopService(SC_HANDLE service)
{
    const UniqueHandle process = ProcessOf(service, SYNCHRONIZE);
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
    const ComApartment apartment;
    _com_ptr_t<_com_IIID<IUnknown, &IID_IUnknown>> trace;
    if (FAILED(trace.CreateInstance(CLSID_TraceLogManager, nullptr, CLSCTX_LOCAL_SERVER)))
    {
        std::fprintf(stderr, "the trace service cannot be activated\n");
        return 1;
    }
    StopService(product.get());
    Starts none;
    Starts bare;
    Starts whole;
    LabSwitch lab;
    bool good = true;
    for (int i = -1; i < rounds && good; ++i)
    {
        const bool keep = i >= 0;
        good = TimeStart(manager.get(), BENCH_IDLE_SERVICE, none, keep) && StopService(idle.get());
        lab.Off();
        good = good && TimeStart(manager.get(), L"Halcyd", bare, keep) && StopService(product.get());
        lab.On();
        good = good && TimeStart(manager.get(), L"Halcyd", whole, keep) && StopService(product.get());
    }
    DeleteService(idle.get());
    if (!good)
    {
        std::fprintf(stderr, "a service did not start or stop in time\n");
        return 1;
    }
    PrintResult("start", {{"idle_p50_ns", none.wall.Percentile(0.5)},
                          {"idle_min_ns", none.wall.Percentile(0)},
                          {"idle_cpu_p50_ns", none.processor.Percentile(0.5)},
                          {"product_p50_ns", bare.wall.Percentile(0.5)},
                          {"product_min_ns", bare.wall.Percentile(0)},
                          {"product_cpu_p50_ns", bare.processor.Percentile(0.5)},
                          {"with_lab_p50_ns", whole.wall.Percentile(0.5)},
                          {"with_lab_cpu_p50_ns", whole.processor.Percentile(0.5)}});
    return 0;
}
