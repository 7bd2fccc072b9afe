// What the COM surface of the process has in common: security, the search for the client, the monitor's reports, the
// class that exists for tests. The platform answers as the test says.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Halcyd/ClientLookup.h"
#include "Halcyd/MonitorReport.h"
#include "Halcyd/ProcessSecurity.h"
#include "Halcyd/SimpleSink.h"
#include "HostHooks.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "SleepClock.h"
#include "TestModule.h"
#include "TraceLines.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
// A snapshot with processes of the test's own. Process N of the list has the id N (from 1).
class ClientSearch : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CreateToolhelp32SnapshotHook::Replace(
            [this](DWORD flags, DWORD process) -> HANDLE
            {
                EXPECT_EQ(flags, static_cast<DWORD>(TH32CS_SNAPPROCESS));
                EXPECT_EQ(process, 0u);
                return snapshotFails ? INVALID_HANDLE_VALUE : CreateEventW(nullptr, TRUE, FALSE, nullptr);
            });
        const auto give = [this](LPPROCESSENTRY32W entry)
        {
            EXPECT_EQ(entry->dwSize, sizeof(PROCESSENTRY32W));
            if (next >= names.size())
            {
                SetLastError(ERROR_NO_MORE_FILES);
                return FALSE;
            }
            names[next].copy(entry->szExeFile, MAX_PATH);
            entry->szExeFile[names[next].size()] = L'\0';
            entry->th32ProcessID = static_cast<DWORD>(++next);
            return TRUE;
        };
        Process32FirstWHook::Replace(
            [this, give](HANDLE, LPPROCESSENTRY32W entry)
            {
                next = 0;
                return give(entry);
            });
        Process32NextWHook::Replace([give](HANDLE, LPPROCESSENTRY32W entry) { return give(entry); });
        OpenProcessHook::Replace(
            [this](DWORD access, BOOL inherit, DWORD process) -> HANDLE
            {
                EXPECT_EQ(access, static_cast<DWORD>(PROCESS_ALL_ACCESS));
                EXPECT_FALSE(inherit);
                opened.push_back(process);
                if (processFails)
                {
                    SetLastError(ERROR_ACCESS_DENIED);
                    return nullptr;
                }
                return OpenProcessHook::Real(access, inherit, GetCurrentProcessId());
            });
        OpenProcessTokenHook::Replace(
            [this](HANDLE process, DWORD access, PHANDLE token)
            {
                EXPECT_EQ(access, 0xF01FFu);
                if (tokenFails)
                {
                    SetLastError(ERROR_ACCESS_DENIED);
                    return FALSE;
                }
                return OpenProcessTokenHook::Real(process, TOKEN_QUERY, token);
            });
        TraceLines::Clear();
    }

    HookScope hooks;
    std::vector<std::wstring> names;
    std::size_t next = 0;
    std::vector<DWORD> opened;
    bool snapshotFails = false;
    bool processFails = false;
    bool tokenFails = false;
};
} // namespace

TEST_F(ClientSearch, WhicheverNameTheSnapshotListsFirstIsTaken)
{
    names = {L"[System Process]", L"probehost.EXE", L"Sorvane.exe"};
    EXPECT_TRUE(UniqueHandle(GetSorvaneTokenHandle()));
    names = {L"Sorvane.exe.bak", L"sorvane.EXE", L"Probehost.exe"};
    wchar_t buffer[200] = {};
    EXPECT_EQ(GetSorvaneUserSid(buffer, 200), buffer);
    EXPECT_EQ(opened, (std::vector<DWORD>{2, 2}));
}

TEST_F(ClientSearch, BothHandlesAndTheTextAreTraced)
{
    names = {L"Sorvane.exe"};
    EXPECT_TRUE(UniqueHandle(GetSorvaneTokenHandle()));
    EXPECT_TRUE(TraceLines::Has(L"hProcess = 0x"));
    const std::vector<std::wstring> first = TraceLines::All();
    EXPECT_NE(first[0].find(L" htokenHandle = 0x"), std::wstring::npos);
    EXPECT_EQ(first[0].find(L";"), std::wstring::npos);
    TraceLines::Clear();
    wchar_t buffer[200] = {};
    (void)GetSorvaneUserSid(buffer, 200);
    const std::vector<std::wstring> second = TraceLines::All();
    ASSERT_EQ(second.size(), 2u);
    EXPECT_NE(second[0].find(L"; htokenHandle = 0x"), std::wstring::npos);
    EXPECT_EQ(second[1], L"textual sid is '" + std::wstring(buffer) + L"'");
}

