// What crosses the COM boundary has a fixed shape; clients were compiled against it.

#include "Halcyd_h.h"

#include <gtest/gtest.h>

#include <cstddef>

static_assert(sizeof(_ip_transfer) == 18, "elements of the IPv6 lists have a stride of 18 bytes");
static_assert(offsetof(_ip_transfer, Prefix) == 16);
static_assert(sizeof(_ADAPTER_TYPE) == 4 && sizeof(_NOTIFICATION_EVENT) == 4);

static_assert(offsetof(_DEVICE_ELEMENT, DeviceId) == 8);
static_assert(offsetof(_DEVICE_ELEMENT, DeviceStatus) == 48);
static_assert(offsetof(_DEVICE_ELEMENT, CommPort) == 56);
static_assert(offsetof(_DEVICE_ELEMENT, AdapterType) == 64);
static_assert(offsetof(_DEVICE_ELEMENT, IpInfo) == 72);
static_assert(offsetof(_DEVICE_ELEMENT, u) == 120);
static_assert(offsetof(_DEVICE_ELEMENT, pNext) == 128);
static_assert(sizeof(_DEVICE_ELEMENT) == 136);

static_assert(sizeof(_IP_INFO_NETCFG) == 48);
static_assert(sizeof(_ETHERNET_ADAPTER) == 40);
static_assert(sizeof(_WIFI_ADAPTER) == 80);
static_assert(offsetof(_WIFI_ADAPTER, AdapterMacAddress) == offsetof(_ETHERNET_ADAPTER, AdapterMacAddress));
static_assert(offsetof(_WIFI_ADAPTER, LinkSpeed) == offsetof(_ETHERNET_ADAPTER, LinkSpeed));
static_assert(offsetof(_WIFI_ADAPTER, DriverInfo) == offsetof(_ETHERNET_ADAPTER, DriverInfo));
// One read serves both kinds of adapter for the address at the other end.
static_assert(offsetof(_WIFI_ADAPTER, BssidMacAddress) == offsetof(_ETHERNET_ADAPTER, GatewayMacAddress));

static_assert(offsetof(_WIFI_DETAILS, ProfileName) == 1040);
static_assert(offsetof(_WIFI_DETAILS, Ssid) == 1300);
static_assert(offsetof(_WIFI_DETAILS, MacAddress) == 1366);
static_assert(offsetof(_WIFI_DETAILS, SignalStrength) == 1372);
static_assert(offsetof(_WIFI_DETAILS, pNext) == 1400);

static_assert(offsetof(_VNIC_CONFIG_INFO, Action) == 1024);
static_assert(offsetof(_VNIC_CONFIG_INFO, ulRC) == 1044);
static_assert(offsetof(_VNIC_CONFIG_INFO, FileName) == 1050);
static_assert(offsetof(_VNIC_CONFIG_INFO, IPv6Address) == 2074);
static_assert(offsetof(_VNIC_CONFIG_INFO, usIPv6Prefix) == 2090);
static_assert(offsetof(_VNIC_CONFIG_INFO, bUseIPHelper) == 2108);
static_assert(offsetof(_VNIC_CONFIG_INFO, IPv6DNS1) == 2112);
static_assert(sizeof(_VNIC_CONFIG_INFO) == 2244);

TEST(InterfaceLayout, EnumerationsHaveTheirNumbers)
{
    EXPECT_EQ(enumUnknown, 1);
    EXPECT_EQ(enumEthernet, 4);
    EXPECT_EQ(enumWiFi, 8);
    EXPECT_EQ(enumBluetooth, 0x100);
    EXPECT_EQ(enumWiFiAdHoc, 0x800);
    EXPECT_EQ(enumEventAdapterAdd, 1);
    EXPECT_EQ(enumEventIpBindingsRestored, 10);
    EXPECT_EQ(enumEventWiFiAddedSSIDs, 11);
}
