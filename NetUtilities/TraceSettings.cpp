// The registry's say in the trace: flags, level, debug output.

#include <windows.h>
#include <lmcons.h>
#include <sddl.h>

#include <atomic>
#include <iterator>

#include "NetUtilities/Clock.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr wchar_t ProductKey[] = L"Software\\QRLS\\Sorvane";
constexpr wchar_t CurrentInstallKey[] = L"Software\\QRLS\\Sorvane\\CurrentInstall";
constexpr wchar_t TraceFlagsValue[] = L"TraceFlags";
constexpr std::uint16_t DefaultTraceLevel = 4;

// True when more than 10 whole seconds lie between the two times.
bool IsStale(std::int64_t now, std::int64_t lastRead) noexcept
{
    constexpr std::int64_t nanosecondsInSecond = 1'000'000'000;
    return (now - lastRead) / nanosecondsInSecond > 10;
}

// Opens for reading; what goes wrong is told at level 5 only.
bool OpenForFlags(RegistryKey& key, HKEY root, const std::wstring& subkey)
{
    const DWORD code = key.Open(root, subkey, KEY_READ);
    if (code != ERROR_SUCCESS)
    {
        LogFormat(Log::Source::General, 5, L"OpenKey failed! {}", SystemErrorText(code));
    }
    return code == ERROR_SUCCESS;
}

void TellReadFailure(DWORD code)
{
    LogFormat(Log::Source::General, 5, L"ReadValue failed! {}", SystemErrorText(code));
}

std::uint32_t ReadFlagsFrom(HKEY root, const std::wstring& subkey)
{
    RegistryKey key(false);
    std::uint32_t flags = 0;
    if (OpenForFlags(key, root, subkey))
    {
        if (const DWORD code = key.ReadDword(TraceFlagsValue, flags, 0); code != ERROR_SUCCESS)
        {
            TellReadFailure(code);
        }
    }
    return flags;
}

std::wstring CurrentUserName()
{
    wchar_t name[UNLEN + 1] = {};
    DWORD size = static_cast<DWORD>(std::size(name));
    return GetUserNameW(name, &size) != FALSE ? std::wstring(name) : std::wstring();
}

// A service run by the system follows the flags of the user whom the client application recorded as logged on.
std::uint32_t ReadFlagsOfLoggedOnUser()
{
    RegistryKey product(false);
    if (!OpenForFlags(product, HKEY_LOCAL_MACHINE, ProductKey))
    {
        return 0;
    }
    std::wstring account;
    if (const DWORD code = product.ReadString(L"LoggedOnUser", account); code != ERROR_SUCCESS)
    {
        TellReadFailure(code);
        return 0;
    }
    std::wstring sid;
    if (AccountToTextualSid(account, sid) != ERROR_SUCCESS)
    {
        return 0;
    }
    return ReadFlagsFrom(HKEY_USERS, FormatText(L"{}\\{}", sid, CurrentInstallKey));
}

std::uint32_t ReadTraceFlags()
{
    return CurrentUserName() == L"SYSTEM" ? ReadFlagsOfLoggedOnUser()
                                          : ReadFlagsFrom(HKEY_CURRENT_USER, CurrentInstallKey);
}
} // namespace

std::uint32_t GetTraceFlags()
{
    // No lock: a race costs one more reading of the registry.
    static std::atomic<std::uint32_t> flags{0};
    static std::atomic<std::int64_t> lastRead{0};
    static std::atomic<bool> everRead{false};

    const std::int64_t now = Clock::Current().SteadyNanoseconds();
    if (!everRead.load(std::memory_order_relaxed) || IsStale(now, lastRead.load(std::memory_order_relaxed)))
    {
        // The time first: reading traces its failures, and those must not come back here to read again.
        lastRead.store(now, std::memory_order_relaxed);
        everRead.store(true, std::memory_order_relaxed);
        flags.store(ReadTraceFlags(), std::memory_order_relaxed);
    }
    return flags.load(std::memory_order_relaxed);
}

bool IsTraceFlagSet(unsigned bit)
{
    if (bit == AlwaysOnTraceFlag)
    {
        return true;
    }
    return (GetTraceFlags() & (1U << (bit % 32))) != 0;
}

std::uint16_t ReadTraceLevel()
{
    RegistryKey key(false);
    std::uint32_t level = DefaultTraceLevel;
    if (key.Open(HKEY_LOCAL_MACHINE, ProductKey, KEY_READ) != ERROR_SUCCESS ||
        key.ReadDword(L"TraceLevel", level, DefaultTraceLevel) != ERROR_SUCCESS)
    {
        return DefaultTraceLevel;
    }
    return static_cast<std::uint16_t>(level);
}

bool IsDebugOutputEnabled()
{
    static std::atomic<std::uint32_t> output{0};
    static std::atomic<std::int64_t> lastRead{0};

    const std::int64_t now = Clock::Current().SteadyNanoseconds();
    if (IsStale(now, lastRead.load(std::memory_order_relaxed)))
    {
        lastRead.store(now, std::memory_order_relaxed);
        RegistryKey key(false);
        if (key.Open(HKEY_LOCAL_MACHINE, CurrentInstallKey, KEY_READ) == ERROR_SUCCESS)
        {
            std::uint32_t value = 0;
            key.ReadDword(L"DebugOutput", value, 0);
            output.store(value, std::memory_order_relaxed);
        }
    }
    return output.load(std::memory_order_relaxed) != 0;
}

DWORD AccountToTextualSid(const std::wstring& accountName, std::wstring& out)
{
    out.clear();
    constexpr DWORD sidBytes = 68;
    constexpr DWORD domainCharacters = 64;
    alignas(SID) std::byte sid[sidBytes];
    wchar_t domain[domainCharacters];
    DWORD sidSize = sidBytes;
    DWORD domainSize = domainCharacters;
    SID_NAME_USE use = SidTypeUnknown;
    if (LookupAccountNameW(nullptr, accountName.c_str(), sid, &sidSize, domain, &domainSize, &use) == FALSE)
    {
        const DWORD code = GetLastError();
        LogErrorSource(Log::Source::General, code, L"LookupAccountName failed!");
        return code;
    }
    UniqueLocalMemory<wchar_t> text;
    if (ConvertSidToStringSidW(sid, text.put()) == FALSE)
    {
        const DWORD code = GetLastError();
        LogErrorSource(Log::Source::General, code, L"ConvertSidToStringSid failed!");
        return code;
    }
    out = text.get();
    return ERROR_SUCCESS;
}
