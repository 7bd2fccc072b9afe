// A Wi-Fi adapter's extension, the networks in view, and what is told of them.

#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/WiFiTrackingFixture.h"

namespace
{
using WiFiAdapter::device;
using WiFiAdapter::id;

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
    extension.pDetails->Timestamp = static_cast<std::uint32_t>(ClockNow() + 5000); // from the future: a negative age
    monitor->RemoveOldNetworks(element);
    EXPECT_NE(extension.pDetails, nullptr);
    extension.pDetails->Timestamp = static_cast<std::uint32_t>(ClockNow() - 2501);
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
    Extend().LastSurveyTime = ClockNow();
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
    extension.LastSurveyTime = ClockNow() - 59000;
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx without a handle " + device), 0);
    extension.LastSurveyTime = ClockNow() - 60000;
    EXPECT_EQ(monitor->GetWiFiDetails(element), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiSurveyEx without a handle " + device), 1);
    EXPECT_LT(ClockNow() - extension.LastSurveyTime, 30000);
    extension.LastSurveyTime = ClockNow() - 60000;
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
} // namespace
