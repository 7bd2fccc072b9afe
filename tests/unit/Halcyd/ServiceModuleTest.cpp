// The host's sequences step by step: what they say, in which order, what they ask of the platform, and what each
// failure changes.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FakeMonitor.h"
#include "Halcyd/ResourceIds.h"
#include "Halcyd/ServiceModule.h"
#include "HostHooks.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "SleepClock.h"
#include "TraceLines.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
constexpr wchar_t ProductKey[] = L"Software\\QRLS\\Sorvane";
constexpr wchar_t TunvexKey[] = L"Software\\QRLS\\Sorvane\\Tunvex";

const SERVICE_STATUS_HANDLE KnownHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x4711);

// Sleeps pass at once, and a wait without limit ends as if its event had been signalled: the stop event of a run.
class HostClock : public SleepClock
{
public:
    DWORD Wait(HANDLE handle, DWORD milliseconds) noexcept override
    {
        if (milliseconds != INFINITE)
        {
            return SleepClock::Wait(handle, milliseconds);
        }
        ++unlimitedWaits;
        return WAIT_OBJECT_0;
    }
    std::int64_t SteadyNanoseconds() noexcept override { return SleepClock::SteadyNanoseconds() + ahead; }
    int unlimitedWaits = 0;
    static inline std::int64_t ahead = 0; // never taken back: the code under test remembers times
};

struct Line
{
    std::uint16_t level;
    std::wstring start;
};

// One registered class object, as COM was asked for it.
struct Registration
{
    CLSID clsid;
    DWORD context;
    DWORD flags;
};

class ServiceModuleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        DeleteTunvexKey();
        SetDefaultLogSource(Log::Source::ConfigServer);
        _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
        CoRegisterClassObjectHook::Replace(
            [this](REFCLSID clsid, IUnknown*, DWORD context, DWORD flags, DWORD* cookie)
            {
                registrations.push_back({clsid, context, flags});
                *cookie = static_cast<DWORD>(registrations.size());
                return S_OK;
            });
        CoRevokeClassObjectHook::Replace(
            [this](DWORD cookie)
            {
                revoked.push_back(cookie);
                return S_OK;
            });
        CoCreateInstanceHook::Replace(
            [this](REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid, void** result)
            {
                if (!IsEqualCLSID(clsid, CLSID_NetMonSv))
                {
                    return CoCreateInstanceHook::Real(clsid, outer, context, iid, result);
                }
                EXPECT_EQ(context, static_cast<DWORD>(CLSCTX_LOCAL_SERVER));
                EXPECT_TRUE(IsEqualIID(iid, IID_IUnknown)); // the interface proper is asked for afterwards
                return FAILED(activation) ? activation
                                          : FakeMonitor::_CreatorClass::CreateInstance(nullptr, iid, result);
            });
        CoResumeClassObjectsHook::Replace([] { return S_OK; });
        CoSuspendClassObjectsHook::Replace([] { return S_OK; });
        RegisterServiceCtrlHandlerExWHook::Replace(
            [this](LPCWSTR, LPHANDLER_FUNCTION_EX handler, LPVOID context)
            {
                controlHandler = handler;
                EXPECT_EQ(context, nullptr);
                return statusHandle = KnownHandle;
            });
        SetServiceStatusHook::Replace(
            [this](SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status)
            {
                EXPECT_EQ(handle, statusHandle);
                statuses.push_back(*status);
                return TRUE;
            });
        TraceLines::Clear();
    }
    void TearDown() override
    {
        PlatformHooks::Reset();
        FakeMonitor::Forget();
        // Forgets the handle of a service that never was.
        _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
        _Module.Term();
        _Module.m_bService = FALSE;
        DeleteTunvexKey();
    }

    static void DeleteTunvexKey()
    {
        RegistryKey product(false);
        if (product.Open(HKEY_LOCAL_MACHINE, ProductKey, KEY_ALL_ACCESS) == ERROR_SUCCESS)
        {
            product.DeleteTree(L"Tunvex");
        }
    }
    static void CreateTunvexKey(std::optional<std::uint32_t> state)
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, TunvexKey, KEY_WRITE), ERROR_SUCCESS);
        if (state)
        {
            ASSERT_EQ(key.WriteDword(L"VnicState", *state), ERROR_SUCCESS);
        }
    }

    // The lines of the host's source, oldest first; each is given as the text that it starts with.
    static void ExpectLines(const std::vector<Line>& expected)
    {
        std::vector<RecordedLine> lines = TraceRecorder::Get().Lines();
        std::erase_if(lines, [](const RecordedLine& line) { return line.source != 10; });
        for (std::size_t at = 0; at < std::max(lines.size(), expected.size()); ++at)
        {
            const std::wstring found =
                at < lines.size() ? std::to_wstring(lines[at].level) + L" " + lines[at].Message() : L"(nothing)";
            const std::wstring wanted =
                at < expected.size() ? std::to_wstring(expected[at].level) + L" " + expected[at].start : L"(nothing)";
            EXPECT_TRUE(found.starts_with(wanted))
                << "line " << at << "\nfound:  " << std::string(found.begin(), found.end())
                << "\nwanted: " << std::string(wanted.begin(), wanted.end());
        }
    }
    std::vector<DWORD> States() const
    {
        std::vector<DWORD> states;
        for (const SERVICE_STATUS& status : statuses)
        {
            states.push_back(status.dwCurrentState);
        }
        return states;
    }

    const ComApartment apartment;
    HostClock clock;
    HookScope hooks;
    std::vector<Registration> registrations;
    std::vector<DWORD> revoked;
    std::vector<SERVICE_STATUS> statuses;
    HRESULT activation = S_OK;                    // of the monitor
    SERVICE_STATUS_HANDLE statusHandle = nullptr; // what the module was given, none before ServiceMain
    LPHANDLER_FUNCTION_EX controlHandler = nullptr;
};

