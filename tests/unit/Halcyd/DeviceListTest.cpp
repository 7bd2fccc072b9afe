// The list of adapters, and the copy that a client gets of it.

#include <gtest/gtest.h>

#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
constexpr wchar_t settingsKey[] = L"SOFTWARE\\QRLS\\Sorvane\\Settings";

class DeviceList : public testing::Test
{
protected:
    TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    TraceLines trace;
};

TEST_F(DeviceList, EmptyListFindsNothingAndSearchesBothWays)
{
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L"\\DEVICE\\{A}"), nullptr);
    EXPECT_TRUE(trace.Has(L"GetDeviceElementNodeByDeviceId: searching using another method"));
    EXPECT_EQ(monitor->GetDeviceElementNodeByInstanceName(L"Adapter"), nullptr);
    EXPECT_TRUE(trace.Has(L"did not find a match with the descriptions, checking again using the caption"));
}

TEST_F(DeviceList, NewElementIsZeroedAtTheTailConnectedAndNotReady)
{
    _DEVICE_ELEMENT* const first = monitor->CreateNewDeviceListElement();
    _DEVICE_ELEMENT* const second = monitor->CreateNewDeviceListElement();
    EXPECT_EQ(monitor->Head(), first);
    EXPECT_EQ(first->pNext, second);
    EXPECT_EQ(monitor->Tail(), second);
    EXPECT_EQ(second->pNext, nullptr);
    EXPECT_EQ(second->ConnectStatus, 0);
    EXPECT_EQ(second->DeviceStatus, 0);
    EXPECT_EQ(static_cast<int>(second->AdapterType), 0);
    EXPECT_EQ(second->u.pEthernetAdapter, nullptr);
}

TEST_F(DeviceList, DeviceIdIsFoundInAnyCaseAndBehindADevicePath)
{
    monitor->Add(nullptr); // an element without an id compares as the empty text
    _DEVICE_ELEMENT* const element = monitor->Add(L"{4A1C7E07-AB}");
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L"{4a1c7e07-ab}"), element);
    EXPECT_FALSE(trace.Has(L"GetDeviceElementNodeByDeviceId: searching"));
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L"\\DEVICE\\{4a1C7E07-aB}"), element);
    EXPECT_TRUE(trace.Has(L"GetDeviceElementNodeByDeviceId: searching"));
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L"4A1C7E07-AB"), nullptr);
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L"{4A1C7E07-AB} "), nullptr);
    EXPECT_EQ(monitor->GetDeviceElementNodeByDeviceId(L""), monitor->Head());
}

TEST_F(DeviceList, InstanceNameIsSoughtInsideTheDescriptionThenTheCaptionInItsCase)
{
    _DEVICE_ELEMENT* const first = monitor->Add(L"{1}", L"Brevik Gigabit Ethernet");
    _DEVICE_ELEMENT* const second = monitor->Add(L"{2}");
    TestMonitor::UpdateBstrField(&second->Caption, L"[00000002] Larkspur Wireless");
    EXPECT_EQ(monitor->GetDeviceElementNodeByInstanceName(L"Gigabit"), first);
    EXPECT_TRUE(trace.Has(L"found match in Description for: Gigabit"));
    EXPECT_EQ(monitor->GetDeviceElementNodeByInstanceName(L"gigabit"), nullptr);
    EXPECT_TRUE(trace.Has(L"did not match Description: Brevik Gigabit Ethernet"));
    EXPECT_TRUE(trace.Has(L"did not match Caption: [00000002] Larkspur Wireless"));
    EXPECT_EQ(monitor->GetDeviceElementNodeByInstanceName(L"Larkspur"), second);
    EXPECT_TRUE(trace.Has(L"found match in Caption for: Larkspur"));
    // The whole name is the needle: one with a suffix is not found.
    EXPECT_EQ(monitor->GetDeviceElementNodeByInstanceName(L"Brevik Gigabit Ethernet #2"), nullptr);
}

TEST_F(DeviceList, RemovingTheOnlyElementEmptiesTheList)
{
    monitor->Remove(monitor->Add(L"{1}"));
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Tail(), nullptr);
}

