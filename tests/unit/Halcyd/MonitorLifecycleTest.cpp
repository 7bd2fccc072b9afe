// Open and Close step by step, against a WMI of values: the order of the steps, what each failure leaves, and the way
// back.

#include <gtest/gtest.h>

#include <thread>

#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/FakeWiFi.h"
#include "tests/unit/Halcyd/LifecycleMonitor.h"
#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/MonitorHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TraceLines.h"

// clang-format off
PLATFORM_HOOK(DeleteTimerQueueEx, L"kernel32.dll", BOOL(HANDLE, HANDLE))
// clang-format on
extern "C"
{
    decltype(&DeleteTimerQueueExHook::Call) __imp_DeleteTimerQueueEx = &DeleteTimerQueueExHook::Call;
}

namespace
{
constexpr wchar_t runCountKey[] = L"SOFTWARE\\QRLS\\Sorvane\\ProcMon\\Halcyd.exe";

class MonitorLifecycle : public testing::Test
{
protected:
    [[nodiscard]] bool IsOpen()
    {
        VARIANT_BOOL open = 0x55;
        EXPECT_EQ(monitor->IsOpen(&open), S_OK);
        EXPECT_TRUE(open == VARIANT_TRUE || open == VARIANT_FALSE);
        return open == VARIANT_TRUE;
    }
    // Behind an Open that failed: it counts as open, a second one repairs nothing, and two Closes lead to a clean Open.
    void ExpectBrokenOpenAndTheWayBack()
    {
        EXPECT_TRUE(IsOpen());
        const std::size_t connects = wmi.connects.size();
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_TRUE(trace.Has(L"object is already open"));
        EXPECT_EQ(wmi.connects.size(), connects);
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_FALSE(IsOpen());
        TraceLines::Clear();
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_TRUE(trace.Has(L"Go to go <=="));
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_FALSE(IsOpen());
    }

