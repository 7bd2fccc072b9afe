// Sinks that do what no sink should: fail, block, die inside the call, call back, leave inside their own call. The
// others get every event, and the service goes on.

#include "Input/InputMachine.h"

#include <atomic>
#include <memory>

#include "Host/HostSupport.h"
#include "NetUtilities/Event.h"
#include "tests/support/main/ChildProcess.h"

namespace
{
constexpr wchar_t kDock[] = L"{4A1C7E0D-3B52-4D0F-9E61-0C5D8A2B700D}";
constexpr wchar_t kConnectedEvent[] = L"Local\\HalcydInputSinkConnected";

class Sinks : public InputTest
{
protected:
    void SetUp() override
    {
        InputTest::SetUp();
        if (HasFatalFailure())
        {
            return;
        }
        ASSERT_EQ(monitor->Open(), S_OK);
        ASSERT_EQ(monitor->StartNotificationProcessing(), S_OK);
    }
    void TearDown() override
    {
        if (monitor != nullptr)
        {
            EXPECT_EQ(monitor->Close(), S_OK);
        }
        InputTest::TearDown();
    }
    // The media disconnect of an adapter reached this sink.
    static bool HeardDisconnect(const EventConnection& connection, const wchar_t* adapter = kEthernet)
    {
        return connection.Recorder()
            .WaitFor([&](const RecordedEvent& told) { return Disconnect(told, adapter); })
            .has_value();
    }
    static int Disconnects(const EventConnection& connection, const wchar_t* adapter = kEthernet)
    {
        int count = 0;
        for (const RecordedEvent& told : connection.Recorder().Events())
        {
            count += Disconnect(told, adapter) ? 1 : 0;
        }
        return count;
    }
    static bool Disconnect(const RecordedEvent& told, const wchar_t* adapter)
    {
        return told.event == enumEventMediaDisconnect && told.deviceId == adapter;
    }
};

// A client of its own that connects a sink and ends, without a word, inside the first event that it gets.
CHILD_PROCESS(testing::Test, DiesInsideItsFirstEvent)
{
    const ComApartment apartment;
    const INetMonSvPtr monitor = ActivateMonitor();
    ASSERT_TRUE(monitor);
    const EventConnection connection(monitor);
    connection->OnEvent(
        [](const RecordedEvent&) -> HRESULT
        {
            TerminateProcess(GetCurrentProcess(), 99);
            return S_OK;
        });
    ASSERT_EQ(connection.Result(), S_OK);
    const UniqueHandle connected(OpenEventW(EVENT_MODIFY_STATE, FALSE, kConnectedEvent));
    ASSERT_TRUE(SetEvent(connected.get()));
    Sleep(INFINITE);
}

// The same, but the process is ended from outside while no event is on its way.
CHILD_PROCESS(testing::Test, ConnectsAndWaits)
{
    const ComApartment apartment;
    const INetMonSvPtr monitor = ActivateMonitor();
    ASSERT_TRUE(monitor);
    const EventConnection connection(monitor);
    ASSERT_EQ(connection.Result(), S_OK);
    const UniqueHandle connected(OpenEventW(EVENT_MODIFY_STATE, FALSE, kConnectedEvent));
    ASSERT_TRUE(SetEvent(connected.get()));
    Sleep(INFINITE);
}

// Starts one of the clients above and waits until its sink is connected.
UniqueHandle StartSinkClient(const char* name)
{
    const UniqueHandle connected(CreateEventW(nullptr, TRUE, FALSE, kConnectedEvent));
    UniqueHandle process = StartProcess(ChildCommandLine(name));
    EXPECT_TRUE(process);
    const HANDLE either[] = {connected.get(), process.get()};
    EXPECT_EQ(WaitForMultipleObjects(2, either, FALSE, 60'000), WAIT_OBJECT_0);
    return process;
}

TEST_F(Sinks, FailingOneIsTracedAndGetsTheNextEventLikeAllOthers)
{
    const EventConnection failing(monitor);
    const EventConnection other(monitor);
    failing->OnEvent([](const RecordedEvent&) { return E_ACCESSDENIED; });
    Lab(L"cable out eth0");
    EXPECT_TRUE(HeardDisconnect(other));
    EXPECT_TRUE(HostSupport::WaitForTrace(L"Fire_AdapterChange failed 0x80070005"));
    Lab(L"cable out dock0");
    EXPECT_TRUE(HeardDisconnect(other, kDock));
    EXPECT_TRUE(HeardDisconnect(failing));
    EXPECT_TRUE(HeardDisconnect(failing, kDock));
}

TEST_F(Sinks, BlockedOneHoldsUpItsOwnEventOnlyForThoseBehindIt)
{
    const EventConnection before(monitor);
    const EventConnection blocked(monitor);
    const EventConnection behind(monitor);
    const UniqueHandle entered(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const UniqueHandle release(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    blocked->OnEvent(
        [&](const RecordedEvent& told)
        {
            if (Disconnect(told, kEthernet))
            {
                SetEvent(entered.get());
                WaitForSingleObject(release.get(), 120'000);
            }
            return S_OK;
        });
    Lab(L"cable out eth0");
    ASSERT_EQ(WaitForSingleObject(entered.get(), 60'000), WAIT_OBJECT_0);

    // Sinks are called one after the other, in the order of their slots.
    EXPECT_TRUE(HeardDisconnect(before));
    EXPECT_EQ(Disconnects(behind), 0);
    // An event of another source has a thread of its own and passes by.
    Lab(L"address add dock0 192.0.2.77/24");
    EXPECT_TRUE(behind->WaitForEvent(enumEventIpChange).has_value());
    EXPECT_TRUE(blocked->WaitForEvent(enumEventIpChange).has_value());
    // No lock is held: the list is read, clients come and go.
    const std::vector<AdapterRecord> list = ReadAdapterList(Monitor());
    ASSERT_NE(FindAdapter(list, kEthernet), nullptr);
    EXPECT_EQ(FindAdapter(list, kEthernet)->connectStatus, 1);
    EventConnection another(Monitor());
    EXPECT_EQ(another.Result(), S_OK);
    EXPECT_EQ(another.Disconnect(), S_OK);
    // The next notification of the same source waits its turn.
    Lab(L"cable out dock0");
    EXPECT_EQ(Disconnects(behind, kDock), 0);

    SetEvent(release.get());
    EXPECT_TRUE(HeardDisconnect(behind));
    EXPECT_TRUE(HeardDisconnect(behind, kDock));
    EXPECT_TRUE(HeardDisconnect(blocked, kDock));
    EXPECT_EQ(Disconnects(behind), 1);
}

TEST_F(Sinks, OneWhoseProcessDiesInsideTheCallCostsTheOthersNothing)
{
    const EventConnection before(monitor);
    const UniqueHandle dying = StartSinkClient("DiesInsideItsFirstEvent");
    const EventConnection behind(monitor);
    Lab(L"cable out eth0");
    EXPECT_TRUE(HeardDisconnect(before));
    EXPECT_TRUE(HeardDisconnect(behind));
    ASSERT_EQ(WaitForSingleObject(dying.get(), 60'000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(dying.get(), &code));
    EXPECT_EQ(code, 99u); // it died where it was meant to
    // It stays in the list: each further event fails for it and reaches the others.
    Lab(L"cable out dock0");
    EXPECT_TRUE(HeardDisconnect(before, kDock));
    EXPECT_TRUE(HeardDisconnect(behind, kDock));
    EXPECT_EQ(EventConnection(Monitor()).Cookie(), behind.Cookie() + 1);
}

TEST_F(Sinks, ThoseOfKilledClientsAreSkippedForGood)
{
    const UniqueHandle first = StartSinkClient("ConnectsAndWaits");
    const UniqueHandle second = StartSinkClient("ConnectsAndWaits");
    const EventConnection behind(monitor);
    for (const HANDLE client : {first.get(), second.get()})
    {
        ASSERT_TRUE(TerminateProcess(client, 0));
        ASSERT_EQ(WaitForSingleObject(client, 60'000), WAIT_OBJECT_0);
    }
    Lab(L"cable out eth0");
    EXPECT_TRUE(HeardDisconnect(behind));
    Lab(L"cable out dock0");
    EXPECT_TRUE(HeardDisconnect(behind, kDock));
}

TEST_F(Sinks, OneThatCallsBackGetsItsAnswersInsideTheEvent)
{
    const EventConnection connection(monitor);
    std::unique_ptr<EventConnection> late;
    const UniqueHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    connection->OnEvent(
        [&](const RecordedEvent& told)
        {
            if (Disconnect(told, kEthernet))
            {
                EXPECT_FALSE(ReadAdapterList(monitor).empty());
                VARIANT_BOOL open = VARIANT_FALSE;
                EXPECT_EQ(monitor->IsOpen(&open), S_OK);
                EXPECT_EQ(open, VARIANT_TRUE);
                EXPECT_EQ(monitor->Open(), S_OK);
                EXPECT_EQ(monitor->Close(), S_OK); // not the last
                EXPECT_EQ(monitor->put_FilterMask(told.event), S_OK);
                EXPECT_EQ(monitor->ResetSsidList(), S_OK);
                EXPECT_EQ(monitor->StopNotificationProcessing(), S_OK);
                EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
                late = std::make_unique<EventConnection>(monitor);
                SetEvent(done.get());
            }
            return S_OK;
        });
    Lab(L"cable out eth0");
    ASSERT_EQ(WaitForSingleObject(done.get(), 60'000), WAIT_OBJECT_0);
    Lab(L"cable out dock0");
    ASSERT_TRUE(HeardDisconnect(connection, kDock));
    ASSERT_TRUE(HeardDisconnect(*late, kDock));
}

TEST_F(Sinks, OneThatLeavesInsideItsOwnCallIsNotCalledAgain)
{
    auto leaving = std::make_unique<EventConnection>(monitor);
    const EventConnection staying(monitor);
    std::atomic<HRESULT> left{E_FAIL};
    EventConnection* const self = leaving.get();
    leaving->Recorder().OnEvent(
        [&, self](const RecordedEvent& told)
        {
            if (Disconnect(told, kEthernet))
            {
                left = self->Disconnect();
            }
            return S_OK;
        });
    const DWORD cookie = leaving->Cookie();
    Lab(L"cable out eth0");
    EXPECT_TRUE(HeardDisconnect(staying));
    EXPECT_EQ(left.load(), S_OK);
    Lab(L"cable out dock0");
    EXPECT_TRUE(HeardDisconnect(staying, kDock));
    EXPECT_EQ(Disconnects(*leaving, kDock), 0);
    EXPECT_EQ(EventConnection(monitor).Cookie(), cookie); // its slot is free
}

TEST_F(Sinks, OneThatThrowsOutTheOthersInsideItsCallEndsTheirEventsToo)
{
    const EventConnection first(monitor);
    EventConnection second(monitor);
    std::atomic<HRESULT> removed{E_FAIL};
    first->OnEvent(
        [&](const RecordedEvent& told)
        {
            if (Disconnect(told, kEthernet))
            {
                removed = second.Disconnect();
            }
            return S_OK;
        });
    const EventConnection third(monitor);
    Lab(L"cable out eth0");
    // The list is looked at anew for each sink: the second one has left by its turn, the third gets the event.
    EXPECT_TRUE(HeardDisconnect(third));
    EXPECT_EQ(removed.load(), S_OK);
    EXPECT_EQ(Disconnects(second), 0);
}
} // namespace
