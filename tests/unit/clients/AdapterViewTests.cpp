#include "clients/halcydctl/AdapterView.h"

#include <gtest/gtest.h>

#include <cstring>

#include "clients/halcydctl/MonitorEvent.h"
#include "clients/halcydctl/Text.h"

namespace
{
template <class Record>
Record* Allocate()
{
    auto* const record = static_cast<Record*>(CoTaskMemAlloc(sizeof(Record)));
    std::memset(record, 0, sizeof(Record));
    return record;
}

_DEVICE_ELEMENT* MakeElement(_ADAPTER_TYPE type, const wchar_t* id, const wchar_t* description)
{
    auto* const element = Allocate<_DEVICE_ELEMENT>();
    element->AdapterType = type;
    element->DeviceId = SysAllocString(id);
    element->DeviceInstanceID = SysAllocString(L"PCI\\1");
    element->Description = SysAllocString(description);
    element->ServiceName = SysAllocString(L"drv");
    element->DeviceStatus = -1;
    element->IpInfo.IpAddress = SysAllocString(L"192.168.1.20");
    element->IpInfo.IpSubnet = SysAllocString(L"255.255.255.0");
    element->IpInfo.IpGateway = SysAllocString(L"192.168.1.1");
    element->IpInfo.IpDnsServerList = SysAllocString(L"1.1.1.1,2.2.2.2");
    element->IpInfo.IpWinsServerList = SysAllocString(L"3.3.3.3:4.4.4.4");
    element->IpInfo.IpDnsSuffixServerList = SysAllocString(L"a.example");
    return element;
}

// An Ethernet, a Wi-Fi with two networks, a Bluetooth adapter.
_DEVICE_ELEMENT* MakeList()
{
    _DEVICE_ELEMENT* const first = MakeElement(enumEthernet, L"{A}", L"Lab Ethernet");
    first->u.pEthernetAdapter = Allocate<_ETHERNET_ADAPTER>();
    first->u.pEthernetAdapter->AdapterMacAddress = SysAllocString(L"00:11:22:33:44:55");
    first->u.pEthernetAdapter->DriverInfo = SysAllocString(L"00000001 : 00000002 : Vendor");
    first->u.pEthernetAdapter->GatewayMacAddress = SysAllocString(L"66:77:88:99:AA:BB");
    first->u.pEthernetAdapter->LinkSpeed = 1000000000;

    _DEVICE_ELEMENT* const second = MakeElement(enumWiFi, L"{B}", L"Lab Wi-Fi");
    first->pNext = second;
    second->ConnectStatus = 1;
    second->u.pWiFiAdapter = Allocate<_WIFI_ADAPTER>();
    second->u.pWiFiAdapter->AdapterMacAddress = SysAllocString(L"00:00:00:00:00:02");
    second->u.pWiFiAdapter->DriverInfo = SysAllocString(L"driver");
    second->u.pWiFiAdapter->BssidMacAddress = SysAllocString(L"10:20:30:40:50:60");
    second->u.pWiFiAdapter->Ssid = SysAllocString(L"Caf\u00e9\x1b[31m");
    second->u.pWiFiAdapter->pDetails = Allocate<_WIFI_DETAILS>();
    second->u.pWiFiAdapter->pDetails->pNext = Allocate<_WIFI_DETAILS>();
    _WIFI_DETAILS& network = *second->u.pWiFiAdapter->pDetails;
    std::wmemset(network.Ssid, L's', 33); // full, without a null character
    std::memset(network.ProfileName, 'p', sizeof network.ProfileName);
    network.SignalStrength = 77;
    network.MacAddress[5] = 0xAB;

    second->pNext = MakeElement(enumBluetooth, L"{C}", L"Lab Bluetooth");
    second->pNext->DeviceStatus = 0;
    return first;
}

// Counts blocks of the task allocator that are alive.
class AllocationCounter final : public IMallocSpy
{
public:
    AllocationCounter() { CoRegisterMallocSpy(this); }
    ~AllocationCounter() { CoRevokeMallocSpy(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == __uuidof(IUnknown) || iid == IID_IMallocSpy ? this : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T size) override { return size; }
    void* STDMETHODCALLTYPE PostAlloc(void* block) override { return alive += block != nullptr, block; }
    void* STDMETHODCALLTYPE PreFree(void* block, BOOL) override { return alive -= block != nullptr, block; }
    void STDMETHODCALLTYPE PostFree(BOOL) override {}
    SIZE_T STDMETHODCALLTYPE PreRealloc(void* block, SIZE_T size, void** next, BOOL) override
    {
        return *next = block, size;
    }
    void* STDMETHODCALLTYPE PostRealloc(void* block, BOOL) override { return block; }
    void* STDMETHODCALLTYPE PreGetSize(void* block, BOOL) override { return block; }
    SIZE_T STDMETHODCALLTYPE PostGetSize(SIZE_T size, BOOL) override { return size; }
    void* STDMETHODCALLTYPE PreDidAlloc(void* block, BOOL) override { return block; }
    int STDMETHODCALLTYPE PostDidAlloc(void*, BOOL, int result) override { return result; }
    void STDMETHODCALLTYPE PreHeapMinimize() override {}
    void STDMETHODCALLTYPE PostHeapMinimize() override {}

    int alive = 0;
};
} // namespace

TEST(DeviceList, EveryBlockAndStringOfACopyIsFreed)
{
    AllocationCounter counter;
    {
        UniqueDeviceList list(MakeList());
        // 3 elements with 10 strings each; 2 extensions with 3 and 4 strings; 2 networks. Strings are blocks of the
        // task allocator too, unless the automation cache keeps them.
        EXPECT_GE(counter.alive, 3 + 2 + 2);
        std::size_t count = 0;
        for (const _DEVICE_ELEMENT& element : Devices(list.get()))
        {
            count += element.DeviceId != nullptr;
        }
        EXPECT_EQ(count, 3u);
    }
    EXPECT_EQ(counter.alive, 0);
}

TEST(DeviceList, NullListIsFine)
{
    FreeDeviceList(nullptr);
    UniqueDeviceList list;
    EXPECT_EQ(Devices(list.get()).begin(), Devices(list.get()).end());
    EXPECT_EQ(Networks(nullptr).begin(), Networks(nullptr).end());
}

TEST(DeviceList, ExtensionIsSeenOnlyForItsOwnType)
{
    UniqueDeviceList list(MakeList());
    const _DEVICE_ELEMENT& ethernet = *list.get();
    EXPECT_NE(EthernetOf(ethernet), nullptr);
    EXPECT_EQ(WiFiOf(ethernet), nullptr);
    EXPECT_EQ(EthernetOf(*ethernet.pNext), nullptr);
    EXPECT_NE(WiFiOf(*ethernet.pNext), nullptr);
    EXPECT_EQ(EthernetOf(*ethernet.pNext->pNext), nullptr);
}

TEST(AdapterView, FieldsOfAllThreeKinds)
{
    UniqueDeviceList list(MakeList());
    const std::vector<AdapterView> views = ViewOf(list.get());
    ASSERT_EQ(views.size(), 3u);
    EXPECT_EQ(views[0].mac, L"00:11:22:33:44:55");
    EXPECT_EQ(views[0].adjacentMac, L"66:77:88:99:AA:BB");
    EXPECT_TRUE(views[0].connected);
    EXPECT_EQ(views[1].adjacentMac, L"10:20:30:40:50:60");
    EXPECT_FALSE(views[1].connected);
    ASSERT_EQ(views[1].networks.size(), 2u);
    EXPECT_EQ(views[1].networks[0].ssid, std::wstring(33, L's'));
    EXPECT_EQ(views[1].networks[0].profile.size(), 260u);
    EXPECT_EQ(views[1].networks[0].bssid, L"00:00:00:00:00:AB");
    EXPECT_EQ(views[1].networks[1].ssid, L"");
    EXPECT_FALSE(views[2].hasExtension);
    EXPECT_EQ(StateName(views[0]), L"connected");
    EXPECT_EQ(StateName(views[1]), L"disconnected");
    EXPECT_EQ(StateName(views[2]), L"not ready");
}

TEST(AdapterView, NullStringsReadAsEmpty)
{
    UniqueDeviceList list(Allocate<_DEVICE_ELEMENT>());
    const std::vector<AdapterView> views = ViewOf(list.get());
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].id, L"");
    EXPECT_EQ(AddressText(views[0]), L"-");
    EXPECT_EQ(TypeName(views[0].type), L"undecided");
    EXPECT_EQ(AdapterTable(views, 0).size(), 3u);
}