const std::vector<Line> RunStart{
    {4, L"service running on thread 0x"},
    {4, L"created service stop event 0x"},
    {4, L"registered all the COM class objects housed in the service (rc = 0x000000)"},
    {4, L"resume COM objects housed in the service"},
    {4, L"starting server"},
};
const std::vector<Line> Restore{
    {4, L"running as a service"},
    {4, L"the halcyd service is configured to restore the IP bindings on startup using netmon"},
    {4, L"created instance of the netmon object (rc = 0x000000)"},
    {4, L"restoring IP bindings on service startup (synchronously)"},
    {4, L"releasing NetMonSv object"},
};
// Run by itself knows no handle; ServiceMain gets one first.
const std::vector<Line> Running{
    {4, L"set the halcyd service state to running"},
    {5, L"set the service '0x0' to '4'"},
};
const std::vector<Line> RunningWithHandle{
    {4, L"set the halcyd service state to running"},
    {5, L"set the service '0x4711' to '4'"},
};
const std::vector<Line> NoVnic{
    {4, L"Clean up the VNIC state if necessary"},
    {4, L"could not open VNIC state registry subkey, maybe VPN not installed (dwResult = 0x000002)"},
    {4, L"completed steps to clean up the VNIC state"},
};
const std::vector<Line> Waiting{
    {4, L"waiting indefinitely for the service stop event"},
    {4, L"service stop event was received"},
};
const std::vector<Line> RunEnd{
    {4, L"*****"},
    {4, L"***************** Stopping Halcyd Service ******************"},
    {4, L"*****"},
};

std::vector<Line> Join(std::initializer_list<std::vector<Line>> parts)
{
    std::vector<Line> all;
    for (const std::vector<Line>& part : parts)
    {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}
} // namespace

