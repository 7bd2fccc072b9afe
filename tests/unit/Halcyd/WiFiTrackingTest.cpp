// A Wi-Fi adapter's extension, the networks in view, its timer, and the thread of the Wi-Fi library's signal.

#include <gtest/gtest.h>

#include <winsock2.h>
#include <windows.h>
#include <ntddndis.h>

#include <ctime>
#include <thread>

#include "NetUtilities/GlobalObjectName.h"
#include "tests/unit/Halcyd/FakeWiFi.h"
#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/support/VirtualClock.h"

// clang-format off
PLATFORM_HOOK(ImpersonateLoggedOnUser, L"advapi32.dll", BOOL(HANDLE))
PLATFORM_HOOK(RevertToSelf, L"advapi32.dll", BOOL())
PLATFORM_HOOK(DeleteTimerQueueTimer, L"kernel32.dll", BOOL(HANDLE, HANDLE, HANDLE))
// clang-format on
extern "C"
{
    decltype(&ImpersonateLoggedOnUserHook::Call) __imp_ImpersonateLoggedOnUser = &ImpersonateLoggedOnUserHook::Call;
    decltype(&RevertToSelfHook::Call) __imp_RevertToSelf = &RevertToSelfHook::Call;
    decltype(&DeleteTimerQueueTimerHook::Call) __imp_DeleteTimerQueueTimer = &DeleteTimerQueueTimerHook::Call;
}

namespace
{
constexpr wchar_t id[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
const std::wstring device = std::wstring(L"\\DEVICE\\") + id;

std::int32_t Now()
{
    return static_cast<std::int32_t>(std::clock());
}

class WiFiTracking : public testing::Test
{
protected:
    WiFiTracking()
    {
        FakeMiniport& driver = miniports.AddEthernet(id);
        driver.Set(OID_GEN_PHYSICAL_MEDIUM, NdisPhysicalMediumNative802_11);
        driver.Set(OID_GEN_LINK_SPEED, 8'667'000u);
        EXPECT_EQ(point->Advise(&sink, &cookie), S_OK);
        element->AdapterType = enumWiFi;
        element->DeviceStatus = -1;
        monitor->SetForcedSurveys(2, 0);
        CNetMonSv::m_instance = monitor.Get(); // for the timer
    }
    ~WiFiTracking() override
    {
        monitor->StopPool();
        monitor->MyDeleteTimerQueue();
        point->Unadvise(cookie);
        point->Release();
        CNetMonSv::m_instance = nullptr;
    }
    static IWbemClassObjectPtr Object() { return MakeObject({{L"MACAddress", L"02:00:5E:00:53:09"}}); }
    // An extension without a timer.
    _WIFI_ADAPTER& Extend()
    {
        auto* const extension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
        *extension = {};
        element->u.pWiFiAdapter = extension;
        return *extension;
    }
    [[nodiscard]] std::vector<int> Told()
    {
        std::vector<int> kinds;
        for (const ToldEvent& event : sink.Events())
        {
            kinds.push_back(event.event);
        }
        return kinds;
    }
    [[nodiscard]] std::vector<std::wstring> Ssids() const
    {
        std::vector<std::wstring> names;
        for (const _WIFI_DETAILS* network = element->u.pWiFiAdapter->pDetails; network != nullptr;
             network = network->pNext)
        {
            names.emplace_back(network->Ssid);
        }
        return names;
    }

    HookScope hooks;
    MiniportScope miniports;
    WiFiScope wifi;
    VirtualClock clock;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    _DEVICE_ELEMENT* element = monitor->Add(id);
    TestSink sink;
    IConnectionPoint* point = EventPoint(monitor.Get());
    DWORD cookie = 0;
    TraceLines trace;
};

// --- the extension ---

TEST_F(WiFiTracking, NullNodeFails)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(nullptr, Object()), E_FAIL);
    EXPECT_EQ(monitor->GetWiFiDetails(nullptr), E_FAIL);
    EXPECT_EQ(trace.Count(L"pNode == NULL"), 2);
}

TEST_F(WiFiTracking, ReadyAdapterGetsAnExtensionWithATimer)
{
    monitor->timerQueue = CreateTimerQueue();
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    const _WIFI_ADAPTER* const extension = element->u.pWiFiAdapter;
    ASSERT_NE(extension, nullptr);
    EXPECT_NE(extension->hTimer, nullptr);
    EXPECT_STREQ(extension->AdapterMacAddress, L"02:00:5E:00:53:09");
    EXPECT_EQ(extension->LinkSpeed, 866u);
    EXPECT_STREQ(extension->DriverInfo, L"00000ABC : 00050001 : Test Vendor");
    EXPECT_STREQ(extension->BssidMacAddress, L"02:00:5e:00:53:ab");
    EXPECT_STREQ(extension->Ssid, L"home");
    EXPECT_EQ(element->ConnectStatus, 0);
    EXPECT_EQ(extension->LastSurveyTime, -60000); // no network in view, so no refresh
    EXPECT_EQ(FirstMissingInOrder({
                  std::wstring(L"creating new device extension for '") + id + L"'",
                  L"created wifi timer (",
                  L"setting the mac for the wifi device to '02:00:5E:00:53:09'",
                  L"setting the link speed to '866'",
                  L"setting the driver info string to '00000ABC : 00050001 : Test Vendor'",
                  L"setting the driver info string to 'NdisMediaStateConnected'",
                  L"associated to 02:00:5e:00:53:ab",
                  L"determined that we are associated with with an SSID 'home'",
              }),
              L"");
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(element->u.pWiFiAdapter, extension); // made once
    EXPECT_EQ(trace.Count(L"creating new device extension for"), 1);
}

