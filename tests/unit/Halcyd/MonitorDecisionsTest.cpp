// What the monitor decides from values alone.

#include <gtest/gtest.h>

#include "Halcyd/AdapterEvents.h"
#include "Halcyd/AdapterGates.h"
#include "Halcyd/LinkSpeed.h"
#include "Halcyd/ModuleDirectory.h"
#include "Halcyd/SignalPercent.h"
#include "Halcyd/SignalRule.h"
#include "Halcyd/WiFiText.h"
#include "Halcyd/WinsServers.h"
#include "Halcyd/WmiEventQueue.h"
#include "Halcyd/WmiValues.h"
#include "tests/unit/Halcyd/FakeWmi.h"

namespace
{
TEST(AdapterGates, IgnoredServicesAreComparedExactlyAndTheEmptyNameIsOne)
{
    for (const wchar_t* name : {L"", L"tvnic", L"TUNMP", L"VMnetAdapter", L"Eacfilt", L"IPSECSHM", L"VPCNetS2",
                                L"SymIMMP", L"tmcfw", L"tunnel", L"usb_rndisx", L"AsyncMac", L"FirehkMP"})
    {
        EXPECT_TRUE(IsIgnoredAdapterService(name)) << name;
    }
    for (const wchar_t* name : {L"Tunnel", L"TVNIC", L"tunnel ", L"e1d65x64"})
    {
        EXPECT_FALSE(IsIgnoredAdapterService(name)) << name;
    }
}

TEST(AdapterGates, HardwareNeedsCharacteristicsWithoutTheVirtualBit)
{
    EXPECT_TRUE(IsHardwareAdapter(true, 0x84));
    EXPECT_FALSE(IsHardwareAdapter(true, 0x85));
    EXPECT_FALSE(IsHardwareAdapter(false, 0x84)); // a class key without the value
}

TEST(AdapterGates, ComPortsInAnyLetterCase)
{
    EXPECT_TRUE(NamesComPort(L"COM3"));
    EXPECT_TRUE(NamesComPort(L"coM17"));
    EXPECT_FALSE(NamesComPort(L"CO"));
    EXPECT_FALSE(NamesComPort(L"{4A1C7E07}"));
}

TEST(AdapterGates, KindByMediumAndPhysicalMedium)
{
    EXPECT_EQ(DecideByMedium(0).type, enumEthernet);
    EXPECT_TRUE(DecideByMedium(0).askPhysicalMedium);
    EXPECT_EQ(DecideByMedium(9).type, enumUnknown);
    EXPECT_TRUE(DecideByMedium(9).askPhysicalMedium);
    EXPECT_EQ(DecideByMedium(10).type, enumInfrared);
    EXPECT_FALSE(DecideByMedium(10).askPhysicalMedium);
    EXPECT_EQ(DecideByMedium(13).type, enum1394);
    EXPECT_FALSE(DecideByMedium(13).askPhysicalMedium);
    EXPECT_EQ(DecideByMedium(16).type, enumUnknown); // native 802.11 reported as such
    EXPECT_FALSE(DecideByMedium(16).askPhysicalMedium);

    EXPECT_EQ(DecideByPhysicalMedium(enumEthernet, 1).type, enumWiFi);
    EXPECT_EQ(DecideByPhysicalMedium(enumEthernet, 9).type, enumWiFi);
    EXPECT_EQ(DecideByPhysicalMedium(enumEthernet, 7).type, enum1394);
    EXPECT_EQ(DecideByPhysicalMedium(enumEthernet, 10).type, enumBluetooth);
    EXPECT_EQ(DecideByPhysicalMedium(enumEthernet, 8).type, enumEthernet); // wireless wide area
    EXPECT_FALSE(DecideByPhysicalMedium(enumEthernet, 8).decided);
    EXPECT_EQ(DecideByPhysicalMedium(enumUnknown, 8).type, enumUnknown);
}

TEST(AdapterGates, BracesAndBrackets)
{
    EXPECT_EQ(FromFirstBrace(L"\\DEVICE\\{AB}"), L"{AB}");
    EXPECT_EQ(FromFirstBrace(L"no brace"), L"no brace"); // asked for as it stands
    EXPECT_EQ(WithoutBracketedIndex(L"[00000007] Some Adapter"), L"Some Adapter");
    EXPECT_EQ(WithoutBracketedIndex(L"Some [7] Adapter"), L"Some [7] Adapter");
    EXPECT_EQ(WithoutBracketedIndex(L"[7]"), L"[7]");
    EXPECT_TRUE(SameTextAnyCase(L"{aB}", L"{Ab}"));
    EXPECT_FALSE(SameTextAnyCase(L"{ab}", L"{ab"));
}

TEST(LinkSpeed, WrapsIn32Bits)
{
    EXPECT_EQ(LinkSpeedMbps(1'000'000), 100u);
    EXPECT_EQ(LinkSpeedMbps(10'000'000), 1000u);
    EXPECT_EQ(LinkSpeedMbps(100'000'000), 1410u); // 10 Gbit/s
    EXPECT_EQ(LinkSpeedForClient(100), 100'000'000u);
    EXPECT_EQ(LinkSpeedForClient(4294), 4'294'000'000u);
    EXPECT_EQ(LinkSpeedForClient(5000), 705'032'704u);
}

TEST(SignalPercent, EveryBandAndItsEdges)
{
    const std::pair<int, int> table[] = {{0, 0},    {-1, 100}, {-50, 100}, {-51, 95}, {-58, 95}, {-59, 90}, {-62, 90},
                                         {-63, 65}, {-67, 65}, {-68, 50},  {-71, 50}, {-72, 40}, {-76, 40}, {-77, 25},
                                         {-81, 25}, {-82, 10}, {-90, 10},  {-91, 5},  {-200, 5}, {3, 100}};
    for (const auto& [dbm, percent] : table)
    {
        EXPECT_EQ(SignalPercent(dbm), percent) << dbm;
    }
}

TEST(SignalRule, FiveIsSilentSixIsTold)
{
    EXPECT_FALSE(SignalIsWorthTelling(-60, -55));
    EXPECT_TRUE(SignalIsWorthTelling(-60, -54));
    EXPECT_FALSE(SignalIsWorthTelling(-60, -65));
    EXPECT_TRUE(SignalIsWorthTelling(-60, -66));
    EXPECT_TRUE(SignalIsWorthTelling(0, -999));
}

TEST(SignalRule, ClockDifferencesHoldAcrossTheWrap)
{
    EXPECT_EQ(ClockDifference(100, -60000), 60100);
    EXPECT_EQ(ClockDifference(static_cast<std::int32_t>(0x80000010), 0x7FFFFFF0), 0x20);
}

TEST(WinsServers, PrimaryAloneIsDropped)
{
    EXPECT_EQ(JoinWinsServers(L"10.0.0.1", L"10.0.0.2"), L"10.0.0.1:10.0.0.2");
    EXPECT_EQ(JoinWinsServers(L"10.0.0.1", L""), L"");
    EXPECT_EQ(JoinWinsServers(L"", L"10.0.0.2"), L"10.0.0.2");
    EXPECT_EQ(JoinWinsServers(L"", L""), L"");
}

TEST(WmiValues, JoinTakesTheFirstEntriesAndGivesTheEmptyTextForAnythingElse)
{
    const _variant_t three = TextArray({L"a", L"b", L"c"});
    EXPECT_EQ(JoinStrings(three, L",", 1), L"a");
    EXPECT_EQ(JoinStrings(three, L",", 0), L"a,b,c");
    EXPECT_EQ(JoinStrings(three, L",", 9), L"a,b,c");
    EXPECT_EQ(JoinStrings(WmiNull(), L",", 0), L"");
    EXPECT_EQ(JoinStrings(_variant_t(L"text"), L",", 0), L"");
    EXPECT_EQ(JoinStrings(TextArray({}), L",", 1), L"");
}

TEST(ModuleDirectory, FolderWithItsBackslashWithoutALeadingQuote)
{
    EXPECT_EQ(FolderOfModulePath(L"\"C:\\Program Files\\Halcyd\\Halcyd.exe"), L"C:\\Program Files\\Halcyd\\");
    EXPECT_EQ(FolderOfModulePath(L"Halcyd.exe"), L"Halcyd.exe");
    EXPECT_EQ(FolderOfModulePath(L""), L"");
}

TEST(WiFiText, NamesMacsAndLists)
{
    EXPECT_EQ(WiFiDeviceName(L"{AB}"), L"\\DEVICE\\{AB}");
    EXPECT_EQ(MacAddressText({0x02, 0, 0x5E, 0xAB, 0xC, 0xFF}), L"02:00:5e:ab:0c:ff");
    EXPECT_EQ(SplitAtCommas(L"a,,b"), (std::vector<std::wstring>{L"a", L"", L"b"}));
    EXPECT_TRUE(SplitAtCommas(L"").empty());
}

TEST(NotificationEventName, UnknownValueHasAnEmptyName)
{
    EXPECT_EQ(NotificationEventName(3), L"enumEventMediaConnect");
    EXPECT_EQ(NotificationEventName(11), L"enumEventWiFiAddedSSIDs");
    EXPECT_EQ(NotificationEventName(12), L"");
}

TEST(WmiEventQueue, KeepsTheOrderAndDropsWithoutReleasing)
{
    PlainMutex mutex;
    MutexLock lock(mutex);
    WmiEventQueue queue;
    auto* const first = new FakeClassObject;
    auto* const second = new FakeClassObject;
    first->AddRef();
    second->AddRef();
    queue.Push(first, mutex);
    queue.Push(second, mutex);
    EXPECT_EQ(queue.Pop(mutex), first);
    queue.DropAll();
    queue.Push(first, mutex);
    EXPECT_EQ(queue.Pop(mutex), first);
    EXPECT_EQ(queue.Pop(mutex), nullptr);
    EXPECT_EQ(second->References(), 1); // the dropped reference is lost on purpose
    first->Release();
    second->Release();
}
} // namespace
