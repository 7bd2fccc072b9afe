// Who owns what in the list and in a client's copy of it, what a shortage of memory leaves, and which lock is taken.

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
class DeviceListMemory : public testing::Test
{
protected:
    // Every string of an element, the extension's apart.
    static std::vector<BSTR*> Strings(_DEVICE_ELEMENT& element)
    {
        return {&element.DeviceId,
                &element.DeviceInstanceID,
                &element.Description,
                &element.ServiceName,
                &element.Caption,
                &element.CommPort,
                &element.IpInfo.IpAddress,
                &element.IpInfo.IpSubnet,
                &element.IpInfo.IpGateway,
                &element.IpInfo.IpDnsServerList,
                &element.IpInfo.IpWinsServerList,
                &element.IpInfo.IpDnsSuffixServerList};
    }
    _DEVICE_ELEMENT* AddFull()
    {
        _DEVICE_ELEMENT* const element = monitor->CreateNewDeviceListElement();
        int number = 0;
        for (BSTR* const field : Strings(*element))
        {
            TestMonitor::UpdateBstrField(field, (L"field " + std::to_wstring(++number)).c_str());
        }
        return element;
    }
    _ETHERNET_ADAPTER* GiveEthernet(_DEVICE_ELEMENT& element)
    {
        auto* const extension = static_cast<_ETHERNET_ADAPTER*>(CoTaskMemAlloc(sizeof(_ETHERNET_ADAPTER)));
        *extension = {};
        for (BSTR* const field : {&extension->AdapterMacAddress, &extension->DriverInfo, &extension->GatewayMacAddress})
        {
            TestMonitor::UpdateBstrField(field, L"text");
        }
        element.AdapterType = enumEthernet;
        element.u.pEthernetAdapter = extension;
        return extension;
    }
    _WIFI_ADAPTER* GiveWiFi(_DEVICE_ELEMENT& element, std::initializer_list<const wchar_t*> networks)
    {
        auto* const extension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
        *extension = {};
        for (BSTR* const field :
             {&extension->AdapterMacAddress, &extension->DriverInfo, &extension->BssidMacAddress, &extension->Ssid})
        {
            TestMonitor::UpdateBstrField(field, L"text");
        }
        element.AdapterType = enumWiFi;
        element.u.pWiFiAdapter = extension;
        for (const wchar_t* const ssid : networks)
        {
            _WIFI_DETAILS record{};
            wcscpy(record.Ssid, ssid);
            bool added = false;
            monitor->Store(*extension, record, added);
        }
        return extension;
    }
    // Frees a copy as a client does, with what the contract says is the client's.
    static void FreeCopy(_DEVICE_ELEMENT* head)
    {
        while (head != nullptr)
        {
            for (BSTR* const field : Strings(*head))
            {
                SysFreeString(*field);
            }
            if (_ETHERNET_ADAPTER* const ethernet = head->u.pEthernetAdapter;
                head->AdapterType == enumEthernet && ethernet != nullptr)
            {
                SysFreeString(ethernet->AdapterMacAddress);
                SysFreeString(ethernet->DriverInfo);
                SysFreeString(ethernet->GatewayMacAddress);
                CoTaskMemFree(ethernet);
            }
            if (_WIFI_ADAPTER* const wifi = head->u.pWiFiAdapter; head->AdapterType == enumWiFi && wifi != nullptr)
            {
                SysFreeString(wifi->AdapterMacAddress);
                SysFreeString(wifi->DriverInfo);
                SysFreeString(wifi->BssidMacAddress);
                SysFreeString(wifi->Ssid);
                while (wifi->pDetails != nullptr)
                {
                    CoTaskMemFree(std::exchange(wifi->pDetails, wifi->pDetails->pNext));
                }
                CoTaskMemFree(wifi);
            }
            CoTaskMemFree(std::exchange(head, head->pNext));
        }
    }
    static int Lines(std::wstring_view part)
    {
        const std::vector<std::wstring> all = TraceLines::All();
        return static_cast<int>(std::count_if(all.begin(), all.end(), [part](const std::wstring& line)
                                              { return line.find(part) != std::wstring::npos; }));
    }

    HookScope hooks;
    TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    TraceLines trace;
};