TEST_F(ClientSearch, SnapshotThatFailsIsToldByTheTokenAndSilentForTheSid)
{
    snapshotFails = true;
    EXPECT_EQ(GetSorvaneTokenHandle(), nullptr);
    EXPECT_TRUE(TraceLines::Has(L"GetSorvaneTokenHandle: CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE"));
    TraceLines::Clear();
    wchar_t buffer[20] = L"untouched";
    EXPECT_EQ(GetSorvaneUserSid(buffer, 20), nullptr);
    EXPECT_STREQ(buffer, L"untouched");
    EXPECT_TRUE(TraceLines::All().empty());
}

TEST_F(ClientSearch, EmptySnapshotIsToldByTheTokenAndSilentForTheSid)
{
    EXPECT_EQ(GetSorvaneTokenHandle(), nullptr);
    EXPECT_TRUE(TraceLines::Has(L"GetSorvaneTokenHandle: could not get info about the first process"));
    TraceLines::Clear();
    wchar_t buffer[20] = L"untouched";
    EXPECT_EQ(GetSorvaneUserSid(buffer, 20), nullptr);
    EXPECT_TRUE(TraceLines::All().empty());
}

TEST_F(ClientSearch, ProcessThatCannotBeOpenedEndsTheSearch)
{
    names = {L"Sorvane.exe", L"Probehost.exe"};
    processFails = true;
    EXPECT_EQ(GetSorvaneTokenHandle(), nullptr);
    EXPECT_EQ(opened, (std::vector<DWORD>{1})); // the other one is not tried
    EXPECT_TRUE(TraceLines::All().empty());
}

TEST_F(ClientSearch, TokenThatCannotBeOpenedIsNullAndGivesNoSid)
{
    names = {L"Sorvane.exe"};
    tokenFails = true;
    EXPECT_EQ(GetSorvaneTokenHandle(), nullptr);
    EXPECT_TRUE(TraceLines::Has(L"hProcess = 0x"));
    wchar_t buffer[20] = L"untouched";
    EXPECT_EQ(GetSorvaneUserSid(buffer, 20), buffer);
    EXPECT_STREQ(buffer, L"untouched");
    EXPECT_TRUE(TraceLines::Has(L"problem getting token information"));
}

TEST_F(ClientSearch, SmallBufferIsLeftAloneAndTheTextIsNotTold)
{
    names = {L"Sorvane.exe"};
    wchar_t buffer[30] = L"untouched";
    EXPECT_EQ(GetSorvaneUserSid(buffer, 30), buffer);
    EXPECT_STREQ(buffer, L"untouched");
    EXPECT_TRUE(TraceLines::Has(L"your buffer is not big enough Error 122 (0x7a)"));
    EXPECT_FALSE(TraceLines::Has(L"textual sid is"));
}

namespace
{
class HostSecurity : public ::testing::Test
{
protected:
    HookScope hooks;
};
} // namespace

TEST_F(HostSecurity, IsHandedToComWithPacketAuthenticationAndImpersonation)
{
    ProcessSecurity security;
    CoInitializeSecurityHook::Replace(
        [&](PSECURITY_DESCRIPTOR descriptor, LONG services, SOLE_AUTHENTICATION_SERVICE* list, void* reserved,
            DWORD authentication, DWORD impersonation, void* authenticationList, DWORD capabilities, void* reserved2)
        {
            EXPECT_EQ(descriptor, security.Descriptor());
            EXPECT_EQ(services, -1);
            EXPECT_EQ(list, nullptr);
            EXPECT_EQ(reserved, nullptr);
            EXPECT_EQ(authentication, 4u);
            EXPECT_EQ(impersonation, 3u);
            EXPECT_EQ(authenticationList, nullptr);
            EXPECT_EQ(capabilities, 0u);
            EXPECT_EQ(reserved2, nullptr);
            return RPC_E_TOO_LATE;
        });
    EXPECT_EQ(security.InitializeCom(), RPC_E_TOO_LATE);
}

