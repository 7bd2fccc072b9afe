// A system service for tests: started by the service control manager, it does nothing but start and stop as told.
//
//   FakeService.exe NAME [--start-ms N] [--stop-ms N] [--refuse-stop] [--refuse-pause]
//
// It says "start NAME", "stop NAME" when the manager asks for it, one line each, in services.log of the lab's folder.
#include <windows.h>
#include <winsvc.h>

#include <cwchar>
#include <string>

#include "lab/state/Handles.h"

namespace
{

struct Behaviour
{
    std::wstring name;
    DWORD startMilliseconds = 0;
    DWORD stopMilliseconds = 0;
    bool refusesStop = false;
    bool refusesPause = false;
};

Behaviour behaviour;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
HANDLE stopAsked = nullptr;

void Note(const wchar_t* word)
{
    const lab::Handle file{CreateFileW(L"C:\\ProgramData\\HalcydLab\\services.log", FILE_APPEND_DATA,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr)};
    if (!file)
        return;
    std::string line;
    for (const wchar_t character : std::wstring{word} + L" " + behaviour.name + L"\n")
        line += static_cast<char>(character);
    DWORD written = 0;
    WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

void Report(DWORD state)
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwWaitHint = 120'000;
    if (state == SERVICE_RUNNING || state == SERVICE_PAUSED)
    {
        status.dwControlsAccepted = (behaviour.refusesStop ? 0UL : SERVICE_ACCEPT_STOP) |
                                    (behaviour.refusesPause ? 0UL : SERVICE_ACCEPT_PAUSE_CONTINUE);
    }
    SetServiceStatus(statusHandle, &status);
}

DWORD WINAPI Handle(DWORD control, DWORD, void*, void*)
{
    switch (control)
    {
    case SERVICE_CONTROL_STOP:
        Note(L"stop");
        Report(behaviour.stopMilliseconds == 0 ? SERVICE_STOPPED : SERVICE_STOP_PENDING);
        SetEvent(stopAsked);
        return NO_ERROR;
    case SERVICE_CONTROL_PAUSE:
        Report(SERVICE_PAUSED);
        return NO_ERROR;
    case SERVICE_CONTROL_CONTINUE:
        Report(SERVICE_RUNNING);
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI Main(DWORD, LPWSTR*)
{
    statusHandle = RegisterServiceCtrlHandlerExW(behaviour.name.c_str(), Handle, nullptr);
    Note(L"start");
    Report(SERVICE_START_PENDING);
    Sleep(behaviour.startMilliseconds);
    Report(SERVICE_RUNNING);
    WaitForSingleObject(stopAsked, INFINITE);
    if (behaviour.stopMilliseconds != 0)
    {
        Sleep(behaviour.stopMilliseconds);
        Report(SERVICE_STOPPED);
    }
}

} // namespace

int wmain(int count, wchar_t** words)
{
    if (count < 2)
        return 2;
    behaviour.name = words[1];
    for (int index = 2; index < count; ++index)
    {
        const std::wstring word = words[index];
        const bool more = index + 1 < count;
        if (word == L"--refuse-stop")
            behaviour.refusesStop = true;
        else if (word == L"--refuse-pause")
            behaviour.refusesPause = true;
        else if (word == L"--start-ms" && more)
            behaviour.startMilliseconds = std::wcstoul(words[++index], nullptr, 10);
        else if (word == L"--stop-ms" && more)
            behaviour.stopMilliseconds = std::wcstoul(words[++index], nullptr, 10);
        else
            return 2;
    }
    stopAsked = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SERVICE_TABLE_ENTRYW table[] = {{behaviour.name.data(), Main}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
