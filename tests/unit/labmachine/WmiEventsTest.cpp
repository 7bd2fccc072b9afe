#include "WmiFixture.h"

#include "lab/state/Changes.h"
#include "lab/state/Handles.h"
#include "lab/state/Model.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace lab::test
{
namespace
{

// A client's sink that keeps what it hears.
class Recorder final : public IWbemObjectSink
{
public:
    STDMETHODIMP QueryInterface(REFIID id, void** object) override
    {
        if (!IsEqualIID(id, __uuidof(IUnknown)) && !IsEqualIID(id, __uuidof(IWbemObjectSink)))
        {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        *object = this;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return Count(1); }
    STDMETHODIMP_(ULONG) Release() override { return Count(-1); }
    STDMETHODIMP Indicate(long count, IWbemClassObject** objects) override
    {
        if (blocker != nullptr)
        {
            WaitForSingleObject(blocker, INFINITE);
        }
        if (throwNext.exchange(false))
        {
            throw std::runtime_error("out of a sink");
        }
        const std::scoped_lock lock{m_mutex};
        for (long i = 0; i < count; ++i)
        {
            m_objects.emplace_back(objects[i]);
        }
        m_threads.push_back(GetCurrentThreadId());
        m_changed.notify_all();
        return S_OK;
    }
    STDMETHODIMP SetStatus(long flags, HRESULT result, BSTR, IWbemClassObject*) override
    {
        const std::scoped_lock lock{m_mutex};
        m_status.emplace_back(flags, result);
        m_changed.notify_all();
        return S_OK;
    }

    // Waits until so many objects, or status calls, have come.
    std::vector<IWbemClassObjectPtr> WaitForObjects(std::size_t count)
    {
        std::unique_lock lock{m_mutex};
        EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_objects.size() >= count; }));
        return m_objects;
    }
    std::vector<std::pair<long, HRESULT>> WaitForStatus(std::size_t count)
    {
        std::unique_lock lock{m_mutex};
        EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_status.size() >= count; }));
        return m_status;
    }
    // Waits until nobody but the test holds the sink.
    void WaitUntilReleased()
    {
        std::unique_lock lock{m_mutex};
        EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_count == 0; }));
    }
    std::size_t Objects()
    {
        const std::scoped_lock lock{m_mutex};
        return m_objects.size();
    }
    std::vector<DWORD> Threads()
    {
        const std::scoped_lock lock{m_mutex};
        return m_threads;
    }

    HANDLE blocker = nullptr;           // Indicate waits for it
    std::atomic<bool> throwNext{false}; // out of the next Indicate

private:
    ULONG Count(int change)
    {
        const std::scoped_lock lock{m_mutex};
        m_count += static_cast<ULONG>(change);
        m_changed.notify_all();
        return m_count;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    ULONG m_count = 0;
    std::vector<IWbemClassObjectPtr> m_objects;
    std::vector<DWORD> m_threads;
    std::vector<std::pair<long, HRESULT>> m_status;
};

class WmiEvents : public WmiTest
{
protected:
    void SetUp() override
    {
        WmiTest::SetUp();
        services = Connect(L"root\\wmi");
    }
    // Ends all queries of the sink, and waits until nobody but the test holds it.
    void Unsubscribe(Recorder& sink)
    {
        services->CancelAsyncCall(&sink);
        sink.WaitUntilReleased();
    }
    static HRESULT Subscribe(IWbemServices* space, const wchar_t* query, Recorder& sink,
                             long flags = WBEM_FLAG_SEND_STATUS)
    {
        return space->ExecNotificationQueryAsync(_bstr_t{L"WQL"}, _bstr_t{query}, flags, nullptr, &sink);
    }
    static void Pull(const char* name)
    {
        TheMachine().Update([&](Json& state, Events& events) { CableOut(RequireAdapter(state, name), events); });
    }
    static void Plug(const char* name)
    {
        TheMachine().Update([&](Json& state, Events& events) { CableIn(RequireAdapter(state, name), events, true); });
    }
    IWbemServicesPtr services; // root\wmi

