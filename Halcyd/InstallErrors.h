#pragma once

#include <windows.h>

#include <optional>
#include <string_view>

// The words for a failed creation of the service; nothing for a code that has none (1072, marked for deletion, is one).
[[nodiscard]] constexpr std::optional<std::wstring_view> DescribeCreateServiceError(DWORD code) noexcept
{
    switch (code)
    {
    case ERROR_ACCESS_DENIED:
        return L"The handle to the SCM database does not have the SC_MANAGER_CREATE_SERVICE access right";
    case ERROR_INVALID_HANDLE:
        return L"The handle to the specified service control manager database is invalid";
    case ERROR_INVALID_PARAMETER:
        return L"A parameter that was specified is invalid";
    case ERROR_INVALID_NAME:
        return L"The specified service name is invalid";
    case ERROR_INVALID_SERVICE_ACCOUNT:
        return L"The user account name specified in the lpServiceStartName parameter does not exist";
    case ERROR_CIRCULAR_DEPENDENCY:
        return L"A circular service dependency was specified";
    case ERROR_SERVICE_EXISTS:
        return L"The specified service already exists in this database";
    case ERROR_DUPLICATE_SERVICE_NAME:
        return L"The display name already exists in the service control manager database either as a service name "
               L"or as another display name";
    default:
        return std::nullopt;
    }
}
