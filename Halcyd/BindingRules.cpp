#include "Halcyd/BindingRules.h"

#include "Halcyd/LatinCase.h"
#include "NetUtilities/Format.h"

namespace BindingRules
{
namespace
{
PathDecision LeaveAlone(std::wstring line)
{
    return {PathAction::LeaveAlone, std::move(line)};
}
} // namespace

PathDecision DecidePath(const PathFacts& facts, std::wstring_view adapterNotToUnbind, int bPppDevice,
                        const std::function<bool(std::wstring_view componentId)>& isExcepted)
{
    if (facts.disabled)
    {
        return LeaveAlone(L"\talready disabled");
    }
    // An id that the engine could not tell is nobody's, also when the client names no adapter to keep.
    if (!facts.componentGuid.empty() && facts.componentGuid == adapterNotToUnbind)
    {
        return LeaveAlone(L"\tthis is the component that we should not unbind");
    }
    if (facts.displayName == std::wstring(L"isatap.").append(adapterNotToUnbind))
    {
        return LeaveAlone(FormatText(L"\tthis is the component that we should not unbind: {}.{}",
                                     std::wstring_view(L"isatap"), adapterNotToUnbind));
    }
    if (bPppDevice != 0 && facts.componentId == L"ms_ndiswanip")
    {
        return LeaveAlone(L"\tdon't disable 'ms_ndiswanip' since this is a PPP connection");
    }
    if (isExcepted(facts.componentId))
    {
        return LeaveAlone(
            FormatText(L"\t{} is in the exception list...it's binding will not be disabled", facts.componentId));
    }
    return {PathAction::Disable, {}};
}

bool SkipsProtocol(std::wstring_view protocolId, int bPppDevice)
{
    return protocolId == L"ms_ndiswan" && bPppDevice == 1;
}

bool IsInExceptionList(std::wstring_view exceptionList, std::wstring_view componentId)
{
    const std::wstring list = std::wstring(L",").append(exceptionList).append(L",");
    const std::wstring id = std::wstring(L",").append(componentId).append(L",");
    return list.find(id) != std::wstring::npos;
}

bool IsYes(std::wstring_view text)
{
    return EqualIgnoringLatinCase(text, L"yes");
}

std::wstring LockResultLine(std::int32_t result, std::wstring_view holder, std::uint32_t waitMilliseconds)
{
    switch (result)
    {
    case NoWriteLock:
        return FormatText(L"'{}' is holding INetCfgLock", holder);
    case WaitRanOut:
        return FormatText(L"Timed out after waiting {} ms for INetCfgLock", waitMilliseconds);
    case NeedReboot:
        return L"Need to reboot to get the INetCfgLock";
    case SuccessReboot:
        return L"Needs a reboot to get the INetCfgLock";
    case AlreadyInitialized:
        return L"The INetCfgLock is already Initialized";
    case AccessDenied:
        return L"Insufficient Access rights to get INetCfgLock (must be Administrator)";
    default:
        return {};
    }
}
} // namespace BindingRules
