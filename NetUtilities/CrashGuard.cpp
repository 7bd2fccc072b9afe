#include "NetUtilities/CrashGuard.h"

#include <shlobj.h>

#include "NetUtilities/Clock.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/TextHelpers.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr DWORD InvalidParameterException = 0xE0000001;
constexpr DWORD TimeForTheLogger = 250; // milliseconds

LONG WINAPI UnhandledExceptionFilterOfProcess(EXCEPTION_POINTERS* pointers)
{
    return WriteCrashDump(pointers);
}

std::wstring DumpFolder()
{
    constexpr int commonApplicationData = CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE; // 0x8023
    wchar_t path[MAX_PATH] = {};
    SHGetFolderPathW(nullptr, commonApplicationData, nullptr, SHGFP_TYPE_CURRENT, path);
    return std::wstring(path) + L"\\QRLS\\Sorvane\\";
}

void WriteDumpFile(HANDLE file, EXCEPTION_POINTERS* pointers)
{
    MINIDUMP_EXCEPTION_INFORMATION information = {};
    information.ThreadId = GetCurrentThreadId();
    information.ExceptionPointers = pointers;
    information.ClientPointers = FALSE;
    const MINIDUMP_TYPE type = GetDumpType();
    MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file, type,
                      pointers != nullptr ? &information : nullptr, nullptr, nullptr);
}
} // namespace

CrashGuard::CrashGuard() noexcept
    : previousFilter(SetUnhandledExceptionFilter(&UnhandledExceptionFilterOfProcess)),
      previousHandler(_set_invalid_parameter_handler(&InvalidParameterHandler))
{
}

CrashGuard::~CrashGuard()
{
    _set_invalid_parameter_handler(previousHandler);
}

std::wstring CrashText::DumpPath(const std::wstring& folder, const std::wstring& program, const std::wstring& version,
                                 const SYSTEMTIME& time)
{
    const std::wstring stamp = FormatText(L"{:04}_{:02}_{:02}_{:02}_{:02}_{:02}", time.wYear, time.wMonth, time.wDay,
                                          time.wHour, time.wMinute, time.wSecond);
    return FormatText(L"{}{}_{}_{}.dmp", folder, program, version, stamp);
}

LONG WriteCrashDump(EXCEPTION_POINTERS* pointers) noexcept
{
    try
    {
        SYSTEMTIME now;
        Clock::Current().LocalTime(now);
        const std::wstring program = PathText::BaseName(GetExecutablePath());
        const std::wstring folder = DumpFolder();
        std::wstring version;
        (void)GetClientProductVersion(version); // empty on a machine without the client: two underscores in a row
        const std::wstring path = CrashText::DumpPath(folder, program, version, now);
        const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file)
        {
            WriteDumpFile(file.get(), pointers);
        }
    }
    catch (...)
    {
        // The process is broken already; nothing may come out of here.
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

MINIDUMP_TYPE GetDumpType()
{
    RegistryKey key(false);
    MINIDUMP_TYPE type = MiniDumpNormal;
    if (key.Open(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_READ) == ERROR_SUCCESS)
    {
        key.ReadEnum(L"DumpType", type, MiniDumpNormal);
    }
    return type;
}

void KeepRuntimeFromAsking() noexcept
{
    _set_error_mode(_OUT_TO_STDERR);
}

void InvalidParameterHandler(const wchar_t* expression, const wchar_t* function, const wchar_t* file, unsigned line,
                             uintptr_t)
{
    constexpr std::uint16_t level = 1;
    if (function != nullptr && file != nullptr && line != 0)
    {
        LogFormat(Log::Source::General, level, L"Invalid parameter detected in function {}. File: {} Line: {}",
                  function, file, line);
    }
    if (expression != nullptr)
    {
        LogFormat(Log::Source::General, level, L"Expression: {}", expression);
    }
    Clock::Current().Sleep(TimeForTheLogger); // lets the logger thread deliver the lines
    RaiseException(InvalidParameterException, 0, 0, nullptr);
}
