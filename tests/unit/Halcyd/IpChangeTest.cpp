// Address changes: the registration with a module of the test's own, the update step by step, and changes that come
// while the monitor closes.

#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/NotificationsFixture.h"

namespace
{
// What was asked of the module. It is this program itself: it exports the two functions.
struct IpHelperCalls
{
    DWORD registerResult = 0;
    DWORD cancelResult = 0;
    int registered = 0;
    USHORT family = 0xFFFF;
    void(WINAPI* callback)(void* context, void* row, int type) = nullptr;
    void* context = nullptr;
    BOOLEAN initial = 0xFF;
    std::vector<HANDLE> cancelled;
};
IpHelperCalls ipHelper;
HANDLE const registration = reinterpret_cast<HANDLE>(0x1F0);
} // namespace

extern "C"
{
    __declspec(dllexport) DWORD WINAPI NotifyUnicastIpAddressChange(USHORT family,
                                                                    void(WINAPI* callback)(void*, void*, int),
                                                                    void* context, BOOLEAN initial, HANDLE* handle)
    {
        ++ipHelper.registered;
        ipHelper.family = family;
        ipHelper.callback = callback;
        ipHelper.context = context;
        ipHelper.initial = initial;
        *handle = ipHelper.registerResult == NO_ERROR ? registration : nullptr;
        return ipHelper.registerResult;
    }

    __declspec(dllexport) DWORD WINAPI CancelMibChangeNotify2(HANDLE handle)
    {
        ipHelper.cancelled.push_back(handle);
        return ipHelper.cancelResult;
    }
}