TEST_F(WiFiTracking, WithoutATimerQueueTheAdapterDoesWithoutATimer)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(L"could not create wifi timer"));
    EXPECT_EQ(element->u.pWiFiAdapter->hTimer, nullptr);
    EXPECT_STREQ(element->u.pWiFiAdapter->Ssid, L"home");
}

TEST_F(WiFiTracking, WithoutMemoryThereIsNoExtensionUntilTheNextUpdate)
{
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), E_OUTOFMEMORY);
    EXPECT_TRUE(trace.Has(L"Error could not allocate memory for device extension"));
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
    EXPECT_TRUE(wifi.Calls().empty());
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_NE(element->u.pWiFiAdapter, nullptr);
}

TEST_F(WiFiTracking, AdapterThatIsNotReadyLosesItsExtension)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    element->DeviceStatus = 0;
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(std::wstring(L"device ") + id + L" does not have ip enabled...deleting device extension"));
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
}

TEST_F(WiFiTracking, DriverThatCannotBeOpenedLeavesTheLinkDataAlone)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    miniports.adapters.clear();
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(std::wstring(L"could not open driver for '") + id + L"'"));
    EXPECT_EQ(element->u.pWiFiAdapter->LinkSpeed, 866u);
}

TEST_F(WiFiTracking, EachMediaStateHasItsName)
{
    miniports.adapters[id].Set(OID_GEN_MEDIA_CONNECT_STATUS, 1u);
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(L"setting the driver info string to 'NdisMediaStateDisconnected'"));
    miniports.adapters[id].Set(OID_GEN_MEDIA_CONNECT_STATUS, 2u);
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(L"setting the driver info string to 'media state unknown'"));
}

TEST_F(WiFiTracking, DisconnectedMediaHasNoNetworkAndTheLibraryIsNotAsked)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    miniports.adapters[id].Set(OID_GEN_MEDIA_CONNECT_STATUS, 1u);
    const int asked = wifi.Count(L"WiFiGetSsid " + device);
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(element->u.pWiFiAdapter->Ssid, nullptr);
    EXPECT_EQ(element->u.pWiFiAdapter->BssidMacAddress, nullptr);
    EXPECT_EQ(wifi.Count(L"WiFiGetSsid " + device), asked);
    EXPECT_TRUE(trace.Has(L"since the media is disconnected set the SSID and the associated MAC address to NULL"));
}

TEST_F(WiFiTracking, AssociationThatCannotBeReadCountsAsDisconnected)
{
    wifi.accessPointResult = ERROR_NOT_FOUND;
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_EQ(element->u.pWiFiAdapter->BssidMacAddress, nullptr);
    EXPECT_TRUE(trace.Has(L"not associated to any hotspot"));
    wifi.accessPointResult = ERROR_SUCCESS;
    wifi.ssidResult = ERROR_NOT_FOUND;
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(element->ConnectStatus, 1);
    EXPECT_EQ(element->u.pWiFiAdapter->Ssid, nullptr);
    EXPECT_EQ(element->u.pWiFiAdapter->BssidMacAddress, nullptr);
    EXPECT_TRUE(trace.Has(L"could not get SSID for associate adapter"));
    wifi.ssidResult = ERROR_SUCCESS;
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(element->ConnectStatus, 0);
}

TEST_F(WiFiTracking, EachHandleOfTheLibraryGoesBack)
{
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiOpen"), 2);
    EXPECT_EQ(wifi.Count(L"WiFiClose"), 2);
    wifi.available = false;
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_TRUE(trace.Has(L"could not open the wifi device handle"));
    EXPECT_EQ(wifi.Count(L"WiFiOpen"), 4);
    EXPECT_EQ(wifi.Count(L"WiFiClose"), 2);
}

// --- the networks ---

TEST_F(WiFiTracking, WithoutAnExtensionThereIsNothingToRefresh)
{
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"there is not a wifi device extension"));
    EXPECT_TRUE(wifi.Calls().empty());
}

