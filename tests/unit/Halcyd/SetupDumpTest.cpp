// The account of SetupAPI's devices that opens each discovery.

#include <gtest/gtest.h>

#include <windows.h>
#include <setupapi.h>

#include <cstring>

#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/support/UserTraceFlags.h"
#include "tests/unit/support/VirtualClock.h"

// clang-format off
PLATFORM_HOOK(SetupDiGetClassDevsW, L"setupapi.dll", HDEVINFO(const GUID*, PCWSTR, HWND, DWORD))
PLATFORM_HOOK(SetupDiEnumDeviceInfo, L"setupapi.dll", BOOL(HDEVINFO, DWORD, PSP_DEVINFO_DATA))
PLATFORM_HOOK(SetupDiOpenDevRegKey, L"setupapi.dll", HKEY(HDEVINFO, PSP_DEVINFO_DATA, DWORD, DWORD, DWORD, REGSAM))
PLATFORM_HOOK(SetupDiGetDeviceInstanceIdW, L"setupapi.dll", BOOL(HDEVINFO, PSP_DEVINFO_DATA, PWSTR, DWORD, PDWORD))
PLATFORM_HOOK(SetupDiGetDeviceRegistryPropertyW, L"setupapi.dll", BOOL(HDEVINFO, PSP_DEVINFO_DATA, DWORD, PDWORD, PBYTE, DWORD, PDWORD))
PLATFORM_HOOK(SetupDiDestroyDeviceInfoList, L"setupapi.dll", BOOL(HDEVINFO))
// clang-format on

#define IMPORT_SLOT(function) decltype(&function##Hook::Call) __imp_##function = &function##Hook::Call;
extern "C"
{
    IMPORT_SLOT(SetupDiGetClassDevsW)
    IMPORT_SLOT(SetupDiEnumDeviceInfo)
    IMPORT_SLOT(SetupDiOpenDevRegKey)
    IMPORT_SLOT(SetupDiGetDeviceInstanceIdW)
    IMPORT_SLOT(SetupDiGetDeviceRegistryPropertyW)
    IMPORT_SLOT(SetupDiDestroyDeviceInfoList)
}

namespace
{
const HDEVINFO theSet = reinterpret_cast<HDEVINFO>(static_cast<std::uintptr_t>(0x5E7));
const std::wstring driverKey = L"SOFTWARE\\HalcydSetupDumpTest";
const std::wstring stars(56, L'*');

std::wstring Banner(const std::wstring& text)
{
    return L"\n" + stars + L"\n" + text + L"\n" + stars;
}

std::wstring Padded(std::wstring name)
{
    name.resize(std::max<std::size_t>(name.size(), 40), L' ');
    return name;
}

class SetupDump : public testing::Test
{
protected:
    // One property as SetupAPI gives it.
    struct Property
    {
        DWORD type = REG_SZ;
        std::vector<BYTE> bytes;
        DWORD error = ERROR_SUCCESS;
    };
    static Property Text(const std::wstring& text, DWORD type = REG_SZ)
    {
        Property property{type, std::vector<BYTE>((text.size() + 1) * sizeof(wchar_t)), ERROR_SUCCESS};
        std::memcpy(property.bytes.data(), text.c_str(), property.bytes.size());
        return property;
    }