TEST(AdapterView, TableShowsAddressesMacsDriverTypeAndState)
{
    UniqueDeviceList list(MakeList());
    const std::vector<std::wstring> lines = AdapterTable(ViewOf(list.get()), 0);
    ASSERT_EQ(lines.size(), 5u);
    const std::wstring row = Text::WithoutStyles(lines[2]);
    for (const wchar_t* const part :
         {L"Lab Ethernet", L"Ethernet", L"connected", L"1 Gbit/s", L"192.168.1.20/24", L"192.168.1.1",
          L"66:77:88:99:AA:BB", L"00:11:22:33:44:55", L"00000001 : 00000002 : Vendor"})
    {
        EXPECT_NE(row.find(part), std::wstring::npos) << Text::ToUtf8(part);
    }
    // A network name cannot bring escape sequences onto the screen.
    EXPECT_EQ(Text::WithoutStyles(lines[3]).find(L'\x1b'), std::wstring::npos);
    EXPECT_EQ(AdapterTable({}, 0), (std::vector<std::wstring>{L"No adapters."}));
}

TEST(AdapterView, JsonSurvivesAParserAndSplitsLists)
{
    UniqueDeviceList list(MakeList());
    const auto json = nlohmann::json::parse(ToJson(ViewOf(list.get())).dump());
    ASSERT_EQ(json.size(), 3u);
    EXPECT_EQ(json[0]["dnsServers"], (std::vector<std::string>{"1.1.1.1", "2.2.2.2"}));
    EXPECT_EQ(json[0]["winsServers"], (std::vector<std::string>{"3.3.3.3", "4.4.4.4"}));
    EXPECT_EQ(json[0]["bitsPerSecond"], 1000000000);
    EXPECT_EQ(json[1]["networks"].size(), 2u);
    EXPECT_EQ(json[1]["typeName"], "Wi-Fi");
    EXPECT_FALSE(json[2].contains("mac"));
}