TEST_F(ServiceModuleTest, InitSetsUpTheStatusAndTellsItsSteps)
{
    _Module.m_status.dwServiceSpecificExitCode = 9;
    _Module.m_bService = FALSE;
    _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
    const SERVICE_STATUS& status = _Module.m_status;
    EXPECT_EQ(status.dwServiceType, 0x10u);
    EXPECT_EQ(status.dwCurrentState, 1u);
    EXPECT_EQ(status.dwControlsAccepted, 0xC1u); // stop, power events, session changes
    EXPECT_EQ(status.dwWin32ExitCode, 0u);
    EXPECT_EQ(status.dwServiceSpecificExitCode, 0u);
    EXPECT_EQ(status.dwCheckPoint, 0u);
    EXPECT_EQ(status.dwWaitHint, 0u);
    EXPECT_EQ(_Module.m_bService, TRUE);
    ExpectLines({{4, L"m_bService = 1"},
                 {4, L"m_szServiceName = "},
                 {4, L"m_szDisplayName = "},
                 {4, L"Setup the control codes the service accepts and processes in its handler function"}});
}

TEST_F(ServiceModuleTest, RunOfAServiceGoesThroughItsStepsInOrder)
{
    FakeMonitor::onRestore = [this]
    {
        EXPECT_EQ(registrations.size(), 6u); // clients are served by now
        EXPECT_TRUE(statuses.empty());       // and the service still starts
    };
    _Module.Run();
    ExpectLines(Join({RunStart, Restore, Running, NoVnic, Waiting, RunEnd}));
    EXPECT_EQ(FakeMonitor::restored, 1);
    EXPECT_EQ(FakeMonitor::closed, 0);
    EXPECT_EQ(States(), (std::vector<DWORD>{SERVICE_RUNNING}));
    EXPECT_EQ(clock.unlimitedWaits, 1);
    EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{100}));
}

TEST_F(ServiceModuleTest, ClassObjectsAreRegisteredSuspendedAndRevokedInTheOrderOfTheMap)
{
    _Module.Run();
    const CLSID order[] = {CLSID_DNS,  CLSID_NetRegistry, CLSID_ServiceControlEx,
                           CLSID_VNIC, CLSID_NetMonSv,    CLSID_SimpleSink};
    ASSERT_EQ(registrations.size(), std::size(order));
    for (std::size_t at = 0; at < std::size(order); ++at)
    {
        EXPECT_TRUE(IsEqualCLSID(registrations[at].clsid, order[at])) << at;
        EXPECT_EQ(registrations[at].context, 0x14u); // local and remote server
        EXPECT_EQ(registrations[at].flags, 5u);      // multiple use, suspended
    }
    EXPECT_EQ(revoked, (std::vector<DWORD>{1, 2, 3, 4, 5, 6}));
}

TEST_F(ServiceModuleTest, RunOfAPlainServerNeitherRestoresNorResetsNorReports)
{
    _Module.m_bService = FALSE;
    CreateTunvexKey(1);
    _Module.Run();
    ExpectLines(Join({RunStart, {{4, L"not running as a service"}}, Waiting, RunEnd}));
    EXPECT_EQ(FakeMonitor::restored, 0);
    EXPECT_EQ(FakeMonitor::closed, 0);
    EXPECT_TRUE(statuses.empty());
    EXPECT_EQ(PlatformHooks::Calls("CoCreateInstance"), 0);
}

TEST_F(ServiceModuleTest, ServiceRunsWithoutAMonitor)
{
    activation = CO_E_SERVER_EXEC_FAILURE;
    _Module.Run();
    ExpectLines(Join({RunStart,
                      {{4, L"running as a service"},
                       {4, L"the halcyd service is configured to restore the IP bindings on startup using netmon"},
                       {4, L"created instance of the netmon object (rc = 0x80080005)"},
                       {2, L"could not get netmon object during service startup Error 2148007941 (0x80080005)"}},
                      Running,
                      NoVnic,
                      Waiting,
                      RunEnd}));
    EXPECT_EQ(States(), (std::vector<DWORD>{SERVICE_RUNNING}));
}

