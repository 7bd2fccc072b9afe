#include "LabFixture.h"

#include "lab/labctl/Registry.h"
#include "lab/state/Text.h"

#include <windows.h>

namespace lab::test
{
namespace
{

std::string Text(const std::string& key, const wchar_t* name)
{
    wchar_t text[512] = {};
    DWORD size = sizeof text;
    const LSTATUS error =
        RegGetValueW(HKEY_LOCAL_MACHINE, Wide(key).c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size);
    return error == ERROR_SUCCESS ? Utf8(text) : "error " + std::to_string(error);
}

std::optional<DWORD> Number(const std::string& key, const wchar_t* name)
{
    DWORD number = 0;
    DWORD size = sizeof number;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, Wide(key).c_str(), name, RRF_RT_REG_DWORD, nullptr, &number, &size) !=
        ERROR_SUCCESS)
    {
        return std::nullopt;
    }
    return number;
}

bool Exists(const std::string& key)
{
    HKEY opened = nullptr;
    const bool exists = RegOpenKeyExW(HKEY_LOCAL_MACHINE, Wide(key).c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS;
    RegCloseKey(opened);
    return exists;
}

class AdapterKeys : public LabTest
{
};

const std::string classKey = "System\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}\\";
const std::string deviceKey = "System\\CurrentControlSet\\Enum\\PCI\\VEN_F1A0\\1";
const std::string tcpipKey = "System\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\";
const std::string locatorKey = "Software\\Classes\\CLSID\\{4590F811-1D3A-11D0-891F-00AA004B2E24}\\InprocServer32";
const std::string firstGuid = "{11111111-0000-4000-8000-000000000001}";

// One test, because the registry is one for all tests of the prefix.
TEST_F(AdapterKeys, FollowTheMachineAndGoWithUninstall)
{
    const std::string previous = Text(locatorKey, nullptr);
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    ctl::InstallWmi(program); // any file will do: nobody loads it here
    EXPECT_EQ(Text(locatorKey, nullptr), Utf8(program));
    EXPECT_EQ(Text(locatorKey, L"ThreadingModel"), "Both");
    ctl::InstallWmi(program); // a second time does not forget what was there before the first
    EXPECT_THROW(ctl::InstallWmi(L"C:\\no\\such.dll"), std::runtime_error);

    Json machine = SmallMachine();
    machine["adapters"][2]["characteristics"] = nullptr;
    machine["adapters"][1]["nameServerValue"] = false;
    ctl::WriteAdapterKeys(machine);
    EXPECT_EQ(Text(classKey + "0007", L"NetCfgInstanceId"), firstGuid);
    EXPECT_EQ(Number(classKey + "0007", L"Characteristics"), 132U);
    EXPECT_EQ(Text(classKey + "0002", L"NetCfgInstanceId"), "{11111111-0000-4000-8000-000000000003}");
    EXPECT_EQ(Number(classKey + "0002", L"Characteristics"), std::nullopt);
    EXPECT_EQ(Text(deviceKey, L"Driver"), "{4D36E972-E325-11CE-BFC1-08002BE10318}\\0007");
    EXPECT_EQ(Text(deviceKey, L"Service"), "brv");
    EXPECT_TRUE(Exists(deviceKey + "\\Device Parameters"));
    EXPECT_EQ(Text(tcpipKey + firstGuid, L"NameServer"), "");
    EXPECT_EQ(Number(tcpipKey + firstGuid, L"EnableDHCP"), 1U);
    EXPECT_EQ(Text(tcpipKey + "{11111111-0000-4000-8000-000000000002}", L"NameServer"), "error 2");

    machine["adapters"].erase(0);
    ctl::WriteAdapterKeys(machine);
    EXPECT_FALSE(Exists(classKey + "0007"));
    EXPECT_FALSE(Exists(deviceKey));
    EXPECT_TRUE(Exists(classKey + "0009"));

    ctl::Uninstall();
    EXPECT_FALSE(Exists(classKey + "0009"));
    EXPECT_FALSE(Exists("Software\\HalcydLab"));
    EXPECT_EQ(Text(locatorKey, nullptr), previous);
}

} // namespace
} // namespace lab::test
