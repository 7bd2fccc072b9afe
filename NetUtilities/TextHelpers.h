#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>

// A string of a file's version resource, such as "ProductVersion", in the first translation that has it. False for an
// empty argument, a file that is not there, or a file without version information.
[[nodiscard]] bool GetFileVersionString(const std::wstring& path, const std::wstring& itemName, std::wstring& out);

// The product version of the client application in the install folder; false and empty without the client.
[[nodiscard]] bool GetClientProductVersion(std::wstring& out);

// Dotted text of an IPv4 address in network byte order. Returns `out`'s characters, valid as long as `out` stands.
const wchar_t* Ipv4ToText(std::uint32_t address, std::wstring& out);
// Text of the 16 bytes of an IPv6 address. Returns `out`'s characters.
const wchar_t* Ipv6ToText(const std::uint8_t (&bytes)[16], std::wstring& out);
// Strict: four decimal parts; text behind them is not looked at. Network byte order. False for anything else,
// told to the file logger if reportError is set and the text is not empty.
[[nodiscard]] bool TextToIpv4(const std::wstring& text, std::uint32_t& out, bool reportError);