    void SetUp() override
    {
        SetTraceFlags(1);
        SetupDiGetClassDevsWHook::Replace(
            [this](const GUID* classGuid, PCWSTR enumerator, HWND window, DWORD flags)
            {
                constexpr GUID network = {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
                EXPECT_TRUE(IsEqualGUID(*classGuid, network));
                EXPECT_EQ(enumerator, nullptr);
                EXPECT_EQ(window, nullptr);
                EXPECT_EQ(flags, static_cast<DWORD>(DIGCF_PRESENT));
                SetLastError(ERROR_INVALID_DATA);
                return set;
            });
        SetupDiEnumDeviceInfoHook::Replace(
            [this](HDEVINFO, DWORD index, PSP_DEVINFO_DATA data)
            {
                EXPECT_EQ(data->cbSize, sizeof(SP_DEVINFO_DATA));
                const DWORD error = index == failingIndex ? static_cast<DWORD>(ERROR_INVALID_DATA)
                                    : index < devices     ? static_cast<DWORD>(ERROR_SUCCESS)
                                                          : static_cast<DWORD>(ERROR_NO_MORE_ITEMS);
                SetLastError(error);
                return error == ERROR_SUCCESS ? TRUE : FALSE;
            });
        SetupDiOpenDevRegKeyHook::Replace(
            [this](HDEVINFO, PSP_DEVINFO_DATA, DWORD scope, DWORD profile, DWORD type, REGSAM access)
            {
                EXPECT_EQ(scope, static_cast<DWORD>(DICS_FLAG_GLOBAL));
                EXPECT_EQ(profile, 0u);
                EXPECT_EQ(type, static_cast<DWORD>(DIREG_DRV));
                EXPECT_EQ(access, static_cast<REGSAM>(KEY_READ));
                HKEY key = nullptr;
                if (!driverKeyOpens ||
                    RegOpenKeyExW(HKEY_LOCAL_MACHINE, driverKey.c_str(), 0, access, &key) != ERROR_SUCCESS)
                {
                    SetLastError(ERROR_ACCESS_DENIED);
                    return static_cast<HKEY>(INVALID_HANDLE_VALUE);
                }
                return key;
            });
        SetupDiGetDeviceInstanceIdWHook::Replace(
            [this](HDEVINFO, PSP_DEVINFO_DATA, PWSTR id, DWORD size, PDWORD)
            {
                EXPECT_EQ(size, 260u);
                if (instanceId.empty())
                {
                    SetLastError(ERROR_INVALID_DATA);
                    return FALSE;
                }
                wcscpy(id, instanceId.c_str());
                return TRUE;
            });
        SetupDiGetDeviceRegistryPropertyWHook::Replace(
            [this](HDEVINFO, PSP_DEVINFO_DATA, DWORD code, PDWORD type, PBYTE buffer, DWORD size, PDWORD required)
            {
                EXPECT_EQ(size, 1024u);
                asked.push_back(code);
                const Property& property = properties[code];
                *type = property.type;
                *required = static_cast<DWORD>(property.bytes.size());
                std::memcpy(buffer, property.bytes.data(), property.bytes.size());
                SetLastError(property.error);
                return property.error == ERROR_SUCCESS ? TRUE : FALSE;
            });
        SetupDiDestroyDeviceInfoListHook::Replace(
            [this](HDEVINFO gone)
            {
                destroyed.push_back(gone);
                return TRUE;
            });
        WriteGuid(guid);
        TraceLines::Clear();
    }
    void TearDown() override
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, driverKey.c_str());
        SetTraceFlags(0);
    }
    void SetTraceFlags(std::uint32_t flags) { SetUserTraceFlags(clock, flags); }
    static void WriteGuid(const std::wstring& text)
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, driverKey, KEY_WRITE), 0u);
        ASSERT_EQ(key.WriteString(L"NetCfgInstanceId", text), 0u);
    }
    // The account of the one device; empty if there is none.
    static std::wstring Account()
    {
        for (const std::wstring& line : TraceLines::All())
        {
            if (line.find(L"DETECTED NETWORK ADAPTER") != std::wstring::npos)
            {
                return line;
            }
        }
        return {};
    }
    void Run() { EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK); }

    HookScope hooks;
    VirtualClock clock;
    HDEVINFO set = theSet;
    DWORD devices = 1;
    DWORD failingIndex = MAXDWORD;
    bool driverKeyOpens = true;
    std::wstring guid = L"{5E709999-0000-0000-0000-000000000001}";
    std::wstring instanceId = L"PCI\\VEN_F1A0&DEV_0210";
    std::map<DWORD, Property> properties{{SPDRP_DEVICEDESC, Text(L"Brevik Ethernet")},
                                         {SPDRP_SERVICE, Text(L"brv")},
                                         {SPDRP_DRIVER, Text(L"{4D36E972}\\0007")},
                                         {SPDRP_MFG, Text(L"Brevik")},
                                         {SPDRP_FRIENDLYNAME, Text(L"Brevik Ethernet #1")}};
    std::vector<DWORD> asked;
    std::vector<HDEVINFO> destroyed;
    TestObject<LifecycleMonitor> monitor = []
    {
        auto made = MakeTestObject<LifecycleMonitor>();
        made->UseCimv2();
        return made;
    }();
    TraceLines trace;
};

