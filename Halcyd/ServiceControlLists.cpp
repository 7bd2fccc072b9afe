// CServiceControlEx: dependents, stopping and restarting.

#include "Halcyd/ServiceControlEx.h"
#include "Halcyd/ServiceModeRules.h"
#include "NetUtilities/Clock.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;

std::uintptr_t HandleNumber(SC_HANDLE handle)
{
    return reinterpret_cast<std::uintptr_t>(handle);
}

ServiceList MakeServiceList(DWORD bytes)
{
    UniqueLocalMemory<ENUM_SERVICE_STATUSW> block(static_cast<ENUM_SERVICE_STATUSW*>(LocalAlloc(LPTR, bytes)));
    if (!block)
    {
        return {};
    }
    return {block.release(), [](ENUM_SERVICE_STATUSW* list) noexcept { LocalFree(list); }};
}
} // namespace

DWORD CServiceControlEx::MyEnumDependentServices([[maybe_unused]] SC_HANDLE scm, SC_HANDLE service, ServiceList& list,
                                                 DWORD& count)
{
    const ScopeTrace scope{Source, ScopeFlag};
    list.reset();
    count = 0;
    DWORD needed = 0;
    if (EnumDependentServicesW(service, SERVICE_ACTIVE, nullptr, 0, &needed, &count) != FALSE)
    {
        LogFormat(Source, 4, L"there are not dependent services (handle={})", HandleNumber(service));
        count = 0;
        return ERROR_SUCCESS;
    }
    DWORD error = GetLastError();
    count = 0;
    if (error != ERROR_MORE_DATA)
    {
        LogErrorSource(Source, error, L"returning, enumeration failed");
        return error;
    }
    list = MakeServiceList(needed);
    if (list == nullptr)
    {
        LogFormat(Source, 2,
                  L"return, could not allocate '{}' bytes memory needed for storing the dependent service list",
                  needed);
        return static_cast<DWORD>(E_OUTOFMEMORY);
    }
    if (EnumDependentServicesW(service, SERVICE_ACTIVE, list.get(), needed, &needed, &count) == FALSE)
    {
        error = GetLastError();
        LogErrorSource(Source, error, L"returning, enumeration failed");
        list.reset();
        count = 0;
        return error;
    }
    return ERROR_SUCCESS;
}

DWORD CServiceControlEx::MyStopServices(SC_HANDLE scm, SC_HANDLE service, const ServiceList& list, DWORD count)
{
    const ScopeTrace scope{Source, ScopeFlag};
    // Noted and shown in the last line only: a service that does not stop in time is no failure of the call.
    DWORD result = ERROR_SUCCESS;
    for (DWORD index = 0; index <= count; ++index)
    {
        const bool main = index == count;
        UniqueServiceHandle dependent;
        if (main)
        {
            LogMessage(Source, 4, L"stopping main service Antecedent Service");
        }
        else
        {
            LogMessage(Source, 4, L"stopping dependent service");
            dependent.reset(list == nullptr ? nullptr
                                            : MyOpenService(scm, list.get()[index].lpServiceName, SERVICE_ALL_ACCESS));
        }
        const SC_HANDLE handle = main ? service : dependent.get();
        if (handle == nullptr)
        {
            LogMessage(Source, 2, L"invalid service handle");
            continue;
        }
        SERVICE_STATUS status{};
        if (ControlService(handle, SERVICE_CONTROL_STOP, &status) == FALSE)
        {
            LogErrorSource(Source, GetLastError(), L"error sending stop control");
            continue;
        }
        // Required: the counter of looks begins at its limit, so each service gets one look after 500 ms, and the
        // branch that waits for a second and looks again is never taken. The client's call must not grow longer.
        std::uint32_t looks = ServiceModeRules::LookLimit;
        while (status.dwCurrentState != SERVICE_STOPPED)
        {
            LogFormat(Source, 4, L"the state of the service after stop command is '{}'", status.dwCurrentState);
            Clock::Current().Sleep(ServiceModeRules::FirstLookMilliseconds);
            QueryServiceStatus(handle, &status);
            if (status.dwCurrentState == SERVICE_STOPPED)
            {
                LogMessage(Source, 4, L"service is now stopped");
                break;
            }
            LogFormat(Source, 4, L"service is not stopped yet (state={})", status.dwCurrentState);
            if (looks >= ServiceModeRules::LookLimit)
            {
                LogMessage(Source, 3, L"timed out waiting for stop to complete");
                result = ERROR_TIMEOUT;
                break;
            }
            LogMessage(Source, 4, L"waiting for service to stop");
            Clock::Current().Sleep(ServiceModeRules::NextLookMilliseconds);
            ++looks;
        }
        LogFormat(Source, 4, L"finished stopping operation last_state={})", status.dwCurrentState);
    }
    if (result != ERROR_SUCCESS)
    {
        LogFormat(Source, 5, L"not all services stopped in time (rc={})", result);
    }
    return ERROR_SUCCESS;
}

