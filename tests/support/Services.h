// Windows services as tests see them: start, stop, wait for a state, find the process.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

inline constexpr wchar_t kServiceName[] = L"Halcyd";

// Installs a service that starts on demand, "Display of NAME" to people. Win32 error, 0 for success. The default's
// program does not exist: the service can be configured, and a start of it fails.
[[nodiscard]] DWORD InstallService(const std::wstring& name,
                                   const std::wstring& commandLine = L"C:\\no such program.exe");

class ServiceControl
{
public:
    explicit ServiceControl(std::wstring name = kServiceName) : m_name(std::move(name)) {}

    [[nodiscard]] bool Exists() const;
    // A SERVICE_* state, or nothing if there is no such service.
    [[nodiscard]] std::optional<DWORD> State() const;
    [[nodiscard]] DWORD ProcessId() const;
    // Win32 error of the start, 0 when it was accepted; does not wait.
    DWORD Start() const;
    // Start, and wait until it says RUNNING.
    [[nodiscard]] bool StartAndWait(DWORD timeoutMs = 60'000) const;
    // Sends a control. Returns the Win32 error, 0 when it was delivered.
    DWORD Control(DWORD control) const;
    // Stop, and wait until it says STOPPED and its process has gone. True also for a stopped one.
    [[nodiscard]] bool StopAndWait(DWORD timeoutMs = 60'000) const;
    [[nodiscard]] bool WaitForState(DWORD state, DWORD timeoutMs = 60'000) const;

private:
    std::wstring m_name;
};
