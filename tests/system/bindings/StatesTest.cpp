// The states that the bindings threads go through in the shipped service, the races between a restore and a disable in
// a fixed order, and what other clients see meanwhile.

#include <gtest/gtest.h>

#include "bindings/BindingsMachine.h"
#include "Monitor/MonitorMachine.h"
#include "lab/state/Text.h"
#include "tests/support/EventRecorder.h"
#include "tests/support/RegistryExport.h"

namespace
{
using namespace BindingsMachine;
using lab::Json;

constexpr auto kLockedByOther = static_cast<std::int32_t>(0x8004A024);
constexpr wchar_t kOwnName[] = L"Sorvane Configuration Service";

class BindingStatesTest : public BindingsServiceTest
{
protected:
    void TearDown() override { machine.ClearFaults(); }

    void RestartHooked()
    {
        monitor = nullptr;
        ASSERT_NO_FATAL_FAILURE(RestartWithHooks(service));
        Connect();
        machine.ClearJournal();
    }
    static bool IsOpen(std::future<HRESULT>& call)
    {
        return call.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
    }
    // How often the service made this call since the journal was cleared.
    int Calls(const std::string& name)
    {
        lab::JournalPosition start;
        int count = 0;
        for (const Json& line : machine.ReadJournal(start))
        {
            count += line.value("call", "") == name ? 1 : 0;
        }
        return count;
    }
    // Waits until a call of that name has begun to be delayed: rules count a call before its delay.
    void AwaitHit(const std::string& name)
    {
        const ULONGLONG end = GetTickCount64() + 60'000;
        while (GetTickCount64() < end)
        {
            for (const lab::FaultRule& rule : machine.Faults())
            {
                if (rule.call == name && rule.hits != 0)
                {
                    return;
                }
            }
            Sleep(2);
        }
        ADD_FAILURE() << name << " was not called";
    }
};
using BindingStates = BindingStatesTest;
using Fast10_BindingStates = BindingStatesTest;

// Idle, Disabling, Held, Restoring, Idle.
TEST_F(BindingStates, LockIsHeldFromTheDisableToBehindTheRestoredEventAndThenTheDisableReturns)
{
    EXPECT_FALSE(LockHolder());
    const EventConnection events(monitor);
    std::optional<std::wstring> holderAtRestored;
    std::future<HRESULT> call;
    bool openAtRestored = false;
    events->OnEvent(
        [&](const RecordedEvent& event)
        {
            if (event.event == 10)
            {
                holderAtRestored = LockHolder();
                openAtRestored = IsOpen(call);
            }
            return S_OK;
        });
    call = Disable(monitor);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    EXPECT_EQ(LockHolder(), kOwnName);
    EXPECT_TRUE(IsOpen(call));
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(holderAtRestored, kOwnName);
    EXPECT_TRUE(openAtRestored);
    EXPECT_FALSE(LockHolder());
}

TEST_F(BindingStates, RestoreFromWithinTheDisabledEventWorksAndNobodyWaits)
{
    const EventConnection events(monitor);
    events->OnEvent([this](const RecordedEvent& event)
                    { return event.event == 9 ? monitor->RestoreIpBindings() : S_OK; });
    std::future<HRESULT> call = Disable(monitor);
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(call.get(), S_OK);
    EXPECT_TRUE(events->WaitForEvent(10, 60'000).has_value());
    EXPECT_FALSE(LockHolder());
}

// The restore comes as a whole between the disabled event and the making of the event that a disable waits on.
TEST_F(BindingStates, RestoreThatIsOverBeforeTheDisableWaitsLeavesItNothingToWaitFor)
{
    RestartHooked();
    lab::FaultRule rule;
    rule.call = "CreateEventW";
    rule.delayMs = 3000;
    machine.AddFault(rule);
    const EventConnection events(monitor);
    std::future<HRESULT> call = Disable(monitor);
    AwaitHit("CreateEventW");
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    EXPECT_EQ(Calls("CreateEventW"), 0); // still under way
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(Calls("CreateEventW"), 1);
    EXPECT_FALSE(LockHolder());
}

// The restore has begun, and has the lock still: the disable waits, and is woken behind the restore's end.
TEST_F(BindingStates, RestoreThatEndsAfterTheDisableBeganToWaitWakesIt)
{
    RestartHooked();
    const EventConnection events(monitor);
    std::future<HRESULT> call = Disable(monitor);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    while (Calls("CreateEventW") == 0)
    {
        Sleep(2);
    }
    lab::FaultRule rule;
    rule.call = "INetCfgLock::ReleaseWriteLock";
    rule.delayMs = 3000;
    machine.AddFault(rule);
    std::future<HRESULT> restore = std::async(std::launch::async,
                                              [this]
                                              {
                                                  const ComApartment thread;
                                                  return monitor->RestoreIpBindings();
                                              });
    AwaitHit("INetCfgLock::ReleaseWriteLock");
    EXPECT_TRUE(IsOpen(call));
    ASSERT_TRUE(Comes(restore));
    ASSERT_TRUE(Comes(call));
    EXPECT_FALSE(LockHolder());
}

TEST_F(Fast10_BindingStates, SecondDisableWhileTheFirstWaitsIsRefusedUnderOurOwnNameAndTheFirstGoesOn)
{
    const EventConnection events(monitor);
    std::future<HRESULT> first = Disable(monitor);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    events->Clear();
    machine.ClearJournal();
    EXPECT_EQ(monitor->DisableIpBindings(_bstr_t(kTunnel), 0), S_OK);
    const auto refused = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->number, kLockedByOther);
    EXPECT_EQ(Calls("INetCfgLock::IsWriteLocked"), 11);
    EXPECT_TRUE(IsOpen(first));
    EXPECT_EQ(LockHolder(), kOwnName);
    // The restore frees both; the flag is clear, so the lock goes with the engine's last reference and not by a call.
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(first));
    EXPECT_EQ(Calls("INetCfgLock::ReleaseWriteLock"), 0);
    EXPECT_FALSE(LockHolder());
}

TEST_F(Fast10_BindingStates, RefusedDisableKeepsItsSessionUntilARestoreAndThenEverythingIsAsNew)
{
    DWORD holderId = 0;
    const UniqueHandle holder = HoldLock({}, &holderId);
    const EventConnection events(monitor);
    EXPECT_EQ(monitor->DisableIpBindings(_bstr_t(kTunnel), 0), S_OK);
    const auto refused = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->number, kLockedByOther);
    // The restore takes the session as it is: no look at the lock, and the result of an engine without it.
    machine.ClearJournal();
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    const auto restored = events->WaitForEvent(10, 60'000);
    ASSERT_TRUE(restored.has_value());
    EXPECT_LT(restored->number, 0);
    EXPECT_EQ(Calls("CNetCfg::CreateInstance"), 0);
    EXPECT_EQ(Calls("INetCfgLock::IsWriteLocked"), 0);
    EXPECT_EQ(Calls("CNetCfg::Gone"), 1);
    KillProcess(holderId);
    events->Clear();
    std::future<HRESULT> call = Disable(monitor);
    const auto disabled = events->WaitForEvent(9, 60'000);
    ASSERT_TRUE(disabled.has_value());
    EXPECT_EQ(disabled->number, 0);
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));
}

