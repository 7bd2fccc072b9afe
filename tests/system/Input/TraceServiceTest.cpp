// The trace service that every process of the product needs: not there when the service starts, or gone later.

#include "Input/InputMachine.h"

#include "Host/HostSupport.h"

using namespace HostSupport;

namespace
{
constexpr wchar_t kTraceClass[] = L"SOFTWARE\\Classes\\CLSID\\{904D1B57-4C3C-4F54-B426-1A62D5CAA8DE}";
constexpr wchar_t kTraceProgram[] = L"TraceStore.exe";

// No trace service can be activated from here on, and none runs.
void TakeTheTraceServiceAway()
{
    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTraceClass), 0);
    for (const DWORD process : FindProcesses(kTraceProgram))
    {
        KillProcess(process);
    }
    ASSERT_TRUE(FindProcesses(kTraceProgram).empty());
}

TEST(TraceService, MissingAtTheStartOfAServerStartedByHandEndsItsProcess)
{
    ASSERT_TRUE(StopService());
    TakeTheTraceServiceAway();
    const UniqueHandle process = StartProcess(L"\"" + ServiceExecutable() + L"\"");
    ASSERT_TRUE(process);
    ASSERT_EQ(WaitForSingleObject(process.get(), 60'000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(process.get(), &code));
    EXPECT_NE(code, 0u);
}

TEST(TraceService, MissingAtTheStartOfTheServiceEndsItsProcess)
{
    ASSERT_TRUE(StopService());
    TakeTheTraceServiceAway();
    // The manager may notice the end before the process has reached it.
    const DWORD started = ServiceControl().Start();
    EXPECT_TRUE(started == ERROR_SUCCESS || started == ERROR_SERVICE_REQUEST_TIMEOUT) << started;
    EXPECT_TRUE(WaitForNoProcess(60'000));
}

class TraceServiceGone : public InputTest
{
protected:
    // Ends the running trace service once a line of the service has got there: before that the service may still be on
    // its way to it, and one that finds none ends. From here on the service's pointer is dead.
    void EndTheTraceService()
    {
        const DWORD process = ServiceProcess();
        EXPECT_EQ(registry->DeleteRegistryNode(_bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\BeforeTheEnd")),
                  ERROR_ACCESS_DENIED);
        ASSERT_TRUE(WaitUntil([&] { return CountInTraceOf(process, L"BeforeTheEnd") > 0; }));
        const std::vector<DWORD> stores = FindProcesses(kTraceProgram);
        ASSERT_EQ(stores.size(), 1u);
        ASSERT_TRUE(KillProcess(stores[0]));
    }
    static DWORD ServiceProcess() { return FindProcesses(L"Halcyd.exe").at(0); }
};

TEST_F(TraceServiceGone, LaterLosesTheLinesAndNothingElse)
{
    const DWORD process = ServiceProcess();
    EndTheTraceService();
    const EventConnection sink(monitor);
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_TRUE(sink->WaitForEvent(enumEventAdapterAdd).has_value());
    EXPECT_EQ(registry->DeleteRegistryNode(_bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\AfterTheEnd")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(monitor->Close(), S_OK);
    // No retry and no new connection: the lines of this process end here.
    EXPECT_EQ(CountInTraceOf(process, L"AfterTheEnd"), 0);
    EXPECT_EQ(ServiceProcess(), process);
}

TEST_F(TraceServiceGone, StopStillReportsAndTheProcessEnds)
{
    EndTheTraceService();
    dns = nullptr;
    registry = nullptr;
    services = nullptr;
    vnic = nullptr;
    monitor = nullptr;
    EXPECT_TRUE(StopService());
    EXPECT_TRUE(WaitForNoProcess(60'000));
    ForgetProcess();
}
} // namespace