TEST_F(DeviceList, RemovingTheLastOfThreeMakesTheSecondTheTail)
{
    monitor->Add(L"{1}");
    _DEVICE_ELEMENT* const second = monitor->Add(L"{2}");
    _DEVICE_ELEMENT* const third = monitor->Add(L"{3}");
    monitor->Remove(third);
    EXPECT_EQ(monitor->Tail(), second);
    EXPECT_EQ(second->pNext, nullptr);
    monitor->Remove(monitor->Head());
    EXPECT_EQ(monitor->Head(), second);
    EXPECT_EQ(monitor->Tail(), second);
}

TEST_F(DeviceList, RemovingFromTheMiddleClosesTheGap)
{
    _DEVICE_ELEMENT* const first = monitor->Add(L"{1}");
    _DEVICE_ELEMENT* const second = monitor->Add(L"{2}");
    _DEVICE_ELEMENT* const third = monitor->Add(L"{3}");
    monitor->Remove(second);
    EXPECT_EQ(first->pNext, third);
    EXPECT_EQ(monitor->Tail(), third);
}

TEST_F(DeviceList, RemovingAStrangerChangesNothing)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}");
    _DEVICE_ELEMENT stranger{};
    monitor->Remove(&stranger);
    EXPECT_EQ(monitor->Head(), element);
    EXPECT_EQ(trace.Count(L"Node not found, '"), 1);
    EXPECT_FALSE(trace.Has(L"Remove node"));
}

TEST_F(DeviceList, BluetoothElementGoesWithTheUnknownTypeLine)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}");
    TestMonitor::UpdateBstrField(&element->DeviceInstanceID, L"BTH\\1");
    element->AdapterType = enumBluetooth;
    monitor->Remove(element);
    EXPECT_TRUE(trace.Has(L"Remove node 'BTH\\1' from list"));
    EXPECT_TRUE(trace.Has(L"unknown adapter type (256) -- do not know how to delete the device extension"));
    EXPECT_EQ(monitor->Head(), nullptr);
}

TEST_F(DeviceList, EthernetExtensionIsEmptiedAndItsBlockKept)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}");
    element->AdapterType = enumEthernet;
    auto* const extension = static_cast<_ETHERNET_ADAPTER*>(CoTaskMemAlloc(sizeof(_ETHERNET_ADAPTER)));
    *extension = {};
    extension->LinkSpeed = 7;
    TestMonitor::UpdateBstrField(&extension->DriverInfo, L"driver");
    element->u.pEthernetAdapter = extension;
    EXPECT_EQ(monitor->DeleteEthernetDeviceExtension(element), S_OK);
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    // Kept on purpose, so it can still be looked into: all zero.
    EXPECT_EQ(extension->LinkSpeed, 0u);
    EXPECT_EQ(extension->DriverInfo, nullptr);
    EXPECT_EQ(monitor->DeleteEthernetDeviceExtension(element), S_OK);
    EXPECT_TRUE(trace.Has(L"there is no ethernet device extension to delete for node: {1}"));
    CoTaskMemFree(extension);
}

TEST_F(DeviceList, CreatingAListDeletesTheOldOne)
{
    EXPECT_EQ(monitor->CreateDeviceInfoList(), S_OK);
    EXPECT_FALSE(trace.Has(L"deleted device info list successfully"));
    monitor->Add(L"{1}");
    monitor->Add(L"{2}");
    EXPECT_EQ(monitor->CreateDeviceInfoList(), S_OK);
    EXPECT_TRUE(trace.Has(L"completed the deletion of the netmon internal device info list"));
    EXPECT_TRUE(trace.Has(L"deleted device info list successfully"));
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Tail(), nullptr);
}

TEST_F(DeviceList, DeletingNullElementDoesNothing)
{
    EXPECT_EQ(monitor->DeleteDeviceElement(nullptr), S_OK);
}

// --- the copy ---