namespace
{
class IpChange : public NotificationsFixture
{
protected:
    IpChange() { ipHelper = {}; }
    void UseOwnModule()
    {
        HMODULE module = nullptr;
        ASSERT_TRUE(GetModuleHandleExW(0, nullptr, &module));
        ASSERT_NE(GetProcAddress(module, "NotifyUnicastIpAddressChange"), nullptr);
        monitor->UseIpHelper(module);
    }
};

// --- registration ---

TEST_F(IpChange, RegistrationIsForBothFamiliesWithTheMonitorAsContextAndEndsByItsHandle)
{
    UseOwnModule();
    monitor->RegisterForAddresses();
    EXPECT_EQ(ipHelper.registered, 1);
    EXPECT_EQ(ipHelper.family, 0u);
    EXPECT_EQ(ipHelper.context, static_cast<CNetMonSv*>(monitor.Get()));
    EXPECT_EQ(ipHelper.initial, 0u);
    ASSERT_NE(ipHelper.callback, nullptr);
    monitor->DeregisterForAddresses();
    EXPECT_EQ(ipHelper.cancelled, std::vector<HANDLE>{registration});
    EXPECT_FALSE(trace.Has(L"Failed to "));
}

TEST_F(IpChange, CallbackPassesAChangeOnWhateverItsRowAndOnlyWithAContext)
{
    UseOwnModule();
    monitor->RegisterForAddresses();
    ASSERT_NE(ipHelper.callback, nullptr);
    ipHelper.callback(nullptr, nullptr, 0);
    EXPECT_FALSE(monitor->ipChangeQueued);
    ipHelper.callback(ipHelper.context, nullptr, 3);
    EXPECT_TRUE(monitor->ipChangeQueued);
    EXPECT_FALSE(monitor->ipChangePending);
    ipHelper.callback(ipHelper.context, nullptr, 3);
    EXPECT_TRUE(monitor->ipChangePending);
    EXPECT_TRUE(trace.Has(L"Set IP change event pending and return"));
}

TEST_F(IpChange, WithoutTheModuleBothWaysAreOnlySaid)
{
    monitor->RegisterForAddresses();
    EXPECT_TRUE(trace.Has(L"Error cannot register for Unicast IP changes because IP Helper handle is not set."));
    monitor->DeregisterForAddresses();
    EXPECT_TRUE(
        trace.Has(L"Cannot register for de-register for Unicast IP changes because IP Helper handle is not set."));
}

TEST_F(IpChange, ModuleWithoutTheFunctionsIsSaid)
{
    monitor->UseIpHelper(LoadLibraryW(L"kernel32.dll"));
    monitor->RegisterForAddresses();
    EXPECT_TRUE(trace.Has(L"Error could not get handle to NotifyUnicastIpAddressChange to register for changes."));
    monitor->DeregisterForAddresses();
    EXPECT_TRUE(trace.Has(L"Could not get handle to CancelMibChangeNotify2 to de-register for changes."));
}

TEST_F(IpChange, RefusedRegistrationAndRefusedEndAreSaidWithTheirErrors)
{
    UseOwnModule();
    ipHelper.registerResult = ERROR_NOT_SUPPORTED;
    monitor->RegisterForAddresses();
    EXPECT_TRUE(trace.Has(L"Failed to register for unicast IP change notifications Error 50 (0x32)"));
    ipHelper.cancelResult = ERROR_INVALID_PARAMETER;
    monitor->DeregisterForAddresses();
    EXPECT_TRUE(trace.Has(L"Failed to de-register for unicast IP change notifications Error 87 (0x57)"));
}

// --- the update ---

TEST_F(IpChange, UpdateIsToldStepByStepAndFiresWithoutALockInHand)
{
    monitor->Add(id, L"Brevik Ethernet");
    bool listWasFree = false;
    sink.onEvent = [&](const ToldEvent&) { listWasFree = monitor->IsListFree(); };
    monitor->NetMonHandleUnicastIpChangeEventImpl();
    EXPECT_EQ(FirstMissingInOrder({
                  L"HandleUnicastIpChangeEvent: received notification of IPv6 or Ipv4 unicast change event",
                  L"updating 'Brevik Ethernet' because of unicast IP change event",
                  L"HandleUnicastIpChangeEvent: firing unicast IP change event thread",
                  L"EVENT: Fire_AdapterChange 'no node' 'Null' 'enumEventIpChange (7)'",
                  L"HandleUnicastIpChangeEvent: RETURN FROM FIRING IPCHANGE EVENT",
                  L"Possibly delay for 500 ms before handing next IP change event",
              }),
              L"");
    EXPECT_EQ(monitor->Head()->DeviceIndex, 7);
    EXPECT_TRUE(listWasFree);
}

TEST_F(IpChange, ElementWithoutAWmiInstanceIsPassedOverAndTheEventStillGoes)
{
    monitor->Add(L"{0}", L"Gone");
    monitor->Add(id, L"Brevik Ethernet");
    monitor->NetMonHandleUnicastIpChangeEventImpl();
    EXPECT_EQ(FirstMissingInOrder({
                  L"updating 'Gone' because of unicast IP change event",
                  L"HandleUnicastIpChangeEvent: there is no wmi instance for 'Gone'",
                  L"updating 'Brevik Ethernet' because of unicast IP change event",
                  L"HandleUnicastIpChangeEvent: firing unicast IP change event thread",
              }),
              L"");
    EXPECT_EQ(monitor->Tail()->DeviceIndex, 7);
    EXPECT_EQ(Told(), (std::vector<int>{7}));
}

TEST_F(IpChange, CloseEndsTheUpdateWithoutAnEvent)
{
    monitor->Add(id, L"Brevik Ethernet");
    monitor->ipChangePending = true;
    monitor->wmiCleanupEvent.Set();
    monitor->NetMonHandleUnicastIpChangeEventImpl();
    EXPECT_FALSE(trace.Has(L"updating 'Brevik Ethernet'"));
    EXPECT_FALSE(trace.Has(L"HandleUnicastIpChangeEvent: firing"));
    EXPECT_TRUE(trace.Has(L"Possibly delay for 500 ms before handing next IP change event"));
    EXPECT_TRUE(monitor->ipChangePending); // as it was
}

// A clock under which the cleanup begins in the middle of the rest behind an update: at a sleep, or at a wait with a
// limit on the event that the cleanup sets.
class CleanupWithinTheRest final : public SystemClock
{
public:
    explicit CleanupWithinTheRest(const Event& event) : cleanup(event), previous(Clock::Exchange(this)) {}
    ~CleanupWithinTheRest() override { Clock::Exchange(previous); }