TEST_F(DeviceListMemory, DeletedElementGivesBackItsBlockAndEachOfItsTwelveStrings)
{
    const MemoryLedger ledger;
    _DEVICE_ELEMENT* const element = AddFull();
    EXPECT_EQ(ledger.Blocks(), 1u);
    EXPECT_EQ(ledger.Strings(), 12u);
    monitor->Remove(element);
    EXPECT_EQ(ledger.Blocks(), 0u);
    EXPECT_EQ(ledger.Strings(), 0u);
}

TEST_F(DeviceListMemory, ListOfAllKindsLeavesOnlyTheEthernetBlockBehind)
{
    const MemoryLedger ledger;
    _ETHERNET_ADAPTER* const kept = GiveEthernet(*AddFull());
    GiveWiFi(*AddFull(), {L"home", L"cafe"});
    AddFull()->AdapterType = enumUnknown;
    EXPECT_EQ(monitor->DeleteDeviceInfoList(), S_OK);
    EXPECT_EQ(ledger.Strings(), 0u);
    EXPECT_EQ(ledger.Blocks(), 1u); // on purpose: the block of the Ethernet extension is emptied and not given back
    EXPECT_TRUE(ledger.Holds(kept));
    EXPECT_EQ(trace.Count(L"Remove node extension and delete node"), 3);
    EXPECT_TRUE(trace.Has(L"delete ethernet extension"));
    EXPECT_TRUE(trace.Has(L"delete wifi extension"));
    EXPECT_TRUE(trace.Has(L"unknown adapter type (1) -- do not know how to delete the device extension"));
    EXPECT_TRUE(trace.Has(L"completed the deletion of the netmon internal device info list"));
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Tail(), nullptr);
    CoTaskMemFree(kept);
}

TEST_F(DeviceListMemory, StrangerIsNamedByItsInstanceIdAndKeepsItsStrings)
{
    monitor->Add(L"{1}");
    const MemoryLedger ledger;
    _DEVICE_ELEMENT stranger{};
    TestMonitor::UpdateBstrField(&stranger.DeviceInstanceID, L"PCI\\STRANGER");
    monitor->Remove(&stranger);
    EXPECT_TRUE(trace.Has(L"Node not found, 'PCI\\STRANGER'"));
    EXPECT_EQ(ledger.Strings(), 1u);
    EXPECT_STREQ(stranger.DeviceInstanceID, L"PCI\\STRANGER");
    SysFreeString(stranger.DeviceInstanceID);
}

TEST_F(DeviceListMemory, WithoutMemoryForAnElementTheListStaysAsItIs)
{
    _DEVICE_ELEMENT* const only = monitor->Add(L"{1}");
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(monitor->CreateNewDeviceListElement(), nullptr);
    EXPECT_TRUE(trace.Has(L"memory could not be allocated"));
    EXPECT_EQ(monitor->Head(), only);
    EXPECT_EQ(monitor->Tail(), only);
    EXPECT_EQ(only->pNext, nullptr);
}

TEST_F(DeviceListMemory, RemovedAndReturnedAdapterIsANewElementThatReadsItsFieldsAnew)
{
    _DEVICE_ELEMENT* const first = monitor->Add(L"{1}", L"before");
    first->DeviceStatus = -1;
    first->ConnectStatus = 1;
    monitor->Remove(first);
    _DEVICE_ELEMENT* const second = monitor->CreateNewDeviceListElement();
    EXPECT_EQ(second->Description, nullptr);
    EXPECT_EQ(second->DeviceStatus, 0);
    EXPECT_EQ(second->ConnectStatus, 0);
}

TEST_F(DeviceListMemory, EachStepTakesTheListLockUnderItsName)
{
    constexpr wchar_t lock[] = L"    Lock ==>> deviceInfoListMutex";
    constexpr wchar_t unlock[] = L"  Unlock <<== deviceInfoListMutex";
    const auto takes = [&](int times, const auto& step)
    {
        TraceLines::Clear();
        step();
        EXPECT_EQ(Lines(lock), times);
        EXPECT_EQ(Lines(unlock), times);
    };
    _DEVICE_ELEMENT* element = nullptr;
    takes(1, [&] { element = monitor->CreateNewDeviceListElement(); });
    takes(1, [&] { monitor->GetDeviceElementNodeByDeviceId(L"{1}"); });
    takes(1, [&] { monitor->GetDeviceElementNodeByInstanceName(L"x"); });
    takes(1, [&] { monitor->DeleteEthernetDeviceExtension(element); });
    takes(1, [&] { monitor->DeleteWiFiDeviceExtension(element); });
    takes(0, [&] { monitor->Remove(element); }); // its caller holds the lock
    takes(1, [&] { monitor->DeleteDeviceInfoList(); });
}

