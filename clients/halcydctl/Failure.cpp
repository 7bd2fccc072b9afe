#include "clients/halcydctl/Failure.h"

#include <utility>

#include "clients/halcydctl/Text.h"

namespace
{
constexpr const wchar_t* InstallCure =
    L"Install the product, or run as administrator: Halcyd.exe -Service, then regsvr32 HalcydPS.dll.";
constexpr const wchar_t* ProxyCure =
    L"Run as administrator: regsvr32 HalcydPS.dll. Repeat it after each registration of Halcyd.exe, which takes the "
    L"interfaces away from the DLL.";
constexpr const wchar_t* StartCure = L"Run as administrator: net start Halcyd. Or add --start to let COM start it.";
constexpr const wchar_t* TraceCure =
    L"Run as administrator: TraceStore.exe -RegServer. The service cannot live without the trace service.";
constexpr const wchar_t* LostCure = L"See whether it still runs (halcydctl status), what it said last (halcydctl "
                                    L"trace) and whether it left a crash dump; "
                                    L"restart it as administrator: net stop Halcyd, net start Halcyd.";

constexpr const wchar_t* TellMoreCure = L"The trace tells more: halcydctl trace --level 3.";

constexpr HRESULT ServerUnavailable = static_cast<HRESULT>(0x800706BA);
constexpr HRESULT CallFailed = static_cast<HRESULT>(0x800706BE);
constexpr HRESULT CallFailedNotExecuted = static_cast<HRESULT>(0x800706BF);
constexpr HRESULT InterfaceNotRegistered = static_cast<HRESULT>(0x80040155);
constexpr HRESULT ServiceDisabled = static_cast<HRESULT>(0x80070422);

void Set(Failure& failure, ExitCode exitCode, std::wstring reason, std::wstring cure)
{
    failure.exitCode = exitCode;
    failure.reason = std::move(reason);
    failure.cure = std::move(cure);
}

void SetProxyFailure(Failure& failure, const InstallationFacts& facts)
{
    Set(failure, ExitCode::ProxiesMissing,
        facts.proxiesClaimedByTypeLibrary
            ? L"The interfaces of the service are registered for the generic marshaler, which cannot carry the adapter "
              L"list."
            : L"The proxies of the service's interfaces (HalcydPS.dll) are not registered.",
        ProxyCure);
}

bool IsLost(HRESULT result)
{
    return result == RPC_E_DISCONNECTED || result == ServerUnavailable || result == CallFailed ||
           result == CallFailedNotExecuted || result == RPC_E_SERVER_DIED || result == RPC_E_SERVER_DIED_DNE ||
           result == CO_E_OBJNOTCONNECTED;
}
} // namespace

bool FindObstacle(const InstallationFacts& facts, bool mayStart, Failure& failure)
{
    if (!facts.classesRegistered)
    {
        Set(failure, ExitCode::NotInstalled,
            facts.service == ServiceCondition::NotInstalled
                ? L"The service Halcyd is not installed."
                : L"The service Halcyd is there, but its classes are not registered.",
            InstallCure);
        return true;
    }
    if (facts.startedAsService && facts.service == ServiceCondition::NotInstalled)
    {
        Set(failure, ExitCode::NotInstalled, L"The classes are registered for a service Halcyd that is not installed.",
            InstallCure);
        return true;
    }
    if (!facts.proxiesRegistered)
    {
        SetProxyFailure(failure, facts);
        return true;
    }
    const bool down = facts.service == ServiceCondition::Stopped || facts.service == ServiceCondition::Stopping;
    if (facts.startedAsService && down && !facts.traceServiceRegistered)
    {
        Set(failure, ExitCode::TraceServiceMissing,
            L"The service Halcyd does not run, and the trace service that it needs is not registered.", TraceCure);
        return true;
    }
    if (facts.startedAsService && down && !mayStart)
    {
        Set(failure, ExitCode::NotRunning, L"The service Halcyd is not running.", StartCure);
        return true;
    }
    return false;
}

Failure Explain(std::wstring action, HRESULT result, const InstallationFacts& facts)
{
    Failure failure;
    failure.action = std::move(action);
    failure.code = static_cast<std::uint32_t>(result);
    if (result == E_ACCESSDENIED)
    {
        Set(failure, ExitCode::AccessDenied, L"Access was denied.",
            L"Run the command from an elevated prompt. If that does not help, let an administrator look at the launch "
            L"and "
            L"access permissions of Halcyd in the component services (dcomcnfg).");
    }
    else if (result == E_NOINTERFACE && facts.proxiesRegistered && facts.startedAsService &&
             facts.service != ServiceCondition::Running)
    {
        // An activation that waited in vain for the server ends with this code on some platforms.
        Set(failure, ExitCode::NotRunning, L"The service could not be started, or did not come up in time.", LostCure);
    }
    else if (result == E_NOINTERFACE || result == InterfaceNotRegistered)
    {
        SetProxyFailure(failure, facts);
    }
    else if (result == REGDB_E_CLASSNOTREG)
    {
        Set(failure, ExitCode::NotInstalled, L"The classes of the service are not registered.", InstallCure);
    }
    else if (result == ServiceDisabled)
    {
        Set(failure, ExitCode::NotRunning, L"The service Halcyd is disabled.",
            L"Run as administrator: sc config Halcyd start= auto, then net start Halcyd.");
    }
    else if (result == CO_E_SERVER_EXEC_FAILURE && !facts.traceServiceRegistered)
    {
        Set(failure, ExitCode::TraceServiceMissing,
            L"The service was started and ended at once: the trace service that it needs is not registered.",
            TraceCure);
    }
    else if (result == CO_E_SERVER_EXEC_FAILURE)
    {
        Set(failure, ExitCode::NotRunning, L"The service could not be started, or did not come up in time.", LostCure);
    }
    else if (IsLost(result))
    {
        Set(failure, ExitCode::ServiceLost, L"The service ended or does not answer any more.", LostCure);
    }
    else
    {
        const std::wstring text = Text::SystemText(static_cast<std::uint32_t>(result));
        Set(failure, ExitCode::Failed, text.empty() ? L"The service answered with an error." : text, TellMoreCure);
    }
    return failure;
}

Failure ExplainStatus(std::wstring action, std::uint32_t status)
{
    Failure failure;
    failure.action = std::move(action);
    failure.code = status;
    switch (status)
    {
    case ERROR_FILE_NOT_FOUND:
        Set(failure, ExitCode::Failed, L"There is no such key or value.", L"Look at what is there: reg query KEY.");
        break;
    case ERROR_ACCESS_DENIED:
        Set(failure, ExitCode::AccessDenied, L"Access was denied.", TellMoreCure);
        break;
    case ERROR_BAD_ARGUMENTS:
        Set(failure, ExitCode::Failed, L"The path does not begin with a root that the service knows.",
            L"Begin it with HKEY_LOCAL_MACHINE\\, HKEY_CURRENT_USER\\ or HKEY_CLASSES_ROOT\\.");
        break;
    case ERROR_SERVICE_DOES_NOT_EXIST:
        Set(failure, ExitCode::Failed, L"There is no service of this name.",
            L"Give its key name, not the one that is displayed: sc query.");
        break;
    default:
        const std::wstring text = Text::SystemText(status);
        Set(failure, ExitCode::Failed, text.empty() ? L"The service answered with an error number." : text,
            TellMoreCure);
        break;
    }
    return failure;
}
