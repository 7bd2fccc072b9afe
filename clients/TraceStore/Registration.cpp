#include "clients/TraceStore/Registration.h"

#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "NetUtilities/Handles.h"
#include "clients/TraceStore/StoreSettings.h"

namespace Registration
{
namespace
{
constexpr const wchar_t* ClassKey = L"Software\\Classes\\CLSID\\{904D1B57-4C3C-4F54-B426-1A62D5CAA8DE}";
constexpr const wchar_t* AppId = L"{3B0E0A53-7D0B-4B0E-9A4B-6D1B8C0C5F21}";
constexpr const wchar_t* AppIdKey = L"Software\\Classes\\AppID\\{3B0E0A53-7D0B-4B0E-9A4B-6D1B8C0C5F21}";
constexpr const wchar_t* AppIdOfExeKey = L"Software\\Classes\\AppID\\TraceStore.exe";
constexpr const wchar_t* Description = L"Sorvane Trace Service";

// One process serves the whole machine, whoever asks first: the account is fixed, and it is the weakest that will do.
// Without this each user would start a trace service of his own.
constexpr const wchar_t* Account = L"nt authority\\localservice";

// Full rights for the system and administrators, changing for the trace service's account, reading for users.
constexpr const wchar_t* FolderRights =
    L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1301BF;;;LS)(A;OICI;0x1200A9;;;BU)";
constexpr const wchar_t* KeyRights = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;0x2001F;;;LS)(A;CI;KR;;;BU)";

HRESULT SetText(const wchar_t* key, const wchar_t* value, const std::wstring& text)
{
    return HRESULT_FROM_WIN32(
        static_cast<DWORD>(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, value, REG_SZ, text.c_str(),
                                           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)))));
}

HRESULT DeleteTree(const wchar_t* key)
{
    const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    return status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(static_cast<DWORD>(status));
}

std::filesystem::path OwnPath()
{
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

// Sets the rights that `rights` names on a folder or a key.
HRESULT Protect(const std::wstring& name, SE_OBJECT_TYPE type, const wchar_t* rights)
{
    UniqueLocalMemory<void> descriptor;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL list = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(rights, SDDL_REVISION_1, descriptor.put(), nullptr) ||
        !GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted))
    {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    std::wstring target = name; // the platform's argument is not const
    return HRESULT_FROM_WIN32(SetNamedSecurityInfoW(target.data(), type,
                                                    DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                                    nullptr, nullptr, list, nullptr));
}

HRESULT PrepareFolder()
{
    const std::filesystem::path folder = StoreSettings::Read().folder;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
    {
        return HRESULT_FROM_WIN32(static_cast<DWORD>(error.value()));
    }
    return Protect(folder.wstring(), SE_FILE_OBJECT, FolderRights);
}

HRESULT PrepareSettings()
{
    UniqueRegistryHandle key;
    const LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, StoreSettings::LevelsKey, 0, nullptr, 0, KEY_READ,
                                           nullptr, key.put(), nullptr);
    if (status != ERROR_SUCCESS)
    {
        return HRESULT_FROM_WIN32(static_cast<DWORD>(status));
    }
    // Only the levels are the trace service's to change: where its files go stays the administrator's decision.
    return Protect(std::wstring(L"MACHINE\\") + StoreSettings::LevelsKey, SE_REGISTRY_KEY, KeyRights);
}

// Calls DllRegisterServer or DllUnregisterServer of the proxy DLL beside the executable.
HRESULT CallProxyDll(const char* function)
{
    using Entry = HRESULT(STDAPICALLTYPE*)();
    const UniqueModule proxies(LoadLibraryW((OwnPath().parent_path() / L"TraceStorePS.dll").c_str()));
    if (!proxies)
    {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    const auto entry = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(proxies.get(), function)));
    return entry != nullptr ? entry() : HRESULT_FROM_WIN32(GetLastError());
}

// The first failure of a sequence that goes on in spite of it.
class FirstFailure
{
public:
    void Note(HRESULT result)
    {
        if (FAILED(result) && SUCCEEDED(first))
        {
            first = result;
        }
    }
    [[nodiscard]] HRESULT Result() const { return first; }

private:
    HRESULT first = S_OK;
};
} // namespace

HRESULT Register()
{
    FirstFailure outcome;
    const std::wstring server = std::wstring(ClassKey) + L"\\LocalServer32";
    outcome.Note(SetText(ClassKey, nullptr, Description));
    outcome.Note(SetText(ClassKey, L"AppID", AppId));
    outcome.Note(SetText(server.c_str(), nullptr, L"\"" + OwnPath().wstring() + L"\""));
    outcome.Note(SetText(AppIdKey, nullptr, Description));
    outcome.Note(SetText(AppIdKey, L"RunAs", Account));
    outcome.Note(SetText(AppIdOfExeKey, L"AppID", AppId));
    outcome.Note(CallProxyDll("DllRegisterServer"));
    outcome.Note(PrepareFolder());
    outcome.Note(PrepareSettings());
    return outcome.Result();
}

HRESULT Unregister()
{
    FirstFailure outcome;
    outcome.Note(CallProxyDll("DllUnregisterServer"));
    outcome.Note(DeleteTree(ClassKey));
    outcome.Note(DeleteTree(AppIdKey));
    outcome.Note(DeleteTree(AppIdOfExeKey));
    return outcome.Result();
}
} // namespace Registration
