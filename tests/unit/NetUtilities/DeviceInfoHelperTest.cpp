#include "NetUtilities/DeviceInfoHelper.h"

#include <cfgmgr32.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "DeviceTreeStandIn.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
using NetUtilities::DeviceInfo;
using NetUtilities::DeviceInfoHelper;
using NetUtilities::DeviceNode;

class DeviceTreeTest : public testing::Test
{
protected:
    void SetUp() override
    {
        (void)recorder.Lines(); // what other tests traced has arrived
        recorder.Reset();
        root = tree.Add(-1, L"HTREE\\ROOT\\0", L"", L"");
        pci = tree.Add(root, L"ACPI\\PNP0A08\\0", L"System", L"ACPI\\PNP0A08");
        hub = tree.Add(pci, L"USB\\VID_8087&PID_0024\\5", L"USB", L"USB\\VID_8087&PID_0024&REV_0000");
    }
    void TearDown() override { EXPECT_EQ(0, tree.openSets) << "every information set is destroyed"; }

    DeviceInfo Info(const std::wstring& id)
    {
        DeviceInfo info;
        info.PID = L"left over";
        info.Nodes.resize(3);
        EXPECT_TRUE(helper.GetDeviceInfo(id, info, false));
        return info;
    }
    static std::vector<std::wstring> Ids(const DeviceInfo& info)
    {
        std::vector<std::wstring> ids;
        for (const DeviceNode& node : info.Nodes)
        {
            ids.push_back(node.DeviceId);
        }
        return ids;
    }

    DeviceTreeStandIn tree;
    TraceRecorder& recorder = TraceRecorder::Get();
    DeviceInfoHelper helper{Log::Source::NetMon};
    int root = 0;
    int pci = 0;
    int hub = 0;
};

TEST_F(DeviceTreeTest, UnknownDeviceIsRefused)
{
    DeviceInfo info;
    info.PID = L"left over";
    EXPECT_FALSE(helper.GetDeviceInfo(L"USB\\nobody", info, false));
    EXPECT_EQ(L"", info.PID) << "cleared";
    EXPECT_TRUE(recorder.Has(11, 2, L"Failed CM_Locate_DevNode"));
}

TEST_F(DeviceTreeTest, EmptyIdWithWholeTreeNamesTheRoot)
{
    DeviceInfo info;
    EXPECT_TRUE(helper.GetDeviceInfo(L"", info, true));
    ASSERT_EQ(3U, info.Nodes.size());
    EXPECT_EQ(L"HTREE\\ROOT\\0", info.Nodes[0].DeviceId);
}

TEST_F(DeviceTreeTest, UsbFunctionClimbsToItsCompositeParentAndStopsAtTheHub)
{
    const int composite = tree.Add(hub, L"USB\\composite", L"USB", L"USB\\VID_0BDA&PID_8153&REV_3000");
    tree.Add(composite, L"USB\\net", L"Net", L"USB\\VID_0BDA&PID_8153&MI_00");
    tree.Add(composite, L"USB\\modem", L"Modem", L"USB\\VID_0BDA&PID_8153&MI_02");
    const DeviceInfo info = Info(L"USB\\net");
    EXPECT_EQ(L"vid_0bda", info.VID);
    EXPECT_EQ(L"pid_8153", info.PID);
    EXPECT_EQ((std::vector<std::wstring>{L"USB\\composite", L"USB\\net", L"USB\\modem"}), Ids(info));
    EXPECT_TRUE(recorder.HasMessage(L"VID 'vid_0bda' PID 'pid_8153'"));
    EXPECT_TRUE(recorder.HasMessage(L"Analyzing parent"));
    EXPECT_TRUE(recorder.HasMessage(L"Stop here, not same PID/VID, PID = 'pid_0024' VID = 'vid_8087'"));
}

TEST_F(DeviceTreeTest, ClimbStopsAtAParentWithoutIdentity)
{
    const int device = tree.Add(pci, L"USB\\top", L"USB", L"USB\\VID_1&PID_2");
    tree.Add(device, L"USB\\below", L"Net", L"USB\\VID_1&PID_2&MI_00");
    EXPECT_EQ((std::vector<std::wstring>{L"USB\\top", L"USB\\below"}), Ids(Info(L"USB\\below")));
    EXPECT_TRUE(recorder.HasMessage(L"Stop here, No VID/PID for parent"));
}