// --- The service's start ---

// What a crashed run left: the card's IPv4 off, and a record that names it.
void LeaveARecord()
{
    Lab(L"bindings set ms_tcpip lab_card off");
    const DWORD one = 1;
    EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, (std::wstring(kRecordRoot) + L"\\ms_tcpip\\" + kCard).c_str(),
                              L"BindingDisabledByQRL", REG_DWORD, &one, sizeof one),
              0);
}

TEST_F(BindingStates, StartReportsRunningOnlyBehindTheRestoreForWhichItWaited)
{
    monitor = nullptr;
    ASSERT_TRUE(service.StopAndWait());
    LeaveARecord();
    const UniqueHandle holder = HoldLock(L"--seconds 3");
    ASSERT_EQ(service.Start(), 0U);
    while (LockHolder() == L"Other program")
    {
        EXPECT_EQ(service.State(), DWORD{SERVICE_START_PENDING});
        Sleep(20);
    }
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
    EXPECT_TRUE(PathsOff().empty());
    EXPECT_EQ(ReadRecord(), (Record{{"ms_tcpip", std::nullopt}}));
}

TEST_F(Fast10_BindingStates, StartGivesUpOnALockThatIsNeverFreeAndKeepsTheRecordForTheNextStart)
{
    monitor = nullptr;
    ASSERT_TRUE(service.StopAndWait());
    LeaveARecord();
    DWORD holderId = 0;
    const UniqueHandle holder = HoldLock({}, &holderId);
    machine.ClearJournal();
    ASSERT_TRUE(service.StartAndWait());
    EXPECT_EQ(Calls("INetCfgLock::IsWriteLocked"), 11);
    EXPECT_EQ(PathsOff().size(), 1u);
    EXPECT_EQ(ReadRecord().at("ms_tcpip\\" + lab::Utf8(kCard)), 1u);
    KillProcess(holderId);
    ASSERT_TRUE(service.StopAndWait());
    ASSERT_TRUE(service.StartAndWait());
    EXPECT_TRUE(PathsOff().empty());
    EXPECT_EQ(ReadRecord().count("ms_tcpip\\" + lab::Utf8(kCard)), 0u);
}

