// Where an adapter sits in the device tree, as a client sees it.

#include "Monitor/MonitorMachine.h"

#include <sstream>

namespace
{
constexpr wchar_t kDock[] = L"{4A1C7E0D-3B52-4D0F-9E61-0C5D8A2B700D}";

class DeviceTree : public MonitorTest
{
protected:
    static std::wstring InstanceId(const std::vector<AdapterRecord>& list, const wchar_t* id)
    {
        const AdapterRecord* const adapter = FindAdapter(list, id);
        return adapter != nullptr ? adapter->deviceInstanceId.value_or(L"null") : L"not in the list";
    }
};

TEST_F(DeviceTree, InstanceIdIsTheTopOfTheNodesWithTheAdaptersUsbIdentity)
{
    const INetMonSvPtr monitor = Monitor();
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
    // The network function of a docking station stands for the composite device above it, and not for the hub above
    // that; a card on the bus stands for itself.
    EXPECT_EQ(InstanceId(list, kDock), L"USB\\VID_F1D3&PID_0817\\000050A1B2C3");
    EXPECT_EQ(InstanceId(list, kEthernet), L"PCI\\VEN_F1A0&DEV_0210&SUBSYS_00010001&REV_03\\3&11583659&0&FE");
    EXPECT_EQ(InstanceId(list, kWiFi), L"PCI\\VEN_F1B4&DEV_00A7&SUBSYS_00A70001&REV_1A\\4&1F2A3B4C&0&00E4");
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(DeviceTree, AdapterWithoutAPnpIdOrWithOneThatIsNotThereStandsForItself)
{
    Lab(L"set adapters.eth0.wmiAdapter.PNPDeviceID null");
    Lab(L"fail CM_Locate_DevNodeW --nth 1 --code 13"); // that of the next adapter
    const INetMonSvPtr monitor = Monitor();
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
    int own = 0;
    for (const AdapterRecord& adapter : list)
    {
        own += adapter.deviceInstanceId == adapter.deviceId ? 1 : 0;
    }
    EXPECT_EQ(InstanceId(list, kEthernet), kEthernet);
    EXPECT_EQ(own, 2);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(DeviceTree, EveryDeviceOfTheMachineHasItsDeviceKey)
{
    const INetMonSvPtr monitor = Monitor();
    Lab(L"journal --clear");
    ASSERT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    std::istringstream calls(Lab(L"journal --call SetupDiOpenDevRegKey"));
    int opened = 0;
    for (std::string call; std::getline(calls, call);)
    {
        if (call.find("\"type\":1") != std::string::npos) // DIREG_DEV
        {
            ++opened;
            // A device without its key would be read about as a failure in every trace.
            EXPECT_NE(call.find("= 0x00000000"), std::string::npos) << call;
        }
    }
    EXPECT_GT(opened, 0);
}
} // namespace