TEST_F(DeviceTreeTest, ParentOfTheSameVendorWithAnotherProductStopsTheClimb)
{
    const int dock = tree.Add(hub, L"USB\\dock", L"USB", L"USB\\VID_0BDA&PID_5411");
    tree.Add(dock, L"USB\\net", L"Net", L"USB\\VID_0BDA&PID_8153");
    EXPECT_EQ((std::vector<std::wstring>{L"USB\\net"}), Ids(Info(L"USB\\net")));
}

TEST_F(DeviceTreeTest, ClimbStopsAtTheRoot)
{
    DeviceTreeStandIn::Device& top = tree[root];
    top.setupProperties[SPDRP_HARDWAREID] = {REG_MULTI_SZ, std::wstring(L"VID_1&PID_2\0\0", 13)};
    tree.Add(root, L"USB\\x", L"USB", L"USB\\VID_1&PID_2");
    EXPECT_EQ(L"HTREE\\ROOT\\0", Info(L"USB\\x").Nodes.at(0).DeviceId);
    EXPECT_TRUE(recorder.HasMessage(L"Failed CM_Get_Parent"));
}

TEST_F(DeviceTreeTest, PciAdapterIsItsOwnTopWithEmptyIdentity)
{
    const int adapter = tree.Add(pci, L"PCI\\VEN_8086&DEV_15B8\\3", L"Net", L"PCI\\VEN_8086&DEV_15B8");
    tree.Add(adapter, L"PCI\\below", L"System", L"x");
    const DeviceInfo info = Info(L"PCI\\VEN_8086&DEV_15B8\\3");
    EXPECT_EQ(L"", info.VID);
    EXPECT_EQ(L"", info.PID);
    EXPECT_EQ((std::vector<std::wstring>{L"PCI\\VEN_8086&DEV_15B8\\3", L"PCI\\below"}), Ids(info));
    EXPECT_TRUE(recorder.HasMessage(L"Failed to get VID/PID of node, trying another approach"));
    EXPECT_TRUE(recorder.HasMessage(L"Did not find VID/PID... will try to get device subtree"));
}

TEST_F(DeviceTreeTest, NodeWithoutIdentityTakesThatOfAUsbParentByTheSameManufacturer)
{
    const int parent = tree.Add(hub, L"USB\\parent", L"USB", L"USB\\VID_1199&PID_9071");
    const int node = tree.Add(parent, L"SWUSB\\child", L"Net", L"SWUSB\\x");
    tree.SetText(parent, SPDRP_MFG, L"Maker");
    tree.SetText(node, SPDRP_MFG, L"Maker");
    const DeviceInfo info = Info(L"SWUSB\\child");
    EXPECT_EQ(L"vid_1199", info.VID);
    EXPECT_EQ((std::vector<std::wstring>{L"USB\\parent", L"SWUSB\\child"}), Ids(info));
    EXPECT_TRUE(recorder.HasMessage(L"Current node is not USB, parent node is USB, and manufacturer match, so "
                                    L"attempting to get PID/VID from parent node"));
    EXPECT_TRUE(recorder.HasMessage(L"Found PID/VID from parent node, setting current node to parent node"));
    const auto messages = recorder.Messages();
    EXPECT_EQ(1, std::count(messages.begin(), messages.end(), L"Analyzing parent")) << "the climb begins at the parent";
}

TEST_F(DeviceTreeTest, ParentByAnotherManufacturerGivesNothing)
{
    const int parent = tree.Add(hub, L"USB\\parent", L"USB", L"USB\\VID_1199&PID_9071");
    const int node = tree.Add(parent, L"SWUSB\\child", L"Net", L"SWUSB\\x");
    tree.SetText(parent, SPDRP_MFG, L"Maker");
    tree.SetText(node, SPDRP_MFG, L"maker");
    EXPECT_EQ((std::vector<std::wstring>{L"SWUSB\\child"}), Ids(Info(L"SWUSB\\child")));
}