TEST(AdapterView, NameOfAnAdapterByIdInAnyCase)
{
    UniqueDeviceList list(MakeList());
    const std::vector<AdapterView> views = ViewOf(list.get());
    EXPECT_EQ(NameOf(views, L"{a}"), L"Lab Ethernet");
    EXPECT_EQ(NameOf(views, L"{D}"), L"{D}");
    EXPECT_EQ(NameOf(views, L"no node"), L"no node");
}

namespace
{
// The arguments of one event as the service sends them: in reverse order.
struct Arguments
{
    Arguments(VARTYPE secondType, VARTYPE eventType)
    {
        for (VARIANT& value : values)
        {
            VariantInit(&value);
        }
        values[0].vt = eventType;
        values[0].lVal = 3;
        values[1].vt = secondType;
        if (secondType == VT_BSTR)
        {
            values[1].bstrVal = SysAllocString(L"66:77");
        }
        else
        {
            values[1].lVal = static_cast<LONG>(0x8004A024);
        }
        values[2].vt = VT_BSTR;
        values[2].bstrVal = SysAllocString(L"{A}");
        parameters.rgvarg = values;
        parameters.cArgs = 3;
    }
    ~Arguments()
    {
        for (VARIANT& value : values)
        {
            VariantClear(&value);
        }
    }
    VARIANT values[3];
    DISPPARAMS parameters{};
};
} // namespace

TEST(MonitorEvent, AdapterEventCarriesIdAndMac)
{
    const Arguments arguments(VT_BSTR, VT_INT);
    MonitorEvent event;
    ASSERT_TRUE(EventFromArguments(arguments.parameters, event));
    EXPECT_EQ(event.event, 3);
    EXPECT_EQ(event.deviceId, L"{A}");
    EXPECT_EQ(event.adjacentMac, L"66:77");
    EXPECT_FALSE(event.hasResult);
}

TEST(MonitorEvent, NumberInTheSecondPlaceIsABindingResult)
{
    const Arguments arguments(VT_I4, VT_INT);
    MonitorEvent event;
    ASSERT_TRUE(EventFromArguments(arguments.parameters, event));
    EXPECT_TRUE(event.hasResult);
    EXPECT_EQ(static_cast<std::uint32_t>(event.result), 0x8004A024u);
    EXPECT_EQ(ToJson(event, L"x")["result"], 0x8004A024u);
    EXPECT_NE(Text::WithoutStyles(EventLine(event, L"x", 4)).find(L"failed 0x8004A024"), std::wstring::npos);
}

TEST(MonitorEvent, NullStringsAreEmpty)
{
    Arguments arguments(VT_BSTR, VT_I4);
    SysFreeString(arguments.values[1].bstrVal);
    SysFreeString(arguments.values[2].bstrVal);
    arguments.values[1].bstrVal = nullptr;
    arguments.values[2].bstrVal = nullptr;
    MonitorEvent event;
    ASSERT_TRUE(EventFromArguments(arguments.parameters, event));
    EXPECT_EQ(event.deviceId, L"");
    EXPECT_EQ(event.adjacentMac, L"");
}

TEST(MonitorEvent, OtherArgumentsAreRefused)
{
    MonitorEvent event;
    Arguments arguments(VT_BSTR, VT_INT);
    arguments.parameters.cArgs = 2;
    EXPECT_FALSE(EventFromArguments(arguments.parameters, event));
    arguments.parameters.cArgs = 3;
    arguments.values[0].vt = VT_EMPTY;
    EXPECT_FALSE(EventFromArguments(arguments.parameters, event));
    arguments.parameters.rgvarg = nullptr;
    EXPECT_FALSE(EventFromArguments(arguments.parameters, event));
}

TEST(MonitorEvent, NamesAndTimes)
{
    EXPECT_STREQ(EventName(3), L"enumEventMediaConnect");
    EXPECT_STREQ(EventName(11), L"enumEventWiFiAddedSSIDs");
    EXPECT_STREQ(EventName(12), L"");
    EXPECT_STREQ(EventName(-1), L"");
    EXPECT_EQ(EventWords(12), L"event 12");
    MonitorEvent event;
    event.time = {2026, 11, 0, 21, 12, 3, 44, 17};
    event.event = 4;
    EXPECT_EQ(DateAndTime(event.time), L"2026-11-21T12:03:44.017");
    EXPECT_EQ(Text::WithoutStyles(EventLine(event, L"Lab", 6)), L"12:03:44.017  Lab     media disconnected     ");
}
