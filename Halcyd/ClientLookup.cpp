#include "Halcyd/ClientLookup.h"

#include <tlhelp32.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept
{
    return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

std::uintptr_t Number(HANDLE handle) noexcept
{
    return reinterpret_cast<std::uintptr_t>(handle);
}

// The id of the first client process from the snapshot's current entry on; 0 when there is none.
DWORD FindClientProcess(HANDLE snapshot, PROCESSENTRY32W& entry, std::wstring_view first,
                        std::wstring_view second) noexcept
{
    do
    {
        if (ClientLookup::IsClientProcessName(entry.szExeFile, first, second))
        {
            return entry.th32ProcessID;
        }
    } while (Process32NextW(snapshot, &entry));
    return 0;
}

// The textual SID of a token's user, into the caller's buffer.
void WriteTokenUser(HANDLE token, wchar_t* buffer, DWORD bufferSize)
{
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    if (GetLastError() == ERROR_INSUFFICIENT_BUFFER)
    {
        const auto information = std::make_unique<BYTE[]>(size);
        if (GetTokenInformation(token, TokenUser, information.get(), size, &size))
        {
            if (GetTextualSid(reinterpret_cast<TOKEN_USER*>(information.get())->User.Sid, buffer, &bufferSize))
            {
                LogFormatDefault(4, L"textual sid is '{}'", std::wstring_view(buffer));
            }
            return;
        }
    }
    LogMessageDefault(4, L"problem getting token information");
}
} // namespace

namespace ClientLookup
{
bool IsClientProcessName(std::wstring_view fileName, std::wstring_view first, std::wstring_view second) noexcept
{
    return EqualsIgnoringCase(fileName, first) || EqualsIgnoringCase(fileName, second);
}

std::wstring SidText(const SID_IDENTIFIER_AUTHORITY& authority, std::span<const DWORD> subAuthorities)
{
    std::wstring text = TraceFormat(0, L"S-{}-", SID_REVISION);
    const auto& bytes = authority.Value;
    if (bytes[0] == 0 && bytes[1] == 0)
    {
        const std::uint32_t number = (std::uint32_t{bytes[2]} << 24) | (std::uint32_t{bytes[3]} << 16) |
                                     (std::uint32_t{bytes[4]} << 8) | std::uint32_t{bytes[5]};
        text += TraceFormat(0, L"{}", number);
    }
    else
    {
        text += TraceFormat(0, L"{:#02x}{:02x}{:02x}{:02x}{:02x}{:02x}", unsigned{bytes[0]}, unsigned{bytes[1]},
                            unsigned{bytes[2]}, unsigned{bytes[3]}, unsigned{bytes[4]}, unsigned{bytes[5]});
    }
    for (const DWORD subAuthority : subAuthorities)
    {
        text += TraceFormat(0, L"-{}", subAuthority);
    }
    return text;
}
} // namespace ClientLookup

HANDLE GetSorvaneTokenHandle()
{
    const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot)
    {
        LogMessageDefault(4, L"GetSorvaneTokenHandle: CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE");
        return nullptr;
    }
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.get(), &entry))
    {
        LogMessageDefault(4, L"GetSorvaneTokenHandle: could not get info about the first process");
        return nullptr;
    }
    const DWORD processId = FindClientProcess(snapshot.get(), entry, L"Sorvane.exe", L"Probehost.exe");
    if (processId == 0)
    {
        return nullptr;
    }
    const UniqueHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, processId));
    if (!process)
    {
        return nullptr;
    }
    UniqueHandle token;
    OpenProcessToken(process.get(), TOKEN_ALL_ACCESS, token.put());
    LogFormatDefault(4, L"hProcess = {:#08x} htokenHandle = {:#08x}", Number(process.get()), Number(token.get()));
    return token.release();
}

wchar_t* GetSorvaneUserSid(wchar_t* buffer, DWORD bufferSize)
{
    const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot)
    {
        return nullptr;
    }
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.get(), &entry))
    {
        return nullptr;
    }
    const DWORD processId = FindClientProcess(snapshot.get(), entry, L"SORVANE.EXE", L"PROBEHOST.EXE");
    if (processId != 0)
    {
        const UniqueHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, processId));
        UniqueHandle token;
        if (process)
        {
            OpenProcessToken(process.get(), TOKEN_ALL_ACCESS, token.put());
        }
        LogFormatDefault(4, L"hProcess = {:#08x}; htokenHandle = {:#08x}", Number(process.get()), Number(token.get()));
        WriteTokenUser(token.get(), buffer, bufferSize);
    }
    return buffer;
}

BOOL GetTextualSid(PSID sid, wchar_t* buffer, DWORD* bufferSize)
{
    if (!IsValidSid(sid))
    {
        LogMessageDefault(4, L"sid not valid");
        return FALSE;
    }
    const DWORD count = *GetSidSubAuthorityCount(sid);
    const DWORD needed = ClientLookup::TextualSidSize(count);
    if (*bufferSize < needed)
    {
        LogError(ERROR_INSUFFICIENT_BUFFER, L"your buffer is not big enough");
        *bufferSize = needed;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::vector<DWORD> subAuthorities(count);
    for (DWORD i = 0; i < count; ++i)
    {
        subAuthorities[i] = *GetSidSubAuthority(sid, i);
    }
    const std::wstring text = ClientLookup::SidText(*GetSidIdentifierAuthority(sid), subAuthorities);
    // The size test above leaves room for the longest text; the copy is bounded all the same.
    const std::size_t length = std::min<std::size_t>(text.size(), *bufferSize - 1);
    std::copy_n(text.data(), length, buffer);
    buffer[length] = L'\0';
    return TRUE;
}