// --- the copy ---

TEST_F(DeviceListMemory, CopyBelongsToTheClientDownToItsLastString)
{
    GiveEthernet(*AddFull());
    GiveWiFi(*AddFull(), {L"home", L"cafe"});
    AddFull()->AdapterType = enumBluetooth;
    const MemoryLedger ledger;
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    EXPECT_EQ(ledger.Blocks(), 3u + 1u + 1u + 2u);
    EXPECT_EQ(ledger.Strings(), 3u * 10u + 3u + 4u); // Caption and CommPort are not copied
    for (const _DEVICE_ELEMENT* element = head; element != nullptr; element = element->pNext)
    {
        EXPECT_EQ(element->Caption, nullptr);
        EXPECT_EQ(element->CommPort, nullptr);
        EXPECT_STREQ(element->IpInfo.IpDnsSuffixServerList, L"field 12");
    }
    FreeCopy(head);
    EXPECT_EQ(ledger.Blocks(), 0u);
    EXPECT_EQ(ledger.Strings(), 0u);
}

TEST_F(DeviceListMemory, CopyEndsWhereMemoryForAnElementEnds)
{
    monitor->Add(L"{1}");
    monitor->Add(L"{2}");
    monitor->Add(L"{3}");
    PlatformHooks::FailCall("CoTaskMemAlloc", 2, 0);
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    ASSERT_NE(head, nullptr);
    EXPECT_STREQ(head->DeviceId, L"{1}");
    EXPECT_EQ(head->pNext, nullptr);
    EXPECT_TRUE(trace.Has(L"memory allocation failed"));
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: Copy Done!"));
    FreeCopy(head);
}

TEST_F(DeviceListMemory, CopyGoesOnWithoutAnExtensionThatHasNoRoom)
{
    GiveEthernet(*monitor->Add(L"{1}"));
    GiveWiFi(*monitor->Add(L"{2}"), {L"home"});
    for (const int nth : {2, 4}) // element, extension, element, extension
    {
        PlatformHooks::FailCall("CoTaskMemAlloc", nth, 0);
        _DEVICE_ELEMENT* head = nullptr;
        EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
        ASSERT_NE(head, nullptr);
        ASSERT_NE(head->pNext, nullptr);
        EXPECT_EQ(head->u.pEthernetAdapter == nullptr, nth == 2);
        EXPECT_EQ(head->pNext->u.pWiFiAdapter == nullptr, nth == 4);
        FreeCopy(head);
    }
    EXPECT_FALSE(trace.Has(L"memory allocation failed"));
}

TEST_F(DeviceListMemory, CopyLeavesOutTheNetworkThatHasNoRoom)
{
    GiveWiFi(*monitor->Add(L"{W}"), {L"first", L"second", L"third"});
    PlatformHooks::FailCall("CoTaskMemAlloc", 4, 0); // element, extension, first, second
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    const _WIFI_DETAILS* const networks = head->u.pWiFiAdapter->pDetails;
    ASSERT_NE(networks, nullptr);
    EXPECT_STREQ(networks->Ssid, L"first");
    ASSERT_NE(networks->pNext, nullptr);
    EXPECT_STREQ(networks->pNext->Ssid, L"third");
    EXPECT_EQ(networks->pNext->pNext, nullptr);
    EXPECT_FALSE(trace.Has(L"memory allocation failed"));
    FreeCopy(head);
}

// The copying traces, and a line wants memory too.
TEST_F(DeviceListMemory, WhereverMemoryEndsTheCopyMadeSoFarIsTheClients)
{
    GiveEthernet(*AddFull());
    GiveWiFi(*AddFull(), {L"home", L"cafe"});
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK); // what is made once is made
    FreeCopy(head);
    const MemoryLedger ledger;
    std::size_t longest = 0;
    bool enough = false;
    for (long room = 0; !enough; ++room)
    {
        head = reinterpret_cast<_DEVICE_ELEMENT*>(1); // a client need not clear it
        HRESULT result = E_FAIL;
        {
            const NoMemoryAfter shortage(room);
            result = monitor->GetDeviceInfoList(&head);
            enough = !NoMemoryAfter::Happened();
        }
        ASSERT_EQ(result, S_OK) << room;
        ASSERT_TRUE(room > 0 || head == nullptr);
        longest = std::max(longest, ledger.Blocks());
        FreeCopy(head);
        ASSERT_EQ(ledger.Blocks(), 0u) << room;
        ASSERT_EQ(ledger.Strings(), 0u) << room;
    }
    EXPECT_EQ(longest, 2u + 2u + 2u);
}