// --- Other clients ---

TEST_F(BindingStates, EventsAndAllOtherCallsAreServedWhileADisableIsOpen)
{
    ASSERT_EQ(monitor->Open(), S_OK);
    ASSERT_EQ(monitor->StartNotificationProcessing(), S_OK);
    const EventConnection events(monitor);
    std::future<HRESULT> call = Disable(monitor);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());

    // A second client, with objects of its own.
    const INetMonSvPtr other = ActivateMonitor();
    const EventConnection otherEvents(other);
    ASSERT_EQ(otherEvents.Result(), S_OK);
    VARIANT_BOOL open = VARIANT_FALSE;
    EXPECT_EQ(other->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_TRUE);
    EXPECT_FALSE(ReadAdapterList(other).empty());
    EXPECT_EQ(other->Open(), S_OK);
    EXPECT_EQ(other->Close(), S_OK);
    const auto registry = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry);
    EXPECT_NE(registry, nullptr);
    const auto settings = ActivateLocal<IDNSPtr>(CLSID_DNS);
    EXPECT_NE(settings, nullptr);
    const auto services = ActivateLocal<IServiceControlExPtr>(CLSID_ServiceControlEx);
    EXPECT_NE(services, nullptr);
    EXPECT_EQ(other->ChangeMultiHomingPreferenceIfAllowed(1), ERROR_ACCESS_DENIED);

    // Events of the machine reach both of them.
    Lab(L"cable out eth0");
    EXPECT_TRUE(events->WaitForEvent(4, 60'000).has_value());
    EXPECT_TRUE(otherEvents->WaitForEvent(4, 60'000).has_value());
    EXPECT_TRUE(IsOpen(call));
    EXPECT_EQ(LockHolder(), kOwnName);

    EXPECT_EQ(other->RestoreIpBindings(), S_OK);
    ASSERT_TRUE(Comes(call));
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(BindingStates, ClientThatDiesWithItsDisableOpenLeavesTheBindingsToAnyOtherClient)
{
    const EventConnection events(monitor);
    DWORD clientId = 0;
    const UniqueHandle client =
        StartProcess(L"\"" + ProductFolder() + L"halcydctl.exe\" bindings disable " + kTunnel, &clientId);
    ASSERT_TRUE(events->WaitForEvent(9, 60'000).has_value());
    ASSERT_TRUE(KillProcess(clientId));
    EXPECT_EQ(LockHolder(), kOwnName);
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    EXPECT_TRUE(events->WaitForEvent(10, 60'000).has_value());
    EXPECT_FALSE(LockHolder());
}
} // namespace
