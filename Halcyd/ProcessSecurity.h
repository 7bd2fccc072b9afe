#pragma once

#include <windows.h>

#include <memory>

// The security descriptor of the process: owner and group of whoever runs it, and no DACL at all.
//
// Nobody is kept from an object: what a caller may do with it is decided by each class, by its allow-list. Do not add a
// DACL; the client application runs without any rights.
class ProcessSecurity
{
public:
    // Builds the descriptor. A part that cannot be read stays out of it; Result tells the last failure, 0 for none.
    ProcessSecurity() noexcept;
    ProcessSecurity(const ProcessSecurity&) = delete;
    ProcessSecurity& operator=(const ProcessSecurity&) = delete;

    // Absolute form, valid for the life of the object.
    [[nodiscard]] PSECURITY_DESCRIPTOR Descriptor() noexcept { return &descriptor; }
    [[nodiscard]] DWORD Result() const noexcept { return result; }

    // CoInitializeSecurity with this descriptor: packet authentication, impersonation. Once per process, before the
    // first COM call.
    [[nodiscard]] HRESULT InitializeCom() noexcept;

private:
    void Build();

    SECURITY_DESCRIPTOR descriptor{};
    std::unique_ptr<BYTE[]> owner; // copies of the SIDs, which the descriptor points to
    std::unique_ptr<BYTE[]> group;
    DWORD result = ERROR_SUCCESS;
};