namespace
{
// Polls until the service runs. 0 or 1460 (ERROR_TIMEOUT).
DWORD WaitUntilRunning(SC_HANDLE handle)
{
    Clock::Current().Sleep(ServiceModeRules::FirstLookMilliseconds);
    for (std::uint32_t looks = 0;; ++looks)
    {
        SERVICE_STATUS status{};
        QueryServiceStatus(handle, &status);
        if (status.dwCurrentState == SERVICE_RUNNING)
        {
            LogFormat(Source, 4, L"started {:#x}", HandleNumber(handle));
            return ERROR_SUCCESS;
        }
        if (looks == ServiceModeRules::LookLimit)
        {
            LogFormat(Source, 3, L"timed out wait for {:#x} to start", HandleNumber(handle));
            return ERROR_TIMEOUT;
        }
        LogFormat(Source, 4, L"waiting for {:#x} to finish starting", HandleNumber(handle));
        Clock::Current().Sleep(ServiceModeRules::NextLookMilliseconds);
    }
}
} // namespace

DWORD CServiceControlEx::MyRestartServices(SC_HANDLE scm, SC_HANDLE service, ServiceList list, DWORD count)
{
    const ScopeTrace scope{Source, ScopeFlag};
    DWORD result = ERROR_SUCCESS;
    for (DWORD left = count + 1; left-- > 0;)
    {
        const bool main = left == count;
        if (!main && list == nullptr)
        {
            // The stop gave the names back and left the count: the dependents are left alone.
            break;
        }
        UniqueServiceHandle dependent;
        if (main)
        {
            LogFormat(Source, 4, L"starting the antecedent service (handle = {:#x})", HandleNumber(service));
        }
        else
        {
            const wchar_t* name = list.get()[left].lpServiceName;
            dependent.reset(MyOpenService(scm, name, SERVICE_ALL_ACCESS));
            LogFormat(Source, 4, L"trying to open '{}' (handle = {:#x})", TextOrEmpty(name),
                      HandleNumber(dependent.get()));
        }
        const SC_HANDLE handle = main ? service : dependent.get();
        if (handle == nullptr)
        {
            LogFormat(Source, 2, L"could not open service (handle = {:#x})", HandleNumber(handle));
            continue;
        }
        if (StartServiceW(handle, 0, nullptr) == FALSE)
        {
            // The line's odd ending is what support scripts look for: not a replacement field.
            LogErrorSource(Source, GetLastError(), L"could not start service (handle = 0x%x)");
            continue;
        }
        if (const DWORD waited = WaitUntilRunning(handle); waited != ERROR_SUCCESS)
        {
            result = waited;
        }
        if (!main)
        {
            LogMessage(Source, 4, L"closing the service");
        }
    }
    if (count > 0)
    {
        list.reset();
    }
    return result;
}