    static constexpr wchar_t connects[] = L"select * from MSNdis_StatusMediaConnect";
    static constexpr wchar_t disconnects[] = L"select * from MSNdis_StatusMediaDisconnect";
    static constexpr wchar_t removals[] = L"select * from MSNdis_NotifyAdapterRemoval";
};

TEST_F(WmiEvents, MediaEventHasItsInstanceNameAndNoDeviceName)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    Pull("eth0");
    const auto objects = sink.WaitForObjects(1);
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(_bstr_t{Get(objects[0], L"__CLASS")}, _bstr_t{L"MSNdis_StatusMediaDisconnect"});
    EXPECT_EQ(_bstr_t{Get(objects[0], L"InstanceName")}, _bstr_t{L"Brevik Ethernet"});
    Get(objects[0], L"DeviceName", static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    BSTR text = nullptr;
    EXPECT_EQ(objects[0]->GetObjectText(0, &text), S_OK);
    const std::wstring mof{_bstr_t{text, false}};
    EXPECT_NE(mof.find(L"instance of MSNdis_StatusMediaDisconnect"), std::wstring::npos);
    EXPECT_EQ(services->CancelAsyncCall(&sink), S_OK);
    sink.WaitUntilReleased();
}

TEST_F(WmiEvents, RemovalNamesTheDevice)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, removals, sink), S_OK);
    TheMachine().Update([](Json& state, Events& events) { Depart(RequireAdapter(state, "eth0"), events); });
    const auto objects = sink.WaitForObjects(1);
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(_bstr_t{Get(objects[0], L"DeviceName")}, _bstr_t{L"\\DEVICE\\{11111111-0000-4000-8000-000000000001}"});
    Unsubscribe(sink);
}

TEST_F(WmiEvents, EventsOfSeveralQueriesReachOneSinkInOrderOnOneForeignThread)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, connects, sink), S_OK);
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    constexpr std::size_t rounds = 50;
    for (std::size_t i = 0; i < rounds; ++i)
    {
        Pull("eth0");
        Plug("eth0");
    }
    const auto objects = sink.WaitForObjects(2 * rounds);
    ASSERT_EQ(objects.size(), 2 * rounds);
    for (std::size_t i = 0; i < objects.size(); ++i)
    {
        EXPECT_EQ(_bstr_t{Get(objects[i], L"__CLASS")},
                  _bstr_t{i % 2 == 0 ? L"MSNdis_StatusMediaDisconnect" : L"MSNdis_StatusMediaConnect"});
    }
    for (const DWORD thread : sink.Threads())
    {
        EXPECT_EQ(thread, sink.Threads().front());
        EXPECT_NE(thread, GetCurrentThreadId());
    }
    Unsubscribe(sink);
}

TEST_F(WmiEvents, CancelEndsAllQueriesOfTheSinkWithOneStatusEach)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, connects, sink), S_OK);
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    ASSERT_EQ(Subscribe(services, removals, sink, 0), S_OK); // asked for no status
    EXPECT_EQ(services->CancelAsyncCall(&sink), S_OK);
    sink.WaitUntilReleased();
    const auto status = sink.WaitForStatus(2);
    ASSERT_EQ(status.size(), 2U);
    for (const auto& [flags, result] : status)
    {
        EXPECT_EQ(flags, WBEM_STATUS_COMPLETE);
        EXPECT_EQ(result, static_cast<HRESULT>(WBEM_E_CALL_CANCELLED));
    }
    Pull("eth0");
    EXPECT_EQ(sink.Objects(), 0U);
    EXPECT_EQ(services->CancelAsyncCall(&sink), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
}

