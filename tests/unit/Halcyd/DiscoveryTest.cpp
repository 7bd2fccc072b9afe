// Which adapters enter the list at Open: the four gates, their order, and what is told while the list is being filled.

#include <gtest/gtest.h>

#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
constexpr wchar_t first[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";
constexpr wchar_t second[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
constexpr wchar_t allAdapters[] = L"SELECT * FROM Win32_NetworkAdapter";
constexpr wchar_t adaptersWithMac[] = L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE MACAddress <> NULL";
const std::wstring classKey = L"System\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-BFC1-08002BE10318}";
const std::wstring problemBanner = L"\n" + std::wstring(71, L'#') +
                                   L"\n# PROBLEM CLOSING THE HANDLE FOR THE MINIPORT DRIVER\n" + std::wstring(71, L'#');

using Values = std::map<std::wstring, _variant_t>;

class Discovery : public testing::Test
{
protected:
    void SetUp() override
    {
        monitor->UseCimv2().answer = [this](const std::wstring& query, ObjectList& objects)
        {
            queries.push_back(query);
            if (static_cast<int>(queries.size()) == failQuery)
            {
                return static_cast<HRESULT>(WBEM_E_FAILED);
            }
            if (query == adaptersWithMac)
            {
                objects = configurations;
            }
            return S_OK;
        };
    }
    void TearDown() override
    {
        for (int number = 7001; number <= nextClassKey; ++number)
        {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (classKey + L"\\" + std::to_wstring(number)).c_str());
        }
    }

    static Values Configuration(const wchar_t* guid, const wchar_t* service = L"brv")
    {
        return {{L"Index", 7L},
                {L"SettingID", guid},
                {L"Description", L"Brevik Ethernet"},
                {L"ServiceName", service},
                {L"Caption", L"[00000007] Brevik Ethernet"},
                {L"MACAddress", L"02:00:5E:00:53:07"},
                {L"IPEnabled", true}};
    }
    // A subkey of the network adapters' class. Without characteristics the value is missing.
    void AddClassKey(const std::wstring& guid, std::optional<std::uint32_t> characteristics = 0x84)
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, classKey + L"\\" + std::to_wstring(++nextClassKey), KEY_WRITE), 0u);
        ASSERT_EQ(key.WriteString(L"NetCfgInstanceId", guid), 0u);
        if (characteristics)
        {
            ASSERT_EQ(key.WriteDword(L"Characteristics", *characteristics), 0u);
        }
    }
    // An adapter that passes all gates.
    void AddGood(const wchar_t* guid)
    {
        AddClassKey(guid);
        miniports.AddEthernet(guid);
        configurations.push_back(MakeObject(Configuration(guid)));
    }
    [[nodiscard]] std::vector<std::wstring> Listed()
    {
        std::vector<std::wstring> ids;
        for (const _DEVICE_ELEMENT* element = monitor->Head(); element != nullptr; element = element->pNext)
        {
            ids.emplace_back(TextOrEmpty(element->DeviceId));
        }
        return ids;
    }

    HookScope hooks;
    MiniportScope miniports;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
    ObjectList configurations;
    std::vector<std::wstring> queries;
    int failQuery = 0; // counted from 1
    int nextClassKey = 7000;
    TraceLines trace;
};

TEST_F(Discovery, WithoutAnAdapterWithAMacTheListIsEmptyAndThatIsNoFailure)
{
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_EQ(queries, (std::vector<std::wstring>{allAdapters, adaptersWithMac}));
    EXPECT_EQ(static_cast<FakeWmiNamespace*>(monitor->cimv2Namespace.GetInterfacePtr())->queryFlags,
              (std::vector<long>{0, WBEM_FLAG_FORWARD_ONLY}));
    EXPECT_EQ(monitor->Head(), nullptr);
}

TEST_F(Discovery, EachOfTheTwoQueriesFailsTheWhole)
{
    AddGood(first);
    failQuery = 1;
    EXPECT_EQ(monitor->AddNetworkCardsToList(), E_FAIL);
    EXPECT_TRUE(trace.Has(L"Error Failed exec query SELECT * FROM Win32_NetworkAdapter"));
    EXPECT_EQ(queries.size(), 1u);
    queries.clear();
    failQuery = 2;
    EXPECT_EQ(monitor->AddNetworkCardsToList(), E_FAIL);
    EXPECT_TRUE(trace.Has(L"Error could not get the WMI list of adapters"));
    EXPECT_EQ(monitor->Head(), nullptr);
}

TEST_F(Discovery, AdapterThatPassesEntersTheListAndIsTold)
{
    AddGood(first);
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_EQ(Listed(), std::vector<std::wstring>{first});
    const std::wstring id = first;
    EXPECT_EQ(FirstMissingInOrder({
                  L"WMIList: checking if '" + id + L"' should be added to the list of network adapters",
                  L"checking '" + id + L"'",
                  L"open driver handle for '\\\\.\\" + id + L"' 0x",
                  L"AddNetworkCardToList: driver handle: ",
                  L"closing driver handle = 0x",
                  L"successfully opened the driver for '" + id + L"'",
                  L"created node for '" + id + L"'",
                  L"getting the common ndis adapter info",
                  L"getting Ethernet adapter info",
                  L"added 'Brevik Ethernet'",
                  L"AddNetworkCardToList: fire adapter add event",
                  L"EVENT: Fire_AdapterChange '" + id + L"'",
              }),
              L"");
    EXPECT_FALSE(trace.Has(problemBanner));
    EXPECT_EQ(miniports.opens, 3); // gate, kind, details
}