    HookScope hooks;
    MiniportScope miniports;
    WmiScope wmi;
    TraceLines trace;
    TestObject<LifecycleMonitor> monitor = MakeTestObject<LifecycleMonitor>();
};

TEST_F(MonitorLifecycle, ConstructionNamesTheObjectAndLeavesItClosed)
{
    EXPECT_EQ(monitor->FinalConstruct(), S_OK);
    EXPECT_EQ(CNetMonSv::m_instance.load(), monitor.Get());
    EXPECT_EQ(FirstMissingInOrder({L"m_instance = 0x", L"completed netmon object construction"}), L"");
    EXPECT_FALSE(IsOpen());
    EXPECT_FALSE(monitor->closingFlag);
    EXPECT_EQ(monitor->Users(), 0u);
}

TEST_F(MonitorLifecycle, IsOpenWantsAPointerAndNoLock)
{
    EXPECT_EQ(monitor->IsOpen(nullptr), E_POINTER);
    EXPECT_EQ(monitor->get_FilterMask(nullptr), E_POINTER);
    MutexLock lock(monitor->OpenCloseMutex());
    EXPECT_FALSE(IsOpen());
}

TEST_F(MonitorLifecycle, OpenTakesItsStepsInTheirOrder)
{
    ASSERT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({
                  L"CNetMonSv::Open:     Lock ==>> serializeOpenCloseMutex",
                  L"Working from ",
                  L"client token handle is ",
                  L"incremented reference counter to 1",
                  L"created a timer queue '",
                  L"created wbem locator object",
                  L"connected to WMI namespace 'root\\wmi'",
                  L"set the proxy blanket",
                  L"wbem locator is already set",
                  L"connected to WMI namespace 'root\\cimv2'",
                  L"set the proxy blanket",
                  L"create new event sync at 0x",
                  L"created the QuerySink notification object",
                  L"\n********************************************************\n"
                  L"**** ADDING NETWORK CARDS TO NETMON DEVICE INFO LIST ***",
                  L"Creating thread to listen for special wifi events",
                  L"Loading IP Helper DLL",
                  L"StartWmiEventMonitorThread",
                  L"Register for notifications",
                  L"Go to go <==",
                  L"CNetMonSv::Open:   Unlock <<== serializeOpenCloseMutex",
              }),
              L"");
    EXPECT_EQ(wmi.created, 1);
    EXPECT_EQ(wmi.connects, (std::vector<std::wstring>{L"root\\wmi", L"root\\cimv2"}));
    for (std::size_t index = 0; index < 2; ++index)
    {
        ASSERT_EQ(wmi.At(index).blankets.size(), 1u);
        const Blanket& blanket = wmi.At(index).blankets[0];
        EXPECT_EQ(blanket.authentication, 10u);
        EXPECT_EQ(blanket.authorization, 0u);
        EXPECT_EQ(blanket.principal, nullptr);
        EXPECT_EQ(blanket.level, 3u);
        EXPECT_EQ(blanket.impersonation, 3u);
        EXPECT_EQ(blanket.identity, nullptr);
        EXPECT_EQ(blanket.capabilities, 0u);
    }
    EXPECT_EQ(wmi.At(0).notificationQueries.size(), 6u);
    EXPECT_TRUE(IsOpen());
    EXPECT_FALSE(monitor->closingFlag);
    EXPECT_FALSE(monitor->wmiCleanupEvent.Wait(0));
    EXPECT_FALSE(monitor->sdkSwitchEvent.Wait(0));
    EXPECT_EQ(monitor->ForcedSurveys(), 2);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, CloseTakesItsStepsInTheirOrderAndLeavesNothing)
{
    ASSERT_EQ(monitor->Open(), S_OK);
    monitor->Add(L"{1}");
    TraceLines::Clear();
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(FirstMissingInOrder({
                  L"Close() is going to wait on SDK switching to complete",
                  L"CNetMonSv::Close:     Lock ==>> serializeOpenCloseMutex",
                  L"close called with reference counter at 1",
                  L"Stop thread pool",
                  L"Stop IP change work item queue",
                  L"deleting the timer queue",
                  L"timer queue is now deleted",
                  L"ProcessNativeWifiEventsThread: time to end the ProcessNativeWifiEventsThread thread",
                  L"telling async wmi threads to end",
                  L"Starting WMI cleanup",
                  L"canceling notifications using wmi namespace",
                  L"Finished WMI cleanup",
                  L"deleting device info list",
                  L"completed the deletion of the netmon internal device info list",
                  L"deleting device info map entries",
                  L"CNetMonSv::Close:   Unlock <<== serializeOpenCloseMutex",
              }),
              L"");
    EXPECT_EQ(wmi.At(0).cancelled.size(), 1u);
    EXPECT_TRUE(wmi.At(1).cancelled.empty());
    EXPECT_EQ(monitor->wmiNamespace.GetInterfacePtr(), nullptr);
    EXPECT_EQ(monitor->cimv2Namespace.GetInterfacePtr(), nullptr);
    EXPECT_EQ(monitor->wbemLocator.GetInterfacePtr(), nullptr);
    EXPECT_EQ(monitor->Sink(), nullptr);
    EXPECT_EQ(monitor->timerQueue.load(), nullptr);
    EXPECT_EQ(monitor->NativeWifiMonitorThread, nullptr);
    EXPECT_EQ(monitor->WmiEventThread, nullptr);
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_TRUE(monitor->closingFlag);
    EXPECT_TRUE(monitor->wmiCleanupEvent.Wait(0));
    EXPECT_TRUE(monitor->sdkSwitchEvent.Wait(0));
    EXPECT_FALSE(IsOpen());
}

TEST_F(MonitorLifecycle, SecondOpenOnlyCountsAndFirstCloseOnlyCountsBack)
{
    ASSERT_EQ(monitor->Open(), S_OK);
    TraceLines::Clear();
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(
        FirstMissingInOrder({L"Working from ", L"client token handle is ", L"object is already open",
                             L"version 6.7 uses singleton so this is okay", L"incremented reference counter to 2"}),
        L"");
    EXPECT_FALSE(trace.Has(L"created a timer queue"));
    EXPECT_EQ(wmi.connects.size(), 2u);
    TraceLines::Clear();
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(trace.Has(L"close called with reference counter at 2"));
    EXPECT_TRUE(trace.Has(L"netmon reference counter is 1, not closing everything down yet"));
    EXPECT_FALSE(trace.Has(L"Stop thread pool"));
    EXPECT_FALSE(monitor->closingFlag);
    EXPECT_TRUE(IsOpen());
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_FALSE(IsOpen());
}