TEST_F(WmiEvents, CancelReturnsWhileTheSinkIsBusy)
{
    const Handle blocker{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Recorder sink;
    sink.blocker = blocker.get();
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    Pull("eth0");
    EXPECT_EQ(services->CancelAsyncCall(&sink), S_OK); // would never return if it waited for Indicate
    SetEvent(blocker.get());
    sink.WaitUntilReleased();
}

TEST_F(WmiEvents, BlockedSinkHoldsUpNobodyElse)
{
    const Handle blocker{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Recorder blocked;
    blocked.blocker = blocker.get();
    Recorder free;
    ASSERT_EQ(Subscribe(services, disconnects, blocked), S_OK);
    ASSERT_EQ(Subscribe(services, disconnects, free), S_OK);
    Pull("eth0");
    EXPECT_EQ(free.WaitForObjects(1).size(), 1U);
    EXPECT_EQ(blocked.Objects(), 0U);
    SetEvent(blocker.get());
    EXPECT_EQ(blocked.WaitForObjects(1).size(), 1U);
    Unsubscribe(blocked);
    Unsubscribe(free);
}

TEST_F(WmiEvents, ConditionAndDuplicatesAreHonoured)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services,
                        L"select * from MSNdis_StatusMediaDisconnect where InstanceName = 'Larkspur Wireless'", sink),
              S_OK);
    Pull("eth0");
    Json event{{"channel", "wmi"},
               {"type", "MSNdis_StatusMediaDisconnect"},
               {"InstanceName", "Larkspur Wireless"},
               {"copies", 3}};
    TheMachine().Raise({event});
    const auto objects = sink.WaitForObjects(3);
    EXPECT_EQ(objects.size(), 3U);
    for (const auto& object : objects)
    {
        EXPECT_EQ(_bstr_t{Get(object, L"InstanceName")}, _bstr_t{L"Larkspur Wireless"});
    }
    Unsubscribe(sink);
}

TEST_F(WmiEvents, LateEventComesAfterOthersThatWereRaisedBehindIt)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    const auto raise = [](const char* name, int delay)
    {
        TheMachine().Raise({{{"channel", "wmi"},
                             {"type", "MSNdis_StatusMediaDisconnect"},
                             {"InstanceName", name},
                             {"delayMs", delay}}});
    };
    raise("latest", 400);
    raise("late", 100);
    raise("at once", 0);
    const auto objects = sink.WaitForObjects(3);
    ASSERT_EQ(objects.size(), 3U);
    EXPECT_EQ(_bstr_t{Get(objects[0], L"InstanceName")}, _bstr_t{L"at once"});
    EXPECT_EQ(_bstr_t{Get(objects[1], L"InstanceName")}, _bstr_t{L"late"});
    EXPECT_EQ(_bstr_t{Get(objects[2], L"InstanceName")}, _bstr_t{L"latest"});
    Unsubscribe(sink);
}

TEST_F(WmiEvents, DeliveryThatThrowsIsJournalledAndTheNextOneComes)
{
    Recorder sink;
    ASSERT_EQ(Subscribe(services, disconnects, sink), S_OK);
    ASSERT_EQ(Subscribe(services, connects, sink), S_OK);
    sink.throwNext = true;
    Pull("eth0");
    Plug("eth0");
    // The two may have come in one batch: then both are lost, and this one is not.
    Pull("eth0");
    const auto objects = sink.WaitForObjects(1);
    EXPECT_FALSE(objects.empty());
    const auto failures = Calls("SinkPump::Deliver");
    ASSERT_EQ(failures.size(), 1U);
    EXPECT_EQ(failures[0]["args"]["failure"], "out of a sink");
    Unsubscribe(sink);
}

TEST_F(WmiEvents, QueriesAreCheckedWhenTheyAreMade)
{
    Recorder sink;
    EXPECT_EQ(Subscribe(services, L"select * from MSNdis_Nothing", sink), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    EXPECT_EQ(Subscribe(services, L"select from", sink), static_cast<HRESULT>(WBEM_E_INVALID_QUERY));
    EXPECT_EQ(Subscribe(services, connects, sink, WBEM_FLAG_FORWARD_ONLY),
              static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(Subscribe(Connect(), connects, sink), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    EXPECT_EQ(services->ExecNotificationQueryAsync(_bstr_t{L"WQL"}, _bstr_t{connects}, 0, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    TheMachine().AddFault({"IWbemServices::ExecNotificationQueryAsync", 1, 1, 0x80041003U, 0, 0});
    EXPECT_EQ(Subscribe(services, connects, sink), static_cast<HRESULT>(0x80041003));
    sink.WaitUntilReleased();
}

} // namespace
} // namespace lab::test
