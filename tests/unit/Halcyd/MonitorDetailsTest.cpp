// What an update takes from WMI, the driver and the gateway.

#include <gtest/gtest.h>

#include <winsock2.h>
#include <windows.h>
#include <ntddndis.h>

#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
constexpr wchar_t id[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";

using Values = std::map<std::wstring, _variant_t>;

Values EthernetValues()
{
    return {{L"Index", 7L},
            {L"SettingID", id},
            {L"Description", L"Brevik Ethernet"},
            {L"ServiceName", L"brv"},
            {L"Caption", L"[00000007] Brevik Ethernet"},
            {L"MACAddress", L"02:00:5E:00:53:07"},
            {L"IPAddress", TextArray({L"192.0.2.23", L"fe80::1"})},
            {L"IPSubnet", TextArray({L"255.255.255.0", L"64"})},
            {L"DefaultIPGateway", TextArray({L"192.0.2.1", L"fe80::2"})},
            {L"DNSServerSearchOrder", TextArray({L"192.0.2.53", L"192.0.2.54"})},
            {L"DNSDomainSuffixSearchOrder", TextArray({L"a.example", L"b.example"})},
            {L"WINSPrimaryServer", L"192.0.2.8"},
            {L"WINSSecondaryServer", L"192.0.2.9"},
            {L"IPEnabled", true}};
}

class MonitorDetails : public testing::Test
{
protected:
    MonitorDetails() { element = monitor->CreateNewDeviceListElement(); }

    void Update(Values values)
    {
        const IWbemClassObjectPtr object = MakeObject(std::move(values));
        EXPECT_EQ(monitor->UpdateNodeFromNetworkAdapterObject(element, object, nullptr), S_OK);
    }

    MiniportScope miniports;
    TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    _DEVICE_ELEMENT* element = nullptr;
    TraceLines trace;
};

TEST_F(MonitorDetails, NullNodeFails)
{
    EXPECT_EQ(monitor->UpdateNodeFromNetworkAdapterObject(nullptr, MakeObject({}), nullptr), E_FAIL);
    EXPECT_TRUE(trace.Has(L"pNode == NULL"));
}

TEST_F(MonitorDetails, EthernetAdapterIsFilledFromWmiDriverAndArp)
{
    miniports.AddEthernet(id);
    Update(EthernetValues());
    EXPECT_EQ(element->DeviceIndex, 7);
    EXPECT_STREQ(element->DeviceId, id);
    EXPECT_STREQ(element->Description, L"Brevik Ethernet");
    EXPECT_STREQ(element->ServiceName, L"brv");
    EXPECT_STREQ(element->Caption, L"[00000007] Brevik Ethernet");
    EXPECT_EQ(element->AdapterType, enumEthernet);
    EXPECT_EQ(element->DeviceStatus, -1);
    EXPECT_STREQ(element->IpInfo.IpAddress, L"192.0.2.23");
    EXPECT_STREQ(element->IpInfo.IpSubnet, L"255.255.255.0");
    EXPECT_STREQ(element->IpInfo.IpGateway, L"192.0.2.1");
    EXPECT_STREQ(element->IpInfo.IpDnsServerList, L"192.0.2.53,192.0.2.54");
    EXPECT_STREQ(element->IpInfo.IpDnsSuffixServerList, L"a.example,b.example");
    EXPECT_STREQ(element->IpInfo.IpWinsServerList, L"192.0.2.8:192.0.2.9");
    const _ETHERNET_ADAPTER* const extension = element->u.pEthernetAdapter;
    ASSERT_NE(extension, nullptr);
    EXPECT_STREQ(extension->AdapterMacAddress, L"02:00:5E:00:53:07");
    EXPECT_STREQ(extension->GatewayMacAddress, L"02:00:5e:00:53:fe");
    EXPECT_EQ(extension->LinkSpeed, 1000u);
    EXPECT_STREQ(extension->DriverInfo, L"00000ABC : 00050001 : Test Vendor");
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_EQ(miniports.arpDestination, 0x010200C0u); // 192.0.2.1 in network byte order
    EXPECT_EQ(miniports.arpSource, 0x170200C0u);
    // Without root\cimv2 the device tree is out of reach, and the id serves.
    EXPECT_STREQ(element->DeviceInstanceID, id);
    EXPECT_TRUE(trace.Has(L"Namespace not ready"));
}

TEST_F(MonitorDetails, SetOnceFieldsStayAndTheOthersFollow)
{
    miniports.AddEthernet(id);
    Update(EthernetValues());
    Values values = EthernetValues();
    values[L"Index"] = 9L;
    values[L"SettingID"] = L"{other}";
    values[L"Description"] = L"Other";
    values[L"ServiceName"] = L"other";
    values[L"Caption"] = L"[00000009] Other";
    Update(values);
    EXPECT_EQ(element->DeviceIndex, 9);
    EXPECT_STREQ(element->DeviceId, id);
    EXPECT_STREQ(element->Description, L"Brevik Ethernet");
    EXPECT_STREQ(element->ServiceName, L"brv");
    EXPECT_STREQ(element->Caption, L"[00000009] Other");
    EXPECT_TRUE(trace.Has(L"Description has already been updated with Brevik Ethernet"));
}

TEST_F(MonitorDetails, ArraysThatWmiDoesNotHaveGiveEmptyTextsNotNull)
{
    miniports.AddEthernet(id);
    Values values = EthernetValues();
    values[L"DNSServerSearchOrder"] = WmiNull();
    values[L"DefaultIPGateway"] = WmiNull();
    Update(values);
    ASSERT_NE(element->IpInfo.IpDnsServerList, nullptr);
    EXPECT_EQ(SysStringLen(element->IpInfo.IpDnsServerList), 0u);
    // No gateway, no request: the field is empty, not null.
    EXPECT_EQ(miniports.arpCalls, 0);
    ASSERT_NE(element->u.pEthernetAdapter->GatewayMacAddress, nullptr);
    EXPECT_EQ(SysStringLen(element->u.pEthernetAdapter->GatewayMacAddress), 0u);
    EXPECT_TRUE(trace.Has(L"The gateway IP is empty, can't do a send ARP with that address"));
}

TEST_F(MonitorDetails, WinsWithoutASecondaryIsNullWithoutAPrimaryTheSecondaryAlone)
{
    miniports.AddEthernet(id);
    Values values = EthernetValues();
    values[L"WINSSecondaryServer"] = WmiNull();
    Update(values);
    EXPECT_EQ(element->IpInfo.IpWinsServerList, nullptr);
    values[L"WINSSecondaryServer"] = L"192.0.2.9";
    values[L"WINSPrimaryServer"] = WmiNull();
    Update(values);
    EXPECT_STREQ(element->IpInfo.IpWinsServerList, L"192.0.2.9");
    values.erase(L"WINSPrimaryServer"); // cannot be read at all: not empty, but a literal
    Update(values);
    EXPECT_STREQ(element->IpInfo.IpWinsServerList, L"<NULL|EMPTY>:192.0.2.9");
}

TEST_F(MonitorDetails, DisconnectedMediaClearsAllSixFieldsOneUpdateLater)
{
    FakeMiniport& driver = miniports.AddEthernet(id);
    driver.Set(OID_GEN_MEDIA_CONNECT_STATUS, 1u);
    Update(EthernetValues());
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_STREQ(element->IpInfo.IpAddress, L"192.0.2.23"); // the first update saw 0
    Update(EthernetValues());
    EXPECT_EQ(element->IpInfo.IpAddress, nullptr);
    EXPECT_EQ(element->IpInfo.IpSubnet, nullptr);
    EXPECT_EQ(element->IpInfo.IpGateway, nullptr);
    EXPECT_EQ(element->IpInfo.IpDnsServerList, nullptr);
    EXPECT_EQ(element->IpInfo.IpWinsServerList, nullptr);
    EXPECT_EQ(element->IpInfo.IpDnsSuffixServerList, nullptr);
    EXPECT_TRUE(trace.Has(L"media is disconnected, clear all the IP address info"));
}

TEST_F(MonitorDetails, DriverThatDoesNotSayItsMediaStateIsDisconnected)
{
    miniports.AddEthernet(id).answers.erase(OID_GEN_MEDIA_CONNECT_STATUS);
    Update(EthernetValues());
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_TRUE(trace.Has(L"GetMediaConnectStatus: could not get media connection status"));
}

TEST_F(MonitorDetails, TenGigabitReadAs1410)
{
    miniports.AddEthernet(id).Set(OID_GEN_LINK_SPEED, 100'000'000u);
    Update(EthernetValues());
    EXPECT_EQ(element->u.pEthernetAdapter->LinkSpeed, 1410u);
}

TEST_F(MonitorDetails, DriverThatCannotBeOpenedLeavesTheLinkDataAlone)
{
    miniports.AddEthernet(id);
    Update(EthernetValues());
    miniports.adapters.clear();
    Values values = EthernetValues();
    values[L"IPAddress"] = TextArray({L"192.0.2.77"});
    Update(values);
    EXPECT_EQ(element->u.pEthernetAdapter->LinkSpeed, 1000u);
    EXPECT_STREQ(element->u.pEthernetAdapter->DriverInfo, L"00000ABC : 00050001 : Test Vendor");
    EXPECT_STREQ(element->IpInfo.IpAddress, L"192.0.2.77");
}

TEST_F(MonitorDetails, WithoutAMacTheElementIsNotReadyAndHasNoExtension)
{
    miniports.AddEthernet(id);
    Values values = EthernetValues();
    values[L"MACAddress"] = WmiNull();
    Update(values);
    EXPECT_EQ(element->DeviceStatus, 0);
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    EXPECT_TRUE(trace.Has(L"### why is the mac address null right now 'Brevik Ethernet'"));
    EXPECT_TRUE(trace.Has(L"device does not have ethernet enabled...deleting device extension"));
    values[L"MACAddress"] = L"";
    Update(values);
    EXPECT_TRUE(trace.Has(L"#### why is the mac address null right now Brevik Ethernet"));
    EXPECT_EQ(element->DeviceStatus, 0);
    Update(EthernetValues());
    EXPECT_EQ(element->DeviceStatus, -1);
    EXPECT_NE(element->u.pEthernetAdapter, nullptr);
    Update(values); // nothing sets readiness back
    EXPECT_EQ(element->DeviceStatus, -1);
}

TEST_F(MonitorDetails, BluetoothGetsTheCommonDataOnly)
{
    miniports.AddEthernet(id).Set(OID_GEN_PHYSICAL_MEDIUM, 10u);
    Update(EthernetValues());
    Update(EthernetValues());
    EXPECT_EQ(element->AdapterType, enumBluetooth);
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    EXPECT_STREQ(element->IpInfo.IpAddress, L"192.0.2.23");
    EXPECT_EQ(trace.Count(L"the device type is not known was GetDeviceType() called?"), 2);
}

TEST_F(MonitorDetails, FailedMediaQueryLeavesTheKindUnknown)
{
    miniports.AddEthernet(id).answers.erase(OID_GEN_MEDIA_SUPPORTED);
    Update(EthernetValues());
    EXPECT_EQ(element->AdapterType, enumUnknown);
    EXPECT_EQ(element->u.pEthernetAdapter, nullptr);
    EXPECT_TRUE(trace.Has(L"GetDeviceType: FAILED - OID_GEN_MEDIA_SUPPORTED assuming Ethernet (50)"));
}

TEST_F(MonitorDetails, ComPortIsUnknownWithoutTouchingADriver)
{
    EXPECT_EQ(monitor->GetDeviceType(MakeObject({{L"SettingID", L"Com7"}})), enumUnknown);
    EXPECT_TRUE(trace.Has(L"GetDeviceType: GUID references a COM port"));
    EXPECT_EQ(monitor->GetDeviceType(MakeObject({{L"SettingID", WmiNull()}})), enumUnknown);
    EXPECT_EQ(miniports.opens, 0);
}

TEST_F(MonitorDetails, PnpIdComesFromTheAdapterWithTheSameIndex)
{
    monitor->UseCimv2().answer = [](const std::wstring&, ObjectList&) { return static_cast<HRESULT>(WBEM_E_FAILED); };
    auto* const adapters =
        new FakeEnumerator({MakeObject({{L"Index", 3L}, {L"PNPDeviceID", L"PCI\\3"}}), MakeObject({}),
                            MakeObject({{L"Index", 7L}, {L"PNPDeviceID", WmiNull()}})});
    const IEnumWbemClassObjectPtr owner(adapters);
    NetUtilities::DeviceInfo info;
    EXPECT_FALSE(monitor->GetDeviceInfoFromNetworkAdapterConfiguration(MakeObject({{L"Index", 7L}}), info, adapters));
    EXPECT_EQ(adapters->resets, 1);
    EXPECT_TRUE(trace.Has(L"Error corresponding network adapter PNP ID not found!"));
    adapters->resetResult = E_FAIL;
    EXPECT_FALSE(monitor->GetDeviceInfoFromNetworkAdapterConfiguration(MakeObject({{L"Index", 7L}}), info, adapters));
    EXPECT_TRUE(trace.Has(L"Could not reset pNetworkAdapterEnum"));
    EXPECT_FALSE(monitor->GetDeviceInfoFromNetworkAdapterConfiguration(MakeObject({}), info, adapters));
    EXPECT_TRUE(trace.Has(L"Failed to get Index from NAC"));
    EXPECT_FALSE(monitor->GetDeviceInfoFromNetworkAdapterConfiguration(MakeObject({{L"Index", 7L}}), info, nullptr));
    EXPECT_TRUE(trace.Has(L"Failed exec query SELECT * FROM Win32_NetworkAdapter"));
}

TEST_F(MonitorDetails, GatewayMacNeedsTwoGoodAddresses)
{
    _bstr_t mac;
    EXPECT_EQ(monitor->GetGatewayMacAddress(L"", L"192.0.2.1", mac), nullptr);
    EXPECT_EQ(mac.length(), 0u);
    EXPECT_EQ(monitor->GetGatewayMacAddress(L"fe80::1", L"192.0.2.1", mac), nullptr);
    EXPECT_TRUE(trace.Has(L"invalid source address for ARP call (val=4294967295)"));
    EXPECT_EQ(monitor->GetGatewayMacAddress(L"192.0.2.2", L"192.0.2", mac), nullptr);
    EXPECT_TRUE(trace.Has(L"invalid destination gateway address for ARP call (val=4294967295)"));
    EXPECT_EQ(miniports.arpCalls, 0);
    miniports.arpResult = ERROR_BAD_NET_NAME;
    EXPECT_EQ(monitor->GetGatewayMacAddress(L"192.0.2.2", L"192.0.2.1", mac), nullptr);
    EXPECT_TRUE(trace.Has(L"SendARP failed (0x000043)"));
    miniports.arpResult = NO_ERROR;
    miniports.arpMac = {0xAA, 0xBB}; // a short answer: all six bytes are printed
    EXPECT_STREQ(monitor->GetGatewayMacAddress(L"192.0.2.2", L"192.0.2.1", mac), L"aa:bb:ff:ff:ff:ff");
}

TEST_F(MonitorDetails, FieldIsReplacedOnlyWhenItsTextDiffers)
{
    BSTR field = SysAllocString(L"text");
    BSTR const before = field;
    TestMonitor::UpdateBstrField(&field, L"text");
    EXPECT_EQ(field, before);
    TestMonitor::UpdateBstrField(&field, L"other");
    EXPECT_STREQ(field, L"other");
    _variant_t null = WmiNull();
    TestMonitor::UpdateBstrFromVariant(&field, &null);
    EXPECT_EQ(field, nullptr);
    _variant_t empty(L"");
    TestMonitor::UpdateBstrFromVariant(&field, &empty);
    ASSERT_NE(field, nullptr);
    SysFreeString(field);
}
} // namespace
