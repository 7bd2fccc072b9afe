// Every platform call that the shipped service makes in an Open and the Close behind it fails once, in a running
// service: the result that is due, and after the Close the next Open works and finds the same adapters as ever.
//
// Which calls there are is not written here: an undisturbed round tells them. What each of them does to Open stands in
// the table below; a call that is not in it fails the test, so a new one must be thought about.

#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <iostream>

#include "Host/HostSupport.h"
#include "Lab/ServiceCalls.h"
#include "Monitor/MonitorMachine.h"
#include "tests/support/RunningService.h"

namespace
{
// Where in the sequence a call was made.
enum Stage : unsigned
{
    Connecting = 1,  // up to the WMI connections
    Discovering = 2, // adapters are read
    Starting = 4,    // threads and subscriptions
    Closing = 8,     // after Open has returned
    Anywhere = Connecting | Discovering | Starting | Closing,
};

// The adapters that the monitor has after the disturbed Open.
enum class List
{
    Complete, // as ever
    Poorer,   // an adapter, or a part of one, may be missing; nothing is there that was not there before
    Empty,
};

struct Row
{
    const char* call;
    unsigned stages;
    const char* mentioning; // in the arguments; "" for any
    std::uint32_t code;
    HRESULT open;
    HRESULT close;
    List list;
    bool keeps = false; // what the platform does not take back stays held
};

constexpr HRESULT Fails = E_FAIL;

// The first row that fits counts.
constexpr Row rows[] = {
    // The client's token, and later its name, are looked for among the processes; there need not be one.
    {"GetModuleFileNameW", Connecting, "", ERROR_MOD_NOT_FOUND, S_OK, S_OK, List::Complete},
    {"CreateToolhelp32Snapshot", Connecting | Discovering, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"Process32FirstW", Connecting | Discovering, "", ERROR_NO_MORE_FILES, S_OK, S_OK, List::Complete},
    {"Process32NextW", Connecting | Discovering, "", ERROR_NO_MORE_FILES, S_OK, S_OK, List::Complete},
    // The queue of address changes cannot start without its events and its thread, and a queue that did not start has
    // nothing to stop: Close says so.
    {"CreateEventW", Connecting, "", ERROR_NOT_ENOUGH_MEMORY, Fails, Fails, List::Empty},
    {"_beginthreadex", Connecting, "", ERROR_NOT_ENOUGH_MEMORY, Fails, Fails, List::Empty},
    {"CoInitializeEx", Anywhere, "", 0x80010106, S_OK, S_OK, List::Complete}, // RPC_E_CHANGED_MODE
    {"CreateTimerQueue", Connecting, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"WbemLocator::CreateInstance", Connecting, "", 0x80070005, Fails, S_OK, List::Empty},
    {"CoCreateInstance", Connecting, "", 0x80040154, Fails, S_OK, List::Empty},
    {"SysAllocString", Connecting, "root\\\\", ERROR_OUTOFMEMORY, Fails, S_OK, List::Empty},
    {"IWbemLocator::ConnectServer", Connecting, "", 0x8004100E, Fails, S_OK, List::Empty},
    {"IClientSecurity::SetBlanket", Connecting, "", 0x80070057, Fails, S_OK, List::Empty},
    {"CoSetProxyBlanket", Connecting, "", 0x80070057, Fails, S_OK, List::Empty},
    // The account of SetupAPI's devices goes to the trace; the same functions serve an adapter's place in the tree,
    // without which its instance id is its setting id.
    {"SetupDiGetClassDevsW", Discovering, "", ERROR_INVALID_DATA, S_OK, S_OK, List::Complete},
    {"SetupDiEnumDeviceInfo", Discovering, "", ERROR_INVALID_DATA, S_OK, S_OK, List::Complete},
    {"SetupDiGetDeviceInstanceIdW", Discovering, "", ERROR_INVALID_DATA, S_OK, S_OK, List::Complete},
    {"SetupDiGetDeviceRegistryPropertyW", Discovering, "", ERROR_INVALID_DATA, S_OK, S_OK, List::Poorer},
    {"SetupDiOpenDevRegKey", Discovering, "", ERROR_ACCESS_DENIED, S_OK, S_OK, List::Complete},
    {"SetupDiCreateDeviceInfoList", Discovering, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"SetupDiOpenDeviceInfoW", Discovering, "", ERROR_INVALID_DATA, S_OK, S_OK, List::Complete},
    {"SetupDiDestroyDeviceInfoList", Discovering, "", ERROR_INVALID_HANDLE, S_OK, S_OK, List::Complete, true},
    {"CM_Locate_DevNodeW", Discovering, "", CR_NO_SUCH_DEVNODE, S_OK, S_OK, List::Poorer},
    {"CM_Get_Parent", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Poorer},
    {"CM_Get_Child", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Complete},
    {"CM_Get_Sibling", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Complete},
    {"CM_Get_Device_IDW", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Poorer},
    {"CM_Get_DevNode_Status", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Complete},
    {"CM_Get_DevNode_Registry_PropertyW", Discovering, "", CR_FAILURE, S_OK, S_OK, List::Complete},
    // Without one of the two queries there is no discovery, which is the one way in which it fails.
    {"SysAllocString", Discovering, "\"WQL\"", ERROR_OUTOFMEMORY, Fails, S_OK, List::Empty},
    {"SysAllocString", Discovering, "\"SELECT ", ERROR_OUTOFMEMORY, Fails, S_OK, List::Empty},
    {"IWbemServices::ExecQuery", Discovering, "", 0x80041001, Fails, S_OK, List::Empty},
    // An adapter that cannot be judged is left out, a property that cannot be had is missing.
    {"IEnumWbemClassObject::Next", Discovering, "", 0x80041001, S_OK, S_OK, List::Poorer},
    {"IEnumWbemClassObject::Reset", Discovering, "", 0x80041016, S_OK, S_OK, List::Poorer},
    {"IWbemClassObject::Get", Discovering, "", 0x80041002, S_OK, S_OK, List::Poorer},
    {"RegOpenKeyExW", Discovering, "", ERROR_ACCESS_DENIED, S_OK, S_OK, List::Poorer},
    {"RegQueryInfoKeyW", Discovering, "", ERROR_ACCESS_DENIED, S_OK, S_OK, List::Poorer},
    {"RegEnumKeyExW", Discovering, "", ERROR_ACCESS_DENIED, S_OK, S_OK, List::Poorer},
    {"RegQueryValueExW", Discovering, "", ERROR_FILE_NOT_FOUND, S_OK, S_OK, List::Poorer},
    {"CreateFileW", Discovering, "", ERROR_FILE_NOT_FOUND, S_OK, S_OK, List::Poorer},
    {"DeviceIoControl", Discovering, "", ERROR_NOT_SUPPORTED, S_OK, S_OK, List::Poorer},
    {"SendARP", Discovering, "", ERROR_GEN_FAILURE, S_OK, S_OK, List::Poorer},
    {"CoTaskMemAlloc", Discovering, "", ERROR_OUTOFMEMORY, S_OK, S_OK, List::Poorer},
    {"SysAllocString", Discovering, "", ERROR_OUTOFMEMORY, S_OK, S_OK, List::Poorer},
    {"SafeArrayAccessData", Discovering, "", 0x8002000D, S_OK, S_OK, List::Poorer}, // DISP_E_ARRAYISLOCKED
    {"CreateTimerQueueTimer", Discovering, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    // The list is there; what would keep it current is missing.
    {"CreateEventW", Starting, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"_beginthreadex", Starting, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"RevertToSelf", Starting, "", ERROR_ACCESS_DENIED, S_OK, S_OK, List::Complete},
    {"LoadLibraryW", Starting, "", ERROR_MOD_NOT_FOUND, S_OK, S_OK, List::Complete},
    {"GetProcAddress", Starting | Closing, "", ERROR_PROC_NOT_FOUND, S_OK, S_OK, List::Complete, true},
    {"NotifyUnicastIpAddressChange", Starting, "", ERROR_NOT_ENOUGH_MEMORY, S_OK, S_OK, List::Complete},
    {"SysAllocString", Starting, "", ERROR_OUTOFMEMORY, S_OK, S_OK, List::Complete},
    {"IWbemServices::ExecNotificationQueryAsync", Starting, "", 0x80041003, S_OK, S_OK, List::Complete},
    // What is given back is gone, whatever the platform says.
    {"DeleteTimerQueueEx", Closing, "", ERROR_IO_PENDING, S_OK, S_OK, List::Complete},
    {"CancelMibChangeNotify2", Closing, "", ERROR_NOT_FOUND, S_OK, S_OK, List::Complete, true},
    {"IWbemServices::CancelAsyncCall", Closing, "", 0x80041001, S_OK, S_OK, List::Complete, true},
};

Stage StageOf(const std::vector<ServiceCall>& calls, std::size_t index, std::size_t callsOfOpen)
{
    if (index >= callsOfOpen)
    {
        return Closing;
    }
    const auto end = calls.begin() + static_cast<std::ptrdiff_t>(index) + 1;
    const auto made = [&](const char* name, const char* mentioning)
    {
        return std::any_of(calls.begin(), end,
                           [&](const ServiceCall& call) { return call.name == name && call.Mentions(mentioning); });
    };
    if (made("CreateEventW", "NetCfgWifiEvent"))
    {
        return Starting;
    }
    return made("SetupDiGetClassDevsW", "") ? Discovering : Connecting;
}

const Row* RowFor(const ServiceCall& call, Stage stage)
{
    const auto* const found =
        std::find_if(std::begin(rows), std::end(rows), [&](const Row& row)
                     { return call.name == row.call && (row.stages & stage) != 0 && call.Mentions(row.mentioning); });
    return found != std::end(rows) ? found : nullptr;
}

// Whether `poorer` holds nothing that `list` does not: adapters may be missing, and texts.
bool IsPartOf(const std::vector<AdapterRecord>& poorer, const std::vector<AdapterRecord>& list)
{
    const auto part = [](const OptionalText& text, const OptionalText& whole)
    { return !text.has_value() || text->empty() || text == whole; };
    return std::all_of(poorer.begin(), poorer.end(),
                       [&](const AdapterRecord& record)
                       {
                           return std::any_of(list.begin(), list.end(),
                                              [&](const AdapterRecord& whole)
                                              {
                                                  return part(record.deviceId, whole.deviceId) &&
                                                         part(record.description, whole.description) &&
                                                         part(record.macAddress, whole.macAddress) &&
                                                         part(record.ipAddress, whole.ipAddress) &&
                                                         part(record.ipGateway, whole.ipGateway);
                                              });
                       });
}

class OpenFaultSweep : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        Lab(L"load tablet");
        ASSERT_NO_FATAL_FAILURE(RestartWithHooks(service));
        monitor = Monitor();
        ASSERT_NE(monitor, nullptr);
        CleanRound(); // what a first round makes and keeps is made
        usual = CleanRound();
        ASSERT_EQ(usual.size(), 2u);
    }

