#include "bench/LabSwitch.h"

#include <windows.h>

#include "NetUtilities/Handles.h"

namespace
{

constexpr wchar_t kOverrides[] = L"Software\\Wine\\AppDefaults\\Halcyd.exe\\DllOverrides";
constexpr wchar_t kEngine[] = L"Software\\Classes\\CLSID\\{5B035261-40F9-11D1-AAEC-00805FC1270E}\\InprocServer32";

void SetText(HKEY root, const wchar_t* key, const wchar_t* name, const std::wstring& text)
{
    RegSetKeyValueW(root, key, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

std::vector<std::wstring> ValueNames(HKEY root, const wchar_t* path)
{
    UniqueRegistryHandle key;
    std::vector<std::wstring> names;
    if (RegOpenKeyExW(root, path, 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return names;
    wchar_t name[MAX_PATH];
    for (DWORD index = 0;; ++index)
    {
        DWORD length = MAX_PATH;
        if (RegEnumValueW(key.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return names;
        names.emplace_back(name, length);
    }
}

} // namespace

LabSwitch::LabSwitch() : m_shims(ValueNames(HKEY_CURRENT_USER, kOverrides))
{
    wchar_t text[MAX_PATH] = {};
    DWORD size = sizeof text;
    RegGetValueW(HKEY_LOCAL_MACHINE, kEngine, nullptr, RRF_RT_REG_SZ, nullptr, text, &size);
    m_engine = text;
}

void LabSwitch::Off()
{
    for (const std::wstring& shim : m_shims)
        SetText(HKEY_CURRENT_USER, kOverrides, shim.c_str(), L"builtin");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEngine);
}

void LabSwitch::On()
{
    for (const std::wstring& shim : m_shims)
        SetText(HKEY_CURRENT_USER, kOverrides, shim.c_str(), L"native,builtin");
    if (!m_engine.empty())
    {
        SetText(HKEY_LOCAL_MACHINE, kEngine, nullptr, m_engine);
        SetText(HKEY_LOCAL_MACHINE, kEngine, L"ThreadingModel", L"Both");
    }
}
