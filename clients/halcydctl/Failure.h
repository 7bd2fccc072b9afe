#pragma once
// What went wrong, in words, and what to do about it.

#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "clients/halcydctl/ExitCode.h"

// State of the service as the service control manager tells it.
enum class ServiceCondition
{
    NotInstalled,
    Stopped,
    Starting,
    Running,
    Stopping,
    Unknown, // the question was refused
};

// What can be found out about the installation without calling the service.
struct InstallationFacts
{
    ServiceCondition service = ServiceCondition::NotInstalled;
    std::uint32_t processId = 0;
    std::uint32_t startType = 0;              // SERVICE_AUTO_START and so on; 0xFFFFFFFF if unknown
    std::wstring binaryPath;                  // of the service
    bool classesRegistered = false;           // NetMonSv has a local server
    bool startedAsService = false;            // the AppID names the service; else COM starts a plain server
    std::wstring serverPath;                  // what COM starts for a plain server
    bool proxiesRegistered = false;           // the interfaces point to HalcydPS.dll
    bool proxiesClaimedByTypeLibrary = false; // ... or to the generic marshaler, which cannot carry the adapter list
    std::wstring proxyPath;
    bool traceServiceRegistered = false;
    std::wstring traceServicePath;
};

// Ends a command; caught in one place, which prints it.
struct Failure : std::exception
{
    ExitCode exitCode = ExitCode::Failed;
    std::uint32_t code = 0; // HRESULT or Windows error number, 0 if there is none
    std::wstring action;    // what was tried: "Opening the monitor"
    std::wstring reason;    // what is wrong, one sentence
    std::wstring cure;      // what to do, one sentence or two; may be empty
};

// Why no call to the service can work, seen from the facts alone. Pure. False if nothing stands against a call.
// `mayStart`: the caller is ready to have COM start a stopped service.
[[nodiscard]] bool FindObstacle(const InstallationFacts& facts, bool mayStart, Failure& failure);

// Turns the result of a COM activation or call into words. Pure.
[[nodiscard]] Failure Explain(std::wstring action, HRESULT result, const InstallationFacts& facts);

// For methods that put a Windows error number in the HRESULT's place. Pure but for the system's message table.
[[nodiscard]] Failure ExplainStatus(std::wstring action, std::uint32_t status);