    // Open, list, Close without a fault. Returns the list.
    std::vector<AdapterRecord> CleanRound()
    {
        EXPECT_EQ(monitor->Open(), S_OK);
        std::vector<AdapterRecord> list = ReadAdapterList(monitor);
        EXPECT_EQ(monitor->Close(), S_OK);
        return list;
    }

    struct Round
    {
        std::vector<ServiceCall> calls;
        std::size_t callsOfOpen = 0;
    };

    Round RecordedRound()
    {
        CallRecorder recorder;
        Round round;
        EXPECT_EQ(monitor->Open(), S_OK);
        round.callsOfOpen = recorder.Calls().size();
        EXPECT_EQ(monitor->Close(), S_OK);
        round.calls = recorder.Calls();
        return round;
    }

    void CheckList(List expected)
    {
        const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
        switch (expected)
        {
        case List::Complete:
            EXPECT_EQ(list, usual);
            break;
        case List::Poorer:
            EXPECT_TRUE(IsPartOf(list, usual));
            break;
        case List::Empty:
            EXPECT_TRUE(list.empty());
            break;
        }
    }

    // One call fails in an Open or in the Close behind it; then a clean round.
    void Fail(const ServiceCall& call, const Row& expected, Stage stage)
    {
        SCOPED_TRACE(testing::Message() << call);
        {
            const ArmedFault fault(call.name, call.nth, expected.code);
            EXPECT_EQ(monitor->Open(), expected.open);
            VARIANT_BOOL open = VARIANT_FALSE;
            EXPECT_EQ(monitor->IsOpen(&open), S_OK);
            EXPECT_EQ(open, VARIANT_TRUE); // also after a failure
            CheckList(expected.list);
            if (FAILED(expected.open))
            {
                EXPECT_EQ(monitor->Open(), S_OK); // counts, and repairs nothing
                EXPECT_EQ(monitor->Close(), S_OK);
            }
            EXPECT_EQ(monitor->Close(), expected.close);
            EXPECT_EQ(monitor->IsOpen(&open), S_OK);
            EXPECT_EQ(open, VARIANT_FALSE);
            EXPECT_TRUE(fault.Hit()) << "the call was not made in " << stage;
        }
        EXPECT_EQ(CleanRound(), usual);
    }