TEST_F(MonitorLifecycle, CloseWithoutOpenSaysSo)
{
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_TRUE(trace.Has(L"close called with reference counter at 0"));
    EXPECT_TRUE(trace.Has(L"closed called without a previous open"));
    EXPECT_TRUE(monitor->sdkSwitchEvent.Wait(0)); // set before anything is looked at
    EXPECT_FALSE(monitor->closingFlag);
}

TEST_F(MonitorLifecycle, OpenAfterCloseMakesEverythingAnew)
{
    ASSERT_EQ(monitor->Open(), S_OK);
    ASSERT_EQ(monitor->Close(), S_OK);
    ASSERT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(wmi.created, 2);
    EXPECT_EQ(wmi.connects.size(), 4u);
    EXPECT_EQ(monitor->wmiNamespace.GetInterfacePtr(), wmi.namespaces[2].GetInterfacePtr());
    EXPECT_NE(monitor->Sink(), nullptr);
    EXPECT_NE(monitor->timerQueue.load(), nullptr);
    EXPECT_NE(monitor->NativeWifiMonitorThread, nullptr);
    EXPECT_NE(monitor->WmiEventThread, nullptr);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, WithoutALocatorOpenFails)
{
    wmi.createResult = E_OUTOFMEMORY;
    EXPECT_EQ(monitor->Open(), E_FAIL);
    EXPECT_TRUE(trace.Has(L"could not create an instance of WbemLocator"));
    EXPECT_TRUE(trace.Has(L"Error could not connect to wmi"));
    wmi.createResult = S_OK;
    ExpectBrokenOpenAndTheWayBack();
}

TEST_F(MonitorLifecycle, EachNamespaceThatDoesNotAnswerFailsOpenInItsOwnWords)
{
    const std::wstring names[] = {L"root\\wmi", L"root\\cimv2"};
    const std::wstring ends[] = {L"Error could not connect to wmi", L"Error could not connect to cimv2"};
    for (const int nth : {1, 2})
    {
        TraceLines::Clear();
        wmi.connects.clear();
        wmi.failConnect = nth;
        EXPECT_EQ(monitor->Open(), E_FAIL);
        wmi.failConnect = 0;
        const auto index = static_cast<std::size_t>(nth - 1);
        EXPECT_TRUE(trace.Has(L"Error could not connect to WMI namespace '" + names[index] + L"'"));
        EXPECT_TRUE(trace.Has(ends[index]));
        EXPECT_FALSE(trace.Has(L"create new event sync"));
        ExpectBrokenOpenAndTheWayBack();
    }
}

TEST_F(MonitorLifecycle, NamespaceThatIsNotThereInSpiteOfSuccessFailsOpen)
{
    const std::wstring ends[] = {L"Error namespace pointer is NULL", L"Error cimv2 pointer is NULL"};
    for (const int nth : {1, 2})
    {
        TraceLines::Clear();
        wmi.connects.clear();
        wmi.emptyConnect = nth;
        EXPECT_EQ(monitor->Open(), E_FAIL);
        wmi.emptyConnect = 0;
        EXPECT_TRUE(trace.Has(ends[nth - 1]));
        ExpectBrokenOpenAndTheWayBack();
    }
}

TEST_F(MonitorLifecycle, NamespaceThatCannotBeSecuredStaysSetAndFailsOpen)
{
    wmi.failBlanket = 1;
    EXPECT_EQ(monitor->Open(), E_FAIL);
    EXPECT_TRUE(trace.Has(L"Error could not set the proxy blanket"));
    EXPECT_TRUE(trace.Has(L"Error could not connect to wmi"));
    EXPECT_NE(monitor->wmiNamespace.GetInterfacePtr(), nullptr);
    EXPECT_EQ(monitor->cimv2Namespace.GetInterfacePtr(), nullptr);
    ExpectBrokenOpenAndTheWayBack();
}

