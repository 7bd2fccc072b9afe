#include "NetUtilities/DeviceText.h"

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/DeviceInfoHelper.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
using NetUtilities::DeviceInfo;
using NetUtilities::DeviceInfoHelper;
using NetUtilities::DeviceNode;

struct Identity
{
    bool found;
    std::wstring vid;
    std::wstring pid;
    bool operator==(const Identity&) const = default;
};

Identity Find(const std::list<std::wstring>& ids)
{
    Identity identity{};
    identity.found = DeviceText::FindUsbIdentity(ids, identity.vid, identity.pid);
    return identity;
}

TEST(UsbIdentity, CapitalsComeOutInLowerCaseWithTheirPrefix)
{
    EXPECT_EQ((Identity{true, L"vid_0bda", L"pid_8153"}), Find({L"USB\\VID_0BDA&PID_8153"}));
}

TEST(UsbIdentity, ThirdPartIsNotTaken)
{
    EXPECT_EQ((Identity{true, L"vid_0bda", L"pid_8153"}), Find({L"USB\\VID_0BDA&PID_8153&REV_3000&MI_00"}));
}

TEST(UsbIdentity, TextThatEndsBehindTheDigitsIsTakenToItsEnd)
{
    EXPECT_EQ((Identity{true, L"vid_1", L"pid_2"}), Find({L"pid_2&vid_1"}));
}

TEST(UsbIdentity, UnderscoreEndsAPartToo)
{
    EXPECT_EQ((Identity{true, L"vid_12", L"pid_34"}), Find({L"VID_12_x&PID_34_y"}));
}

TEST(UsbIdentity, FirstStringWithBothPartsWins)
{
    EXPECT_EQ((Identity{true, L"vid_3", L"pid_4"}),
              Find({L"USB\\VID_1&REV_2", L"USB\\VID_3&PID_4", L"USB\\VID_5&PID_6"}));
}

TEST(UsbIdentity, NoneLeavesTheTextsAlone)
{
    EXPECT_EQ((Identity{false, L"", L""}), Find({}));
    EXPECT_EQ((Identity{false, L"", L""}), Find({L"", L"PCI\\VEN_8086&DEV_15B8"}));
    std::wstring vid = L"v";
    std::wstring pid = L"p";
    EXPECT_FALSE(DeviceText::FindUsbIdentity({L"USB\\VID_1"}, vid, pid));
    EXPECT_EQ(L"v", vid);
    EXPECT_EQ(L"p", pid);
}

std::span<const std::byte> Bytes(std::wstring_view text)
{
    return std::as_bytes(std::span(text));
}

TEST(DeviceProperty, StringsOfEachKnownType)
{
    using List = std::list<std::wstring>;
    EXPECT_EQ(List{L"abc"}, DeviceText::PropertyStrings(REG_SZ, Bytes(std::wstring_view(L"abc\0", 4))));
    EXPECT_EQ(List{L"abc"}, DeviceText::PropertyStrings(REG_SZ, Bytes(L"abc")));
    EXPECT_EQ((List{L"a", L"b"}), DeviceText::PropertyStrings(REG_MULTI_SZ, Bytes(std::wstring_view(L"a\0b\0\0", 5))));
    const std::uint32_t number = 4000000000;
    EXPECT_EQ(List{L"4000000000"}, DeviceText::PropertyStrings(REG_DWORD, std::as_bytes(std::span(&number, 1))));
}

TEST(DeviceProperty, OtherTypesGiveNothing)
{
    EXPECT_EQ(std::nullopt, DeviceText::PropertyStrings(REG_BINARY, Bytes(L"ab")));
    EXPECT_EQ(std::nullopt, DeviceText::PropertyStrings(REG_EXPAND_SZ, Bytes(L"ab")));
}

TEST(DeviceInfoHelperTest, ClassNamesAreExact)
{
    DeviceInfoHelper helper(Log::Source::NetMon);
    EXPECT_EQ(DeviceNode::DeviceClass::USB, helper.GetClass(L"USB"));
    EXPECT_EQ(DeviceNode::DeviceClass::Net, helper.GetClass(L"Net"));
    EXPECT_EQ(DeviceNode::DeviceClass::Modem, helper.GetClass(L"Modem"));
    EXPECT_EQ(DeviceNode::DeviceClass::Ports, helper.GetClass(L"Ports"));
    EXPECT_EQ(DeviceNode::DeviceClass::WPD, helper.GetClass(L"WPD"));
    EXPECT_EQ(DeviceNode::DeviceClass::CDROM, helper.GetClass(L"CDROM"));
    EXPECT_EQ(DeviceNode::DeviceClass::DiskDrive, helper.GetClass(L"DiskDrive"));
    EXPECT_EQ(DeviceNode::DeviceClass::Unknown, helper.GetClass(L"net"));
    EXPECT_EQ(DeviceNode::DeviceClass::Unknown, helper.GetClass(L""));
}

TEST(DeviceInfoHelperTest, EmptyIdWithoutWholeTreeIsRefused)
{
    (void)TraceRecorder::Get().Lines(); // what other tests traced has arrived
    TraceRecorder::Get().Reset();
    DeviceInfoHelper helper(Log::Source::NetMon);
    DeviceInfo info;
    info.PID = L"untouched";
    EXPECT_FALSE(helper.GetDeviceInfo(L"", info, false));
    EXPECT_EQ(L"untouched", info.PID);
    EXPECT_TRUE(TraceRecorder::Get().HasMessage(
        L"does not support getting the whole PC device tree using an empty string, as that is likely a bug"));
}

TEST(DeviceInfoHelperTest, ConstructorAndDestructorWriteScopeLinesToTheGivenSource)
{
    (void)TraceRecorder::Get().Lines(); // what other tests traced has arrived
    TraceRecorder::Get().Reset();
    {
        const DeviceInfoHelper helper(Log::Source::WiFi);
    }
    const auto lines = TraceRecorder::Get().Lines();
    ASSERT_EQ(4U, lines.size());
    EXPECT_TRUE(lines[0].Message().starts_with(L"Enter ==> NetUtilities::DeviceInfoHelper::DeviceInfoHelper pid"));
    EXPECT_TRUE(lines[2].Message().starts_with(L"Enter ==> NetUtilities::DeviceInfoHelper::~DeviceInfoHelper pid"));
    EXPECT_EQ(31, lines[3].source);
}
} // namespace
