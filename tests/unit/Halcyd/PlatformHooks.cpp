#include "tests/unit/Halcyd/PlatformHooks.h"

#include <mutex>

namespace PlatformHooks
{
namespace
{
std::mutex mutex;
}

State& Current()
{
    static State state;
    return state;
}

bool Fails(const std::string& name, DWORD& code)
{
    const std::lock_guard guard(mutex);
    State& state = Current();
    const int number = ++state.calls[name];
    const auto failure = state.failures.find(name);
    if (failure == state.failures.end() || failure->second.nth != number)
    {
        return false;
    }
    code = failure->second.code;
    return true;
}

void FailCall(const std::string& name, int nth, DWORD code)
{
    const std::lock_guard guard(mutex);
    Current().failures[name] = {Current().calls[name] + nth, code};
}

int Calls(const std::string& name)
{
    const std::lock_guard guard(mutex);
    return Current().calls[name];
}

void Reset()
{
    const std::lock_guard guard(mutex);
    State& state = Current();
    for (const auto& clear : state.clear)
    {
        clear();
    }
    state = {};
}
} // namespace PlatformHooks

// The import slots. The names are the linker's.
#define IMPORT_SLOT(function) decltype(&function##Hook::Call) __imp_##function = &function##Hook::Call;

extern "C"
{
    IMPORT_SLOT(OpenSCManagerW)
    IMPORT_SLOT(OpenServiceW)
    IMPORT_SLOT(CloseServiceHandle)
    IMPORT_SLOT(QueryServiceConfigW)
    IMPORT_SLOT(QueryServiceStatus)
    IMPORT_SLOT(QueryServiceStatusEx)
    IMPORT_SLOT(GetServiceKeyNameW)
    IMPORT_SLOT(ChangeServiceConfigW)
    IMPORT_SLOT(ControlService)
    IMPORT_SLOT(StartServiceW)
    IMPORT_SLOT(EnumDependentServicesW)
    IMPORT_SLOT(QueryServiceObjectSecurity)
    IMPORT_SLOT(SetServiceObjectSecurity)
    IMPORT_SLOT(OpenProcessToken)
    IMPORT_SLOT(LookupPrivilegeValueW)
    IMPORT_SLOT(AdjustTokenPrivileges)
    IMPORT_SLOT(VerifyVersionInfoW)
    IMPORT_SLOT(RegCreateKeyExW)
    IMPORT_SLOT(RegOpenKeyExW)
    IMPORT_SLOT(RegQueryValueExW)
    IMPORT_SLOT(RegSetValueExW)
    IMPORT_SLOT(RegDeleteValueW)
    IMPORT_SLOT(RegDeleteTreeW)
    IMPORT_SLOT(RegDeleteKeyExW)
    IMPORT_SLOT(RegEnumKeyExW)
    IMPORT_SLOT(CoInitializeEx)
    IMPORT_SLOT(ConvertSecurityDescriptorToStringSecurityDescriptorW)
    IMPORT_SLOT(LocalAlloc)
    IMPORT_SLOT(SafeArrayCreateVector)
}
