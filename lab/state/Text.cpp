#include "lab/state/Text.h"

#include <windows.h>

#include <charconv>
#include <cstdio>

namespace lab
{

std::string Utf8(std::wstring_view text)
{
    if (text.empty())
    {
        return {};
    }
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(), size, nullptr, nullptr);
    return result;
}

std::string Utf8(const wchar_t* text)
{
    return text == nullptr ? std::string{} : Utf8(std::wstring_view{text});
}

std::wstring Wide(std::string_view text)
{
    if (text.empty())
    {
        return {};
    }
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring result(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), result.data(), size);
    return result;
}

namespace
{

char LowerChar(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool EqualNoCase(std::string_view a, std::string_view b) noexcept
{
    if (a.size() != b.size())
    {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        if (LowerChar(a[i]) != LowerChar(b[i]))
        {
            return false;
        }
    }
    return true;
}

std::string Lower(std::string_view text)
{
    std::string result{text};
    for (char& c : result)
    {
        c = LowerChar(c);
    }
    return result;
}

std::string Hex32(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", value);
    return text;
}

std::optional<std::uint32_t> ParseNumber(std::string_view text)
{
    const bool negative = !text.empty() && text.front() == '-';
    if (negative)
    {
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size())
    {
        return std::nullopt;
    }
    return negative ? 0U - value : value;
}

std::string TimeText(std::uint64_t fileTime)
{
    FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
    SYSTEMTIME parts{};
    FileTimeToSystemTime(&time, &parts);
    char text[40];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%07uZ", parts.wYear, parts.wMonth, parts.wDay,
                  parts.wHour, parts.wMinute, parts.wSecond, static_cast<unsigned>(fileTime % 10000000U));
    return text;
}

} // namespace lab
