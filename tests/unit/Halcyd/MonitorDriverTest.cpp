// Questions to an adapter's driver one by one: what each failure leaves, and the words that tell of it.

#include <gtest/gtest.h>

#include <winsock2.h>
#include <windows.h>
#include <ntddndis.h>

#include <algorithm>

#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
const std::wstring id = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";

class MonitorDriver : public testing::Test
{
protected:
    static IWbemClassObjectPtr Object(std::map<std::wstring, _variant_t> more = {})
    {
        std::map<std::wstring, _variant_t> values{{L"Index", 7L},
                                                  {L"SettingID", id.c_str()},
                                                  {L"Description", L"Brevik Ethernet"},
                                                  {L"ServiceName", L"brv"},
                                                  {L"MACAddress", L"02:00:5E:00:53:07"}};
        values.merge(more);
        return MakeObject(std::move(values));
    }
    HRESULT Update(const IWbemClassObjectPtr& object = Object())
    {
        return monitor->UpdateNodeFromNetworkAdapterObject(element, object, nullptr);
    }
    [[nodiscard]] void* Open()
    {
        void* handle = nullptr;
        EXPECT_EQ(monitor->OpenMiniportDriver(id.c_str(), &handle), 0u);
        return handle;
    }

    HookScope hooks;
    MiniportScope miniports;
    FakeMiniport& driver = miniports.AddEthernet(id);
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    _DEVICE_ELEMENT* element = monitor->CreateNewDeviceListElement();
    TraceLines trace;
};