    // Which calls of the stages a test takes. The long sweep is two tests, so that they can run side by side.
    enum class Which
    {
        All,
        Even,
        Odd,
    };

    static bool Takes(Which which, std::size_t number)
    {
        return which == Which::All || (number % 2 == 0) == (which == Which::Even);
    }

    // Fails the calls of a recorded round that belong to one of the stages.
    void Sweep(unsigned stages, Which which = Which::All)
    {
        const Round round = RecordedRound();
        CleanRound();
        const DWORD processId = service.ProcessId();
        const Holdings atFirst = HoldingsOf(processId);
        Holdings before = atFirst;
        DWORD kept = 0;
        int swept = 0;
        std::size_t matching = 0;
        for (std::size_t index = 0; index < round.calls.size() && !HasFailure(); ++index)
        {
            const ServiceCall& call = round.calls[index];
            const Stage stage = StageOf(round.calls, index, round.callsOfOpen);
            if ((stages & stage) == 0 || !Takes(which, matching++))
            {
                continue;
            }
            const Row* const row = RowFor(call, stage);
            if (row == nullptr)
            {
                ADD_FAILURE() << "the table does not say what becomes of Open when this fails: " << call << ", stage "
                              << stage;
                continue;
            }
            Fail(call, *row, stage);
            ++swept;
            kept += row->keeps ? KeptBy(call) : 0;
            CheckHoldings(before, call, *row, stage);
        }
        EXPECT_GT(swept, 0);
        std::cout << swept << " calls failed in turn\n";
        ASSERT_EQ(service.ProcessId(), processId); // one process lived through it all
        ExpectNoMoreHeld(processId, atFirst, kept);
    }

