// The device information functions. Wine's own work from the Enum and Class keys that labctl writes, so these only add
// the journal and the fault rules.
#include "lab/shims/Shim.h"

#include <setupapi.h>

namespace
{

using lab::Call;

// Carries the last error of the built-in function past the journal, which uses the platform itself.
template <class T>
T Finish(Call& call, T result, bool failed)
{
    const DWORD error = GetLastError();
    call.Result(failed ? error : 0);
    SetLastError(error);
    return result;
}

template <class T>
T Refuse(Call& call, std::uint32_t code, T result)
{
    call.Result(code);
    SetLastError(code);
    return result;
}

HKEY NoKey() noexcept
{
    return static_cast<HKEY>(INVALID_HANDLE_VALUE);
}

} // namespace

SHIM_EXPORT(HDEVINFO, SetupDiGetClassDevsW)(const GUID* classGuid, PCWSTR enumerator, HWND window, DWORD flags)
{
    Call call{"SetupDiGetClassDevsW"};
    call.Arg("enumerator", enumerator).Arg("flags", flags);
    if (const auto code = call.Fault())
        return Refuse(call, *code, INVALID_HANDLE_VALUE);
    const HDEVINFO set = SHIM_ORIGINAL(SetupDiGetClassDevsW)(classGuid, enumerator, window, flags);
    return Finish(call, set, set == INVALID_HANDLE_VALUE);
}

SHIM_EXPORT(BOOL, SetupDiEnumDeviceInfo)(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data)
{
    Call call{"SetupDiEnumDeviceInfo"};
    call.Arg("index", index);
    if (const auto code = call.Fault())
        return Refuse(call, *code, FALSE);
    const BOOL done = SHIM_ORIGINAL(SetupDiEnumDeviceInfo)(set, index, data);
    return Finish(call, done, !done);
}

SHIM_EXPORT(HKEY, SetupDiOpenDevRegKey)(HDEVINFO set, PSP_DEVINFO_DATA data, DWORD scope, DWORD profile, DWORD type,
                                        REGSAM access)
{
    Call call{"SetupDiOpenDevRegKey"};
    call.Arg("type", type).Arg("access", access);
    if (const auto code = call.Fault())
        return Refuse(call, *code, NoKey());
    const HKEY key = SHIM_ORIGINAL(SetupDiOpenDevRegKey)(set, data, scope, profile, type, access);
    return Finish(call, key, key == NoKey());
}

SHIM_EXPORT(BOOL, SetupDiGetDeviceInstanceIdW)(HDEVINFO set, PSP_DEVINFO_DATA data, PWSTR id, DWORD size,
                                               PDWORD required)
{
    Call call{"SetupDiGetDeviceInstanceIdW"};
    if (const auto code = call.Fault())
        return Refuse(call, *code, FALSE);
    const BOOL done = SHIM_ORIGINAL(SetupDiGetDeviceInstanceIdW)(set, data, id, size, required);
    if (done)
        call.Out("id", lab::Utf8(id));
    return Finish(call, done, !done);
}

SHIM_EXPORT(BOOL, SetupDiGetDeviceRegistryPropertyW)(HDEVINFO set, PSP_DEVINFO_DATA data, DWORD property, PDWORD type,
                                                     PBYTE buffer, DWORD size, PDWORD required)
{
    Call call{"SetupDiGetDeviceRegistryPropertyW"};
    call.Arg("property", property);
    if (const auto code = call.Fault())
        return Refuse(call, *code, FALSE);
    const BOOL done =
        SHIM_ORIGINAL(SetupDiGetDeviceRegistryPropertyW)(set, data, property, type, buffer, size, required);
    return Finish(call, done, !done);
}

SHIM_EXPORT(HDEVINFO, SetupDiCreateDeviceInfoList)(const GUID* classGuid, HWND window)
{
    Call call{"SetupDiCreateDeviceInfoList"};
    if (const auto code = call.Fault())
        return Refuse(call, *code, INVALID_HANDLE_VALUE);
    const HDEVINFO set = SHIM_ORIGINAL(SetupDiCreateDeviceInfoList)(classGuid, window);
    return Finish(call, set, set == INVALID_HANDLE_VALUE);
}

SHIM_EXPORT(BOOL, SetupDiOpenDeviceInfoW)(HDEVINFO set, PCWSTR id, HWND window, DWORD flags, PSP_DEVINFO_DATA data)
{
    Call call{"SetupDiOpenDeviceInfoW"};
    call.Arg("id", id);
    if (const auto code = call.Fault())
        return Refuse(call, *code, FALSE);
    const BOOL done = SHIM_ORIGINAL(SetupDiOpenDeviceInfoW)(set, id, window, flags, data);
    return Finish(call, done, !done);
}

SHIM_EXPORT(BOOL, SetupDiDestroyDeviceInfoList)(HDEVINFO set)
{
    Call call{"SetupDiDestroyDeviceInfoList"};
    if (const auto code = call.Fault())
        return Refuse(call, *code, FALSE);
    const BOOL done = SHIM_ORIGINAL(SetupDiDestroyDeviceInfoList)(set);
    return Finish(call, done, !done);
}