struct Copy
{
    explicit Copy(TestMonitor* monitor) { EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK); }
    ~Copy()
    {
        for (_DEVICE_ELEMENT* element = head; element != nullptr;)
        {
            _DEVICE_ELEMENT* const next = element->pNext;
            for (BSTR text : {element->DeviceId, element->DeviceInstanceID, element->Description, element->ServiceName,
                              element->IpInfo.IpAddress, element->IpInfo.IpDnsServerList})
            {
                SysFreeString(text);
            }
            if (element->AdapterType == enumWiFi && element->u.pWiFiAdapter != nullptr)
            {
                for (_WIFI_DETAILS* network = element->u.pWiFiAdapter->pDetails; network != nullptr;)
                {
                    _WIFI_DETAILS* const nextNetwork = network->pNext;
                    CoTaskMemFree(network);
                    network = nextNetwork;
                }
            }
            CoTaskMemFree(element->u.pEthernetAdapter);
            CoTaskMemFree(element);
            element = next;
        }
    }
    _DEVICE_ELEMENT* head = reinterpret_cast<_DEVICE_ELEMENT*>(1);
};

class Snapshot : public DeviceList
{
protected:
    _DEVICE_ELEMENT* AddWiFi(std::initializer_list<std::pair<const wchar_t*, long>> networks)
    {
        _DEVICE_ELEMENT* const element = monitor->Add(L"{W}");
        element->AdapterType = enumWiFi;
        auto* const extension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
        *extension = {};
        extension->LinkSpeed = 866;
        extension->LastSignalStrength = -50;
        extension->LastSurveyTime = 1234;
        element->u.pWiFiAdapter = extension;
        for (const auto& [ssid, signal] : networks)
        {
            _WIFI_DETAILS record{};
            wcscpy(record.Ssid, ssid);
            record.SignalStrength = signal;
            record.MacAddress[5] = 7;
            bool added = false;
            monitor->Store(*extension, record, added);
            EXPECT_TRUE(added);
        }
        return element;
    }
    static void SetWifiFactor(std::uint32_t factor)
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, settingsKey, KEY_WRITE), 0u);
        ASSERT_EQ(key.WriteDword(L"wifiFactor", factor), 0u);
    }
    void TearDown() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, settingsKey); }
};

TEST_F(Snapshot, OfAnEmptyListIsNull)
{
    const Copy copy(monitor.Get());
    EXPECT_EQ(copy.head, nullptr);
    EXPECT_TRUE(trace.Has(L"NetMon returning NULL device info list"));
    EXPECT_EQ(monitor->GetDeviceInfoList(nullptr), S_OK);
}

TEST_F(Snapshot, CopiesEthernetWithTheSpeedInBitsAndWithoutCaption)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}", L"Adapter");
    TestMonitor::UpdateBstrField(&element->Caption, L"[1] Adapter");
    TestMonitor::UpdateBstrField(&element->IpInfo.IpDnsServerList, L"");
    element->DeviceIndex = 17;
    element->DeviceStatus = -1;
    element->ConnectStatus = 1;
    element->AdapterType = enumEthernet;
    element->u.pEthernetAdapter = static_cast<_ETHERNET_ADAPTER*>(CoTaskMemAlloc(sizeof(_ETHERNET_ADAPTER)));
    *element->u.pEthernetAdapter = {};
    element->u.pEthernetAdapter->LinkSpeed = 100;
    monitor->Add(L"{2}")->AdapterType = enumUnknown;
    monitor->Add(L"{3}")->AdapterType = enumEthernet;
    const Copy copy(monitor.Get());
    ASSERT_NE(copy.head, nullptr);
    EXPECT_NE(copy.head, element);
    EXPECT_NE(copy.head->DeviceId, element->DeviceId);
    EXPECT_STREQ(copy.head->DeviceId, L"{1}");
    EXPECT_STREQ(copy.head->Description, L"Adapter");
    EXPECT_EQ(copy.head->Caption, nullptr);
    EXPECT_EQ(copy.head->IpInfo.IpAddress, nullptr);       // null stays null
    ASSERT_NE(copy.head->IpInfo.IpDnsServerList, nullptr); // empty stays empty
    EXPECT_EQ(SysStringLen(copy.head->IpInfo.IpDnsServerList), 0u);
    EXPECT_EQ(copy.head->DeviceIndex, 17);
    EXPECT_EQ(copy.head->DeviceStatus, -1);
    EXPECT_EQ(copy.head->ConnectStatus, 1);
    ASSERT_NE(copy.head->u.pEthernetAdapter, nullptr);
    EXPECT_EQ(copy.head->u.pEthernetAdapter->LinkSpeed, 100'000'000u);
    const _DEVICE_ELEMENT* const second = copy.head->pNext;
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->AdapterType, enumUnknown);
    EXPECT_EQ(second->u.pEthernetAdapter, nullptr);
    const _DEVICE_ELEMENT* const third = second->pNext;
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->u.pEthernetAdapter, nullptr);
    EXPECT_TRUE(trace.Has(L"ethernet device does not have a device extension"));
    EXPECT_EQ(third->pNext, nullptr);
}