TEST_F(ServiceModuleTest, FailedRegistrationStopsTheWalkAndTheProcessStaysUp)
{
    CoRegisterClassObjectHook::Replace(
        [this](REFCLSID clsid, IUnknown*, DWORD context, DWORD flags, DWORD* cookie)
        {
            registrations.push_back({clsid, context, flags});
            *cookie = static_cast<DWORD>(registrations.size());
            return registrations.size() < 3 ? S_OK : E_ACCESSDENIED;
        });
    _Module.m_bService = FALSE;
    _Module.Run();
    EXPECT_EQ(registrations.size(), 3u);
    TraceRecorder& trace = TraceRecorder::Get();
    EXPECT_TRUE(trace.Has(10, 4, L"registered all the COM class objects housed in the service (rc = 0x80070005)"));
    EXPECT_TRUE(trace.Has(10, 4, L"resume COM objects housed in the service"));
    EXPECT_TRUE(trace.Has(10, 4, L"service stop event was received"));
}

TEST_F(ServiceModuleTest, FailedResumeIsAnErrorAndTheSequenceGoesOn)
{
    CoResumeClassObjectsHook::Replace([] { return E_UNEXPECTED; });
    _Module.Run();
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(
        L"Error resume COM objects housed in the service Error 2147549183 (0x"));
    EXPECT_FALSE(TraceLines::Has(L"resume COM objects housed in the service"));
    EXPECT_EQ(FakeMonitor::restored, 1);
    EXPECT_EQ(States(), (std::vector<DWORD>{SERVICE_RUNNING}));
}

TEST_F(ServiceModuleTest, FailedSuspendIsAnErrorAndTheClassObjectsAreRevokedAllTheSame)
{
    CoSuspendClassObjectsHook::Replace([] { return E_UNEXPECTED; });
    _Module.Run();
    EXPECT_TRUE(
        TraceRecorder::Get().HasMessageStarting(L"CoSuspendClassObjects Failed! Error 2147549183 (0x8000ffff)"));
    EXPECT_EQ(revoked.size(), 6u);
}

TEST_F(ServiceModuleTest, FirstFailedRevocationStopsTheWalk)
{
    CoRevokeClassObjectHook::Replace(
        [this](DWORD cookie)
        {
            revoked.push_back(cookie);
            return cookie == 2 ? E_UNEXPECTED : S_OK;
        });
    _Module.Run();
    EXPECT_EQ(revoked, (std::vector<DWORD>{1, 2}));
    EXPECT_TRUE(TraceLines::Has(L"***************** Stopping Halcyd Service"));
}

TEST_F(ServiceModuleTest, WithoutAStopEventTheWaitIsSkipped)
{
    CreateEventWHook::Replace(
        [](LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initial, LPCWSTR name)
        {
            const bool stopEvent = manualReset && !initial && name == nullptr;
            return stopEvent ? nullptr : CreateEventWHook::Real(attributes, manualReset, initial, name);
        });
    _Module.m_bService = FALSE;
    _Module.Run();
    std::vector<Line> start = RunStart;
    start[1] = {4, L"created service stop event 0x000000"};
    ExpectLines(Join({start, {{4, L"not running as a service"}}, RunEnd}));
    EXPECT_EQ(clock.unlimitedWaits, 0);
}

TEST_F(ServiceModuleTest, StopEventIsManualResetNamelessAndNotSignalled)
{
    int seen = 0;
    CreateEventWHook::Replace(
        [&](LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initial, LPCWSTR name)
        {
            seen += attributes == nullptr && manualReset && !initial && name == nullptr ? 1 : 0;
            return CreateEventWHook::Real(attributes, manualReset, initial, name);
        });
    _Module.m_bService = FALSE;
    _Module.Run();
    EXPECT_EQ(seen, 1);
}

