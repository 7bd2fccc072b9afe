// The entry of the process.

#include <windows.h>

#include <optional>

#include "Halcyd/CommandLine.h"
#include "Halcyd/ProcessSecurity.h"
#include "Halcyd/ResourceIds.h"
#include "Halcyd/ServiceModule.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/CrashGuard.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Singleton.h"
#include "NetUtilities/Trace.h"

namespace
{
// Does what a registration word asks for. Nothing when the command line holds none.
std::optional<long> RunCommandLineWord()
{
    switch (FindCommandLineWord(GetCommandLineW()))
    {
    case CommandLineWord::UnregServer:
        LogBanner(4, L"App Halcyd.EXE UnregServer");
        return _Module.UnregisterServer();
    case CommandLineWord::RegServer:
        LogBanner(4, L"App Halcyd.EXE RegServer");
        return _Module.RegisterServer(TRUE, FALSE);
    case CommandLineWord::Service:
        LogBanner(4, L"App Halcyd.EXE Service");
        return _Module.RegisterServer(TRUE, TRUE);
    case CommandLineWord::None:
        break;
    }
    return std::nullopt;
}
} // namespace

// The steps stand in the one order in which they work; what they open is closed in reverse when the function returns.
int WINAPI wWinMain(HINSTANCE hInstance, HINSTANCE /*hPrevInstance*/, LPWSTR /*lpCmdLine*/, int /*nShowCmd*/)
{
    KeepRuntimeFromAsking();

    // Holds the multithreaded apartment open for all threads of the process.
    const ComApartment apartment(COINIT_MULTITHREADED);

    ProcessSecurity security;
    if (FAILED(security.InitializeCom()))
    {
        LogMessage(Log::Source::ConfigServer, 2, L"CoInitializeSecurity failed!");
    }

    SetDefaultLogSource(Log::Source::ConfigServer);
    const ScopeTrace scope(Log::Source::ConfigServer, 19);
    LogFormatDefault(4, L"command line: {}", GetCommandLineW());

    _Module.Init(ObjectMap, hInstance, IDS_SERVICENAME, &LIBID_HALCYDLib);
    _Module.m_bService = TRUE;

    if (const auto result = RunCommandLineWord())
    {
        return *result;
    }
    LogBanner(4, L"App Halcyd.EXE Starting");

    RegistryKey appId;
    const DWORD opened = appId.Open(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + AppIdGuid, KEY_READ);
    if (opened != ERROR_SUCCESS)
    {
        LogError(opened, L"could not open the service class registry key");
        return static_cast<int>(opened);
    }
    // The presence of this one value decides between service and plain server, whatever it says.
    std::wstring localService;
    if (appId.ReadString(L"LocalService", localService) != ERROR_SUCCESS)
    {
        LogMessageDefault(4, L"Setting _Module.m_bService = FALSE");
        _Module.m_bService = FALSE;
    }
    else
    {
        LogMessageDefault(4, L"Setting _Module.m_bService = TRUE");
        _Module.m_bService = TRUE;
    }

    _Module.Start();
    _Module.Term();
    DestroyAllSingletons();
    return static_cast<int>(_Module.m_status.dwWin32ExitCode);
}