TEST_F(HostSecurity, ThreadTokenComesFirstAndTheProcessTokenOnlyWithoutOne)
{
    std::vector<std::wstring> asked;
    OpenThreadTokenHook::Replace(
        [&](HANDLE, DWORD access, BOOL, PHANDLE)
        {
            asked.push_back(L"thread " + std::to_wstring(access));
            SetLastError(ERROR_NO_TOKEN);
            return FALSE;
        });
    OpenProcessTokenHook::Replace(
        [&](HANDLE process, DWORD access, PHANDLE token)
        {
            asked.push_back(L"process " + std::to_wstring(access));
            return OpenProcessTokenHook::Real(process, access, token);
        });
    EXPECT_EQ(ProcessSecurity().Result(), 0u);
    EXPECT_EQ(asked, (std::vector<std::wstring>{L"thread 8", L"process 8"}));

    asked.clear();
    OpenThreadTokenHook::Replace(
        [](HANDLE, DWORD, BOOL, PHANDLE)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        });
    ProcessSecurity refused;
    EXPECT_EQ(refused.Result(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(asked.empty()); // any other failure is not "no token"
    PSID owner = &refused;
    BOOL defaulted = FALSE;
    EXPECT_TRUE(GetSecurityDescriptorOwner(refused.Descriptor(), &owner, &defaulted));
    EXPECT_EQ(owner, nullptr); // what could not be read stays out
}

TEST_F(HostSecurity, OwnerIsReadBeforeTheGroupWithTheSizeAskedForFirst)
{
    std::vector<int> asked;
    GetTokenInformationHook::Replace(
        [&](HANDLE token, TOKEN_INFORMATION_CLASS which, LPVOID buffer, DWORD size, PDWORD needed)
        {
            asked.push_back(buffer == nullptr ? -static_cast<int>(which) : static_cast<int>(which));
            return GetTokenInformationHook::Real(token, which, buffer, size, needed);
        });
    EXPECT_EQ(ProcessSecurity().Result(), 0u);
    EXPECT_EQ(asked, (std::vector<int>{-TokenOwner, TokenOwner, -TokenPrimaryGroup, TokenPrimaryGroup}));
}

namespace
{
class MonitorReports : public ::testing::Test
{
protected:
    void SetUp() override
    {
        RegisterEventSourceWHook::Replace(
            [this](LPCWSTR machine, LPCWSTR name)
            {
                EXPECT_EQ(machine, nullptr);
                EXPECT_STREQ(name, L"Halcyd");
                return source;
            });
        ReportEventWHook::Replace(
            [this](HANDLE log, WORD type, WORD category, DWORD id, PSID user, WORD strings, DWORD size, LPCWSTR* texts,
                   LPVOID data)
            {
                EXPECT_EQ(log, source);
                EXPECT_EQ(type, EVENTLOG_ERROR_TYPE);
                EXPECT_EQ(category, 0);
                EXPECT_EQ(id, 0xC0020001u);
                EXPECT_EQ(user, nullptr);
                EXPECT_EQ(strings, 1);
                EXPECT_EQ(size, 0u);
                EXPECT_EQ(data, nullptr);
                reported.push_back(texts[0]);
                return TRUE;
            });
        RegistryKey product;
        ASSERT_EQ(product.Create(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_WRITE), ERROR_SUCCESS);
        TraceLines::Clear();
    }
    void TearDown() override { MonitorReport::Stop(); }

    HookScope hooks;
    HANDLE source = RegisterEventSourceWHook::Real(nullptr, L"Halcyd");
    std::vector<std::wstring> reported;
};
} // namespace

TEST_F(MonitorReports, FailuresGoToTheEventLogAndEverythingGoesToTheTrace)
{
    MonitorReport::Start();
    ReportMonitorEvent(4, L"an account");
    ReportMonitorEvent(2, L"a failure");
    ReportMonitorEvent(1, L"a complaint");
    EXPECT_EQ(reported, (std::vector<std::wstring>{L"a failure"}));
    TraceRecorder& trace = TraceRecorder::Get();
    EXPECT_TRUE(trace.Has(11, 4, L"an account"));
    EXPECT_TRUE(trace.Has(11, 2, L"a failure"));
    EXPECT_TRUE(trace.Has(11, 1, L"a complaint"));
}

TEST_F(MonitorReports, WithoutAnOpenEventLogAFailureGoesToTheTraceOnly)
{
    RegisterEventSourceWHook::Replace([](LPCWSTR, LPCWSTR) -> HANDLE { return nullptr; });
    MonitorReport::Start();
    ReportMonitorEvent(2, L"a failure");
    MonitorReport::Stop();
    ReportMonitorEvent(2, L"another failure");
    EXPECT_TRUE(reported.empty());
    EXPECT_TRUE(TraceRecorder::Get().Has(11, 2, L"another failure"));
    source = nullptr;
}

TEST_F(MonitorReports, SignalledSwitchIsReadAgainBeforeTheReport)
{
    MonitorReport::Start();
    const UniqueHandle event(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"RegistryWatcher"));
    ASSERT_TRUE(event);
    ReportMonitorEvent(4, L"nothing changed");
    SetEvent(event.get());
    int reads = 0;
    RegQueryValueExWHook::Replace(
        [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size)
        {
            if (std::wstring_view(TextOrEmpty(name)) == L"debug2")
            {
                ++reads;
                EXPECT_FALSE(TraceRecorder::Get().HasMessage(L"changed"));
            }
            return RegQueryValueExWHook::Real(key, name, reserved, type, data, size);
        });
    ReportMonitorEvent(4, L"changed");
    EXPECT_EQ(reads, 1);
    EXPECT_EQ(WaitForSingleObject(event.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT)); // reset
}