TEST_F(WiFiTracking, NewNetworksAreToldOnceThroughThePoolBesideTheSignal)
{
    _WIFI_ADAPTER& extension = Extend();
    monitor->StartPool();
    wifi.networks = {WiFiScope::Network(L"home", -60), WiFiScope::Network(L"cafe", -70)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(Ssids(), (std::vector<std::wstring>{L"home", L"cafe"}));
    EXPECT_EQ(extension.LastSignalStrength, -60);
    EXPECT_GE(extension.LastSurveyTime, 0);
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK); // the same networks again
    monitor->StopPool();
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 2u); // in either order: each may have a thread of the pool to itself
    const std::size_t signal = events[0].event == enumEventWiFiSignalStrength ? 0 : 1;
    EXPECT_EQ(events[signal].event, enumEventWiFiSignalStrength);
    EXPECT_EQ(events[signal].deviceId, id);
    EXPECT_EQ(events[1 - signal].event, enumEventWiFiAddedSSIDs);
    EXPECT_EQ(events[1 - signal].deviceId, std::nullopt);
    EXPECT_EQ(events[1 - signal].adjacentMac, std::nullopt);
    EXPECT_TRUE(trace.Has(L"allocated a new WIFI_DETAILS structure 'home'"));
    EXPECT_TRUE(trace.Has(L"reached the end of the bssid enumeration"));
    EXPECT_TRUE(trace.Has(L"deleting the list of wifi SSIDs"));
}

TEST_F(WiFiTracking, EventsAreLostWhenThePoolDoesNotRun)
{
    Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"Failed to enqueue wifi signal strength event"));
    EXPECT_TRUE(trace.Has(L"Failed to enqueue added wifi adapter event"));
    EXPECT_TRUE(sink.Events().empty());
}

TEST_F(WiFiTracking, WithoutMemoryForTheEventItIsLost)
{
    Extend().LastSignalStrength = -60;
    monitor->StartPool();
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    {
        const NothrowNewFails shortage(sizeof(NetUtilities::WorkItemMember1<CNetMonSv, AsyncEventContext>));
        EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
        EXPECT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_TRUE(trace.Has(L"Failed to enqueue added wifi adapter event"));
    monitor->StopPool();
    EXPECT_TRUE(sink.Events().empty());
}

TEST_F(WiFiTracking, NoNetworkInViewAndNoneOnTheListTellsNothing)
{
    Extend();
    monitor->StartPool();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    monitor->StopPool();
    EXPECT_TRUE(sink.Events().empty());
}

TEST_F(WiFiTracking, WiFiThatGoesAwayIsToldTwiceDirectlyAndTheListIsEmptied)
{
    _WIFI_ADAPTER& extension = Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK); // its events are lost: the pool does not run
    wifi.networks.clear();
    TraceLines::Clear();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(Told(), (std::vector<int>{enumEventWiFiSignalStrength, enumEventNetworkChange}));
    for (const ToldEvent& event : sink.Events())
    {
        EXPECT_EQ(event.deviceId, id);
        EXPECT_EQ(event.adjacentMac, std::nullopt);
    }
    EXPECT_EQ(extension.pDetails, nullptr);
    EXPECT_EQ(extension.LastSignalStrength, 0);
    EXPECT_EQ(FirstMissingInOrder({
                  L"reached the end of the bssid enumeration",
                  L"wifi device still has ssids mapped to it when there are none detected...forcing a delete",
                  L"firing RSSI event so the client will know that wifi was turned off",
                  L"EVENT: Fire_AdapterChange",
                  L"firing network change event so the client will know that wifi was turned off",
                  L"EVENT: Fire_AdapterChange",
                  L"deleting the list of wifi SSIDs",
              }),
              L"");
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(sink.Events().size(), 2u); // told once
}

TEST_F(WiFiTracking, EnumerationThatFailsAtOnceKeepsTheNetworks)
{
    _WIFI_ADAPTER& extension = Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    wifi.networks.clear();
    wifi.enumerationEnd = ERROR_GEN_FAILURE;
    TraceLines::Clear();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"enumerating hotspot list"));
    EXPECT_TRUE(trace.Has(L"not firing wifi signal strength change")); // the signal is looked at all the same
    EXPECT_NE(extension.pDetails, nullptr);
    EXPECT_TRUE(sink.Events().empty());
}

TEST_F(WiFiTracking, NetworkWithoutMemoryIsLeftOutUntilTheNextRefresh)
{
    Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60), WiFiScope::Network(L"cafe", -70)};
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"could not allocate the needed memory"));
    EXPECT_EQ(Ssids(), std::vector<std::wstring>{L"cafe"});
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(Ssids(), (std::vector<std::wstring>{L"cafe", L"home"}));
}

