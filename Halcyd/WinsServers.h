#pragma once

#include <string>
#include <string_view>

// The text of `IpWinsServerList`: both servers with ":" between them, otherwise the secondary alone. A primary server
// without a secondary one is dropped; that is what clients have always been given.
[[nodiscard]] inline std::wstring JoinWinsServers(std::wstring_view primary, std::wstring_view secondary)
{
    std::wstring text;
    if (!primary.empty() && !secondary.empty())
    {
        text.append(primary).append(L":");
    }
    return text.append(secondary);
}