TEST_F(DeviceTreeTest, TreeIsDepthFirstWithParentsBeforeChildren)
{
    const int top = tree.Add(pci, L"PCI\\a", L"Net", L"a");
    const int first = tree.Add(top, L"PCI\\a1", L"", L"a1");
    tree.Add(first, L"PCI\\a11", L"", L"a11");
    tree.Add(first, L"PCI\\a12", L"", L"a12");
    tree.Add(top, L"PCI\\a2", L"", L"a2");
    EXPECT_EQ((std::vector<std::wstring>{L"PCI\\a", L"PCI\\a1", L"PCI\\a11", L"PCI\\a12", L"PCI\\a2"}),
              Ids(Info(L"PCI\\a")));
    EXPECT_TRUE(recorder.HasMessage(FormatText(L"Could not get child for PCI\\a2, {:#x}", CR_NO_SUCH_DEVNODE)));
}

// --- One node ---

TEST_F(DeviceTreeTest, NodeCarriesEveryProperty)
{
    const int number = tree.Add(pci, L"USB\\n", L"Net", std::wstring(L"USB\\VID_1&PID_2&REV_3\0USB\\VID_1&PID_2", 38));
    tree.SetText(number, SPDRP_FRIENDLYNAME, L"friendly");
    tree.SetText(number, SPDRP_DEVICEDESC, L"description");
    tree.SetText(number, SPDRP_SERVICE, L"service");
    tree.SetText(number, SPDRP_DRIVER, L"driver");
    tree.SetText(number, SPDRP_MFG, L"maker");
    tree[number].status = DN_HAS_PROBLEM;
    tree[number].problem = CM_PROB_DISABLED;
    tree.SetKeyValue(number, L"DRV", L"NetCfgInstanceId", REG_SZ, std::wstring(L"{guid}\0", 7));
    tree.SetKeyValue(number, L"DRV", L"*MediaType", REG_DWORD, std::wstring(L"\x9\0", 2));
    const DeviceNode node = helper.GetNode(static_cast<DEVINST>(number + 1));
    EXPECT_EQ(L"USB\\n", node.DeviceId);
    EXPECT_EQ(L"friendly", node.FriendlyName);
    EXPECT_EQ(L"description", node.DeviceDescription);
    EXPECT_EQ(L"service", node.Service);
    EXPECT_EQ(L"driver", node.Driver);
    EXPECT_EQ(L"maker", node.Manufacturer);
    EXPECT_EQ(DeviceNode::DeviceClass::Net, node.Class);
    EXPECT_EQ(L"vid_1", node.VID);
    EXPECT_EQ(L"pid_2", node.PID);
    EXPECT_EQ(L"USB\\VID_1&PID_2&REV_3", node.HardwareId);
    EXPECT_EQ(L"{guid}", node.SettingId);
    EXPECT_TRUE(node.HasWmbDrivers);
    EXPECT_TRUE(node.Disabled);
    for (const wchar_t* text :
         {L"ID 'USB\\n'", L"DISABLED", L"Friendly Name = friendly", L"Device description = description",
          L"Service = service", L"Manufacturer = maker", L"VID = vid_1, PID = pid_2",
          L"Hardware ID0 = USB\\VID_1&PID_2&REV_3", L"Setting ID = {guid}", L"MediaType = 9", L"Has WMB drivers"})
    {
        EXPECT_TRUE(recorder.HasMessage(text)) << std::string(text, text + std::wstring_view(text).size());
    }
}

TEST_F(DeviceTreeTest, ProblemOfAnotherKindIsNotDisabled)
{
    const int number = tree.Add(pci, L"x", L"Net", L"");
    bool disabled = true;
    tree[number].status = DN_HAS_PROBLEM;
    tree[number].problem = 10;
    EXPECT_TRUE(helper.IsDeviceInterfaceDisabled(static_cast<DEVINST>(number + 1), disabled));
    EXPECT_FALSE(disabled);
    tree[number].status = 0;
    tree[number].problem = CM_PROB_DISABLED;
    EXPECT_TRUE(helper.IsDeviceInterfaceDisabled(static_cast<DEVINST>(number + 1), disabled));
    EXPECT_FALSE(disabled);
    tree[number].hasStatus = false;
    EXPECT_FALSE(helper.IsDeviceInterfaceDisabled(static_cast<DEVINST>(number + 1), disabled));
    EXPECT_TRUE(recorder.HasMessage(L"Failed CM_Get_DevNode_Status"));
}