TEST_F(Discovery, ClientIsToldOfEachAdapterWhileTheNextOnesAreStillOutside)
{
    AddGood(first);
    AddGood(second);
    TestSink sink;
    IConnectionPoint* const point = EventPoint(monitor.Get());
    DWORD cookie = 0;
    ASSERT_EQ(point->Advise(&sink, &cookie), S_OK);
    std::vector<std::size_t> lengths;
    sink.onEvent = [&](const ToldEvent&) { lengths.push_back(Listed().size()); };
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_EQ(lengths, (std::vector<std::size_t>{1, 2}));
    const auto events = sink.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].event, enumEventAdapterAdd);
    EXPECT_EQ(events[0].deviceId, first);
    EXPECT_EQ(events[0].adjacentMac, L""); // no gateway: the field is empty, not null
    EXPECT_EQ(events[1].deviceId, second);
    point->Unadvise(cookie);
    point->Release();
}

TEST_F(Discovery, IgnoredServiceStaysOutButIsOnRecord)
{
    AddClassKey(first);
    miniports.AddEthernet(first);
    configurations.push_back(MakeObject(Configuration(first, L"tunnel")));
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_TRUE(trace.Has(L"WMIList: 'tunnel' is in the list of adapters to ignore"));
    EXPECT_FALSE(trace.Has(L"WMIList: checking if"));
    EXPECT_EQ(miniports.opens, 0);
    EXPECT_EQ(monitor->Head(), nullptr);
    ASSERT_EQ(monitor->deviceInfoMap.count(first), 1u);
    const DeviceInfoRecord& record = monitor->deviceInfoMap[first];
    EXPECT_TRUE(record.IPEnabled);
    EXPECT_EQ(record.ServiceName, L"tunnel");
    EXPECT_EQ(record.Caption, L"[00000007] Brevik Ethernet");
    EXPECT_EQ(record.Description, L"Brevik Ethernet");
}

TEST_F(Discovery, RecordIsReplacedAndOutlivesItsAdapter)
{
    configurations.push_back(MakeObject(Configuration(first, L"tunnel")));
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    Values changed = Configuration(first, L"tmcfw");
    changed[L"IPEnabled"] = false;
    configurations = {MakeObject(changed), MakeObject(Configuration(second, L"tunnel"))};
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    configurations.clear();
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    monitor->DeleteDeviceInfoMapEntries(); // does nothing, on purpose
    ASSERT_EQ(monitor->deviceInfoMap.size(), 2u);
    EXPECT_EQ(monitor->deviceInfoMap[first].ServiceName, L"tmcfw");
    EXPECT_FALSE(monitor->deviceInfoMap[first].IPEnabled);
}

TEST_F(Discovery, NullServiceNameReadsAsTheEmptyOneAndNullIdAsNone)
{
    Values withoutService = Configuration(first);
    withoutService[L"ServiceName"] = WmiNull();
    Values withoutId = Configuration(second);
    withoutId[L"SettingID"] = WmiNull();
    configurations = {MakeObject(withoutService), MakeObject(withoutId)};
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_TRUE(trace.Has(L"WMIList: '' is in the list of adapters to ignore"));
    EXPECT_TRUE(trace.Has(L"passed in a empty string for the GUID"));
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(miniports.opens, 0);
}

TEST_F(Discovery, OnlyHardwareByItsClassKeyIsValid)
{
    EXPECT_EQ(monitor->IsValidAdapter(L""), 0);
    EXPECT_TRUE(trace.Has(L"passed in a empty string for the GUID"));
    EXPECT_EQ(monitor->IsValidAdapter(first), 0); // no subkey speaks of it
    EXPECT_TRUE(
        trace.Has(std::wstring(L"IsValidAdapter: done searching for '") + first + L"' without finding a match"));
    AddClassKey(first, 0x85);
    EXPECT_EQ(monitor->IsValidAdapter(first), 0);
    AddClassKey(second);
    EXPECT_EQ(monitor->IsValidAdapter(second), 1);
    std::wstring lower = second;
    _wcslwr(lower.data());
    EXPECT_EQ(monitor->IsValidAdapter(lower), 0); // the case matters
    EXPECT_EQ(monitor->IsValidAdapter(std::wstring(second) + L" "), 0);
    constexpr wchar_t bare[] = L"{00000000-0000-0000-0000-00000000BA4E}";
    AddClassKey(bare, std::nullopt);
    EXPECT_EQ(monitor->IsValidAdapter(bare), 0); // a class key without "Characteristics"
}

TEST_F(Discovery, FirstSubkeyOfAnIdDecides)
{
    AddClassKey(first, 0x84);
    AddClassKey(first, 0x85);
    EXPECT_EQ(monitor->IsValidAdapter(first), 1);
}