TEST_F(MonitorLifecycle, WithoutMemoryForTheSinkOpenReturnsFourteenWhichReadsAsSuccess)
{
    HRESULT result = S_OK;
    {
        const NothrowNewFails shortage(sizeof(EventSink));
        result = monitor->Open();
        ASSERT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_EQ(result, 14);
    EXPECT_TRUE(SUCCEEDED(result));
    EXPECT_TRUE(trace.Has(L"create new event sync at 0x000000"));
    EXPECT_TRUE(trace.Has(L"Error could not create QuerySink object"));
    EXPECT_FALSE(trace.Has(L"created the QuerySink notification object"));
    ExpectBrokenOpenAndTheWayBack();
}

TEST_F(MonitorLifecycle, WithoutMemoryForTheQueuesFirstItemOpenFails)
{
    {
        const NothrowNewFails shortage(sizeof(NetUtilities::WorkItemMember<CNetMonSv>));
        EXPECT_EQ(monitor->Open(), E_FAIL);
        ASSERT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_TRUE(trace.Has(L"Failed to enqueue InitCOM in ip change work item queue"));
    EXPECT_FALSE(trace.Has(L"created a timer queue"));
    ExpectBrokenOpenAndTheWayBack();
}

TEST_F(MonitorLifecycle, IpChangeQueueThatRunsAlreadyFailsOpen)
{
    ASSERT_TRUE(monitor->ipChangeWorkItemQueue.Start());
    EXPECT_EQ(monitor->Open(), E_FAIL);
    EXPECT_TRUE(trace.Has(L"Could not start IP change work item queue"));
    ExpectBrokenOpenAndTheWayBack();
}

TEST_F(MonitorLifecycle, EachQueryOfTheDiscoveryThatFailsFailsOpen)
{
    for (const int nth : {1, 2})
    {
        int queries = 0;
        TraceLines::Clear();
        wmi.answer = [&](const std::wstring&, ObjectList&)
        { return ++queries == nth ? static_cast<HRESULT>(WBEM_E_FAILED) : S_OK; };
        EXPECT_EQ(monitor->Open(), E_FAIL);
        EXPECT_TRUE(trace.Has(L"Error could not add all network adapters to the list"));
        EXPECT_FALSE(trace.Has(L"Loading IP Helper DLL"));
        ExpectBrokenOpenAndTheWayBack();
    }
}

TEST_F(MonitorLifecycle, FailedSubscriptionIsSaidAndOpenSucceeds)
{
    wmi.answer = [&](const std::wstring&, ObjectList&)
    {
        wmi.At(0).failNotificationQuery = 1;
        return S_OK;
    };
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(FirstMissingInOrder(
                  {L"Register for notifications", L"Error failed to register for a notifications", L"Go to go <=="}),
              L"");
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, TimerQueueThatIsThereAlreadyIsKept)
{
    const HANDLE before = CreateTimerQueue();
    monitor->timerQueue = before;
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(trace.Has(L"something is wrong, there is already a timer queue in the netmonsv singleton '"));
    EXPECT_FALSE(trace.Has(L"created a timer queue"));
    EXPECT_EQ(monitor->timerQueue.load(), before);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, ThreadsThatAreThereAlreadyAreSaidAndNotStartedAgain)
{
    monitor->NativeWifiMonitorThread = std::make_unique<std::thread>();
    monitor->WmiEventThread = std::make_unique<std::thread>();
    const std::thread* const wifi = monitor->NativeWifiMonitorThread.get();
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(trace.Has(L"Error the NativeWifiMonitorThread is not NULL in CNetMonSv::Open()) ("));
    EXPECT_TRUE(trace.Has(L"Error the WmiEventThread is not NULL in CNetMonSv::Open()) ("));
    EXPECT_EQ(monitor->NativeWifiMonitorThread.get(), wifi);
    EXPECT_FALSE(trace.Has(L"StartWmiEventMonitorThread"));
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->WmiEventThread, nullptr);
}

TEST_F(MonitorLifecycle, OpenEmptiesAListThatWasLeft)
{
    monitor->Add(L"{old}");
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(trace.Has(L"deleted device info list successfully"));
    EXPECT_EQ(monitor->Head(), nullptr);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, OpenClearsTheStateOfAddressChanges)
{
    monitor->ipChangePending = true;
    monitor->ipChangeQueued = true;
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_FALSE(monitor->ipChangePending);
    EXPECT_FALSE(monitor->ipChangeQueued);
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, LibraryOfTheWiFiIsOpenedBeforeTheDiscoveryAndClosed)
{
    WiFiScope wifi;
    wmi.answer = [&](const std::wstring&, ObjectList&)
    {
        EXPECT_EQ(wifi.Count(L"WiFiOpenApi true false"), 1);
        return S_OK;
    };
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiCloseApi"), 0);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(wifi.Count(L"WiFiCloseApi"), 1);
}

// Waits of one length end at once, unless what they wait for is there.
class ImpatientClock : public SystemClock
{
public:
    explicit ImpatientClock(DWORD limit) : shortened(limit), previous(Clock::Exchange(this)) {}
    ~ImpatientClock() override { Clock::Exchange(previous); }
    DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override
    {
        return SystemClock::Wait(handle, milliseconds == shortened ? 0 : milliseconds);
    }

private:
    DWORD shortened;
    Clock* previous;
};

class Obstacle : public CWorkItem
{
public:
    Obstacle(Event& runs, Event& ends) : running(runs), end(ends) {}
    void Execute() override
    {
        running.Set();
        end.Wait(INFINITE);
    }

private:
    Event& running;
    Event& end;
};

TEST_F(MonitorLifecycle, QueueThatDoesNotEndInTimeMakesCloseFailWithoutStoppingIt)
{
    Event running(true, false);
    Event end(true, false);
    ASSERT_EQ(monitor->Open(), S_OK);
    ASSERT_TRUE(monitor->ipChangeWorkItemQueue.Add(new Obstacle(running, end)));
    ASSERT_TRUE(running.Wait(20000));
    TraceLines::Clear();
    {
        const ImpatientClock clock(5000);
        EXPECT_EQ(monitor->Close(), E_FAIL);
    }
    EXPECT_EQ(
        FirstMissingInOrder({L"Stop IP change work item queue", L"Stopping IP change work item queue failed",
                             L"timer queue is now deleted", L"Finished WMI cleanup", L"deleting device info list"}),
        L"");
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(monitor->Sink(), nullptr);
    end.Set();
}

// A pool's thread is given up on, and only then does what it runs come to its end.
class GivingUpClock : public ImpatientClock
{
public:
    explicit GivingUpClock(Event& ends) : ImpatientClock(20000), end(ends) {}
    DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override
    {
        const DWORD result = ImpatientClock::Wait(handle, milliseconds);
        if (milliseconds == 20000)
        {
            end.Set();
        }
        return result;
    }

private:
    Event& end;
};

TEST_F(MonitorLifecycle, PoolThatDoesNotEndInTimeMakesCloseFailWithoutStoppingIt)
{
    constexpr int limit = 3;
    Event running[limit + 1];
    Event end(true, false);
    ASSERT_EQ(monitor->Open(), S_OK);
    for (int number = 0; number < limit; ++number)
    {
        running[number].Create(true, false);
        ASSERT_TRUE(monitor->AddToPool(new Obstacle(running[number], end)));
        ASSERT_TRUE(running[number].Wait(60000));
    }
    // All threads are busy: this one stands in the queue of the first, which the close waits for.
    running[limit].Create(true, false);
    ASSERT_TRUE(monitor->AddToPool(new Obstacle(running[limit], end)));
    TraceLines::Clear();
    {
        const GivingUpClock clock(end);
        EXPECT_EQ(monitor->Close(), E_FAIL);
    }
    EXPECT_EQ(
        FirstMissingInOrder({L"Stop thread pool", L"Stopping thread pool failed", L"Stop IP change work item queue",
                             L"timer queue is now deleted", L"Finished WMI cleanup", L"deleting device info list"}),
        L"");
    EXPECT_FALSE(IsOpen());
}

TEST_F(MonitorLifecycle, TokenOfAnEarlierOpenIsClosedForAFreshOne)
{
    monitor->UseToken(CreateEventW(nullptr, TRUE, FALSE, nullptr)); // something that CloseHandle takes
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(FirstMissingInOrder(
                  {L"Working from ", L"closing sorvane.exe or client test token handle", L"client token handle is "}),
              L"");
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(MonitorLifecycle, TimerQueueIsClearedHoweverItsDeletionEnds)
{
    monitor->MyDeleteTimerQueue(); // without one: nothing
    EXPECT_EQ(PlatformHooks::Calls("DeleteTimerQueueEx"), 0);
    EXPECT_FALSE(trace.Has(L"timer queue is now deleted"));
    HANDLE waitedFor = nullptr;
    const auto deleteWith = [&](DWORD error)
    {
        TraceLines::Clear();
        const HANDLE queue = CreateTimerQueue();
        monitor->timerQueue = queue;
        DeleteTimerQueueExHook::Replace(
            [&, error](HANDLE, HANDLE event)
            {
                waitedFor = event;
                SetLastError(error);
                return error == ERROR_SUCCESS ? TRUE : FALSE;
            });
        monitor->MyDeleteTimerQueue();
        EXPECT_TRUE(trace.Has(L"timer queue is now deleted"));
        EXPECT_EQ(monitor->timerQueue.load(), nullptr);
        DeleteTimerQueueExHook::Real(queue, nullptr);
    };
    deleteWith(ERROR_SUCCESS);
    EXPECT_TRUE(trace.Has(L"deleting the timer queue"));
    EXPECT_EQ(waitedFor, INVALID_HANDLE_VALUE); // waits for running callbacks
    deleteWith(ERROR_IO_PENDING);
    EXPECT_TRUE(trace.Has(L"i/o to delete timer queue pending (0x0003e5)"));
    deleteWith(ERROR_INVALID_HANDLE);
    EXPECT_TRUE(trace.Has(L"could not delete timer queue (0x000006)"));
}

TEST_F(MonitorLifecycle, WmiCleanupCancelsThroughTheNamespaceThatIsThereAndMayRunTwice)
{
    ASSERT_EQ(monitor->ConnectWMINameSpace(&monitor->cimv2Namespace, L"root\\cimv2"), S_OK);
    wmi.At(0).cancelResult = static_cast<HRESULT>(WBEM_E_FAILED);
    monitor->CleanupWmiResources();
    EXPECT_EQ(FirstMissingInOrder({L"telling async wmi threads to end", L"Starting WMI cleanup",
                                   L"canceling notifications using cimV2 namespace",
                                   L"Error there was a problem canceling notifications", L"Finished WMI cleanup"}),
              L"");
    EXPECT_EQ(wmi.At(0).cancelled.size(), 1u);
    EXPECT_EQ(monitor->cimv2Namespace.GetInterfacePtr(), nullptr);
    EXPECT_EQ(monitor->wbemLocator.GetInterfacePtr(), nullptr);
    TraceLines::Clear();
    monitor->CleanupWmiResources();
    EXPECT_FALSE(trace.Has(L"canceling notifications"));
    EXPECT_TRUE(trace.Has(L"Finished WMI cleanup"));
    EXPECT_EQ(wmi.At(0).cancelled.size(), 1u);
}

class RunCount : public testing::Test
{
protected:
    void TearDown() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, runCountKey); }
    static DWORD Read(std::uint32_t& count)
    {
        RegistryKey key;
        const DWORD opened = key.Open(HKEY_LOCAL_MACHINE, runCountKey, KEY_READ);
        return opened != ERROR_SUCCESS ? opened : key.ReadDword(L"runcount", count);
    }
    std::uint32_t count = 0;
};

TEST_F(RunCount, GoesUpByOneWithEachMonitorAndWraps)
{
    RegistryKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, runCountKey, KEY_WRITE), 0u);
    ASSERT_EQ(key.WriteDword(L"runcount", 41), 0u);
    EXPECT_EQ(MakeTestObject<TestMonitor>()->FinalConstruct(), S_OK);
    EXPECT_EQ(Read(count), 0u);
    EXPECT_EQ(count, 42u);
    ASSERT_EQ(key.WriteDword(L"runcount", 0xFFFFFFFF), 0u);
    EXPECT_EQ(MakeTestObject<TestMonitor>()->FinalConstruct(), S_OK);
    EXPECT_EQ(Read(count), 0u);
    EXPECT_EQ(count, 0u);
}

TEST_F(RunCount, MissingValueOrKeyStaysMissing)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, runCountKey);
    EXPECT_EQ(MakeTestObject<TestMonitor>()->FinalConstruct(), S_OK);
    EXPECT_EQ(Read(count), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    RegistryKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, runCountKey, KEY_WRITE), 0u);
    EXPECT_EQ(MakeTestObject<TestMonitor>()->FinalConstruct(), S_OK);
    EXPECT_EQ(Read(count), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}
} // namespace