TEST_F(SetupDump, DeviceIsDescribedByItsFivePropertiesInCodeOrder)
{
    Run();
    const std::wstring rule(81, L'-');
    EXPECT_EQ(Account(), rule +
                             L"\nDETECTED NETWORK ADAPTER #0:\n  DEVICE INSTANCE : PCI\\VEN_F1A0&DEV_0210\n"
                             L"  DEVICE GUID     : " +
                             guid + L"\n" + rule + L"\n" + Padded(L"SPDRP_DEVICEDESC") + L" : 'Brevik Ethernet'\n" +
                             Padded(L"SPDRP_SERVICE") + L" : 'brv'\n" + Padded(L"SPDRP_DRIVER") +
                             L" : '{4D36E972}\\0007'\n" + Padded(L"SPDRP_MFG") + L" : 'Brevik'\n" +
                             Padded(L"SPDRP_FRIENDLYNAME") + L" : 'Brevik Ethernet #1'");
    EXPECT_EQ(asked, (std::vector<DWORD>{0, 4, 9, 11, 12}));
    EXPECT_EQ(destroyed, std::vector<HDEVINFO>{theSet});
    EXPECT_EQ(FirstMissingInOrder({
                  Banner(L"**** ADDING NETWORK CARDS TO NETMON DEVICE INFO LIST ***"),
                  rule,
                  L"complete",
                  Banner(L"****         SETUPAPI ADAPTER MAPPING INFO          ****"),
                  Padded(guid) + L" : Brevik Ethernet",
                  Banner(L"**** FINISHED LOGGING DIAGNOSTIC INFO FROM SETUP API ***"),
                  Banner(L"*** GETTING ADAPTER INFO FROM NETWORK CARD WMI CLASS ***"),
              }),
              L"");
}

TEST_F(SetupDump, EachRegistryTypeHasItsLine)
{
    properties[SPDRP_DEVICEDESC] = {REG_BINARY, {1, 2, 3}, ERROR_SUCCESS};
    properties[SPDRP_SERVICE] = {REG_DWORD, {0xEF, 0xBE, 0, 0}, ERROR_SUCCESS};
    properties[SPDRP_DRIVER] = Text(std::wstring(L"one\0two\0", 8), REG_MULTI_SZ);
    properties[SPDRP_MFG] = {REG_QWORD, std::vector<BYTE>(8), ERROR_SUCCESS};
    properties[SPDRP_FRIENDLYNAME] = {REG_SZ, std::vector<BYTE>(6), ERROR_INVALID_DATA};
    Run();
    const std::wstring account = Account();
    for (const std::wstring& line : {
             Padded(L"SPDRP_DEVICEDESC") + L" : BINARY -- size is '3'\n",
             Padded(L"SPDRP_SERVICE") + L" : '0x00beef'\n",
             Padded(L"SPDRP_DRIVER") + L" : (REG_MULTI_SZ with '2' values)\n",
             std::wstring(39, L' ') + L"1 one\n",
             std::wstring(39, L' ') + L"2 two\n",
             Padded(L"SPDRP_MFG") + L" : unhandled registry type '11'\n",
             Padded(L"SPDRP_FRIENDLYNAME") + L" : could not get property (rc = 13; size = '6')",
         })
    {
        EXPECT_NE(account.find(line), std::wstring::npos) << line << L"\nin\n" << account;
    }
}

