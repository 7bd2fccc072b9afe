#include "Halcyd/ServiceControlEx.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

#include "Halcyd/MethodGuard.h"
#include "Halcyd/ServiceModeRules.h"
#include "Halcyd/VariantPayload.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::ConfigServer;
constexpr unsigned ScopeFlag = 19;
constexpr auto OutOfMemory = static_cast<DWORD>(E_OUTOFMEMORY);
constexpr auto NotSupported = static_cast<DWORD>(-1);

// Traces `text` with the last error, and returns that error.
template <class... Args>
DWORD FailWithLastError(const wchar_t* text, const Args&... arguments)
{
    const DWORD error = GetLastError();
    LogErrorSource(Source, error, text, arguments...);
    return error;
}

// A block for the platform's variable-size answers; empty if memory ran out.
template <class T>
class AnswerBuffer
{
public:
    explicit AnswerBuffer(DWORD bytes) noexcept
        : block(new(std::nothrow) std::byte[std::max<std::size_t>(bytes, sizeof(T))]())
    {
    }
    [[nodiscard]] explicit operator bool() const noexcept { return block != nullptr; }
    [[nodiscard]] T* Get() const noexcept { return reinterpret_cast<T*>(block.get()); }
    T* operator->() const noexcept { return Get(); }

private:
    std::unique_ptr<std::byte[]> block;
};

HRESULT AsResult(DWORD code)
{
    return static_cast<HRESULT>(code);
}
} // namespace

ServiceStopList CServiceControlEx::ipSecList;
ServiceStopList CServiceControlEx::wzcList;

STDMETHODIMP CServiceControlEx::SetServiceMode(BSTR bstrService, LONG dwMode, LONG dwStartupState) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            const std::wstring name = TextOf(bstrService);
            const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
            if (!manager)
            {
                return AsResult(FailWithLastError(L"could not open the SCM"));
            }
            const UniqueServiceHandle service(MyOpenService(manager.get(), name.c_str(), SERVICE_ALL_ACCESS));
            if (!service)
            {
                return AsResult(FailWithLastError(L"failed to open service '{}'", name));
            }
            LogFormat(Source, 4, L"updating service '{}'", name);
            return AsResult(UpdateService(manager.get(), service.get(), dwMode, static_cast<DWORD>(dwStartupState)));
        });
}

DWORD CServiceControlEx::UpdateService(SC_HANDLE scm, SC_HANDLE service, LONG mode, DWORD startupState)
{
    DWORD needed = 0;
    if (QueryServiceConfigW(service, nullptr, 0, &needed) != FALSE)
    {
        const DWORD error = GetLastError();
        LogErrorSource(Source, error, L"error QueryServiceConfig (rc={})", error);
        return error;
    }
    DWORD rc = GetLastError();
    if (rc != ERROR_INSUFFICIENT_BUFFER)
    {
        LogErrorSource(Source, rc, L"QueryServiceConfig error");
        return rc;
    }

    const AnswerBuffer<QUERY_SERVICE_CONFIGW> config(needed);
    if (!config)
    {
        LogFormat(Source, 2, L"could not allocate '{}' byte needed for QueryServiceConfig", needed);
        return OutOfMemory;
    }
    if (QueryServiceConfigW(service, config.Get(), needed, &needed) == FALSE)
    {
        return FailWithLastError(L"QueryServiceConfig with buffer error");
    }

    // The names below are compared with the key name that belongs to the configuration's display name, whatever name
    // the client typed.
    wchar_t keyName[260] = L"";
    DWORD keyNameSize = ARRAYSIZE(keyName);
    if (GetServiceKeyNameW(scm, TextOrEmpty(config->lpDisplayName), keyName, &keyNameSize) == FALSE)
    {
        return FailWithLastError(L"GetServiceKeyName error");
    }

    if (startupState == 0)
    {
        // Required: the size query's 122 is what a client gets for start type 0, with nothing changed and no action.
        return rc;
    }
    LogFormat(Source, 4, L"caller specified valid startup state '{}', calling ChangeServiceConfig", startupState);
    if (ChangeServiceConfigW(service, SERVICE_NO_CHANGE, startupState, SERVICE_NO_CHANGE, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr) == FALSE)
    {
        return FailWithLastError(L"error calling ChangeServiceConfig");
    }
    rc = ERROR_SUCCESS;

    switch (ServiceModeRules::ActionOf(mode))
    {
    case ServiceModeRules::ModeAction::Stop:
        return StopByName(scm, service, keyName);
    case ServiceModeRules::ModeAction::PauseOrContinue:
    {
        LogFormat(Source, 4, L"attempting to pause or continue '{}'", keyName);
        SERVICE_STATUS status{};
        if (ControlService(service, static_cast<DWORD>(mode), &status) == FALSE)
        {
            return FailWithLastError(L"ControlService failed");
        }
        return rc;
    }
    case ServiceModeRules::ModeAction::Start:
        return StartByName(scm, service, keyName);
    case ServiceModeRules::ModeAction::Unsupported:
        break;
    }
    LogFormat(Source, 3, L"unsupported request (request={})", mode);
    return ERROR_SUCCESS;
}

