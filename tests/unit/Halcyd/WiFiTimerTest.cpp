// What keeps a Wi-Fi adapter current: its timer and the thread of the Wi-Fi library's signal; and how its extension
// ends.

#include "tests/unit/Halcyd/WiFiTrackingFixture.h"

#include <thread>

#include "NetUtilities/GlobalObjectName.h"
#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/MemoryLedger.h"

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
using WiFiAdapter::id;

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
    extension.LastSurveyTime = ClockNow() - 15000;
    EXPECT_EQ(monitor->UpdateFromTimer(element), E_FAIL);
    EXPECT_TRUE(trace.Has(L"WiFiUpdateDetailsFromTimer: recently updated the bssid list...skipping timer update"));
    EXPECT_TRUE(wifi.Calls().empty());
    extension.LastSurveyTime = ClockNow() - 15100;
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
    extension.LastSurveyTime = ClockNow() - 5000;
    _DEVICE_ELEMENT* const fresh = monitor->Add(L"{FRESH}");
    fresh->AdapterType = enumWiFi;
    auto* const freshExtension = static_cast<_WIFI_ADAPTER*>(CoTaskMemAlloc(sizeof(_WIFI_ADAPTER)));
    *freshExtension = {};
    freshExtension->LastSurveyTime = ClockNow() + 60000; // whenever the thread looks, it was refreshed
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