TEST_F(Snapshot, CopyOutlivesTheElement)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}");
    const Copy copy(monitor.Get());
    monitor->Remove(element);
    EXPECT_STREQ(copy.head->DeviceId, L"{1}");
}

TEST_F(Snapshot, WiFiCopyLeavesTheMonitorsOwnFieldsOutAndTurnsDbmIntoPercent)
{
    AddWiFi({{L"home", -50}, {L"cafe", -91}});
    const Copy copy(monitor.Get());
    const _WIFI_ADAPTER* const extension = copy.head->u.pWiFiAdapter;
    ASSERT_NE(extension, nullptr);
    EXPECT_EQ(extension->LinkSpeed, 866'000'000u);
    EXPECT_EQ(extension->LastSignalStrength, 0);
    EXPECT_EQ(extension->LastSurveyTime, 0);
    EXPECT_EQ(extension->hTimer, nullptr);
    ASSERT_NE(extension->pDetails, nullptr);
    EXPECT_STREQ(extension->pDetails->Ssid, L"home");
    EXPECT_EQ(extension->pDetails->SignalStrength, 100);
    ASSERT_NE(extension->pDetails->pNext, nullptr);
    EXPECT_EQ(extension->pDetails->pNext->SignalStrength, 5);
    EXPECT_EQ(extension->pDetails->pNext->pNext, nullptr);
}

TEST_F(Snapshot, WifiFactorThreeAddsTwoFakeNamesBesideEachNetwork)
{
    SetWifiFactor(3);
    AddWiFi({{L"home", -50}, {L"cafe", -60}});
    const Copy copy(monitor.Get());
    std::vector<std::wstring> names;
    for (const _WIFI_DETAILS* network = copy.head->u.pWiFiAdapter->pDetails; network != nullptr;
         network = network->pNext)
    {
        names.emplace_back(network->Ssid);
        EXPECT_EQ(network->MacAddress[5], 7);
    }
    EXPECT_EQ(names, (std::vector<std::wstring>{L"home", L"home_1", L"home_2", L"cafe", L"cafe_1", L"cafe_2"}));
    EXPECT_TRUE(trace.Has(L"adding '3' copies of each ssid"));
    EXPECT_TRUE(trace.Has(L"adding a fake ssid 'home_1'"));
}

TEST_F(Snapshot, WifiFactorOneAddsNoFakeName)
{
    SetWifiFactor(1);
    AddWiFi({{L"home", -50}});
    const Copy copy(monitor.Get());
    ASSERT_NE(copy.head->u.pWiFiAdapter->pDetails, nullptr);
    EXPECT_EQ(copy.head->u.pWiFiAdapter->pDetails->pNext, nullptr);
    EXPECT_FALSE(trace.Has(L"adding a fake ssid"));
}

// --- the networks of a Wi-Fi adapter ---

using Networks = Snapshot;

TEST_F(Networks, TwoAccessPointsOfOneNameGiveOneEntryWithTheLastOnesValues)
{
    _DEVICE_ELEMENT* const element = AddWiFi({{L"home", -50}});
    _WIFI_DETAILS record{};
    wcscpy(record.Ssid, L"home");
    record.SignalStrength = -70;
    record.MacAddress[5] = 9;
    bool added = false;
    monitor->Store(*element->u.pWiFiAdapter, record, added);
    EXPECT_FALSE(added);
    EXPECT_EQ(element->u.pWiFiAdapter->pDetails->SignalStrength, -70);
    EXPECT_EQ(element->u.pWiFiAdapter->pDetails->MacAddress[5], 7); // stays as it was
    EXPECT_EQ(element->u.pWiFiAdapter->pDetails->pNext, nullptr);
}

