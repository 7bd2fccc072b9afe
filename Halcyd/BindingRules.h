#pragma once
// The decisions of binding control, apart from the network configuration engine: what to do with one binding path,
// what the exception list excepts, what a result of the write lock means, and where a record lives.
// Free of the platform. Texts are compared exactly, with case respected.

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace BindingRules
{
// Protocol components whose paths are walked, in this order.
inline constexpr std::array<std::wstring_view, 3> ComponentIds{L"ms_tcpip6", L"ms_tcpip", L"ms_ndiswan"};

// Below HKEY_LOCAL_MACHINE. Ends in a backslash: a protocol's id is appended as it is.
inline constexpr std::wstring_view RootKey = L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention\\";
inline constexpr std::wstring_view ExceptionListValue = L"ExceptionList";
inline constexpr std::wstring_view DisabledValue = L"BindingDisabledByQRL";

// Key of the record of one binding, below HKEY_LOCAL_MACHINE.
inline std::wstring RecordKey(std::wstring_view protocolId, std::wstring_view lowerComponentGuid)
{
    std::wstring key(RootKey);
    key.append(protocolId).append(L"\\").append(lowerComponentGuid);
    return key;
}

// What the engine says of the component below a path.
struct PathFacts
{
    bool disabled = false;      // IsEnabled gave S_FALSE
    std::wstring componentId;   // lower component's id
    std::wstring componentGuid; // its instance GUID, as StringFromCLSID prints it; empty if the engine did not tell it
    std::wstring displayName;
};

enum class PathAction
{
    LeaveAlone,
    Disable,
};

// The action, and the line that tells of it; Disable has none, as its line depends on the engine's answer.
struct PathDecision
{
    PathAction action = PathAction::LeaveAlone;
    std::wstring line;
};

// The rule for a path whose lower component is known. `isExcepted` is asked last, and only if no earlier test
// decided, since each asking reads the registry.
PathDecision DecidePath(const PathFacts& facts, std::wstring_view adapterNotToUnbind, int bPppDevice,
                        const std::function<bool(std::wstring_view componentId)>& isExcepted);

// True for a protocol whose paths are not walked at all: NDISWAN when the kept adapter is a PPP device. Exactly 1
// counts here, while the path rule takes any value but 0.
bool SkipsProtocol(std::wstring_view protocolId, int bPppDevice);

// True if `componentId` is one of the comma separated ids of `exceptionList`. Nothing is trimmed: a blank behind a
// comma belongs to the next id.
bool IsInExceptionList(std::wstring_view exceptionList, std::wstring_view componentId);

// True for "yes" in any case, with nothing before or behind it.
bool IsYes(std::wstring_view text);

// The line for a result of AcquireWriteLock other than 0; empty for a result that has none of its own.
std::wstring LockResultLine(std::int32_t result, std::wstring_view holder, std::uint32_t waitMilliseconds);

// Results of the write lock.
inline constexpr std::int32_t NoWriteLock = static_cast<std::int32_t>(0x8004A024U);
inline constexpr std::int32_t NeedReboot = static_cast<std::int32_t>(0x8004A025U);
inline constexpr std::int32_t SuccessReboot = 0x0004A020;
inline constexpr std::int32_t AlreadyInitialized = static_cast<std::int32_t>(0x8004A020U);
inline constexpr std::int32_t AccessDenied = static_cast<std::int32_t>(0x80070005U);
inline constexpr std::int32_t WaitRanOut = 1;
} // namespace BindingRules