TEST_F(WiFiTracking, NetworkThatDroppedOutCountsAsNewAgain)
{
    Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60), WiFiScope::Network(L"cafe", -70)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    element->u.pWiFiAdapter->pDetails->pNext->Timestamp -= 10000;
    wifi.networks.pop_back();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(Ssids(), std::vector<std::wstring>{L"home"});
    wifi.networks.push_back(WiFiScope::Network(L"cafe", -70));
    TraceLines::Clear();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"allocated a new WIFI_DETAILS structure 'cafe'"));
    EXPECT_TRUE(trace.Has(L"Failed to enqueue added wifi adapter event")); // it would have been told again
}

TEST_F(WiFiTracking, NetworkInUseThatIsGoneWithTheMediaIsSaid)
{
    _WIFI_ADAPTER& extension = Extend();
    TestMonitor::UpdateBstrField(&extension.Ssid, L"home");
    wifi.networks = {WiFiScope::Network(L"home", -60), WiFiScope::Network(L"cafe", -70)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    wifi.networks.clear();
    wifi.enumerationEnd = ERROR_GEN_FAILURE;
    element->ConnectStatus = 1;
    for (_WIFI_DETAILS* network = extension.pDetails; network != nullptr; network = network->pNext)
    {
        network->Timestamp -= 10000;
    }
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(trace.Count(L"DeleteOldWiFiNetworks: the ssid we were associated with has been disconnected"), 1);
    EXPECT_EQ(extension.pDetails, nullptr);
}

TEST_F(WiFiTracking, NetworkLives2500MillisecondsAndNoMore)
{
    // The time is read once inside, so the edges are met from the safe side.
    _WIFI_ADAPTER& extension = Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    extension.pDetails->Timestamp = static_cast<std::uint32_t>(Now() + 5000); // from the future: a negative age
    monitor->RemoveOldNetworks(element);
    EXPECT_NE(extension.pDetails, nullptr);
    extension.pDetails->Timestamp = static_cast<std::uint32_t>(Now() - 2501);
    monitor->RemoveOldNetworks(element);
    EXPECT_EQ(extension.pDetails, nullptr);
    monitor->RemoveOldNetworks(nullptr);
    EXPECT_TRUE(trace.Has(L"DeleteOldWiFiNetworks: problem with device element"));
}

TEST_F(WiFiTracking, TemporaryProfileLosesItsNameAndTheNetworkStays)
{
    Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60, "Home"), WiFiScope::Network(L"cafe", -70, "Guest 7"),
                     WiFiScope::Network(L"bare", -70)};
    wifi.temporaryProfiles = L"guest 7,,Guest 7,Other";
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    const _WIFI_DETAILS* const networks = element->u.pWiFiAdapter->pDetails;
    EXPECT_STREQ(networks->ProfileName, "Home");
    EXPECT_STREQ(networks->pNext->Ssid, L"cafe");
    for (const char character : networks->pNext->ProfileName)
    {
        EXPECT_EQ(character, '\0');
    }
    EXPECT_EQ(trace.Count(L"DeleteOldWiFiNetworks: remove the temp profile '"), 1);
    EXPECT_TRUE(trace.Has(L"DeleteOldWiFiNetworks: remove the temp profile 'Guest 7'"));
}

TEST_F(WiFiTracking, ElementWithoutAnIdIsNotEnumerated)
{
    Extend();
    TestMonitor::UpdateBstrField(&element->DeviceId, nullptr);
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Calls(), (std::vector<std::wstring>{L"WiFiOpen", L"WiFiClose"}));
    EXPECT_TRUE(trace.Has(L"deleting the list of wifi SSIDs"));
}

TEST_F(WiFiTracking, UnavailableLibrarySkipsToTheTemporaryProfiles)
{
    _WIFI_ADAPTER& extension = Extend();
    wifi.networks = {WiFiScope::Network(L"home", -60, "Guest")};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    wifi.available = false;
    wifi.temporaryProfiles = L"Guest";
    TraceLines::Clear();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_FALSE(trace.Has(L"deleting the list of wifi SSIDs"));
    EXPECT_STREQ(extension.pDetails->ProfileName, "");
}

// --- surveys ---

TEST_F(WiFiTracking, SurveyRunsOnceInTheLifeOfTheProcess)
{
    Extend();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_LE(wifi.Count(L"WiFiSurveyEx " + device), 1); // none, if an earlier test has had it
    const int before = wifi.Count(L"WiFiSurveyEx " + device);
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx " + device), before);
}

TEST_F(WiFiTracking, ForcedSurveysAreTwoTenSecondsApart)
{
    Extend();
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK); // takes the first survey of the process, if that is still due
    const int before = wifi.Count(L"WiFiSurveyEx " + device);
    const auto surveys = [&]
    {
        EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
        return wifi.Count(L"WiFiSurveyEx " + device) - before;
    };
    monitor->SetForcedSurveys(0, 0);
    EXPECT_EQ(surveys(), 1);
    EXPECT_TRUE(trace.Has(L"Could perform WiFi survey due to resuming from sleep"));
    EXPECT_TRUE(trace.Has(L"performing a wifi survey"));
    EXPECT_TRUE(trace.Has(L"finished kicking of survey thread"));
    EXPECT_EQ(surveys(), 1); // not ten seconds later
    clock.AdvanceMilliseconds(10000);
    EXPECT_EQ(surveys(), 2);
    clock.AdvanceMilliseconds(20000);
    EXPECT_EQ(surveys(), 2); // two are all
    EXPECT_EQ(trace.Count(L"Could perform WiFi survey due to resuming from sleep"), 2);
}

