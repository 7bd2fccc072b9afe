// The process in its roles: service, plain server, and the road between them.

#include <windows.h>

#include <gtest/gtest.h>

#include "Host/HostSupport.h"
#include "NetUtilities/ComApartment.h"
#include "tests/support/ComPointers.h"
#include "tests/support/main/ChildProcess.h"

using namespace HostSupport;

TEST(ServiceProcess, ActivationStartsTheServiceThroughTheServiceManager)
{
    ASSERT_TRUE(StopService());
    HRESULT result = S_OK;
    const INetRegistryPtr object = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry, &result);
    ASSERT_EQ(result, S_OK);
    EXPECT_TRUE(ServiceControl().WaitForState(SERVICE_RUNNING));
    ASSERT_EQ(FindProcesses(L"Halcyd.exe").size(), 1u);
    EXPECT_EQ(FindProcesses(L"Halcyd.exe")[0], ServiceControl().ProcessId());
}

TEST(ServiceProcess, OutlivesItsClients)
{
    ASSERT_TRUE(ServiceControl().StartAndWait());
    const DWORD process = ServiceControl().ProcessId();
    ActivateMonitor();
    ActivateLocal<IDNSPtr>(CLSID_DNS);
    EXPECT_FALSE(WaitForNoProcess(1'000));
    EXPECT_EQ(ServiceControl().ProcessId(), process);
    EXPECT_EQ(ServiceControl().State(), static_cast<DWORD>(SERVICE_RUNNING));
}

TEST(ServiceProcess, StartReportsRunningOnlyAfterTheRestoreAndStopClosesTheMonitorFirst)
{
    ASSERT_TRUE(StopService());
    const int starts = CountInTrace(L"Service Halcyd Starting");
    ASSERT_TRUE(ServiceControl().StartAndWait());
    ASSERT_TRUE(WaitForTrace(L"waiting indefinitely for the service stop event", starts + 1));
    ASSERT_TRUE(StopService());
    ASSERT_TRUE(WaitForTrace(L"Service Halcyd Stopped", starts + 1));

    const std::wstring trace = TraceText();
    std::size_t at = trace.rfind(L"Service Halcyd Starting");
    ASSERT_NE(at, std::wstring::npos);
    for (const wchar_t* const line : {
             L"setting the service status to start pending",
             L"calling Run() from ServiceMain()",
             L"service running on thread 0x",
             L"created service stop event 0x",
             L"registered all the COM class objects housed in the service (rc = 0x000000)",
             L"resume COM objects housed in the service",
             L"starting server",
             L"running as a service",
             L"the halcyd service is configured to restore the IP bindings on startup using netmon",
             L"created instance of the netmon object (rc = 0x000000)",
             L"restoring IP bindings on service startup (synchronously)",
             L"releasing NetMonSv object",
             L"set the halcyd service state to running",
             L"Clean up the VNIC state if necessary",
             L"completed steps to clean up the VNIC state",
             L"waiting indefinitely for the service stop event",
             L"SERVICE_CONTROL_STOP received",
             L"closing netmon because stop message was sent to halcyd",
             L"setting stop event",
             L"service stop event was received",
             L"Stopping Halcyd Service",
             L"setting the service status stopped",
             L"Service Halcyd Stopped",
         })
    {
        const std::size_t next = trace.find(line, at);
        ASSERT_NE(next, std::wstring::npos) << std::string(line, line + wcslen(line));
        at = next;
    }
    EXPECT_TRUE(WaitForNoProcess());
}

namespace
{
constexpr int kClients = 2;
constexpr int kFilterMask = 4711;

// How the clients and the test wait for each other.
struct Meeting
{
    UniqueHandle ready{CreateSemaphoreW(nullptr, 0, kClients, L"ClientsReady")};
    UniqueHandle go{CreateEventW(nullptr, TRUE, FALSE, L"ClientsGo")};
    UniqueHandle activated{CreateSemaphoreW(nullptr, 0, kClients, L"ClientsActivated")};
    UniqueHandle maskSet{CreateEventW(nullptr, TRUE, FALSE, L"ClientsMaskSet")};

    static bool Wait(const UniqueHandle& handle) { return WaitForSingleObject(handle.get(), 60'000) == WAIT_OBJECT_0; }
    static bool WaitForAll(const UniqueHandle& semaphore)
    {
        bool all = true;
        for (int client = 0; client < kClients; ++client)
        {
            all = Wait(semaphore) && all;
        }
        return all;
    }
};

CHILD_PROCESS(testing::Test, ActivatesTheMonitorAtOnceWithAnother)
{
    const Meeting meeting;
    ReleaseSemaphore(meeting.ready.get(), 1, nullptr);
    ASSERT_TRUE(Meeting::Wait(meeting.go));
    const INetMonSvPtr monitor = ActivateMonitor();
    ASSERT_NE(monitor, nullptr);
    ReleaseSemaphore(meeting.activated.get(), 1, nullptr);
    ASSERT_TRUE(Meeting::Wait(meeting.maskSet));
    LONG mask = 0;
    ASSERT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, kFilterMask);
}
} // namespace

TEST(ServiceProcess, TwoClientsActivatingAtOnceGetOneMonitor)
{
    ASSERT_TRUE(StopService());
    const Meeting meeting;
    UniqueHandle clients[kClients];
    for (UniqueHandle& client : clients)
    {
        client = StartProcess(ChildCommandLine("ActivatesTheMonitorAtOnceWithAnother"));
        ASSERT_TRUE(client);
    }
    ASSERT_TRUE(Meeting::WaitForAll(meeting.ready));
    SetEvent(meeting.go.get());
    ASSERT_TRUE(Meeting::WaitForAll(meeting.activated));
    const INetMonSvPtr monitor = ActivateMonitor();
    ASSERT_NE(monitor, nullptr);
    ASSERT_EQ(monitor->put_FilterMask(kFilterMask), S_OK);
    SetEvent(meeting.maskSet.get());
    for (const UniqueHandle& client : clients)
    {
        ASSERT_TRUE(Meeting::Wait(client));
        DWORD code = 1;
        GetExitCodeProcess(client.get(), &code);
        EXPECT_EQ(code, 0u);
    }
    // Lines of the process that ended may still be on their way into the file: only those of the new one count.
    const std::vector<DWORD> processes = FindProcesses(L"Halcyd.exe");
    ASSERT_EQ(processes.size(), 1u);
    ASSERT_TRUE(
        WaitUntil([&] { return CountInTraceOf(processes[0], L"completed netmon object construction") >= 1; }, 20000));
    EXPECT_EQ(CountInTraceOf(processes[0], L"completed netmon object construction"), 1);
}

TEST(ServiceProcess, PlainClassesMakeAnObjectPerActivation)
{
    const IDNSPtr first = ActivateLocal<IDNSPtr>(CLSID_DNS);
    const IDNSPtr second = ActivateLocal<IDNSPtr>(CLSID_DNS);
    ASSERT_TRUE(first && second);
    IUnknown* firstIdentity = nullptr;
    IUnknown* secondIdentity = nullptr;
    ASSERT_EQ(first->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&firstIdentity)), S_OK);
    ASSERT_EQ(second->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&secondIdentity)), S_OK);
    EXPECT_NE(firstIdentity, secondIdentity);
    firstIdentity->Release();
    secondIdentity->Release();
}