TEST_F(DeviceListMemory, EveryFieldOfANetworkIsCopied)
{
    _WIFI_ADAPTER* const extension = GiveWiFi(*monitor->Add(L"{W}"), {L"home"});
    _WIFI_DETAILS& network = *extension->pDetails;
    wcscpy(network.DeviceName, L"\\DEVICE\\{W}");
    wcscpy(network.DeviceDesc, L"Radio");
    strcpy(network.ProfileName, "profile");
    for (std::uint8_t index = 0; index < 6; ++index)
    {
        network.MacAddress[index] = static_cast<std::uint8_t>(index + 1);
    }
    network.Privacy = 1;
    network.NetworkType = 2;
    network.Timestamp = 3;
    network.InfrastructureMode = 4;
    network.MaxRate = 5;
    extension->Rssi = 6;
    extension->BssidCount = 7;
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    const _WIFI_ADAPTER& copy = *head->u.pWiFiAdapter;
    EXPECT_EQ(copy.Rssi, 6);
    EXPECT_EQ(copy.BssidCount, 7u);
    EXPECT_STREQ(copy.BssidMacAddress, L"text");
    EXPECT_STREQ(copy.Ssid, L"text");
    const _WIFI_DETAILS& details = *copy.pDetails;
    EXPECT_STREQ(details.DeviceName, L"\\DEVICE\\{W}");
    EXPECT_STREQ(details.DeviceDesc, L"Radio");
    EXPECT_STREQ(details.ProfileName, "profile");
    EXPECT_STREQ(details.Ssid, L"home");
    EXPECT_TRUE(std::equal(std::begin(details.MacAddress), std::end(details.MacAddress), network.MacAddress));
    EXPECT_EQ(details.Privacy, 1u);
    EXPECT_EQ(details.NetworkType, 2u);
    EXPECT_EQ(details.Timestamp, 3u);
    EXPECT_EQ(details.InfrastructureMode, 4u);
    EXPECT_EQ(details.MaxRate, 5u);
    FreeCopy(head);
}

TEST_F(DeviceListMemory, CopyHoldsTheListLockOnceAndWritesItsLines)
{
    _DEVICE_ELEMENT* const element = monitor->Add(L"{1}");
    element->DeviceIndex = 17;
    GiveEthernet(*element);
    GiveWiFi(*monitor->Add(L"{2}"), {L"home"});
    TraceLines::Clear();
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    EXPECT_EQ(Lines(L"    Lock ==>> deviceInfoListMutex"), 1);
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: copying device list element 17 (0 bytes)"));
    EXPECT_EQ(trace.Count(L"GetDeviceInfoList: make copy of the common parts of the structure"), 2);
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: copy Ethernet"));
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: copy WiFi"));
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: Copy wifi details"));
    EXPECT_TRUE(trace.Has(L"GetDeviceInfoList: Copy Done!"));
    EXPECT_FALSE(trace.Has(L"NetMon returning NULL device info list"));
    FreeCopy(head);
}

TEST_F(DeviceListMemory, WifiFactorOfAKeyWithoutTheValueIsZeroAndGivesOneCopy)
{
    constexpr wchar_t settingsKey[] = L"SOFTWARE\\QRLS\\Sorvane\\Settings";
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, settingsKey, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr), 0);
    RegCloseKey(key);
    GiveWiFi(*monitor->Add(L"{W}"), {L"home"});
    _DEVICE_ELEMENT* head = nullptr;
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    EXPECT_TRUE(trace.Has(L"adding '0' copies of each ssid"));
    ASSERT_NE(head->u.pWiFiAdapter->pDetails, nullptr);
    EXPECT_EQ(head->u.pWiFiAdapter->pDetails->pNext, nullptr);
    FreeCopy(head);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, settingsKey);
    TraceLines::Clear();
    EXPECT_EQ(monitor->GetDeviceInfoList(&head), S_OK);
    EXPECT_FALSE(trace.Has(L"adding '")); // without the key there is no word
    EXPECT_EQ(head->u.pWiFiAdapter->pDetails->pNext, nullptr);
    FreeCopy(head);
}
} // namespace
