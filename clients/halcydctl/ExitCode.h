#pragma once

// What halcydctl returns to the shell. Documented in docs/halcydctl.md; scripts depend on the numbers.
enum class ExitCode : int
{
    Success = 0,
    Failed = 1,       // the call was made and answered with an error
    Usage = 2,        // the command line was not understood
    NotInstalled = 3, // the service (or its classes) is not registered
    NotRunning = 4,   // the service is installed and does not run
    AccessDenied = 5,
    ProxiesMissing = 6,      // HalcydPS.dll is not registered
    TraceServiceMissing = 7, // TraceStore.exe is not registered or cannot be started
    ServiceLost = 8,         // the service ended or stopped answering during the command
};