TEST_F(WiFiTracking, ForcedSurveyNeedsTheNativeRoad)
{
    Extend().LastSurveyTime = Now();
    wifi.native = false;
    monitor->SetForcedSurveys(0, 0);
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_TRUE(trace.Has(L"Could perform WiFi survey due to resuming from sleep"));
    EXPECT_FALSE(trace.Has(L"performing a wifi survey"));
}

TEST_F(WiFiTracking, LegacyRoadSurveysEachMinuteWithoutAHandle)
{
    _WIFI_ADAPTER& extension = Extend();
    wifi.native = false;
    extension.LastSurveyTime = Now() - 59000;
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx without a handle " + device), 0);
    extension.LastSurveyTime = Now() - 60000;
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx without a handle " + device), 1);
    EXPECT_LT(Now() - extension.LastSurveyTime, 30000);
    extension.LastSurveyTime = Now() - 60000;
    wifi.native = true;
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx without a handle " + device), 1);
}

TEST_F(WiFiTracking, ClientsSurveyAsksEachWiFiAdapterAndIgnoresTheResults)
{
    monitor->Add(L"{E}")->AdapterType = enumEthernet;
    monitor->Add(L"{W2}")->AdapterType = enumWiFi;
    EXPECT_EQ(monitor->WiFiSurvey(), S_OK);
    EXPECT_EQ(wifi.Calls(), (std::vector<std::wstring>{L"WiFiOpen", std::wstring(L"WiFiSurveyEx2 ") + id,
                                                       L"WiFiSurveyEx2 {W2}", L"WiFiClose"}));
    wifi.available = false;
    EXPECT_EQ(monitor->WiFiSurvey(), S_OK);
    EXPECT_EQ(wifi.Count(std::wstring(L"WiFiSurveyEx2 ") + id), 2);
    EXPECT_EQ(wifi.Count(L"WiFiClose of a strange handle"), 1); // what the opening gave goes back, whatever it is
}

// --- the list of access points ---

TEST_F(WiFiTracking, AccessPointListGoesAndTheNextSignalIsMeasuredAgainstZero)
{
    EXPECT_EQ(monitor->DeleteAccessPoints(nullptr), S_OK);
    EXPECT_EQ(monitor->DeleteAccessPoints(element), S_OK);
    EXPECT_EQ(trace.Count(L"DeleteWiFiAccessPointList: node is not ready (node="), 2);
    _WIFI_ADAPTER& extension = Extend();
    extension.LastSignalStrength = -60;
    EXPECT_EQ(monitor->DeleteAccessPoints(element), S_OK);
    EXPECT_TRUE(trace.Has(L"DeleteWiFiAccessPointList: linked list of hotspots is NULL"));
    EXPECT_EQ(extension.LastSignalStrength, -60); // nothing was deleted, so it stays
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(monitor->DeleteAccessPoints(element), S_OK);
    EXPECT_EQ(extension.pDetails, nullptr);
    EXPECT_EQ(extension.LastSignalStrength, 0);
}

// --- the timer ---

TEST_F(WiFiTracking, TimersRefreshIsSkippedBelow15100Milliseconds)
{
    EXPECT_EQ(monitor->UpdateFromTimer(nullptr), E_FAIL);
    EXPECT_TRUE(trace.Has(L"WiFiUpdateDetailsFromTimer: node data is null, cannot process this request"));
    EXPECT_EQ(monitor->UpdateFromTimer(element), E_FAIL);
    EXPECT_TRUE(trace.Has(L"WiFiUpdateDetailsFromTimer: the wifi device extension is NULL"));
    _WIFI_ADAPTER& extension = Extend();
    EXPECT_EQ(monitor->UpdateFromTimer(element), E_FAIL);
    EXPECT_TRUE(trace.Has(
        L"WiFiUpdateDetailsFromTimer: timer queue is now null, indicates that there was a problem deleting it"));
    monitor->timerQueue = CreateTimerQueue();
    extension.LastSurveyTime = Now() - 15000;
    EXPECT_EQ(monitor->UpdateFromTimer(element), E_FAIL);
    EXPECT_TRUE(trace.Has(L"WiFiUpdateDetailsFromTimer: recently updated the bssid list...skipping timer update"));
    EXPECT_TRUE(wifi.Calls().empty());
    extension.LastSurveyTime = Now() - 15100;
    wifi.networks = {WiFiScope::Network(L"home", -60)};
    EXPECT_EQ(monitor->UpdateFromTimer(element), S_OK);
    EXPECT_TRUE(trace.Has(std::wstring(L"WiFiUpdateDetailsFromTimer: handling the timer '") + id + L"'"));
    EXPECT_EQ(Ssids(), std::vector<std::wstring>{L"home"});
    // The second look at the signal in one update finds nothing to tell.
    EXPECT_EQ(trace.Count(L"firing wifi signal strength update event"), 1);
    EXPECT_EQ(trace.Count(L"not firing wifi signal strength change"), 1);
}