TEST_F(ServiceModuleTest, VnicKeyWithoutItsValueSkipsTheReset)
{
    CreateTunvexKey(std::nullopt);
    _Module.Run();
    ExpectLines(Join({RunStart,
                      Restore,
                      Running,
                      {{4, L"Clean up the VNIC state if necessary"},
                       {4, L"could not read VnicState value (dwResult = 0x000002)"},
                       {4, L"completed steps to clean up the VNIC state"}},
                      Waiting,
                      RunEnd}));
}

TEST_F(ServiceModuleTest, VnicStateZeroAsksForTheResetAllTheSame)
{
    CreateTunvexKey(0);
    _Module.Run();
    ExpectLines(Join({RunStart,
                      Restore,
                      Running,
                      {{4, L"Clean up the VNIC state if necessary"},
                       {4, L"Attempting to reset VNIC adapter.  Current registry state is 0"},
                       {4, L"completed steps to clean up the VNIC state"}},
                      Waiting,
                      RunEnd}));
    // The reset itself speaks with the library's source.
    const std::vector<RecordedLine> lines = TraceRecorder::Get().Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const RecordedLine& line) { return line.source == 14; }));
}

TEST_F(ServiceModuleTest, ServiceMainReportsStartPendingRunningAndStopped)
{
    _Module.m_status.dwWin32ExitCode = 1;
    _Module.m_status.dwServiceSpecificExitCode = 2;
    _Module.m_status.dwCheckPoint = 3;
    _Module.m_status.dwWaitHint = 4;
    _Module.ServiceMain(0, nullptr);
    ExpectLines(Join({{{4, L"setting the service status to start pending"},
                       {5, L"set the service '0x4711' to '2'"},
                       {4, L"calling Run() from ServiceMain()"}},
                      RunStart,
                      Restore,
                      RunningWithHandle,
                      NoVnic,
                      Waiting,
                      RunEnd,
                      {{4, L"setting the service status stopped"}, {5, L"set the service '0x4711' to '1'"}}}));
    EXPECT_EQ(States(), (std::vector<DWORD>{SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_STOPPED}));
    EXPECT_EQ(controlHandler, &CServiceModule::_HandlerEx);
    for (std::size_t at = 1; at < statuses.size(); ++at)
    {
        EXPECT_EQ(statuses[at].dwControlsAccepted, 0xC1u);
        EXPECT_EQ(statuses[at].dwWin32ExitCode, 0u);
        EXPECT_EQ(statuses[at].dwServiceSpecificExitCode, 2u); // left as it was
        EXPECT_EQ(statuses[at].dwCheckPoint, 0u);              // no progress is ever reported
        EXPECT_EQ(statuses[at].dwWaitHint, 0u);
    }
}

TEST_F(ServiceModuleTest, HandlerThatCannotBeRegisteredEndsServiceMainWithoutAnyReport)
{
    RegisterServiceCtrlHandlerExWHook::Replace(
        [](LPCWSTR, LPHANDLER_FUNCTION_EX, LPVOID) -> SERVICE_STATUS_HANDLE
        {
            SetLastError(ERROR_SERVICE_NOT_IN_EXE);
            return nullptr;
        });
    _Module.ServiceMain(0, nullptr);
    ExpectLines({{2, L"Handler not installed Error 1083 (0x43b)"}});
    EXPECT_TRUE(statuses.empty());
    EXPECT_TRUE(registrations.empty());
}

