#pragma once
// A monitor with one Wi-Fi adapter, its driver, the Wi-Fi library and a connected sink, all of them the test's.

#include <gtest/gtest.h>

#include <winsock2.h>
#include <windows.h>
#include <ntddndis.h>

#include <ctime>

#include "tests/unit/Halcyd/FakeWiFi.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/support/VirtualClock.h"

namespace WiFiAdapter
{
inline constexpr wchar_t id[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
inline const std::wstring device = std::wstring(L"\\DEVICE\\") + id;
} // namespace WiFiAdapter

inline std::int32_t ClockNow()
{
    return static_cast<std::int32_t>(std::clock());
}

class WiFiTracking : public testing::Test
{
protected:
    WiFiTracking()
    {
        FakeMiniport& driver = miniports.AddEthernet(WiFiAdapter::id);
        driver.Set(OID_GEN_PHYSICAL_MEDIUM, NdisPhysicalMediumNative802_11);
        driver.Set(OID_GEN_LINK_SPEED, 8'667'000u);
        EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
        element->AdapterType = enumWiFi;
        element->DeviceStatus = -1;
        monitor->SetForcedSurveys(2, 0);
        CNetMonSv::m_instance = monitor.Get(); // for the timer
    }
    ~WiFiTracking() override
    {
        monitor->StopPool();
        monitor->MyDeleteTimerQueue();
        point->Unadvise(cookie);
        point->Release();
        CNetMonSv::m_instance = nullptr;
    }
    static IWbemClassObjectPtr Object() { return MakeObject({{L"MACAddress", L"02:00:5E:00:53:09"}}); }
    // An extension without a timer.
    _WIFI_ADAPTER& Extend()
    {
        auto* const extension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
        *extension = {};
        element->u.pWiFiAdapter = extension;
        return *extension;
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
    [[nodiscard]] std::vector<std::wstring> Ssids() const
    {
        std::vector<std::wstring> names;
        for (const _WIFI_DETAILS* network = element->u.pWiFiAdapter->pDetails; network != nullptr;
             network = network->pNext)
        {
            names.emplace_back(network->Ssid);
        }
        return names;
    }

    HookScope hooks;
    MiniportScope miniports;
    WiFiScope wifi;
    VirtualClock clock;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    _DEVICE_ELEMENT* element = monitor->Add(WiFiAdapter::id);
    TestSink sink;
    IConnectionPoint* point = EventPoint(monitor.Get());
    DWORD cookie = 0;
    TraceLines trace;
};