TEST_F(WiFiTracking, TickDuringAHeldListLockIsLost)
{
    Extend();
    monitor->timerQueue = CreateTimerQueue();
    {
        MutexLock lock(monitor->ListMutex());
        std::thread([&] { CNetMonSv::WiFiTimerCallback(element, TRUE); }).join();
    }
    EXPECT_TRUE(trace.Has(L"# device list is in use...skipping timer update for '"));
    EXPECT_FALSE(trace.Has(L"updating wifi information for node"));
    EXPECT_TRUE(wifi.Calls().empty());
    std::thread([&] { CNetMonSv::WiFiTimerCallback(element, TRUE); }).join();
    EXPECT_TRUE(trace.Has(std::wstring(L"updating wifi information for node '") + id + L"'"));
}

TEST_F(WiFiTracking, TicksWithoutAMonitorAreCountedAndDoNothingElse)
{
    Extend();
    monitor->timerQueue = CreateTimerQueue();
    CNetMonSv::WiFiTimerCallback(element, TRUE); // a good tick begins the count anew
    CNetMonSv::m_instance = nullptr;
    TraceLines::Clear();
    for (int tick = 1; tick <= 11; ++tick)
    {
        CNetMonSv::WiFiTimerCallback(element, TRUE);
    }
    CNetMonSv::m_instance = monitor.Get();
    EXPECT_EQ(trace.Count(L"pointer to our COM object's class instance was NULL"), 11);
    EXPECT_EQ(trace.Count(L"must be pending timers that could not be canceled ("), 9);
    EXPECT_TRUE(trace.Has(L"must be pending timers that could not be canceled (9)"));
    EXPECT_TRUE(trace.Has(L"now the timer has popped 10 times in a row when our object's instance was NULL (10)"));
    EXPECT_TRUE(trace.Has(L"now the timer has popped 10 times in a row when our object's instance was NULL (11)"));
    EXPECT_FALSE(trace.Has(L"updating wifi information"));
    CNetMonSv::WiFiTimerCallback(element, TRUE);
}

// --- the end of the extension ---

TEST_F(WiFiTracking, ExtensionWhoseTimerIsIdleGoesWithEverythingInIt)
{
    const MemoryLedger ledger;
    monitor->timerQueue = CreateTimerQueue();
    wifi.networks = {WiFiScope::Network(L"home", -60), WiFiScope::Network(L"cafe", -70)};
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    EXPECT_EQ(ledger.Blocks(), 3u);
    EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
    EXPECT_EQ(ledger.Blocks(), 0u);
    EXPECT_TRUE(trace.Has(std::wstring(L"deleting the timer for node '") + id + L"' (timer = "));
    EXPECT_TRUE(trace.Has(L"deleted the timer ("));
    EXPECT_TRUE(trace.Has(L"deleted the bssid list for 802.11 adapter"));
    EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(nullptr), S_OK);
    EXPECT_TRUE(trace.Has(L"there is no wifi device extension to delete for node: "));
}

// A timer whose callback runs until the test lets it end.
class LongTick
{
public:
    explicit LongTick(HANDLE queue)
    {
        EXPECT_TRUE(CreateTimerQueueTimer(
            &timer, queue,
            [](void* context, BOOLEAN)
            {
                auto* const self = static_cast<LongTick*>(context);
                self->running.Set();
                self->end.Wait(INFINITE);
                self->ended.Set();
            },
            this, 0, 0, WT_EXECUTELONGFUNCTION));
        EXPECT_TRUE(running.Wait(20000));
    }
    HANDLE timer = nullptr;
    Event running{true, false};
    Event end{true, false};
    Event ended{true, false};
};

TEST_F(WiFiTracking, DeletingAnExtensionWaitsForARunningTick)
{
    monitor->timerQueue = CreateTimerQueue();
    LongTick tick(monitor->timerQueue);
    Extend().hTimer = static_cast<long*>(tick.timer);
    std::thread deleter([&] { EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK); });
    while (!trace.Has(L"\n" + std::wstring(71, L'#') + L"\n# TIMER DELETE PENDING '" + id + L"->"))
    {
        Sleep(5);
    }
    EXPECT_FALSE(trace.Has(L"deleted the timer (")); // the wait is on
    tick.end.Set();
    deleter.join();
    EXPECT_TRUE(tick.ended.Wait(0));
    EXPECT_TRUE(trace.Has(L"deleted the timer ("));
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
}

