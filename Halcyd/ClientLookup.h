#pragma once
// Finding the client application: its process by name, its token, its user.

#include <windows.h>

#include <span>
#include <string>
#include <string_view>

// The access token (all access) of the first client process in snapshot order. The caller owns and closes it. Null when
// no client runs or a step failed. Sessions and users are not looked at.
[[nodiscard]] HANDLE GetSorvaneTokenHandle();

// Writes the textual SID of the client's user. `bufferSize` in characters. Returns `buffer` as it was given, untouched
// when no client runs; null when the processes could not be listed.
wchar_t* GetSorvaneUserSid(wchar_t* buffer, DWORD bufferSize);

// Writes a SID's text. `bufferSize` in characters, in and out: for a buffer that is too small (the last error is then
// 122) it receives the size that is needed, 12 for each sub-authority and 28 more. FALSE on failure.
BOOL GetTextualSid(PSID sid, wchar_t* buffer, DWORD* bufferSize);

namespace ClientLookup
{
// Whether an executable's file name is one of the client's two, in any case and by its whole length.
[[nodiscard]] bool IsClientProcessName(std::wstring_view fileName, std::wstring_view first = L"Sorvane.exe",
                                       std::wstring_view second = L"Probehost.exe") noexcept;

// Characters that GetTextualSid asks for.
[[nodiscard]] constexpr DWORD TextualSidSize(DWORD subAuthorityCount) noexcept
{
    return subAuthorityCount * 12 + 28;
}

// "S-1-<authority>-<sub-authority>...": the authority in decimal, or as hexadecimal digits when it needs more than 32
// bits.
[[nodiscard]] std::wstring SidText(const SID_IDENTIFIER_AUTHORITY& authority, std::span<const DWORD> subAuthorities);
} // namespace ClientLookup
