#include "Halcyd/ProcessSecurity.h"

#include <objbase.h>

#include <new>

#include "NetUtilities/Handles.h"

namespace
{
// The token of the thread, or that of the process when the thread has none.
DWORD OpenEffectiveToken(UniqueHandle& token) noexcept
{
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, FALSE, token.put()))
    {
        return ERROR_SUCCESS;
    }
    const DWORD error = GetLastError();
    if (error != ERROR_NO_TOKEN)
    {
        return error;
    }
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) ? ERROR_SUCCESS : GetLastError();
}

DWORD CopySidOf(PSID sid, std::unique_ptr<BYTE[]>& copy)
{
    const DWORD length = GetLengthSid(sid);
    copy = std::make_unique<BYTE[]>(length);
    return CopySid(length, copy.get(), sid) ? ERROR_SUCCESS : GetLastError();
}

// Asks for the size, then for the information, and copies the SID that it names.
template <class Information>
DWORD ReadTokenSid(HANDLE token, TOKEN_INFORMATION_CLASS which, PSID Information::* member,
                   std::unique_ptr<BYTE[]>& copy)
{
    DWORD size = 0;
    GetTokenInformation(token, which, nullptr, 0, &size);
    const DWORD error = GetLastError();
    if (error != ERROR_INSUFFICIENT_BUFFER)
    {
        return error;
    }
    const auto buffer = std::make_unique<BYTE[]>(size);
    if (!GetTokenInformation(token, which, buffer.get(), size, &size))
    {
        return GetLastError();
    }
    return CopySidOf(reinterpret_cast<Information*>(buffer.get())->*member, copy);
}
} // namespace

ProcessSecurity::ProcessSecurity() noexcept
{
    try
    {
        Build();
    }
    catch (const std::bad_alloc&)
    {
        result = ERROR_NOT_ENOUGH_MEMORY;
    }
}

void ProcessSecurity::Build()
{
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION))
    {
        result = GetLastError();
        return;
    }
    UniqueHandle token;
    result = OpenEffectiveToken(token);
    if (result != ERROR_SUCCESS)
    {
        return;
    }
    result = ReadTokenSid(token.get(), TokenOwner, &TOKEN_OWNER::Owner, owner);
    if (result == ERROR_SUCCESS)
    {
        result = ReadTokenSid(token.get(), TokenPrimaryGroup, &TOKEN_PRIMARY_GROUP::PrimaryGroup, group);
    }
    if (result != ERROR_SUCCESS)
    {
        return;
    }
    if (!SetSecurityDescriptorOwner(&descriptor, owner.get(), FALSE) ||
        !SetSecurityDescriptorGroup(&descriptor, group.get(), FALSE))
    {
        result = GetLastError();
    }
}

HRESULT ProcessSecurity::InitializeCom() noexcept
{
    return CoInitializeSecurity(&descriptor, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT, RPC_C_IMP_LEVEL_IMPERSONATE,
                                nullptr, EOAC_NONE, nullptr);
}
