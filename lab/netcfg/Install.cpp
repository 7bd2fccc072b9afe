#include "lab/netcfg/Install.h"

#include <windows.h>

#include <stdexcept>
#include <string>

namespace lab::netcfg
{

namespace
{

constexpr wchar_t serverKey[] = L"Software\\Classes\\CLSID\\{5B035261-40F9-11D1-AAEC-00805FC1270E}\\InprocServer32";
constexpr wchar_t previousServer[] = L"PreviousNetCfg"; // beside the stand-in's own registration

std::wstring Read(const wchar_t* name)
{
    wchar_t text[MAX_PATH]{};
    DWORD size = sizeof text;
    RegGetValueW(HKEY_LOCAL_MACHINE, serverKey, name, RRF_RT_REG_SZ, nullptr, text, &size);
    return text;
}

void Write(const wchar_t* name, const std::wstring& text)
{
    if (RegSetKeyValueW(HKEY_LOCAL_MACHINE, serverKey, name, REG_SZ, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) != ERROR_SUCCESS)
    {
        throw std::runtime_error("cannot register the network configuration engine");
    }
}

} // namespace

void Install(const std::filesystem::path& dll)
{
    if (Read(previousServer).empty())
    {
        Write(previousServer, Read(nullptr));
    }
    Write(nullptr, dll.wstring());
    Write(L"ThreadingModel", L"Both");
}

void Uninstall()
{
    if (const std::wstring previous = Read(previousServer); !previous.empty())
    {
        Write(nullptr, previous);
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, serverKey, previousServer);
    }
}

} // namespace lab::netcfg
