#include "HostHooks.h"

// The import slots. The names are the linker's.
#define IMPORT_SLOT(function) decltype(&function##Hook::Call) __imp_##function = &function##Hook::Call;

extern "C"
{
    IMPORT_SLOT(RegisterServiceCtrlHandlerExW)
    IMPORT_SLOT(SetServiceStatus)
    IMPORT_SLOT(StartServiceCtrlDispatcherW)
    IMPORT_SLOT(CreateServiceW)
    IMPORT_SLOT(DeleteService)
    IMPORT_SLOT(GetTokenInformation)
    IMPORT_SLOT(OpenThreadToken)
    IMPORT_SLOT(RegisterEventSourceW)
    IMPORT_SLOT(ReportEventW)
    IMPORT_SLOT(CoInitializeSecurity)
    IMPORT_SLOT(CoRegisterClassObject)
    IMPORT_SLOT(CoRevokeClassObject)
    IMPORT_SLOT(CoResumeClassObjects)
    IMPORT_SLOT(CoSuspendClassObjects)
    IMPORT_SLOT(CoCreateInstance)
    IMPORT_SLOT(CreateEventW)
    IMPORT_SLOT(OutputDebugStringW)
    IMPORT_SLOT(LoadStringW)
    IMPORT_SLOT(GetSystemPowerStatus)
    IMPORT_SLOT(OpenProcess)

    // Declared without an import slot by the compiler's headers: these stand in for the import library's entries.
    HANDLE WINAPI CreateToolhelp32Snapshot(DWORD flags, DWORD process)
    {
        return CreateToolhelp32SnapshotHook::Call(flags, process);
    }
    BOOL WINAPI Process32FirstW(HANDLE snapshot, LPPROCESSENTRY32W entry)
    {
        return Process32FirstWHook::Call(snapshot, entry);
    }
    BOOL WINAPI Process32NextW(HANDLE snapshot, LPPROCESSENTRY32W entry)
    {
        return Process32NextWHook::Call(snapshot, entry);
    }
}