TEST_F(MonitorReports, WatchesTheProductsKeyForQueryAndNotifyOnly)
{
    REGSAM access = 0;
    RegOpenKeyExWHook::Replace(
        [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM wanted, PHKEY key)
        {
            if (std::wstring_view(TextOrEmpty(subkey)) == L"Software\\QRLS\\Sorvane")
            {
                access = wanted;
            }
            return RegOpenKeyExWHook::Real(root, subkey, options, wanted, key);
        });
    MonitorReport::Start();
    EXPECT_EQ(access, 17u);
}

namespace
{
// Time that has moved on, so that the debug switch is read again.
class LaterClock : public SleepClock
{
public:
    std::int64_t SteadyNanoseconds() noexcept override { return SleepClock::SteadyNanoseconds() + ahead; }
    static inline std::int64_t ahead = 0;
};

void SetDebugOutput(std::uint32_t value)
{
    RegistryKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane\\CurrentInstall", KEY_WRITE), ERROR_SUCCESS);
    ASSERT_EQ(key.WriteDword(L"DebugOutput", value), ERROR_SUCCESS);
    LaterClock::ahead += 1'000'000'000'000;
    ASSERT_EQ(IsDebugOutputEnabled(), value != 0);
}
} // namespace

TEST(SimpleSink, TestWritesItsFixedTextWhateverItsArgument)
{
    const HookScope hooks;
    LaterClock clock;
    SetDebugOutput(1);
    std::vector<std::wstring> texts;
    OutputDebugStringWHook::Replace([&](LPCWSTR text) { texts.push_back(text); });
    const auto sink = MakeTestObject<CSimpleSink>();
    EXPECT_EQ(sink->Test(nullptr), S_OK);
    EXPECT_EQ(sink->Test(_bstr_t(L"ignored")), S_OK);
    SetDebugOutput(0);
    EXPECT_EQ(sink->Test(nullptr), S_OK); // the channel is off
    EXPECT_EQ(texts, (std::vector<std::wstring>{L"QRLC: **** fired *****\n\n", L"QRLC: **** fired *****\n\n"}));
}