    void Sleep(DWORD milliseconds) noexcept override
    {
        ++sleeps;
        cleanup.Set();
        SystemClock::Sleep(milliseconds);
    }
    [[nodiscard]] DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override
    {
        if (handle != cleanup.Handle() || milliseconds == 0)
        {
            return SystemClock::Wait(handle, milliseconds);
        }
        limits.push_back(milliseconds);
        cleanup.Set();
        results.push_back(SystemClock::Wait(handle, milliseconds));
        return results.back();
    }

    int sleeps = 0;
    std::vector<DWORD> limits;
    std::vector<DWORD> results;

private:
    const Event& cleanup;
    Clock* previous;
};

TEST_F(IpChange, CleanupThatBeginsDuringTheSpacingEndsItAtOnceAndLeavesTheFlags)
{
    monitor->Add(id, L"Brevik Ethernet");
    monitor->ipChangeQueued = true;
    monitor->ipChangePending = true;
    {
        const CleanupWithinTheRest rest(monitor->wmiCleanupEvent);
        monitor->NetMonHandleUnicastIpChangeEventImpl();
        EXPECT_EQ(rest.sleeps, 0);
        EXPECT_EQ(rest.limits, std::vector<DWORD>{500});
        EXPECT_EQ(rest.results, std::vector<DWORD>{WAIT_OBJECT_0});
    }
    EXPECT_EQ(Told(), (std::vector<int>{7})); // the event had gone before
    EXPECT_TRUE(monitor->ipChangeQueued);
    EXPECT_TRUE(monitor->ipChangePending);
    EXPECT_FALSE(trace.Has(L"Enter ==> CNetMonSv::EnqueueIPChangeEvent pid "));
    monitor->wmiCleanupEvent.Reset();
}

TEST_F(IpChange, UpdateThatCannotBeQueuedIsDroppedAndTheNextChangeStartsAnew)
{
    constexpr wchar_t failed[] = L"Could not enqueue NetMonHandleUnicastIpChangeEventImpl";
    {
        const NothrowNewFails shortage(sizeof(NetUtilities::WorkItemMember<CNetMonSv>));
        monitor->NetMonHandleUnicastIpChangeEvent();
        ASSERT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_EQ(trace.Count(failed), 1);
    EXPECT_FALSE(monitor->ipChangeQueued);
    monitor->ipChangeQueued = true;
    monitor->ipChangePending = true;
    {
        const NothrowNewFails shortage(sizeof(NetUtilities::WorkItemMember<CNetMonSv>));
        monitor->NetMonHandleUnicastIpChangeEventImpl();
        ASSERT_TRUE(NothrowNewFails::Happened());
    }
    EXPECT_EQ(trace.Count(failed), 2);
    EXPECT_FALSE(monitor->ipChangeQueued);
    EXPECT_FALSE(monitor->ipChangePending);
    monitor->NetMonHandleUnicastIpChangeEvent();
    EXPECT_TRUE(monitor->ipChangeQueued);
}

TEST_F(IpChange, ChangeBetweenTheEndOfTheQueueAndThatOfTheRegistrationIsNotServed)
{
    monitor->wmiCleanupEvent.Set(); // as a close leaves it
    monitor->NetMonHandleUnicastIpChangeEvent();
    EXPECT_FALSE(monitor->ipChangeQueued);
    monitor->wmiCleanupEvent.Reset();
    ASSERT_TRUE(monitor->ipChangeWorkItemQueue.Start()); // as the next open does
    EXPECT_TRUE(monitor->ipChangeWorkItemQueue.StopAfterDrain(20000, nullptr));
    EXPECT_FALSE(trace.Has(L"HandleUnicastIpChangeEvent: received notification"));
    EXPECT_TRUE(Told().empty());
}
} // namespace
