// Many clients open, close, switch notifications and read, all at once, while the machine changes without a pause. Five
// minutes of the machine's time, against the service that ships and against the one whose lock order is asserted.

#include "Host/HostSupport.h"
#include "Monitor/MonitorMachine.h"

#include "NetUtilities/Event.h"
#include "NetUtilities/Handles.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace
{
constexpr DWORD kDuration = 300'000;       // of the machine's time
constexpr DWORD kLongestSilence = 150'000; // no call of any client comes back for so long: they hang
constexpr int kClients = 6;
constexpr unsigned kOpeners = 2;            // of them: the others use what is open, or not
constexpr int kLeastTakenDown = 8;          // times that the last user's Close took the whole monitor down
constexpr std::uint64_t kTimeoutShare = 50; // at most one call in so many reports a time limit

// One client with connections of its own.
class Client
{
public:
    Client(unsigned number, std::atomic<bool>& end) : random(number), opens(number < kOpeners), ended(end) {}

    void Run()
    {
        const ComApartment apartment;
        HRESULT result = E_FAIL;
        const INetMonSvPtr monitor = ActivateMonitor(&result);
        EXPECT_EQ(result, S_OK);
        while (!ended && !broken)
        {
            Step(monitor);
            ++calls;
        }
        sink.reset();
        if (opened)
        {
            Look(monitor->Close(), "Close");
        }
        finished = true;
    }

    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint64_t> told{0};
    std::atomic<int> timeouts{0}; // closes that gave up on a thread, and opens that found it still there
    std::atomic<bool> broken{false};
    std::atomic<bool> finished{false};

private:
    void Step(INetMonSv* monitor)
    {
        VARIANT_BOOL open = VARIANT_FALSE;
        switch (random() % 10)
        {
        case 0:
        case 1:
        case 2:
            if (opens)
            {
                OpenOrClose(monitor);
            }
            break;
        case 3:
        case 4:
            Look(monitor->StartNotificationProcessing(), "StartNotificationProcessing");
            break;
        case 5:
            Look(monitor->StopNotificationProcessing(), "StopNotificationProcessing");
            break;
        case 6:
            ToggleSink(monitor);
            break;
        case 7:
            Look(monitor->IsOpen(&open), "IsOpen");
            break;
        default:
            (void)ReadAdapterList(monitor);
            break;
        }
    }
    // One Open at most, and a Close as likely as an Open: often nobody has the monitor open, and all of it is taken
    // down.
    void OpenOrClose(INetMonSv* monitor)
    {
        if (opened)
        {
            opened = false;
            Look(monitor->Close(), "Close");
            return;
        }
        opened = true; // counted by the service whatever its result
        Look(monitor->Open(), "Open");
    }
    void ToggleSink(INetMonSv* monitor)
    {
        if (sink != nullptr)
        {
            told += sink->Recorder().Events().size();
            sink.reset();
            return;
        }
        sink = std::make_unique<EventConnection>(monitor);
        Look(sink->Result(), "Advise");
    }
    // E_FAIL is how Open and Close report a time limit, which a fast clock makes short. All else must succeed.
    void Look(HRESULT result, const char* call)
    {
        if (result == E_FAIL)
        {
            ++timeouts;
            return;
        }
        if (FAILED(result))
        {
            broken = true;
            ADD_FAILURE() << call << " failed with " << std::hex << result;
        }
    }

    std::mt19937 random;
    const bool opens;
    std::atomic<bool>& ended;
    std::unique_ptr<EventConnection> sink;
    bool opened = false;
};

class ConcurrentClients : public MonitorTest
{
protected:
    void Stress()
    {
        const UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, service.ProcessId()));
        ASSERT_TRUE(process);
        // Not faster than the service can follow with its clock against it: a close waits until every notification that
        // has come is handled.
        const UniqueHandle storm =
            StartProcess(std::wstring(kLabControl) + L"storm --kind mixed --events 10000000 --pause 600");
        ASSERT_TRUE(storm);
        std::atomic<bool> end{false};
        std::vector<std::unique_ptr<Client>> clients;
        std::vector<std::thread> threads;
        for (unsigned number = 0; number < kClients; ++number)
        {
            clients.push_back(std::make_unique<Client>(number, end));
            threads.emplace_back([client = clients.back().get()] { client->Run(); });
        }
        const DWORD processId = service.ProcessId();
        Watch(process.get(), clients, end);
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        TerminateProcess(storm.get(), 0);
        WaitForSingleObject(storm.get(), 30'000);
        ASSERT_NE(WaitForSingleObject(process.get(), 0), WAIT_OBJECT_0) << "the service has ended";
        Account(clients);
        const int takenDown = HostSupport::CountInTraceOf(processId, L"Finished WMI cleanup");
        testing::Test::RecordProperty("takenDown", takenDown);
        std::printf("taken down %d times\n", takenDown);
        EXPECT_GE(takenDown, kLeastTakenDown);
        EverythingStillWorks();
    }

private:
    using Clients = std::vector<std::unique_ptr<Client>>;

    static std::uint64_t Calls(const Clients& clients)
    {
        std::uint64_t all = 0;
        for (const auto& client : clients)
        {
            all += client->calls;
        }
        return all;
    }
    static bool Finished(const Clients& clients)
    {
        return std::ranges::all_of(clients, [](const auto& client) { return client->finished.load(); });
    }
    // Until the time is over and the last client has come home. A hang cannot be taken down again: the program ends
    // there, which the runner reads as a failure.
    static void Watch(HANDLE process, const Clients& clients, std::atomic<bool>& end)
    {
        const ULONGLONG start = GetTickCount64();
        ULONGLONG lastProgress = start;
        std::uint64_t seen = 0;
        while (!Finished(clients))
        {
            if (WaitForSingleObject(process, 500) == WAIT_OBJECT_0)
            {
                end = true; // said by the caller; the clients' calls fail now
            }
            const ULONGLONG now = GetTickCount64();
            if (const std::uint64_t calls = Calls(clients); calls != seen)
            {
                seen = calls;
                lastProgress = now;
            }
            end = end || now - start >= kDuration;
            if (now - lastProgress > kLongestSilence)
            {
                (void)std::fprintf(stderr, "no call has come back for %lu s\n", kLongestSilence / 1000);
                std::abort();
            }
        }
    }
    static void Account(const Clients& clients)
    {
        std::uint64_t told = 0;
        int timeouts = 0;
        for (const auto& client : clients)
        {
            EXPECT_GT(client->calls.load(), 10u);
            told += client->told;
            timeouts += client->timeouts;
        }
        EXPECT_GT(told, 0u);
        EXPECT_LE(static_cast<std::uint64_t>(timeouts) * kTimeoutShare, Calls(clients));
        testing::Test::RecordProperty("calls", std::to_string(Calls(clients)));
        testing::Test::RecordProperty("events", std::to_string(told));
        testing::Test::RecordProperty("timeLimits", timeouts);
        std::printf("%llu calls, %llu events, %d time limits\n", static_cast<unsigned long long>(Calls(clients)),
                    static_cast<unsigned long long>(told), timeouts);
    }
    // After a time limit the next open may find a thread still there; the close behind it takes that away.
    void EverythingStillWorks()
    {
        const INetMonSvPtr monitor = Monitor();
        HRESULT opened = monitor->Open();
        for (int tries = 0; opened == E_FAIL && tries < 3; ++tries)
        {
            monitor->Close();
            opened = monitor->Open();
        }
        ASSERT_EQ(opened, S_OK);
        ASSERT_EQ(monitor->StartNotificationProcessing(), S_OK);
        const EventConnection sink(monitor);
        Lab(L"load laptop");
        Lab(L"cable out eth0");
        EXPECT_TRUE(sink->WaitFor([](const RecordedEvent& told)
                                  { return told.event == enumEventMediaDisconnect && told.deviceId == kEthernet; },
                                  60'000)
                        .has_value());
        EXPECT_EQ(monitor->Close(), S_OK);
        VARIANT_BOOL open = VARIANT_TRUE;
        EXPECT_EQ(monitor->IsOpen(&open), S_OK);
        EXPECT_EQ(open, VARIANT_FALSE);
    }
};

using Fast10_ConcurrentClients = ConcurrentClients;
using Fast10_ConcurrentClients_LockOrder = ConcurrentClients;

TEST_F(Fast10_ConcurrentClients, NeitherHangNorEndTheServiceWhileEventsPourIn)
{
    Stress();
}

TEST_F(Fast10_ConcurrentClients_LockOrder, NeitherHangNorBreakTheOrderWhileEventsPourIn)
{
    Stress();
}
} // namespace