// The wait for the timer's end is over at once.
class NoPatience : public SystemClock
{
public:
    NoPatience() : previous(Clock::Exchange(this)) {}
    ~NoPatience() override { Clock::Exchange(previous); }
    DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override
    {
        return SystemClock::Wait(handle, milliseconds == 5000 ? 0 : milliseconds);
    }

private:
    Clock* previous;
};

TEST_F(WiFiTracking, ExtensionWhoseTimerDoesNotEndStaysAndItsElementGoesAllTheSame)
{
    monitor->timerQueue = CreateTimerQueue();
    LongTick tick(monitor->timerQueue);
    _WIFI_ADAPTER& extension = Extend();
    extension.hTimer = static_cast<long*>(tick.timer);
    {
        const NoPatience clockOfTheWait;
        EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    }
    EXPECT_TRUE(trace.Has(L"\n" + std::wstring(71, L'#') + L"\n# TIMEOUT WAITING FOR THE TIMER TO BE DELELETED (258)"));
    EXPECT_TRUE(trace.Has(L"*** timer is not cancelled, we must not deleted this node"));
    EXPECT_EQ(element->u.pWiFiAdapter, &extension);
    EXPECT_NE(extension.hTimer, nullptr);
    const MemoryLedger ledger;
    {
        const NoPatience clockOfTheWait;
        monitor->Remove(element);
    }
    EXPECT_EQ(monitor->Head(), nullptr);
    tick.end.Set();
    EXPECT_TRUE(tick.ended.Wait(20000));
    monitor->MyDeleteTimerQueue();
    CoTaskMemFree(&extension); // nobody else will
}

TEST_F(WiFiTracking, TimerThatCannotBeDeletedIsWaitedForAllTheSameAndKeepsTheExtension)
{
    monitor->timerQueue = CreateTimerQueue();
    _WIFI_ADAPTER& extension = Extend();
    long timer = 0; // stands for a timer: nobody looks into it
    extension.hTimer = &timer;
    DeleteTimerQueueTimerHook::Replace(
        [](HANDLE, HANDLE, HANDLE gone)
        {
            EXPECT_NE(gone, nullptr);
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        });
    {
        const NoPatience clockOfTheWait;
        EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    }
    const std::wstring banner = L"\n" + std::wstring(71, L'#') + L"\n";
    EXPECT_EQ(FirstMissingInOrder({banner + L"# ERROR DELETING THE TIMER (NOT PENDING) '" + id + L"->",
                                   banner + L"# TIMEOUT WAITING FOR THE TIMER TO BE DELELETED (258)",
                                   L"*** timer is not cancelled, we must not deleted this node"}),
              L"");
    EXPECT_FALSE(trace.Has(L"deleted wifi update timer"));
    EXPECT_EQ(element->u.pWiFiAdapter, &extension);
    EXPECT_EQ(extension.hTimer, &timer);
}

// --- the signal's thread ---

TEST_F(WiFiTracking, SignalRefreshesEachWiFiAdapterThatWasNotJustRefreshed)
{
    _WIFI_ADAPTER& extension = Extend();
    extension.LastSurveyTime = Now() - 5000;
    _DEVICE_ELEMENT* const fresh = monitor->Add(L"{FRESH}");
    fresh->AdapterType = enumWiFi;
    auto* const freshExtension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
    *freshExtension = {};
    freshExtension->LastSurveyTime = Now() + 60000; // whenever the thread looks, it was refreshed
    fresh->u.pWiFiAdapter = freshExtension;
    monitor->Add(L"{BARE}")->AdapterType = enumWiFi; // without an extension
    monitor->Add(L"{E}")->AdapterType = enumEthernet;

    monitor->StartWifiThread();
    EXPECT_TRUE(trace.Has(L"Reverting to self"));
    EXPECT_TRUE(trace.Has(L"Creating thread to listen for special wifi events"));
    EXPECT_FALSE(trace.Has(L"Impersonating the client")); // there is no client to impersonate
    const UniqueHandle signal(OpenEventW(EVENT_ALL_ACCESS, FALSE, GlobalObjectName(L"NetCfgWifiEvent")));
    ASSERT_TRUE(signal);
    EXPECT_EQ(WaitForSingleObject(signal.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT)); // clear at first
    SetEvent(signal.get());
    while (WaitForSingleObject(signal.get(), 0) != WAIT_TIMEOUT)
    {
        Sleep(5); // manual-reset: the thread clears it when it has refreshed all
    }
    monitor->StopWifiThread();
    EXPECT_TRUE(trace.Has(L"ProcessNativeWifiEventsThread: event was set to update all wifi adapters"));
    EXPECT_TRUE(trace.Has(std::wstring(L"ProcessNativeWifiEventsThread: updating wifi node '") + id + L"'"));
    EXPECT_TRUE(trace.Has(L"ProcessNativeWifiEventsThread: just updated wifi node '{FRESH}'...skipping"));
    EXPECT_FALSE(trace.Has(L"ProcessNativeWifiEventsThread: updating wifi node '{BARE}'"));
    EXPECT_FALSE(trace.Has(L"ProcessNativeWifiEventsThread: updating wifi node '{E}'"));
    EXPECT_TRUE(trace.Has(L"ProcessNativeWifiEventsThread: time to end the ProcessNativeWifiEventsThread thread"));
    EXPECT_EQ(monitor->NativeWifiMonitorThread, nullptr);
}