TEST_F(MonitorDriver, OpenGivesTheErrorAndCloseTakesGoodHandlesOnly)
{
    void* handle = nullptr;
    EXPECT_EQ(monitor->OpenMiniportDriver(L"{nobody}", &handle), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(handle, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(trace.Has(L"CreateFile failed for '\\\\.\\{nobody}'"));
    EXPECT_EQ(monitor->CloseMiniportDriver(handle), 0);
    EXPECT_TRUE(trace.Has(L"*** invalid driver handle = 0xffffffffffffffff"));
    EXPECT_EQ(monitor->CloseMiniportDriver(nullptr), 0);
    EXPECT_TRUE(trace.Has(L"*** invalid driver handle = 0x000000"));
    SetLastError(ERROR_GEN_FAILURE); // an error of before is not the open's
    handle = Open();
    EXPECT_TRUE(trace.Has(L"open driver handle for '\\\\.\\" + id + L"' 0x"));
    EXPECT_EQ(monitor->CloseMiniportDriver(handle), 1);
    EXPECT_TRUE(trace.Has(L"closing driver handle = 0x"));
}

TEST_F(MonitorDriver, QueryTellsWhatItAsksAndWhatCame)
{
    void* const handle = Open();
    const std::wstring number = std::to_wstring(reinterpret_cast<std::uintptr_t>(handle));
    unsigned char answer[4] = {};
    unsigned long returned = 77;
    EXPECT_EQ(monitor->QueryOid(handle, OID_GEN_VENDOR_ID, answer, sizeof answer, &returned), 0u);
    EXPECT_EQ(returned, 4u);
    EXPECT_TRUE(trace.Has(L"making DeviceIoControl(" + number + L", IOCTL_NDIS_QUERY_GLOBAL_STATS, 65804, 4, "));
    EXPECT_TRUE(trace.Has(L"success with query...outputSizeOut:4, hDriver = " + number));
    EXPECT_EQ(monitor->QueryOid(handle, 0x12345678, answer, sizeof answer, &returned),
              static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(trace.Has(L"error with query ...outputSizeOut:0, hDriver = " + number));
    EXPECT_EQ(monitor->CloseMiniportDriver(handle), 1);
}

TEST_F(MonitorDriver, LinkSpeedThatCannotBeHadIsZero)
{
    driver.answers.erase(OID_GEN_LINK_SPEED);
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(element->u.pEthernetAdapter->LinkSpeed, 0u);
    EXPECT_TRUE(trace.Has(L"LinkSpeed = (0, 0)"));
    driver.answers[OID_GEN_LINK_SPEED] = {0x40, 0x42, 0x0F, 0, 9, 0, 0, 0}; // eight bytes: the first four count
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(element->u.pEthernetAdapter->LinkSpeed, 100u);
    EXPECT_TRUE(trace.Has(L"LinkSpeed = (1000000, 9)"));
}

TEST_F(MonitorDriver, DriverTextIsMadeOfWhatCouldBeHad)
{
    driver.answers.erase(OID_GEN_VENDOR_ID);
    driver.answers.erase(OID_GEN_VENDOR_DESCRIPTION);
    EXPECT_EQ(Update(), S_OK);
    EXPECT_STREQ(element->u.pEthernetAdapter->DriverInfo, L"00000000 : 00050001 : ");
    EXPECT_TRUE(trace.Has(L"driver info string = 00000000 : 00050001 : "));
    // A description without an end of its own.
    driver.answers[OID_GEN_VENDOR_DESCRIPTION] = std::vector<std::uint8_t>(400, 'x');
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(SysStringLen(element->u.pEthernetAdapter->DriverInfo), 260u);
}

TEST_F(MonitorDriver, DriverTextKeepsToTheRoomItIsGiven)
{
    void* const handle = Open();
    wchar_t text[16];
    std::fill(std::begin(text), std::end(text), L'#');
    monitor->GetDriverInfo(handle, text, 12);
    EXPECT_EQ(std::wstring(text, 12), L"00000ABC : 0");
    EXPECT_EQ(text[12], L'#');
    EXPECT_EQ(monitor->CloseMiniportDriver(handle), 1);
}

TEST_F(MonitorDriver, MediaStateIsToldWithTheNumberOfDisconnected)
{
    driver.Set(OID_GEN_MEDIA_CONNECT_STATUS, 1u);
    EXPECT_EQ(Update(), S_OK);
    EXPECT_TRUE(trace.Has(L"GetMediaConnectStatus: set the media connect status to '1' "
                          L"(NdisMediaStateDisconnected=1)"));
    driver.answers.erase(OID_GEN_MEDIA_CONNECT_STATUS);
    element->ConnectStatus = 0;
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(element->ConnectStatus, 1);
}

TEST_F(MonitorDriver, DriverIsAskedInOneOrder)
{
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({
                  L"GetEthernetAdapterInfo: creating new device extension for '" + id + L"'",
                  L"created new device extension for '" + id + L"'",
                  L"updating node for '" + id + L"'",
                  L"The source IP is empty, can't do a send ARP with that address",
                  L"open driver handle for '\\\\.\\" + id + L"'",
                  L"getting the ethernet adapter info from device object '" + id + L"'",
                  L"LinkSpeed = (",
                  L"driver info string = ",
                  L"GetMediaConnectStatus: set the media connect status to '0'",
                  L"closing driver handle = ",
              }),
              L"");
}

TEST_F(MonitorDriver, WithoutMemoryForTheExtensionTheNextUpdateTriesAgain)
{
    element->DeviceStatus = -1;
    TestMonitor::UpdateBstrField(&element->DeviceId, id.c_str());
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(monitor->EthernetAdapterInfo(element, Object()), E_OUTOFMEMORY);
    EXPECT_TRUE(trace.Has(L"could not allocate memory for device extension for '" + id + L"'"));
    EXPECT_FALSE(trace.Has(L"created new device extension"));
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(Update(), S_OK); // nobody hears of it
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    EXPECT_EQ(Update(), S_OK);
    EXPECT_NE(element->u.pEthernetAdapter, nullptr);
}

TEST_F(MonitorDriver, ElementThatIsNotReadyLosesItsEthernetExtension)
{
    EXPECT_EQ(monitor->EthernetAdapterInfo(nullptr, Object()), E_FAIL);
    EXPECT_TRUE(trace.Has(L"pNode == NULL"));
    EXPECT_EQ(Update(), S_OK);
    _ETHERNET_ADAPTER* const kept = element->u.pEthernetAdapter;
    ASSERT_NE(kept, nullptr);
    element->DeviceStatus = 0;
    EXPECT_EQ(monitor->EthernetAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(L"device does not have ethernet enabled...deleting device extension"));
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    CoTaskMemFree(kept);
}

TEST_F(MonitorDriver, SetOnceFieldsSayThatTheyAreSet)
{
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({L"getting the common ndis adapter info",
                                   L"Could not get device instance ID for node, using setting ID instead",
                                   L"node description is 'Brevik Ethernet'",
                                   L"adapter type is not known...trying to determine type",
                                   L"media is connected, set the IP address info", L"IP v4 address info: ",
                                   L"getting Ethernet adapter info"}),
              L"");
    TraceLines::Clear();
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({L"DeviceID has already been updated with " + id + L" id.",
                                   L"Description has already been updated with Brevik Ethernet",
                                   L"Service name has already been updated with brv",
                                   L"node description is 'Brevik Ethernet'"}),
              L"");
    EXPECT_FALSE(trace.Has(L"adapter type is not known"));
    EXPECT_FALSE(trace.Has(L"Could not get device instance ID"));
}