TEST_F(ServiceModuleTest, FailedReportIsTracedLikeAnyOther)
{
    SetServiceStatusHook::Replace([](SERVICE_STATUS_HANDLE, LPSERVICE_STATUS) { return FALSE; });
    _Module.SetServiceStatus(SERVICE_STOP_PENDING);
    ExpectLines({{5, L"set the service '0x0' to '3'"}});
    EXPECT_EQ(_Module.m_status.dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
}

TEST_F(ServiceModuleTest, StartOfAServiceBlocksInTheDispatcherWithATableOfOneService)
{
    StartServiceCtrlDispatcherWHook::Replace(
        [](const SERVICE_TABLE_ENTRYW* table)
        {
            EXPECT_NE(table[0].lpServiceName, nullptr);
            EXPECT_EQ(table[0].lpServiceProc, &CServiceModule::_ServiceMain);
            EXPECT_EQ(table[1].lpServiceName, nullptr);
            EXPECT_EQ(table[1].lpServiceProc, nullptr);
            return TRUE;
        });
    _Module.Start();
    ExpectLines({{4, L"service flag is True"},
                 {5, L"calling StartServiceCtrlDispatcher()"},
                 {5, L"StartServiceCtrlDispatcher returned 1"},
                 {4, L"StartServiceCtrlDispatcher connected the main thread of the this service process to the SCM"}});
    EXPECT_EQ(_Module.m_bService, TRUE);
    EXPECT_TRUE(registrations.empty()); // Run is the dispatcher's to call
}

TEST_F(ServiceModuleTest, StartFallsBackToAPlainServerWhenTheDispatcherCannotConnect)
{
    StartServiceCtrlDispatcherWHook::Replace(
        [](const SERVICE_TABLE_ENTRYW*)
        {
            SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
            return FALSE;
        });
    _Module.Start();
    ExpectLines(Join({{{4, L"service flag is True"},
                       {5, L"calling StartServiceCtrlDispatcher()"},
                       {5, L"StartServiceCtrlDispatcher returned 0"},
                       {2, L"StartServiceCtrlDispatcher failed to connect main thread to the SCM Error 1063 (0x427)"},
                       {4, L"bResult is 0 - setting m_bService to FALSE"},
                       {4, L"not running as a service"}},
                      RunStart,
                      {{4, L"not running as a service"}},
                      Waiting,
                      RunEnd}));
    EXPECT_EQ(_Module.m_bService, FALSE);
    EXPECT_TRUE(statuses.empty());
}

TEST_F(ServiceModuleTest, StartOfAPlainServerNeverCallsTheDispatcher)
{
    StartServiceCtrlDispatcherWHook::Replace([](const SERVICE_TABLE_ENTRYW*) { return TRUE; });
    _Module.m_bService = FALSE;
    _Module.Start();
    EXPECT_EQ(PlatformHooks::Calls("StartServiceCtrlDispatcherW"), 0);
    ExpectLines(Join({{{4, L"service flag is False"}, {4, L"not running as a service"}},
                      RunStart,
                      {{4, L"not running as a service"}},
                      Waiting,
                      RunEnd}));
}

TEST_F(ServiceModuleTest, ServiceMainFunctionOfTheDispatcherFramesTheRunAndTakesTheTraceDown)
{
    const LPTOP_LEVEL_EXCEPTION_FILTER own = SetUnhandledExceptionFilter(nullptr);
    LogMessageDefault(4, L"before");
    int filters = 0;
    FakeMonitor::onRestore = [&]
    {
        // Inside the function the crash handlers are in place.
        const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
        filters += filter != nullptr ? 1 : 0;
        SetUnhandledExceptionFilter(filter);
    };
    CServiceModule::_ServiceMain(0, nullptr);
    SetUnhandledExceptionFilter(own);
    EXPECT_EQ(filters, 1);
    EXPECT_EQ(clock.Sleeps(), (std::vector<DWORD>{100, 100})); // behind Run, behind the last banner
    // Whatever is traced from here on makes a new logger, whose default source is 1 again.
    LogMessageDefault(4, L"behind");
    EXPECT_TRUE(TraceRecorder::Get().Has(1, 4, L"behind"));
    const std::vector<std::wstring> messages = TraceRecorder::Get().Messages();
    const auto place = [&](const wchar_t* text)
    {
        return std::find_if(messages.begin(), messages.end(),
                            [&](const std::wstring& message) { return message.find(text) != std::wstring::npos; }) -
               messages.begin();
    };
    EXPECT_LT(place(L"* Service Halcyd Starting *"), place(L"setting the service status to start pending"));
    EXPECT_LT(place(L"setting the service status stopped"), place(L"* Service Halcyd Stopped *"));
    EXPECT_LT(place(L"* Service Halcyd Stopped *"), static_cast<std::ptrdiff_t>(messages.size()));
}

TEST_F(ServiceModuleTest, LastUnlockOfAPlainServerSignalsTheStopEvent)
{
    _Module.m_bService = FALSE;
    ASSERT_EQ(_Module.GetLockCount(), 0);
    EXPECT_EQ(_Module.Lock(), 1);
    EXPECT_EQ(_Module.Lock(), 2);
    EXPECT_EQ(_Module.Unlock(), 1);
    ExpectLines({});
    EXPECT_EQ(_Module.Unlock(), 0);
    ExpectLines({{4, L"the lock count is 0 and this is not a service so set the event to exit"}});
}

TEST_F(ServiceModuleTest, LastUnlockOfAServiceDoesNothing)
{
    EXPECT_EQ(_Module.Lock(), 1);
    EXPECT_EQ(_Module.Unlock(), 0);
    ExpectLines({});
}

namespace
{
constexpr std::uint32_t HostScopeFlag = 1u << 19;

// Runs with the trace flags of this user set, read anew because time has moved on.
class HostScopes : public ServiceModuleTest
{
protected:
    void SetUp() override
    {
        ServiceModuleTest::SetUp();
        SetFlags(HostScopeFlag);
        TraceLines::Clear();
    }
    void TearDown() override
    {
        SetFlags(0);
        ServiceModuleTest::TearDown();
    }
    void SetFlags(std::uint32_t flags)
    {
        RegistryKey key;
        ASSERT_EQ(key.Create(HKEY_CURRENT_USER, L"Software\\QRLS\\Sorvane\\CurrentInstall", KEY_WRITE), ERROR_SUCCESS);
        ASSERT_EQ(key.WriteDword(L"TraceFlags", flags), ERROR_SUCCESS);
        do // the logger's thread may be in the middle of reading the old ones
        {
            clock.ahead += 1'000'000'000'000;
            std::this_thread::yield();
        } while (GetTraceFlags() != flags);
    }
};
} // namespace

TEST_F(HostScopes, EveryFunctionOfTheModuleOpensOne)
{
    OpenSCManagerWHook::Replace([](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { return nullptr; });
    _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
    _Module.ServiceMain(0, nullptr);
    _Module.m_bService = FALSE;
    _Module.Start();
    _Module.Lock();
    _Module.Unlock();
    CServiceModule::_HandlerEx(SERVICE_CONTROL_INTERROGATE, 0, nullptr, nullptr);
    (void)_Module.RegisterServer(FALSE, FALSE);
    (void)_Module.UnregisterServer();
    (void)_Module.Install();
    const std::vector<RecordedLine> lines = TraceRecorder::Get().Lines();
    for (const wchar_t* const function :
         {L"Init", L"ServiceMain", L"Run", L"SetServiceStatus", L"Start", L"Unlock", L"_HandlerEx", L"Handler",
          L"RegisterServer", L"UnregisterServer", L"Install", L"IsInstalled", L"Uninstall"})
    {
        for (const wchar_t* const direction : {L"Enter ==> ", L"Exit  <== "})
        {
            const std::wstring start = std::wstring(direction) + L"CServiceModule::" + function + L" pid ";
            EXPECT_TRUE(
                std::any_of(lines.begin(), lines.end(), [&](const RecordedLine& line)
                            { return line.source == 10 && line.level == 5 && line.Message().starts_with(start); }))
                << std::string(start.begin(), start.end());
        }
    }
}
