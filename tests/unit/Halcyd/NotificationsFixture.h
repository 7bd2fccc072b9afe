#pragma once
// One adapter of a machine of values: its class key, its driver, its configuration object, and a client's sink. What a
// test changes in `configuration` is what WMI answers from then on.

#include <gtest/gtest.h>

#include <winsock2.h>
#include <windows.h>
#include <ntddndis.h>

#include <map>
#include <string>
#include <vector>

#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TraceLines.h"

class NotificationsFixture : public testing::Test
{
protected:
    static constexpr wchar_t id[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";
    static constexpr wchar_t classKey[] =
        L"System\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}\\7777";
    static constexpr wchar_t arrival[] = L"MSNdis_NotifyAdapterArrival";
    static constexpr wchar_t removal[] = L"MSNdis_NotifyAdapterRemoval";
    static constexpr wchar_t mediaConnect[] = L"MSNdis_StatusMediaConnect";
    static constexpr wchar_t mediaDisconnect[] = L"MSNdis_StatusMediaDisconnect";

    void SetUp() override
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, classKey, KEY_WRITE), 0u);
        ASSERT_EQ(key.WriteString(L"NetCfgInstanceId", id), 0u);
        ASSERT_EQ(key.WriteDword(L"Characteristics", 0x84), 0u);
        miniports.AddEthernet(id);
        configuration = {{L"Index", 7L},
                         {L"SettingID", id},
                         {L"Description", L"Brevik Ethernet"},
                         {L"ServiceName", L"brv"},
                         {L"Caption", L"[00000007] Brevik Ethernet"},
                         {L"MACAddress", L"02:00:5E:00:53:07"},
                         {L"DefaultIPGateway", TextArray({L"192.0.2.1"})}};
        monitor->UseCimv2().answer = [this](const std::wstring& query, ObjectList& objects) -> HRESULT
        {
            if (query.find(L"Win32_NetworkAdapterConfiguration") != std::wstring::npos && !configuration.empty() &&
                (query.find(L"SettingID=") == std::wstring::npos || query.find(id) != std::wstring::npos))
            {
                objects.push_back(MakeObject(configuration));
            }
            return queryResult;
        };
        ASSERT_EQ(point->Advise(&sink, &cookie), S_OK);
    }
    void TearDown() override
    {
        monitor->wmiCleanupEvent.Set();
        monitor->StopPool();
        point->Unadvise(cookie);
        point->Release();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, classKey);
    }

    void Notify(const wchar_t* eventClass, const wchar_t* deviceName = id, const wchar_t* instanceName = nullptr)
    {
        std::map<std::wstring, _variant_t> values{{L"__CLASS", eventClass}};
        if (deviceName != nullptr)
        {
            values[L"DeviceName"] = (std::wstring(L"\\DEVICE\\") + deviceName).c_str();
        }
        if (instanceName != nullptr)
        {
            values[L"InstanceName"] = instanceName;
        }
        EXPECT_EQ(monitor->ProcessNotificationEvent(MakeObject(values)), S_OK);
    }
    [[nodiscard]] std::vector<int> Told()
    {
        std::vector<int> kinds;
        for (const ToldEvent& event : sink.Events())
        {
            kinds.push_back(event.event);
        }
        return kinds;
    }

    HookScope hooks;
    SleepClock clock;
    MiniportScope miniports;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    std::map<std::wstring, _variant_t> configuration;
    HRESULT queryResult = S_OK;
    TestSink sink;
    IConnectionPoint* point = EventPoint(monitor.Get());
    DWORD cookie = 0;
    TraceLines trace;
};
