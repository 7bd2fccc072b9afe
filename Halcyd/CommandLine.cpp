#include "Halcyd/CommandLine.h"

#include <windows.h>

namespace
{
bool EqualsIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept
{
    return left.size() == right.size() && CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                                               static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

// What lies behind the next switch character; false when there is none.
bool NextToken(std::wstring_view& rest) noexcept
{
    const std::size_t found = rest.find_first_of(L"-/");
    if (found == std::wstring_view::npos)
    {
        return false;
    }
    rest.remove_prefix(found + 1);
    return true;
}
} // namespace

CommandLineWord FindCommandLineWord(std::wstring_view commandLine) noexcept
{
    std::wstring_view token = commandLine;
    while (NextToken(token))
    {
        if (EqualsIgnoringCase(token, L"UnregServer"))
        {
            return CommandLineWord::UnregServer;
        }
        if (EqualsIgnoringCase(token, L"RegServer"))
        {
            return CommandLineWord::RegServer;
        }
        if (EqualsIgnoringCase(token, L"Service"))
        {
            return CommandLineWord::Service;
        }
    }
    return CommandLineWord::None;
}