TEST_F(Discovery, SubkeyThatDoesNotOpenIsPassedOver)
{
    AddClassKey(second); // the one that is in the way
    AddClassKey(first);
    for (const wchar_t* const function : {L"RegEnumKeyExW", L"RegQueryValueExW"})
    {
        PlatformHooks::FailCall(std::string(function, function + wcslen(function)), 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(monitor->IsValidAdapter(first), 1) << function;
    }
    EXPECT_EQ(trace.Count(L"could not open the subkey '"), 1);
    PlatformHooks::FailCall("RegOpenKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(monitor->IsValidAdapter(first), 0);
    EXPECT_TRUE(trace.Has(L"could not open network the class's subkey '" + classKey + L"' "));
}

TEST_F(Discovery, AdapterThatIsNotHardwareIsRefusedWithoutTouchingItsDriver)
{
    AddClassKey(first, 0x85);
    miniports.AddEthernet(first);
    configurations.push_back(MakeObject(Configuration(first)));
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_FALSE(trace.Has(L"checking '"));
    EXPECT_EQ(miniports.opens, 0);
    EXPECT_EQ(monitor->Head(), nullptr);
}

TEST_F(Discovery, AdapterWhoseDriverDoesNotOpenStaysOutWithTheBannerOfTheClosing)
{
    AddClassKey(first);
    configurations.push_back(MakeObject(Configuration(first)));
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    const std::wstring id = first;
    EXPECT_EQ(FirstMissingInOrder({
                  L"checking '" + id + L"'",
                  L"CreateFile failed for '\\\\.\\" + id + L"'",
                  L"AddNetworkCardToList: driver handle: ",
                  L"*** invalid driver handle = 0xffffffffffffffff",
                  problemBanner,
                  L"don't add device because we can't open the driver for '" + id + L"'",
              }),
              L"");
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(miniports.opens, 1);
}

TEST_F(Discovery, WithoutMemoryForAnElementTheNextAdapterStillEnters)
{
    AddGood(first);
    AddGood(second);
    PlatformHooks::FailCall("CoTaskMemAlloc", 1, 0);
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_EQ(Listed(), std::vector<std::wstring>{second});
    EXPECT_FALSE(trace.Has(std::wstring(L"created node for '") + first));
}

TEST_F(Discovery, MissingDescriptionIsAddedAsNull)
{
    AddGood(first);
    Values values = Configuration(first);
    values[L"Description"] = WmiNull();
    configurations = {MakeObject(values)};
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_TRUE(trace.Has(L"added '<<<NULL>>>'"));
}

TEST_F(Discovery, NoKindMakesNoExtensionAndTheAddEventStillGoes)
{
    AddGood(first);
    miniports.adapters[first].answers.erase(0x00010103); // OID_GEN_MEDIA_SUPPORTED
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    ASSERT_NE(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Head()->AdapterType, enumUnknown);
    EXPECT_EQ(monitor->Head()->u.pEthernetAdapter, nullptr);
    EXPECT_TRUE(
        trace.Has(std::wstring(L"EVENT: Fire_AdapterChange '") + first + L"' 'Null' 'enumEventAdapterAdd (1)'"));
}

// Gives its objects, then fails.
class FailingEnumerator final : public FakeEnumerator
{
public:
    using FakeEnumerator::FakeEnumerator;
    HRESULT STDMETHODCALLTYPE Next(long timeout, ULONG count, IWbemClassObject** out, ULONG* returned) override
    {
        EXPECT_EQ(timeout, static_cast<long>(WBEM_INFINITE));
        EXPECT_EQ(count, 1u);
        const HRESULT result = FakeEnumerator::Next(timeout, count, out, returned);
        return result == WBEM_S_NO_ERROR ? result : static_cast<HRESULT>(WBEM_E_TRANSPORT_FAILURE);
    }
};

// Answers the first query with an enumerator that the test keeps, the second with one that fails at its end.
class EnumeratorNamespace final : public FakeWmiNamespace
{
public:
    EnumeratorNamespace(FakeEnumerator* adapters, ObjectList objects)
        : kept(adapters), configurations(std::move(objects))
    {
    }
    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR, const BSTR query, long, IWbemContext*,
                                        IEnumWbemClassObject** results) override
    {
        *results = std::wstring(query) == allAdapters ? kept : new FailingEnumerator(configurations);
        (*results)->AddRef();
        return S_OK;
    }

private:
    FakeEnumerator* kept;
    ObjectList configurations;
};

TEST_F(Discovery, FailureOfTheWalkLooksLikeItsEndAndEachUpdateRewindsTheOneEnumerator)
{
    AddGood(first);
    AddGood(second);
    auto* const adapters = new FakeEnumerator({});
    const IEnumWbemClassObjectPtr owner(adapters);
    monitor->cimv2Namespace = new EnumeratorNamespace(adapters, configurations);
    EXPECT_EQ(monitor->AddNetworkCardsToList(), S_OK);
    EXPECT_EQ(Listed(), (std::vector<std::wstring>{first, second}));
    EXPECT_EQ(adapters->resets, 2);
}
} // namespace