TEST_F(DeviceTreeTest, NodeWithoutIdStillEntersTheTree)
{
    const int number = tree.Add(pci, L"x", L"Net", L"hw");
    tree[number].hasId = false;
    std::vector<DeviceNode> nodes;
    helper.GetDeviceTree(static_cast<DEVINST>(number + 1), nodes);
    ASSERT_EQ(1U, nodes.size());
    EXPECT_EQ(L"", nodes[0].DeviceId);
    EXPECT_EQ(L"hw", nodes[0].HardwareId) << "by the configuration manager's road";
    EXPECT_TRUE(recorder.HasMessage(L"Failed CM_Get_Device_ID"));
}

TEST_F(DeviceTreeTest, DeviceThatSetupCannotOpenIsReadByTheOtherRoadWithoutItsKeys)
{
    const int number = tree.Add(pci, L"USB\\n", L"Net", L"USB\\VID_1&PID_2");
    tree.SetText(number, SPDRP_FRIENDLYNAME, L"friendly");
    tree.SetText(number, SPDRP_MFG, L"maker");
    tree.SetKeyValue(number, L"DRV", L"NetCfgInstanceId", REG_SZ, std::wstring(L"{guid}\0", 7));
    tree[number].setupOpens = false;
    const DeviceNode node = helper.GetNode(static_cast<DEVINST>(number + 1));
    EXPECT_EQ(L"friendly", node.FriendlyName);
    EXPECT_EQ(L"maker", node.Manufacturer);
    EXPECT_EQ(DeviceNode::DeviceClass::Net, node.Class);
    EXPECT_EQ(L"vid_1", node.VID);
    EXPECT_EQ(L"", node.SettingId);
    EXPECT_TRUE(recorder.HasMessageStarting(L"Failed getting SetupDiDevInfo Error "));
    std::wstring vid;
    std::wstring pid;
    EXPECT_TRUE(helper.GetVIDPID(static_cast<DEVINST>(number + 1), vid, pid));
    EXPECT_EQ(L"pid_2", pid);
    EXPECT_TRUE(recorder.HasMessageStarting(L"Failed getting SetupDiDevInfo, last error Error "));
    EXPECT_TRUE(recorder.HasMessage(
        FormatText(L"Failed CM_Get_DevNode_Registry_Property {:#x} {:#x}", CM_DRP_SERVICE, CR_NO_SUCH_VALUE)));
}

TEST_F(DeviceTreeTest, PortNameOfAnythingButAModemAndAttachedToOfAModem)
{
    const int port = tree.Add(pci, L"port", L"Ports", L"");
    tree.SetKeyValue(port, L"DEV", L"PortName", REG_SZ, std::wstring(L"COM3\0", 5));
    tree.SetKeyValue(port, L"DRV", L"AttachedTo", REG_SZ, std::wstring(L"COM9\0", 5));
    EXPECT_EQ(L"COM3", helper.GetNode(static_cast<DEVINST>(port + 1)).ComPort);
    const int modem = tree.Add(pci, L"modem", L"Modem", L"");
    tree.SetKeyValue(modem, L"DEV", L"PortName", REG_SZ, std::wstring(L"COM3\0", 5));
    tree.SetKeyValue(modem, L"DRV", L"AttachedTo", REG_SZ, std::wstring(L"COM9\0", 5));
    EXPECT_EQ(L"COM9", helper.GetNode(static_cast<DEVINST>(modem + 1)).ComPort);
    EXPECT_TRUE(recorder.HasMessage(L"COM Port = COM3"));
    EXPECT_TRUE(recorder.HasMessage(L"COM Port = COM9"));
}

TEST_F(DeviceTreeTest, PortValuesThatAreMissingOrOfAnotherTypeAreTold)
{
    const int port = tree.Add(pci, L"port", L"Ports", L"");
    EXPECT_EQ(L"", helper.GetNode(static_cast<DEVINST>(port + 1)).ComPort);
    EXPECT_TRUE(recorder.HasMessage(L"Could not get PortName, 0x2"));
    tree.SetKeyValue(port, L"DEV", L"PortName", REG_DWORD, std::wstring(L"\x1\0", 2));
    EXPECT_EQ(L"", helper.GetNode(static_cast<DEVINST>(port + 1)).ComPort);
    EXPECT_TRUE(recorder.HasMessage(L"Invalid com port registry type = 4"));
    const int modem = tree.Add(pci, L"modem", L"Modem", L"");
    EXPECT_EQ(L"", helper.GetNode(static_cast<DEVINST>(modem + 1)).ComPort);
    EXPECT_TRUE(recorder.HasMessage(L"Could not get AttachedTo, 0x2"));
}