TEST_F(Networks, NetworksNotSeenFor2501MillisecondsGo)
{
    _DEVICE_ELEMENT* const element = AddWiFi({{L"old", -50}, {L"new", -60}, {L"older", -60}});
    _WIFI_DETAILS* const first = element->u.pWiFiAdapter->pDetails;
    first->Timestamp -= 10000;
    first->pNext->pNext->Timestamp -= 10000;
    monitor->RemoveOldNetworks(element);
    ASSERT_NE(element->u.pWiFiAdapter->pDetails, nullptr);
    EXPECT_STREQ(element->u.pWiFiAdapter->pDetails->Ssid, L"new");
    EXPECT_EQ(element->u.pWiFiAdapter->pDetails->pNext, nullptr);
    EXPECT_TRUE(trace.Has(L"DeleteOldWiFiNetworks: deleting the first node 'old'"));
    EXPECT_TRUE(trace.Has(L"DeleteOldWiFiNetworks: deleting the node 'older'"));
}

TEST_F(Networks, SignalIsToldThroughThePoolWhenItMovedBySix)
{
    TestSink sink;
    const IUnknownPtr point(EventPoint(monitor.Get()), false);
    DWORD cookie = 0;
    ASSERT_EQ(static_cast<IConnectionPoint*>(point.GetInterfacePtr())->Advise(&sink, &cookie), S_OK);
    monitor->StartPool();
    _DEVICE_ELEMENT* const element = AddWiFi({{L"home", -60}});
    element->u.pWiFiAdapter->LastSignalStrength = -60;
    monitor->SendSignalIfNeeded(element);
    element->u.pWiFiAdapter->pDetails->SignalStrength = -55;
    monitor->SendSignalIfNeeded(element);
    EXPECT_EQ(element->u.pWiFiAdapter->LastSignalStrength, -60);
    element->u.pWiFiAdapter->pDetails->SignalStrength = -54;
    monitor->SendSignalIfNeeded(element);
    EXPECT_EQ(element->u.pWiFiAdapter->LastSignalStrength, -54);
    EXPECT_TRUE(sink.WaitForCount(1));
    monitor->StopPool();
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].event, enumEventWiFiSignalStrength);
    EXPECT_EQ(events[0].deviceId, L"{W}");
    EXPECT_EQ(events[0].adjacentMac, std::nullopt); // no access point: an empty text travels as null
    static_cast<IConnectionPoint*>(point.GetInterfacePtr())->Unadvise(cookie);
}

TEST_F(Networks, SignalIsLostWhenThePoolDoesNotRun)
{
    _DEVICE_ELEMENT* const element = AddWiFi({{L"home", -60}});
    monitor->SendSignalIfNeeded(element);
    EXPECT_TRUE(trace.Has(L"Failed to enqueue wifi signal strength event"));
    EXPECT_EQ(element->u.pWiFiAdapter->LastSignalStrength, -60); // not told again
}

TEST_F(Networks, ResetTouchesTheFirstWiFiAdapterOnly)
{
    EXPECT_EQ(monitor->ResetSsidList(), S_OK); // without one
    _DEVICE_ELEMENT* const first = AddWiFi({{L"home", -60}});
    _DEVICE_ELEMENT* const second = AddWiFi({{L"cafe", -60}});
    EXPECT_EQ(monitor->ResetSsidList(), S_OK);
    EXPECT_EQ(first->u.pWiFiAdapter->pDetails, nullptr);
    EXPECT_EQ(first->u.pWiFiAdapter->LastSignalStrength, 0);
    EXPECT_NE(second->u.pWiFiAdapter->pDetails, nullptr);
    EXPECT_TRUE(trace.Has(L"deleted the BSSID list for 802.11 adapter"));
}

TEST_F(Networks, ExtensionGoesWhenThereIsNoTimerQueueAnyMore)
{
    _DEVICE_ELEMENT* const element = AddWiFi({{L"home", -60}});
    EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
    EXPECT_TRUE(trace.Has(L"handle to timer queue is NULL therefore all timers have been canceled"));
    EXPECT_TRUE(trace.Has(L"reset timer handle"));
    EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    EXPECT_TRUE(trace.Has(L"there is no wifi device extension to delete for node: {W}"));
}
} // namespace