TEST_F(SetupDump, DescriptionOnRecordKeepsItsFirstText)
{
    guid = L"{5E709999-0000-0000-0000-000000000002}";
    WriteGuid(guid);
    Run();
    properties[SPDRP_DEVICEDESC] = Text(L"Renamed");
    TraceLines::Clear();
    Run();
    EXPECT_TRUE(trace.Has(Padded(guid) + L" : Brevik Ethernet"));
    EXPECT_FALSE(trace.Has(Padded(guid) + L" : Renamed"));
    devices = 0; // the record outlives its device
    TraceLines::Clear();
    Run();
    EXPECT_TRUE(trace.Has(Padded(guid) + L" : Brevik Ethernet"));
}

TEST_F(SetupDump, WithoutADriverKeyOrItsValueTheGuidIsEmptyAndTheDumpGoesOn)
{
    driverKeyOpens = false;
    Run();
    EXPECT_TRUE(trace.Has(L"failed"));
    EXPECT_NE(Account().find(L"  DEVICE GUID     : \n"), std::wstring::npos);
    driverKeyOpens = true;
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, driverKey.c_str());
    RegistryKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, driverKey, KEY_WRITE), 0u);
    TraceLines::Clear();
    Run();
    EXPECT_TRUE(trace.Has(L"Error RegQueryValueEx: failed"));
    EXPECT_NE(Account().find(L"  DEVICE GUID     : \n"), std::wstring::npos);
}

TEST_F(SetupDump, WithoutAnInstanceIdTheLineIsEmpty)
{
    instanceId.clear();
    Run();
    EXPECT_TRUE(trace.Has(L"** could not get the device instance id"));
    EXPECT_NE(Account().find(L"  DEVICE INSTANCE : \n"), std::wstring::npos);
}

TEST_F(SetupDump, AccountOfADeviceIsWrittenOnlyWithItsTraceFlag)
{
    SetTraceFlags(0);
    TraceLines::Clear();
    Run();
    EXPECT_EQ(Account(), L"");
    EXPECT_TRUE(trace.Has(Padded(guid) + L" : Brevik Ethernet")); // the mapping is not the device's account
}

TEST_F(SetupDump, NoMoreThan260DevicesAreDescribed)
{
    devices = 300;
    Run();
    EXPECT_EQ(PlatformHooks::Calls("SetupDiEnumDeviceInfo"), 260);
    EXPECT_FALSE(trace.Has(L"complete"));
    EXPECT_TRUE(trace.Has(Banner(L"*** GETTING ADAPTER INFO FROM NETWORK CARD WMI CLASS ***")));
}

TEST_F(SetupDump, DeviceThatCannotBeReachedIsPassedOver)
{
    devices = 3;
    failingIndex = 1;
    Run();
    EXPECT_TRUE(trace.Has(L"failed"));
    EXPECT_TRUE(trace.Has(L"complete"));
    EXPECT_EQ(asked.size(), 10u); // the first and the third
}

TEST_F(SetupDump, SetThatCannotBeHadGoesInvalidToItsEndAndTheDiscoveryGoesOn)
{
    set = INVALID_HANDLE_VALUE;
    Run();
    EXPECT_TRUE(trace.Has(L"Error SetupDiGetClassDevsEx failed"));
    EXPECT_EQ(destroyed, std::vector<HDEVINFO>{INVALID_HANDLE_VALUE});
    EXPECT_EQ(PlatformHooks::Calls("SetupDiEnumDeviceInfo"), 0);
    EXPECT_TRUE(trace.Has(Banner(L"****         SETUPAPI ADAPTER MAPPING INFO          ****")));
}
} // namespace