TEST(ServiceProcess, StartedByHandItFailsInTheDispatcherAndServesAsAPlainServer)
{
    ASSERT_TRUE(StopService());
    const UniqueHandle process = StartProcess(L"\"" + ServiceExecutable() + L"\"");
    ASSERT_TRUE(process);
    ASSERT_TRUE(
        WaitForTrace(L"StartServiceCtrlDispatcher failed to connect main thread to the SCM Error 1063 (0x427)"));
    ASSERT_TRUE(WaitForTrace(L"bResult is 0 - setting m_bService to FALSE"));
    ASSERT_TRUE(WaitForTrace(L"waiting indefinitely for the service stop event"));
    EXPECT_EQ(WaitForSingleObject(process.get(), 500), static_cast<DWORD>(WAIT_TIMEOUT));
    // Its last client's leaving ends it.
    HRESULT result = S_OK;
    ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry, &result);
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(WaitForSingleObject(process.get(), 20'000), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST(PlainServer, IsStartedByActivationWithoutTheServiceManagerAndEndsWithItsLastObject)
{
    BecomePlainServer();
    HRESULT result = S_OK;
    INetRegistryPtr object = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry, &result);
    ASSERT_EQ(result, S_OK);
    const std::vector<DWORD> processes = FindProcesses(L"Halcyd.exe");
    ASSERT_EQ(processes.size(), 1u);
    EXPECT_TRUE(WaitForTrace(L"Setting _Module.m_bService = FALSE"));
    EXPECT_TRUE(WaitForTrace(L"not running as a service", 2));
    // The service that started with Windows has traced before: only this process's lines count.
    EXPECT_EQ(CountInTraceOf(processes[0], L"calling Run() from ServiceMain()"), 0);

    object = nullptr;
    EXPECT_TRUE(WaitForNoProcess());
    EXPECT_TRUE(WaitForTrace(L"the lock count is 0 and this is not a service so set the event to exit"));
    EXPECT_EQ(CountInTraceOf(processes[0], L"closing netmon because stop message was sent to halcyd"), 0);
}

TEST(PlainServer, WithoutAClientItStays)
{
    BecomePlainServer();
    const UniqueHandle process = StartProcess(L"\"" + ServiceExecutable() + L"\"");
    ASSERT_TRUE(WaitForTrace(L"waiting indefinitely for the service stop event"));
    EXPECT_EQ(WaitForSingleObject(process.get(), 1'000), static_cast<DWORD>(WAIT_TIMEOUT));
    ASSERT_TRUE(TerminateProcess(process.get(), 0));
    EXPECT_TRUE(WaitForNoProcess());
}

TEST(PlainServer, WordWithAnotherWordBehindItGoesOnToTheNormalStart)
{
    BecomePlainServer();
    const UniqueHandle process = StartProcess(L"\"" + ServiceExecutable() + L"\" -Service now");
    ASSERT_TRUE(WaitForTrace(L"App Halcyd.EXE Starting"));
    ASSERT_TRUE(WaitForTrace(L"waiting indefinitely for the service stop event"));
    EXPECT_FALSE(ServiceControl().Exists());
    ASSERT_TRUE(TerminateProcess(process.get(), 0));
    EXPECT_TRUE(WaitForNoProcess());
}

TEST(PlainServer, SecondObjectKeepsItAlive)
{
    BecomePlainServer();
    INetRegistryPtr first = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry);
    INetMonSvPtr monitor = ActivateMonitor();
    ASSERT_TRUE(first && monitor);
    first = nullptr;
    EXPECT_FALSE(WaitForNoProcess(1'000));
    LONG mask = -1;
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, 0);
    monitor = nullptr;
    EXPECT_TRUE(WaitForNoProcess());
}

TEST(SimpleSink, RegisteredProgIdNamesAnotherClassThanTheProcessServes)
{
    CLSID registered{};
    ASSERT_EQ(CLSIDFromProgID(L"Halcyd.SimpleSink", &registered), S_OK);
    wchar_t text[40]{};
    StringFromGUID2(registered, text, 40);
    EXPECT_STREQ(text, L"{D47DE45D-74BE-4B09-949E-5AC03686B5AF}");
    EXPECT_FALSE(IsEqualCLSID(registered, CLSID_SimpleSink));
}
