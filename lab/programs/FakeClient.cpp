// Stands in for the client application in the process list: the service finds it by its file name alone.
//
//   Sorvane.exe          runs until it is told to end
//   Sorvane.exe --stop   tells every running program of the same file name to end
//
// Prints "running" when it is there to be found.
#include <windows.h>

#include <cstdio>
#include <string>

namespace
{

std::wstring StopEventName()
{
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring file = path;
    return L"Global\\HalcydLab-stop-" + file.substr(file.find_last_of(L"\\/") + 1);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, StopEventName().c_str());
    if (stop == nullptr)
        return 1;
    if (argc > 1 && std::wstring{argv[1]} == L"--stop")
        return SetEvent(stop) ? 0 : 1;
    ResetEvent(stop); // of an earlier run, kept alive by a program that is about to end
    std::puts("running");
    std::fflush(stdout);
    return WaitForSingleObject(stop, INFINITE) == WAIT_OBJECT_0 ? 0 : 1;
}