    // Handles that a failed call to give something back leaves: one, but the set of the whole class, which is the first
    // that is destroyed, holds a key of each of the three adapters.
    static DWORD KeptBy(const ServiceCall& call)
    {
        return call.name == "SetupDiDestroyDeviceInfoList" && call.nth == 1 ? 3 : 1;
    }

    // COM may open one more connection, so one growth means nothing; one that each repetition brings again is a leak.
    void CheckHoldings(Holdings& before, const ServiceCall& call, const Row& row, Stage stage)
    {
        constexpr DWORD repetitions = 5;
        const DWORD processId = service.ProcessId();
        const Holdings after = HoldingsOf(processId);
        if (!row.keeps && after.handles.lasting > before.handles.lasting)
        {
            for (DWORD i = 0; i < repetitions; ++i)
            {
                Fail(call, row, stage);
            }
            const Holdings later = HoldingsOf(processId);
            EXPECT_LT(later.handles.lasting, after.handles.lasting + repetitions)
                << "handles are left behind by " << call;
        }
        before = HoldingsOf(processId);
    }

    INetMonSvPtr monitor;
    std::vector<AdapterRecord> usual;
};

TEST_F(OpenFaultSweep, EachCallOfConnectingFailsOpenOrIsDoneWithout)
{
    Sweep(Connecting);
}

TEST_F(OpenFaultSweep, EachEvenCallOfDiscoveryCostsAtMostAnAdapterOrAPartOfOne)
{
    Sweep(Discovering, Which::Even);
}

TEST_F(OpenFaultSweep, EachOddCallOfDiscoveryCostsAtMostAnAdapterOrAPartOfOne)
{
    Sweep(Discovering, Which::Odd);
}

TEST_F(OpenFaultSweep, EachCallOfStartingAndClosingIsDoneWithout)
{
    Sweep(Starting | Closing);
}

// A timer on the process's default queue would outlive the list and find a freed element ten seconds later.
TEST_F(OpenFaultSweep, WithoutATimerQueueThereIsNoTimer)
{
    const auto timers = [&]
    {
        CallRecorder recorder;
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_EQ(monitor->Close(), S_OK);
        const std::vector<ServiceCall>& calls = recorder.Calls();
        return std::count_if(calls.begin(), calls.end(),
                             [](const ServiceCall& call) { return call.name == "CreateTimerQueueTimer"; });
    };
    EXPECT_EQ(timers(), 1);
    const ArmedFault fault("CreateTimerQueue", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(timers(), 0);
}

TEST_F(OpenFaultSweep, WithoutIpHelperTheMonitorOpensAndSaysThatThereAreNoAddressChanges)
{
    const ArmedFault fault("LoadLibraryW", 1, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(CleanRound(), usual);
    EXPECT_TRUE(fault.Hit());
    EXPECT_TRUE(HostSupport::WaitForTrace(
        L"Error cannot register for Unicast IP changes because IP Helper handle is not set."));
}
} // namespace