TEST_F(WiFiTracking, WithoutItsEventsNoThreadRuns)
{
    CreateEventWHook::Replace(
        [](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL set, LPCWSTR name) -> HANDLE
        {
            if (name != nullptr && wcsstr(name, L"NetCfgWifiEvent") != nullptr)
            {
                EXPECT_TRUE(manual);
                EXPECT_FALSE(set);
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            return CreateEventWHook::Real(security, manual, set, name);
        });
    monitor->StartWifiThread();
    EXPECT_TRUE(trace.Has(L"Could not create events"));
    EXPECT_EQ(monitor->NativeWifiMonitorThread, nullptr);
    monitor->StopWifiThread();
}

// The calls around the making of the signal's event, in their order.
class ClientsEvent : public WiFiTracking
{
protected:
    ClientsEvent()
    {
        monitor->UseToken(CreateEventW(nullptr, TRUE, FALSE, nullptr)); // something that CloseHandle takes
        ImpersonateLoggedOnUserHook::Replace(
            [this](HANDLE)
            {
                order.emplace_back(L"impersonate");
                SetLastError(ERROR_ACCESS_DENIED);
                return assumed;
            });
        RevertToSelfHook::Replace(
            [this]
            {
                order.emplace_back(L"revert");
                SetLastError(ERROR_ACCESS_DENIED);
                return reverted;
            });
        CreateEventWHook::Replace(
            [this](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL set, LPCWSTR name)
            {
                if (name != nullptr && wcsstr(name, L"NetCfgWifiEvent") != nullptr)
                {
                    order.emplace_back(L"event");
                    if (raises)
                    {
                        throw std::bad_alloc();
                    }
                }
                return CreateEventWHook::Real(security, manual, set, name);
            });
    }
    // The hooks go before what they use.
    ~ClientsEvent() override { PlatformHooks::Reset(); }

    BOOL assumed = TRUE;
    BOOL reverted = TRUE;
    bool raises = false;
    std::vector<std::wstring> order;
    const std::vector<std::wstring> usual{L"impersonate", L"event", L"revert"};
};

TEST_F(ClientsEvent, IsMadeInTheClientsName)
{
    monitor->StartWifiThread();
    EXPECT_EQ(order, usual);
    EXPECT_EQ(FirstMissingInOrder({L"Impersonating the client with token 0x", L"Reverting to self",
                                   L"Creating thread to listen for special wifi events"}),
              L"");
    monitor->StopWifiThread();
}

TEST_F(ClientsEvent, IsMadeAllTheSameWhenTheClientsNameCannotBeHadOrGivenUp)
{
    assumed = FALSE;
    reverted = FALSE;
    monitor->StartWifiThread();
    EXPECT_EQ(order, usual);
    EXPECT_EQ(FirstMissingInOrder({L"Problem impersonating the client with token 0x", L"Error reverting to self!",
                                   L"Creating thread to listen for special wifi events"}),
              L"");
    monitor->StopWifiThread();
}

TEST_F(ClientsEvent, ThatCannotBeMadeForWantOfMemoryLeavesNoThreadInTheClientsName)
{
    raises = true;
    EXPECT_THROW(monitor->StartWifiThread(), std::bad_alloc);
    EXPECT_EQ(order, usual);
}

TEST_F(WiFiTracking, WithoutItsEventTheTimersEndIsNotWaitedFor)
{
    monitor->timerQueue = CreateTimerQueue();
    EXPECT_EQ(monitor->WiFiAdapterInfo(element, Object()), S_OK);
    CreateEventWHook::Replace(
        [](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL set, LPCWSTR name) -> HANDLE
        {
            if (name != nullptr && std::wstring_view(name) == L"DeleteTimerEvent")
            {
                EXPECT_TRUE(manual);
                EXPECT_FALSE(set);
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            return CreateEventWHook::Real(security, manual, set, name);
        });
    EXPECT_EQ(monitor->DeleteWiFiDeviceExtension(element), S_OK);
    EXPECT_FALSE(trace.Has(L"deleted the timer ("));
    EXPECT_EQ(element->u.pWiFiAdapter, nullptr);
}

TEST_F(WiFiTracking, StoppingAThreadThatWasNeverStartedIsNothing)
{
    monitor->StopWifiThread();
    EXPECT_EQ(monitor->NativeWifiMonitorThread, nullptr);
}
} // namespace
