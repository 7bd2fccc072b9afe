#include "tests/support/Services.h"

#include <cstdio>

#include "NetUtilities/Handles.h"

namespace
{

struct Opened
{
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
};

Opened OpenByName(const std::wstring& name)
{
    Opened opened;
    opened.manager = UniqueServiceHandle{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    if (opened.manager)
    {
        opened.service = UniqueServiceHandle{OpenServiceW(opened.manager.get(), name.c_str(), SERVICE_ALL_ACCESS)};
    }
    return opened;
}

std::optional<SERVICE_STATUS_PROCESS> Query(const std::wstring& name)
{
    const Opened opened = OpenByName(name);
    if (!opened.service)
        return std::nullopt;
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(opened.service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed))
    {
        return std::nullopt;
    }
    return status;
}

} // namespace

DWORD InstallService(const std::wstring& name, const std::wstring& commandLine)
{
    const UniqueServiceHandle manager{OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    const UniqueServiceHandle made{CreateServiceW(
        manager.get(), name.c_str(), (L"Display of " + name).c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
        SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr)};
    return made ? ERROR_SUCCESS : GetLastError();
}

bool ServiceControl::Exists() const
{
    return static_cast<bool>(OpenByName(m_name).service);
}

std::optional<DWORD> ServiceControl::State() const
{
    const auto status = Query(m_name);
    if (!status)
        return std::nullopt;
    return status->dwCurrentState;
}

DWORD ServiceControl::ProcessId() const
{
    const auto status = Query(m_name);
    return status ? status->dwProcessId : 0;
}

DWORD ServiceControl::Start() const
{
    const Opened opened = OpenByName(m_name);
    if (!opened.service)
        return GetLastError();
    return StartServiceW(opened.service.get(), 0, nullptr) ? 0 : GetLastError();
}

bool ServiceControl::StartAndWait(DWORD timeoutMs) const
{
    const DWORD error = Start();
    if (error != 0 && error != ERROR_SERVICE_ALREADY_RUNNING)
    {
        std::printf("the start of %ls failed with %lu\n", m_name.c_str(), error); // for who looks into the failed test
        return false;
    }
    return WaitForState(SERVICE_RUNNING, timeoutMs);
}

DWORD ServiceControl::Control(DWORD control) const
{
    const Opened opened = OpenByName(m_name);
    if (!opened.service)
        return GetLastError();
    SERVICE_STATUS status{};
    return ControlService(opened.service.get(), control, &status) ? 0 : GetLastError();
}

bool ServiceControl::StopAndWait(DWORD timeoutMs) const
{
    const DWORD pid = ProcessId();
    const UniqueHandle process{pid != 0 ? OpenProcess(SYNCHRONIZE, FALSE, pid) : nullptr};
    Control(SERVICE_CONTROL_STOP);
    if (!WaitForState(SERVICE_STOPPED, timeoutMs))
        return false;
    return !process || WaitForSingleObject(process.get(), timeoutMs) == WAIT_OBJECT_0;
}

bool ServiceControl::WaitForState(DWORD state, DWORD timeoutMs) const
{
    // The SCM offers no wait of its own to a client that works everywhere: short polls.
    const ULONGLONG limit = GetTickCount64() + timeoutMs;
    for (;;)
    {
        const auto now = State();
        if (now && *now == state)
            return true;
        if (!now || GetTickCount64() > limit)
            return false;
        Sleep(5);
    }
}
