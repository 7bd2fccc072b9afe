#include "bench/PlatformCalls.h"

#include <windows.h>
#include <tlhelp32.h>

#include <array>

#include "NetUtilities/Handles.h"
#include "bench/Measure.h"

namespace
{

constexpr wchar_t kNetworkClass[] =
    L"System\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}";
constexpr wchar_t kClientKey[] = L"Software\\QRLS\\Sorvane";

using Text = std::array<wchar_t, 260>;

// The size, then the value, as for a text of any length.
bool HasText(HKEY key, const wchar_t* name, const std::wstring& wanted)
{
    Text text{};
    DWORD type = 0;
    DWORD size = 0;
    if (RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
        return false;
    size = sizeof text - sizeof(wchar_t);
    return RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size) == ERROR_SUCCESS &&
           wanted == text.data();
}

} // namespace

std::int64_t PlatformCalls::FindAdapterKey() const
{
    const std::int64_t start = NowNanoseconds();
    UniqueRegistryHandle classKey;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kNetworkClass, 0, KEY_READ, classKey.put());
    DWORD longest = 0;
    RegQueryInfoKeyW(classKey.get(), nullptr, nullptr, nullptr, nullptr, &longest, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr);
    for (DWORD index = 0;; ++index)
    {
        Text name{};
        auto length = static_cast<DWORD>(name.size());
        FILETIME lastWrite{};
        if (RegEnumKeyExW(classKey.get(), index, name.data(), &length, nullptr, nullptr, nullptr, &lastWrite) !=
            ERROR_SUCCESS)
            break;
        UniqueRegistryHandle adapter;
        RegOpenKeyExW(classKey.get(), name.data(), 0, KEY_READ, adapter.put());
        if (HasText(adapter.get(), L"NetCfgInstanceId", m_adapter))
        {
            DWORD characteristics = 0;
            DWORD size = sizeof characteristics;
            RegQueryValueExW(adapter.get(), L"Characteristics", nullptr, nullptr,
                             reinterpret_cast<BYTE*>(&characteristics), &size);
            break;
        }
    }
    classKey.reset();
    return NowNanoseconds() - start;
}

std::int64_t PlatformCalls::FindClientProcess() const
{
    const std::int64_t start = NowNanoseconds();
    {
        // Nobody here has the client's name: the walk goes to the end, in the service as well.
        const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
        PROCESSENTRY32W entry{};
        entry.dwSize = sizeof entry;
        for (BOOL more = Process32FirstW(snapshot.get(), &entry); more; more = Process32NextW(snapshot.get(), &entry))
        {
        }
    }
    UniqueRegistryHandle user;
    RegOpenKeyExW(HKEY_CURRENT_USER, kClientKey, 0, KEY_READ, user.put());
    return NowNanoseconds() - start;
}
