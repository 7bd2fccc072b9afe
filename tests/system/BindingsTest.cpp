// Multi-homing prevention through the running service: what a client sees, and what the machine's bindings become.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <chrono>
#include <future>
#include <string>

#include "NetUtilities/ComApartment.h"
#include "bindings/BindingsMachine.h"
#include "tests/support/ComPointers.h"
#include "tests/support/EventRecorder.h"
#include "tests/support/LabControl.h"
#include "tests/support/Processes.h"
#include "tests/support/RegistryExport.h"
#include "tests/support/Services.h"

namespace
{
using BindingsMachine::Comes;

constexpr wchar_t Ethernet[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";
constexpr wchar_t WiFi[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
constexpr wchar_t RecordRoot[] = L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention";
constexpr auto LockedByOther = static_cast<std::int32_t>(0x8004A024);

class BindingsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(apartment.Initialized());
        Lab(L"load laptop");
        HRESULT result = E_FAIL;
        monitor = ActivateMonitor(&result);
        ASSERT_EQ(S_OK, result);
    }
    static std::string ShowBindings() { return Lab(L"bindings show"); }
    // How many binding paths the machine has in this state, "on " or "off".
    static int Count(const std::string& shown, const std::string& state)
    {
        int count = 0;
        for (std::size_t at = 0; at != std::string::npos; at = shown.find('\n', at))
        {
            at += shown[at] == '\n' ? 1U : 0U;
            count += shown.compare(at, state.size(), state) == 0 ? 1 : 0;
        }
        return count;
    }
    std::future<HRESULT> DisableOnAThread()
    {
        return std::async(std::launch::async,
                          []
                          {
                              const ComApartment thread;
                              const INetMonSvPtr own = ActivateMonitor();
                              return own->DisableIpBindings(_bstr_t(Ethernet), 0);
                          });
    }

    ComApartment apartment;
    INetMonSvPtr monitor;
};

class Bindings : public BindingsTest
{
};
class Fast10_Bindings : public BindingsTest
{
};

TEST_F(Bindings, DisableTellsZeroAndStaysOpenUntilARestoreWhileOtherCallsAreServed)
{
    const EventConnection events(monitor);
    ASSERT_EQ(S_OK, events.Result());
    std::future<HRESULT> disable = DisableOnAThread();
    const auto disabled = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(disabled.has_value());
    EXPECT_EQ(Ethernet, disabled->deviceId);
    EXPECT_EQ(VT_I4, disabled->secondType);
    EXPECT_EQ(0, disabled->number);
    const std::string during = ShowBindings();
    EXPECT_GT(Count(during, "off"), 0) << during;
    EXPECT_GT(Count(during, "on "), 0) << during;
    EXPECT_NE(std::string::npos, during.find("write lock: 'Sorvane Configuration Service'")) << during;
    VARIANT_BOOL open = VARIANT_TRUE;
    EXPECT_EQ(S_OK, monitor->IsOpen(&open));
    EXPECT_EQ(std::future_status::timeout, disable.wait_for(std::chrono::seconds(0)));

    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    const auto restored = events->WaitForEvent(10, 60'000);
    ASSERT_TRUE(restored.has_value());
    EXPECT_EQ(VT_I4, restored->secondType);
    EXPECT_EQ(0, restored->number);
    // Null when it was sent; this platform hands a null text over to another process as an empty one.
    EXPECT_EQ(L"", restored->deviceId.value_or(L""));
    ASSERT_TRUE(Comes(disable));
    EXPECT_EQ(S_OK, disable.get());
    EXPECT_EQ(std::string::npos, ShowBindings().find("write lock:"));
}

TEST_F(Bindings, RecordStandsWithoutItsValueSoARestorePassesItOver)
{
    const EventConnection events(monitor);
    std::future<HRESULT> disable = DisableOnAThread();
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    const RegistryExport record = ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot);
    const auto key = record.find(std::wstring(L"ms_tcpip\\") + WiFi);
    ASSERT_NE(record.end(), key);
    EXPECT_TRUE(key->second.empty());
    const int off = Count(ShowBindings(), "off");
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    ASSERT_TRUE(Comes(disable));
    EXPECT_EQ(off, Count(ShowBindings(), "off"));
    EXPECT_EQ(0u, ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot).count(std::wstring(L"ms_tcpip\\") + WiFi));
}