TEST_F(DeviceTreeTest, MissingKeysAreToldOneByOne)
{
    const int net = tree.Add(pci, L"net", L"Net", L"");
    tree[net].hasDeviceKey = false;
    tree[net].hasDriverKey = false;
    const DeviceNode node = helper.GetNode(static_cast<DEVINST>(net + 1));
    EXPECT_EQ(L"", node.SettingId);
    for (const wchar_t* text : {L"SetupDiOpenDevRegKey for NetCfgInstanceId failed Error ",
                                L"SetupDiOpenDevRegKey for *MediaType failed Error ",
                                L"SetupDiOpenDevRegKey1 failed Error ", L"SetupDiOpenDevRegKey2 failed Error "})
    {
        EXPECT_TRUE(recorder.HasMessageStarting(text)) << std::string(text, text + std::wstring_view(text).size());
    }
}

TEST_F(DeviceTreeTest, NetworkValuesThatAreMissingOrOfAnotherTypeAreTold)
{
    const int net = tree.Add(pci, L"net", L"Net", L"");
    DeviceNode node = helper.GetNode(static_cast<DEVINST>(net + 1));
    EXPECT_EQ(L"", node.SettingId);
    EXPECT_FALSE(node.HasWmbDrivers);
    EXPECT_TRUE(recorder.HasMessage(L"Could not get NetCfgInstanceId, 0x2"));
    EXPECT_TRUE(recorder.HasMessage(L"Could not get *MediaType, 0x2"));
    tree.SetKeyValue(net, L"DRV", L"NetCfgInstanceId", REG_DWORD, std::wstring(L"\x1\0", 2));
    tree.SetKeyValue(net, L"DRV", L"*MediaType", REG_SZ, std::wstring(L"9\0", 2));
    node = helper.GetNode(static_cast<DEVINST>(net + 1));
    EXPECT_EQ(L"", node.SettingId);
    EXPECT_FALSE(node.HasWmbDrivers);
    EXPECT_TRUE(recorder.HasMessage(L"Invalid setting ID registry type = 4"));
    EXPECT_TRUE(recorder.HasMessage(L"Invalid media type registry type = 1"));
}

TEST_F(DeviceTreeTest, MediaTypeOtherThanNineHasNoWirelessWideAreaDrivers)
{
    const int net = tree.Add(pci, L"net", L"Net", L"");
    tree.SetKeyValue(net, L"DRV", L"*MediaType", REG_DWORD, std::wstring(L"\x8\0", 2));
    EXPECT_FALSE(helper.GetNode(static_cast<DEVINST>(net + 1)).HasWmbDrivers);
}

TEST_F(DeviceTreeTest, PropertyThatIsMissingOrOfAnotherTypeGivesOneEmptyString)
{
    const int net = tree.Add(pci, L"net", L"Net", L"");
    tree[net].setupProperties[SPDRP_FRIENDLYNAME] = {REG_BINARY, L"ab"};
    tree[net].setupProperties.erase(SPDRP_MFG);
    const DeviceNode node = helper.GetNode(static_cast<DEVINST>(net + 1));
    EXPECT_EQ(L"", node.FriendlyName);
    EXPECT_EQ(L"", node.Manufacturer);
    EXPECT_EQ(L"", node.HardwareId) << "an empty list gets one empty string";
    EXPECT_TRUE(recorder.HasMessage(L"SetupDiGetDeviceRegistryPropertyW: Unsupported type 0xc 0x3"));
    EXPECT_TRUE(recorder.HasMessage(FormatText(L"Failed SetupDiGetDeviceRegistryPropertyW 0xb {:#x} - {}",
                                               ERROR_INVALID_DATA, SystemErrorText(ERROR_INVALID_DATA))));
    EXPECT_EQ((std::list<std::wstring>{L""}),
              helper.GetRegistryProperty(static_cast<DEVINST>(net + 1), CM_DRP_FRIENDLYNAME));
    EXPECT_TRUE(recorder.HasMessage(L"CM_Get_DevNode_Registry_PropertyW: Unsupported type 0xd 0x3"));
}
} // namespace