DWORD CServiceControlEx::StopByName(SC_HANDLE scm, SC_HANDLE service, const std::wstring& keyName)
{
    LogFormat(Source, 4, L"attempting to stop '{}'", keyName);
    const ServiceModeRules::ServiceGroup group = ServiceModeRules::GroupOf(keyName);
    if (group == ServiceModeRules::ServiceGroup::None)
    {
        LogFormat(Source, 2, L"stopping of '{}' is not supported, returning (rc=-1)", keyName);
        return NotSupported;
    }
    const bool ipSec = group == ServiceModeRules::ServiceGroup::IpSec;
    LogMessage(Source, 4,
               ipSec ? L"attempt to stop the native IPSEC service to free the IKE ports, creating stop list for it"
                     : L"attempt to stop the WZC service for direct 802.11 control, creating the stop list");

    ServiceStopList& stopList = ipSec ? ipSecList : wzcList;
    ServiceList list;
    DWORD count = 0;
    DWORD rc = MyEnumDependentServices(scm, service, list, count);
    stopList.list = list;
    stopList.count = count;
    if (rc == ERROR_SUCCESS)
    {
        rc = MyStopServices(scm, service, list, count);
    }
    if (rc == ERROR_SUCCESS)
    {
        LogFormat(Source, 4, L"successfully called stop service list (rc={})", rc);
    }
    else
    {
        LogErrorSource(Source, rc, L"failed to call stop service list");
    }

    // Required: the list is given back here though a restart would need it, and its count stays. So a restart after the
    // stop of a service with dependents finds a count without names and starts the main service alone. Stopping WZC
    // clears the IPSEC list as well.
    stopList.list = ServiceList();
    ipSecList.list = ServiceList();
    return rc;
}

DWORD CServiceControlEx::StartByName(SC_HANDLE scm, SC_HANDLE service, const std::wstring& keyName)
{
    LogFormat(Source, 4, L"attempting start service '{}'", keyName);
    switch (ServiceModeRules::GroupOf(keyName))
    {
    case ServiceModeRules::ServiceGroup::IpSec:
        LogMessage(Source, 4, L"attempting restart native IPSEC services");
        if (MyRestartServices(scm, service, ipSecList.list, ipSecList.count) != ERROR_SUCCESS)
        {
            // Required: the thread's last error is the result, not the restart's own.
            return FailWithLastError(L"IPSEC restart failed");
        }
        return ERROR_SUCCESS;
    case ServiceModeRules::ServiceGroup::Wzc:
        LogMessage(Source, 4, L"attempting restart native WZC service");
        if (MyRestartServices(scm, service, wzcList.list, wzcList.count) != ERROR_SUCCESS)
        {
            const DWORD rc = GetLastError();
            LogFormat(Source, 2, L"failed to restart services (rc={})", rc);
            return rc;
        }
        return ERROR_SUCCESS;
    case ServiceModeRules::ServiceGroup::None:
        break;
    }
    LogFormat(Source, 2, L"restarting of '{}' is not supported (rc=-1)", keyName);
    return NotSupported;
}

STDMETHODIMP CServiceControlEx::QueryServiceMode(BSTR bstrService, VARIANT* pvMode, VARIANT* pvStartupState) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (pvMode == nullptr || pvStartupState == nullptr)
            {
                return AsResult(ERROR_INVALID_PARAMETER);
            }
            // A number in the place of a string or an array would leave a pointer of the client's making, which the
            // answer's way back reads and frees inside this process.
            if (!HoldsPlainBits(*pvMode) || !HoldsPlainBits(*pvStartupState))
            {
                return AsResult(ERROR_INVALID_PARAMETER);
            }
            const std::wstring name = TextOf(bstrService);
            DWORD mode = 0;
            DWORD startupState = 0;
            const DWORD rc = ReadMode(name, mode, startupState);
            // Required: only the 32-bit values are written, and always; the types are the caller's.
            pvMode->lVal = static_cast<LONG>(mode);
            pvStartupState->lVal = static_cast<LONG>(startupState);
            LogFormat(Source, 4, L"query service '{}' (mode={}, startup={}, rc={})", name, mode, startupState, rc);
            return AsResult(rc);
        });
}

DWORD CServiceControlEx::ReadMode(const std::wstring& name, DWORD& mode, DWORD& startupState)
{
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        return FailWithLastError(L"could not get handle to SCM");
    }
    LogFormat(Source, 4, L"trying to open '{}'", name);
    const UniqueServiceHandle service(MyOpenService(manager.get(), name.c_str(), GENERIC_READ));
    if (!service)
    {
        return FailWithLastError(L"could not open '{}'", name);
    }

    DWORD needed = 0;
    if (QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, nullptr, 0, &needed) == FALSE &&
        GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        return FailWithLastError(L"problem calling QueryServiceStatusEx to get the size");
    }
    const AnswerBuffer<SERVICE_STATUS_PROCESS> status(needed);
    if (!status)
    {
        LogFormat(Source, 2, L"not enough memory to allocate '{}' bytes for QueryServiceStatusEx call", needed);
        return OutOfMemory;
    }
    if (QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(status.Get()), needed,
                             &needed) == FALSE)
    {
        return FailWithLastError(L"could not get the actual current service status");
    }
    mode = status->dwCurrentState;

    needed = 0;
    if (QueryServiceConfigW(service.get(), nullptr, 0, &needed) == FALSE && GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        return FailWithLastError(L"problem calling QueryServiceConfig to get the size");
    }
    const AnswerBuffer<QUERY_SERVICE_CONFIGW> config(needed);
    if (!config)
    {
        LogFormat(Source, 2, L"not enough memory to allocate '{}' bytes for QueryServiceConfig call", needed);
        return OutOfMemory;
    }
    if (QueryServiceConfigW(service.get(), config.Get(), needed, &needed) == FALSE)
    {
        return FailWithLastError(L"could not get the actual current service configuration");
    }
    startupState = config->dwStartType;
    return ERROR_SUCCESS;
}
