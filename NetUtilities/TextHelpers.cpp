#include "NetUtilities/TextHelpers.h"

#include <winsock2.h>
#include <in6addr.h>
#include <inaddr.h>

#include <cstring>
#include <memory>
#include <span>
#include <system_error>

#include "NetUtilities/FileLogger.h"
#include "NetUtilities/Files.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/Trace.h"

// ntdll's address texts; these headers do not declare them.
extern "C"
{
    NTSYSAPI PWSTR NTAPI RtlIpv4AddressToStringW(const IN_ADDR* address, PWSTR text);
    NTSYSAPI PWSTR NTAPI RtlIpv6AddressToStringW(const IN6_ADDR* address, PWSTR text);
    NTSYSAPI LONG NTAPI RtlIpv4StringToAddressW(PCWSTR text, BOOLEAN strict, LPCWSTR* terminator, IN_ADDR* address);
}

namespace
{
// Turns off the redirection of the system folder for a 32-bit process on a 64-bit system.
class FileSystemRedirectionOff
{
public:
    FileSystemRedirectionOff() noexcept
    {
        BOOL wow64 = FALSE;
        if (IsWow64Process(GetCurrentProcess(), &wow64) != FALSE && wow64 != FALSE)
        {
            off = Wow64DisableWow64FsRedirection(&previous) != FALSE;
        }
    }
    ~FileSystemRedirectionOff()
    {
        if (off)
        {
            Wow64RevertWow64FsRedirection(previous);
        }
    }
    FileSystemRedirectionOff(const FileSystemRedirectionOff&) = delete;
    FileSystemRedirectionOff& operator=(const FileSystemRedirectionOff&) = delete;

private:
    bool off = false;
    void* previous = nullptr;
};

struct Translation
{
    std::uint16_t language;
    std::uint16_t codePage;
};

// The item in the first translation of the version block that has it.
bool QueryVersionItem(const std::byte* block, const std::wstring& itemName, std::wstring& out)
{
    void* table = nullptr;
    UINT tableSize = 0;
    if (VerQueryValueW(block, L"\\VarFileInfo\\Translation", &table, &tableSize) == FALSE)
    {
        return false;
    }
    const std::span translations(static_cast<const Translation*>(table), tableSize / sizeof(Translation));
    for (const Translation& each : translations)
    {
        const std::wstring path =
            FormatText(L"\\StringFileInfo\\{:04x}{:04x}\\{}", each.language, each.codePage, itemName);
        void* text = nullptr;
        UINT length = 0;
        if (VerQueryValueW(block, path.c_str(), &text, &length) != FALSE && text != nullptr)
        {
            out = static_cast<const wchar_t*>(text);
            return true;
        }
    }
    return false;
}
} // namespace

bool GetFileVersionString(const std::wstring& path, const std::wstring& itemName, std::wstring& out)
{
    if (path.empty() || itemName.empty())
    {
        return false;
    }
    const FileSystemRedirectionOff redirectionOff;
    if (!FileExists(path))
    {
        return false;
    }
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &unused);
    if (size == 0)
    {
        return false;
    }
    // Twice the size: the platform converts texts inside the block and may need the room.
    const auto block = std::make_unique<std::byte[]>(std::size_t{size} * 2);
    if (GetFileVersionInfoW(path.c_str(), 0, size * 2, block.get()) == FALSE)
    {
        return false;
    }
    return QueryVersionItem(block.get(), itemName, out);
}

bool GetClientProductVersion(std::wstring& out)
{
    return GetFileVersionString(GetInstallFolder() + L"\\Sorvane.exe", L"ProductVersion", out);
}

const wchar_t* Ipv4ToText(std::uint32_t address, std::wstring& out)
{
    wchar_t text[16] = {};
    IN_ADDR value;
    std::memcpy(&value, &address, sizeof(value));
    RtlIpv4AddressToStringW(&value, text);
    out = text;
    return out.c_str();
}

const wchar_t* Ipv6ToText(const std::uint8_t (&bytes)[16], std::wstring& out)
{
    wchar_t text[46] = {};
    IN6_ADDR value;
    std::memcpy(&value, bytes, sizeof(value));
    RtlIpv6AddressToStringW(&value, text);
    out = text;
    return out.c_str();
}

bool TextToIpv4(const std::wstring& text, std::uint32_t& out, bool reportError)
{
    if (text.empty())
    {
        return false;
    }
    constexpr BOOLEAN strict = TRUE;
    const wchar_t* terminator = nullptr;
    IN_ADDR value{};
    const LONG status = RtlIpv4StringToAddressW(text.c_str(), strict, &terminator, &value);
    if (status < 0)
    {
        if (reportError)
        {
            WriteToFileLog(L"Error: " + TraceFormat(static_cast<std::uint32_t>(status),
                                                    L"NetUtilities::Unicode2Address RtlIpv4StringToAddress '{}'",
                                                    text));
        }
        return false;
    }
    std::memcpy(&out, &value, sizeof(out));
    return true;
}