TEST_F(MonitorDriver, AddressesAreToldInOneMessageOfEightLines)
{
    EXPECT_EQ(Update(Object({{L"IPAddress", TextArray({L"192.0.2.23"})},
                             {L"IPSubnet", TextArray({L"255.255.255.0"})},
                             {L"DefaultIPGateway", TextArray({L"192.0.2.1"})},
                             {L"DNSServerSearchOrder", TextArray({L"192.0.2.53"})},
                             {L"DNSDomainSuffixSearchOrder", TextArray({L"a.example"})},
                             {L"WINSPrimaryServer", L"192.0.2.8"},
                             {L"WINSSecondaryServer", L"192.0.2.9"}})),
              S_OK);
    EXPECT_TRUE(trace.Has(L"IP v4 address info: Brevik Ethernet\nAddress   : 192.0.2.23\nSubnet    : 255.255.255.0\n"
                          L"Gateway   : 192.0.2.1\nDns Server: 192.0.2.53\nSuffix    : a.example\n"
                          L"WINS      : 192.0.2.8:192.0.2.9\nStatus    : Enabled"));
    EXPECT_EQ(
        FirstMissingInOrder({L"MySendArp: source address  192.0.2.23 10", L"MySendArp: gateway address 192.0.2.1 9",
                             L"converted '192.0.2.23' to '386007232' for ARP source address",
                             L"converted '192.0.2.1' to '16908480' for ARP destination address",
                             L"SendARP successful and length of result is '6'",
                             L"SendARP: physical length is '02:00:5e:00:53:fe'"}),
        L"");
}

TEST_F(MonitorDriver, BadGatewayIsSaidBeforeAnythingIsConverted)
{
    _bstr_t mac;
    EXPECT_EQ(monitor->GetGatewayMacAddress(L"192.0.2.23", L"fe80::1", mac), nullptr);
    EXPECT_TRUE(trace.Has(L"invalid destination gateway address for ARP call (val=4294967295)"));
    EXPECT_FALSE(trace.Has(L"converted '"));
    EXPECT_EQ(mac.length(), 0u);
}

TEST_F(MonitorDriver, AdapterWithoutAPnpIdStandsForItself)
{
    monitor->UseCimv2().answer = [](const std::wstring&, ObjectList& objects)
    {
        objects = {MakeObject({}), MakeObject({{L"Index", 7L}})}; // one without an index, one without an id
        return S_OK;
    };
    EXPECT_EQ(Update(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({L"Attempting to get device info from index '7'", L"Failed to get PNPDeviceID",
                                   L"Error corresponding network adapter PNP ID not found!",
                                   L"Could not get device instance ID for node, using setting ID instead"}),
              L"");
    EXPECT_STREQ(element->DeviceInstanceID, id.c_str());
}

// --- the kind ---

TEST_F(MonitorDriver, KindNeedsADriverThatOpens)
{
    miniports.adapters.clear();
    EXPECT_EQ(monitor->GetDeviceType(Object()), enumUnknown);
    EXPECT_TRUE(
        trace.Has(L"GetDeviceType: could not open the miniport driver for the specified device '" + id + L"' (2)"));
}

TEST_F(MonitorDriver, PhysicalMediumThatIsNotToldLeavesTheKind)
{
    driver.answers.erase(OID_GEN_PHYSICAL_MEDIUM);
    EXPECT_EQ(monitor->GetDeviceType(Object()), enumEthernet);
    EXPECT_EQ(FirstMissingInOrder({L"need to check to see if the ethernet device has a media subtype",
                                   L"GetDeviceType: OID_GEN_PHYSICAL_MEDIUM call failed (at=4, 50)"}),
              L"");
}

TEST_F(MonitorDriver, OtherPhysicalMediaAreNamedByWhatIsKnownOfThem)
{
    driver.Set(OID_GEN_PHYSICAL_MEDIUM, 8u);
    EXPECT_EQ(monitor->GetDeviceType(Object()), enumEthernet);
    EXPECT_TRUE(trace.Has(L"GetDeviceType: '" + id + L"' is just a simple Ethernet device (type: 8)"));
    driver.Set(OID_GEN_MEDIA_SUPPORTED, 9u); // wireless wide area
    EXPECT_EQ(monitor->GetDeviceType(Object()), enumUnknown);
    EXPECT_TRUE(trace.Has(L"GetDeviceType: '" + id + L"' is not a media type netmon monitors (type: 8)"));
    EXPECT_EQ(trace.Count(L"need to check to see if the ethernet device has a media subtype"), 1);
    driver.Set(OID_GEN_PHYSICAL_MEDIUM, 1u);
    EXPECT_EQ(monitor->GetDeviceType(Object()), enumWiFi);
}

TEST_F(MonitorDriver, OtherMediaAreNotAskedForMore)
{
    for (const auto& [medium, kind] : {std::pair(10u, enumInfrared), std::pair(13u, enum1394),
                                       std::pair(16u, enumUnknown), std::pair(1u, enumUnknown)})
    {
        driver.Set(OID_GEN_MEDIA_SUPPORTED, medium);
        driver.Set(OID_GEN_PHYSICAL_MEDIUM, 9u);
        EXPECT_EQ(monitor->GetDeviceType(Object()), kind) << medium;
    }
    EXPECT_EQ(trace.Count(L"closing driver handle = "), 4); // opened and closed each time
}
} // namespace