TEST_F(Bindings, HolderThatLetsGoAfterThreeSecondsIsWaitedFor)
{
    const EventConnection events(monitor);
    const UniqueHandle holder = BindingsMachine::HoldLock(L"--seconds 3");
    std::future<HRESULT> disable = DisableOnAThread();
    const auto disabled = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(disabled.has_value());
    EXPECT_EQ(0, disabled->number);
    EXPECT_EQ(S_OK, monitor->RestoreIpBindings());
    ASSERT_TRUE(Comes(disable));
}

TEST_F(Fast10_Bindings, HolderThatNeverLetsGoIsToldByTheEventAndNothingIsDisabled)
{
    const EventConnection events(monitor);
    DWORD holderId = 0;
    const UniqueHandle holder = BindingsMachine::HoldLock({}, &holderId);
    std::future<HRESULT> disable = DisableOnAThread();
    ASSERT_TRUE(Comes(disable));
    EXPECT_EQ(S_OK, disable.get());
    const auto disabled = events->WaitForEvent(9);
    ASSERT_TRUE(disabled.has_value());
    EXPECT_EQ(LockedByOther, disabled->number);
    EXPECT_EQ(0, Count(ShowBindings(), "off"));
    KillProcess(holderId);
}

TEST_F(Bindings, StartOfTheServiceRestoresWhatARecordNames)
{
    const ServiceControl service;
    monitor = nullptr;
    ASSERT_TRUE(service.StopAndWait());
    Lab(L"bindings set ms_tcpip wlan0 off");
    const DWORD one = 1;
    ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, (std::wstring(RecordRoot) + L"\\ms_tcpip\\" + WiFi).c_str(),
                                 L"BindingDisabledByQRL", REG_DWORD, &one, sizeof(one)));
    ASSERT_TRUE(service.StartAndWait());
    // It reports running only behind the restore.
    const std::string shown = ShowBindings();
    EXPECT_EQ(0, Count(shown, "off")) << shown;
    const RegistryExport record = ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot);
    EXPECT_EQ(0u, record.count(std::wstring(L"ms_tcpip\\") + WiFi));
    EXPECT_EQ(1u, record.count(L"ms_tcpip"));
}

TEST_F(Bindings, KilledServiceLeavesBindingsOffKeysWithoutValueAndNoLock)
{
    const EventConnection events(monitor);
    std::future<HRESULT> disable = DisableOnAThread();
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    ASSERT_TRUE(KillProcess(ServiceControl().ProcessId()));
    ASSERT_TRUE(Comes(disable));
    EXPECT_TRUE(FAILED(disable.get()));
    const std::string shown = ShowBindings();
    EXPECT_GT(Count(shown, "off"), 0) << shown;
    EXPECT_EQ(std::string::npos, shown.find("write lock:")) << shown;
    const RegistryExport record = ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot);
    const auto key = record.find(std::wstring(L"ms_tcpip\\") + WiFi);
    ASSERT_NE(record.end(), key);
    EXPECT_TRUE(key->second.empty());
}

TEST_F(Bindings, ServiceKilledInsideApplyLeavesBindingsOnKeysWithoutValueAndNoLock)
{
    Lab(L"slow INetCfg::Apply --ms 60000");
    std::future<HRESULT> disable = DisableOnAThread();
    const std::wstring last = std::wstring(L"ms_tcpip\\") + WiFi;
    const ULONGLONG end = GetTickCount64() + 60'000;
    while (ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot).count(last) == 0 && GetTickCount64() < end)
    {
        ::Sleep(10);
    }
    ASSERT_TRUE(KillProcess(ServiceControl().ProcessId()));
    ASSERT_TRUE(Comes(disable));
    EXPECT_TRUE(FAILED(disable.get()));
    const std::string shown = ShowBindings();
    EXPECT_EQ(0, Count(shown, "off")) << shown;
    EXPECT_EQ(std::string::npos, shown.find("write lock:")) << shown;
    const RegistryExport record = ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot);
    const auto key = record.find(last);
    ASSERT_NE(record.end(), key);
    EXPECT_TRUE(key->second.empty());
}

TEST_F(Bindings, PreferenceIsNotChangedBecauseItsPermissionCannotBeRead)
{
    ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, RecordRoot, L"UserControlAllowed", REG_SZ, L"yes", 8));
    EXPECT_EQ(ERROR_ACCESS_DENIED, monitor->ChangeMultiHomingPreferenceIfAllowed(1));
    EXPECT_EQ(L"", TextOfValue(ExportRegistry(HKEY_LOCAL_MACHINE, RecordRoot), L"", L"CurrentSetting"));
}
} // namespace
