// Launch FILE PROGRAM ARGUMENTS...: runs a program and writes its exit code to FILE, all 32 bits of it. The host keeps
// only eight, so that 256 would read as success there.

#include <windows.h>

#include <cstdio>
#include <cwctype>
#include <string>

#include "NetUtilities/Handles.h"

namespace
{

// What follows the first argument of a command line, as it was written.
std::wstring AfterFirst(std::wstring_view line)
{
    bool quoted = false;
    std::size_t at = 0;
    while (at < line.size() && (quoted || !std::iswspace(line[at])))
    {
        if (line[at++] == L'"')
            quoted = !quoted;
    }
    while (at < line.size() && std::iswspace(line[at]))
        ++at;
    return std::wstring{line.substr(at)};
}

bool WriteCode(const wchar_t* path, DWORD code)
{
    std::FILE* file = _wfopen(path, L"w");
    if (file == nullptr)
        return false;
    const bool written = std::fprintf(file, "%lu\n", code) > 0;
    return std::fclose(file) == 0 && written;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3)
    {
        std::fprintf(stderr, "usage: Launch FILE PROGRAM ARGUMENTS...\n");
        return 2;
    }
    std::wstring line = AfterFirst(AfterFirst(GetCommandLineW()));
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started))
    {
        const DWORD error = GetLastError();
        std::fprintf(stderr, "%ls: cannot be started (error %lu)\n", argv[2], error);
        return WriteCode(argv[1], error) ? 0 : 3;
    }
    const UniqueHandle process{started.hProcess};
    const UniqueHandle thread{started.hThread};
    DWORD code = 0;
    if (WaitForSingleObject(process.get(), INFINITE) != WAIT_OBJECT_0 || !GetExitCodeProcess(process.get(), &code))
        return 3;
    return WriteCode(argv[1], code) ? 0 : 3;
}
