// Changes of unicast addresses on their way to a client: one update at a time, one more pending, half a second apart.

#include "Host/HostSupport.h"
#include "Monitor/LiveMonitor.h"

namespace
{
constexpr std::uint64_t kSpacing = 500; // milliseconds
constexpr wchar_t kNoAdapter[] = L"no node";

class AddressChange : public LiveMonitorTest
{
protected:
    // What has not come by now does not come: an update takes a fraction of this.
    static void LetThingsSettle() { Sleep(2000); }
    int Changes() { return Count(enumEventIpChange, kNoAdapter); }
};

TEST_F(AddressChange, OneChangeGivesOneEventThatNamesNoAdapterAndTheListHasTheAddress)
{
    Lab(L"address remove eth0 192.0.2.23");
    const auto told = sink->Recorder().WaitForEvent(enumEventIpChange, 60'000);
    ASSERT_TRUE(told.has_value());
    EXPECT_EQ(told->deviceId, kNoAdapter);
    EXPECT_EQ(told->secondType, VT_BSTR);
    EXPECT_EQ(told->adjacentMac.value_or(L""), L""); // a null text may arrive as an empty one
    const auto adapter = Adapter(kEthernet);
    ASSERT_TRUE(adapter.has_value());
    EXPECT_NE(adapter->ipAddress.value_or(L""), L"192.0.2.23");
    LetThingsSettle();
    EXPECT_EQ(Changes(), 1);
}

TEST_F(AddressChange, TenChangesAtOnceGiveTwoEventsHalfASecondApart)
{
    Lab(L"storm --kind address --adapters eth0,wlan0 --batch 10 --events 10");
    ASSERT_TRUE(WaitForMany(2, enumEventIpChange, kNoAdapter));
    const auto told = Told(enumEventIpChange, kNoAdapter);
    EXPECT_GE(told[1].tick + 16, told[0].tick + kSpacing); // a tick may be 16 ms long
    LetThingsSettle();
    EXPECT_EQ(Changes(), 2);
}

TEST_F(AddressChange, ChangeDuringTheSpacingYieldsOneMoreUpdateAndThatIsTheLast)
{
    Lab(L"address add eth0 192.0.2.99/24");
    const auto first = sink->Recorder().WaitForEvent(enumEventIpChange, 60'000);
    ASSERT_TRUE(first.has_value());
    Lab(L"address remove eth0 192.0.2.99");
    ASSERT_TRUE(WaitForMany(2, enumEventIpChange, kNoAdapter));
    EXPECT_GE(Told(enumEventIpChange, kNoAdapter)[1].tick + 16, first->tick + kSpacing);
    LetThingsSettle();
    EXPECT_EQ(Changes(), 2);
}

TEST_F(AddressChange, CloseDuringTheWalkEndsItEarlyAndNothingIsTold)
{
    Lab(L"slow IEnumWbemClassObject::Next --ms 200");
    Lab(L"address add eth0 192.0.2.99/24");
    ASSERT_TRUE(HostSupport::WaitForTrace(L"because of unicast IP change event"));
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(Changes(), 0);
    EXPECT_TRUE(HostSupport::WaitForTrace(L"WMI Cleanup event set, exiting early from handle UnicastIPChange"));
    Lab(L"fail clear");
    EXPECT_EQ(monitor->Open(), S_OK);
}

TEST_F(AddressChange, MonitorClosedDuringTheSpacingTellsTheNextChangeOnceItIsOpenAgain)
{
    Lab(L"address add eth0 192.0.2.99/24");
    ASSERT_TRUE(sink->Recorder().WaitForEvent(enumEventIpChange, 60'000).has_value());
    // The update that the close cut short leaves its mark; an open begins without it.
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->Open(), S_OK);
    sink->Recorder().Clear();
    Lab(L"address remove eth0 192.0.2.99");
    EXPECT_TRUE(sink->Recorder().WaitForEvent(enumEventIpChange, 60'000).has_value());
}

TEST_F(AddressChange, RegistrationIsForBothFamiliesWithoutAFirstCallAndCloseCancelsIt)
{
    EXPECT_EQ(monitor->Close(), S_OK);
    Lab(L"journal --clear");
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    const std::string registered = Lab(L"journal --json --call NotifyUnicastIpAddressChange");
    EXPECT_NE(registered.find(R"("family":0,"initial":false)"), std::string::npos) << registered;
    EXPECT_EQ(Lab(L"journal --count --call CancelMibChangeNotify2").substr(0, 1), "1");
    EXPECT_EQ(monitor->Open(), S_OK);
}
} // namespace
