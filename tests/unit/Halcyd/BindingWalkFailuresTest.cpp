// Disabling and restoring when a part of the walk fails, and the two at the same time.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>

#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Event.h"
#include "tests/unit/Halcyd/AdapterConfigFixture.h"
#include "tests/unit/Halcyd/WritableRecords.h"

namespace
{
constexpr HRESULT Injected = static_cast<HRESULT>(0x80040123);

class BindingWalkFailuresTest : public AdapterConfigFixture
{
protected:
    static void WriteExceptionValue(DWORD type, const void* data, DWORD size)
    {
        RegistryKey key(false);
        ASSERT_EQ(0u, key.Create(HKEY_LOCAL_MACHINE, std::wstring(BindingRules::RootKey), KEY_ALL_ACCESS));
        ASSERT_EQ(0, RegSetValueExW(key.Handle(), L"ExceptionList", 0, type, static_cast<const BYTE*>(data), size));
    }
    // The line behind the first one of this text; empty if there is none.
    static std::wstring LineBehind(const std::wstring& text)
    {
        const std::vector<std::wstring> lines = TraceLines::All();
        const auto found = std::ranges::find(lines, text);
        return found != lines.end() && found + 1 != lines.end() ? *(found + 1) : L"";
    }

    std::shared_ptr<FakeComponent> first = engine.AddComponent(L"first", 2);
    std::shared_ptr<FakeComponent> second = engine.AddComponent(L"second", 3);
};

// --- One path fails ---

TEST_F(BindingWalkFailuresTest, PathThatCannotBeDisabledDoesNotKeepTheNextOneFromIt)
{
    const auto firstPath = engine.AddPath(L"ms_tcpip", {first});
    const auto secondPath = engine.AddPath(L"ms_tcpip", {second});
    Open();
    engine.FailCall("INetCfgBindingPath::Enable", Injected);
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_TRUE(firstPath->enabled);
    EXPECT_FALSE(secondPath->enabled);
    EXPECT_EQ(2, engine.Calls("INetCfgBindingPath::Enable"));
    EXPECT_EQ(1, trace.Count(L"\tdisabled binding"));
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *first)));
    EXPECT_TRUE(Exists(RecordOf(L"ms_tcpip", *second)));
}

TEST_F(BindingWalkFailuresTest, PathThatCannotBeEnabledDoesNotKeepTheNextOneFromIt)
{
    const auto firstPath = engine.AddPath(L"ms_tcpip", {first}, false);
    const auto secondPath = engine.AddPath(L"ms_tcpip", {second}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *first), 1);
    WriteRecord(RecordOf(L"ms_tcpip", *second), 1);
    Open();
    engine.FailCall("INetCfgBindingPath::Enable", Injected);
    EXPECT_EQ(S_OK, session->RestoreBindings());
    // Whichever the registry names first.
    EXPECT_NE(firstPath->enabled, secondPath->enabled);
    EXPECT_EQ(2, engine.Calls("INetCfgBindingPath::Enable"));
    EXPECT_EQ(1, trace.Count(L"\tfailed to enable: ms_tcpip -> "));
    EXPECT_EQ(1, trace.Count(L"\tenabled: ms_tcpip -> "));
    EXPECT_TRUE(trace.Has(L"no more bindings to restore"));
    // Required: the failed one's record goes with the other.
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *first)));
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *second)));
}

// --- One protocol fails ---

TEST_F(BindingWalkFailuresTest, ProtocolThatCannotBeFoundIsPassedOverByADisableWithoutAWord)
{
    const auto path6 = engine.AddPath(L"ms_tcpip6", {first});
    const auto path4 = engine.AddPath(L"ms_tcpip", {first});
    Open();
    engine.FailCall("INetCfg::FindComponent", Injected);
    EXPECT_EQ(S_OK, session->DisableBindings(L"{kept}", 0));
    EXPECT_EQ(3, engine.Calls("INetCfg::FindComponent"));
    EXPECT_TRUE(path6->enabled);
    EXPECT_FALSE(path4->enabled);
    // The next protocol's line comes straight behind the first line of all.
    EXPECT_EQ(L"Display of ms_tcpip:", LineBehind(L"adapter to not unbind: {kept}"));
    EXPECT_FALSE(trace.Has(L"Display of ms_tcpip6:"));
    EXPECT_EQ(2, trace.Count(L"-------------------------------------"));
    EXPECT_TRUE(trace.Has(L"applied network changes"));
}

TEST_F(BindingWalkFailuresTest, ProtocolThatCannotBeFoundCostsARestoreItsOwnBindingsOnly)
{
    const auto path6 = engine.AddPath(L"ms_tcpip6", {first}, false);
    const auto path4 = engine.AddPath(L"ms_tcpip", {first}, false);
    WriteRecord(RecordOf(L"ms_tcpip6", *first), 1);
    WriteRecord(RecordOf(L"ms_tcpip", *first), 1);
    Open();
    engine.FailCall("INetCfg::FindComponent", Injected);
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_FALSE(path6->enabled);
    EXPECT_TRUE(path4->enabled);
    EXPECT_EQ(1, trace.Count(L"\tdid not find a match for the binding ms_tcpip6 -> " + GuidText(first->guid)));
    EXPECT_EQ(1, trace.Count(L"\tenabled: ms_tcpip -> first"));
}

TEST_F(BindingWalkFailuresTest, PppDeviceOfOneKeepsNdiswanFromBeingLookedAtAtAll)
{
    engine.AddPath(L"ms_ndiswan", {engine.AddComponent(L"modem", 4, L"Modem")});
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 1));
    EXPECT_EQ(2, engine.Calls("INetCfg::FindComponent")); // the two IP protocols
    EXPECT_EQ(2, engine.Calls("INetCfgComponentBindings::EnumBindingPaths"));
    EXPECT_EQ(0, engine.Calls("INetCfgBindingPath::EnumBindingInterfaces"));
    EXPECT_EQ(0, engine.Calls("INetCfgBindingPath::IsEnabled"));
    EXPECT_FALSE(trace.Has(L"Display of ms_ndiswan:"));
    EXPECT_FALSE(trace.Has(L"Component Info: modem"));
    EXPECT_EQ(2, trace.Count(L"-------------------------------------"));
    EXPECT_EQ(1, trace.Count(L"don't disable any NDISWAN bindings for PPP devices"));
    // Any other value has them walked.
    for (const int ppp : {0, 2, -1})
    {
        trace.Clear();
        EXPECT_EQ(S_OK, session->DisableBindings(L"", ppp));
        EXPECT_TRUE(trace.Has(L"Display of ms_ndiswan:")) << ppp;
        EXPECT_TRUE(trace.Has(L"Component Info: modem")) << ppp;
        EXPECT_FALSE(trace.Has(L"don't disable any NDISWAN bindings for PPP devices")) << ppp;
    }
}

// --- The registry fails ---

TEST_F(BindingWalkFailuresTest, RecordThatCannotBeMadeDoesNotStopTheDisable)
{
    LetRecordsBeWritten();
    const auto firstPath = engine.AddPath(L"ms_tcpip", {first});
    const auto secondPath = engine.AddPath(L"ms_tcpip", {second});
    Open();
    PlatformHooks::FailCall("RegCreateKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_FALSE(firstPath->enabled);
    EXPECT_FALSE(secondPath->enabled);
    EXPECT_EQ(2, trace.Count(L"\tdisabled binding"));
    EXPECT_EQ(1, trace.Count(L"\tadded binding to disabled binding list"));
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *first)));
    EXPECT_TRUE(Exists(RecordOf(L"ms_tcpip", *second)));
}

TEST_F(BindingWalkFailuresTest, ValueOfARecordThatCannotBeWrittenDoesNotStopTheDisable)
{
    LetRecordsBeWritten();
    const auto firstPath = engine.AddPath(L"ms_tcpip", {first});
    const auto secondPath = engine.AddPath(L"ms_tcpip", {second});
    Open();
    PlatformHooks::FailCall("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
    EXPECT_FALSE(firstPath->enabled);
    EXPECT_FALSE(secondPath->enabled);
    EXPECT_EQ(1, trace.Count(L"\tadded binding to disabled binding list"));
    // The key stands without its value: a restore passes it over and takes the other.
    EXPECT_TRUE(Exists(RecordOf(L"ms_tcpip", *first)));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_FALSE(firstPath->enabled);
    EXPECT_TRUE(secondPath->enabled);
}

TEST_F(BindingWalkFailuresTest, ExceptionListThatIsNoStringExceptsNothing)
{
    const wchar_t list[] = L"first\0"; // ends twice, as a list of strings does
    const DWORD number = 1;
    const struct
    {
        DWORD type;
        const void* data;
        DWORD size;
        bool excepts;
    } rows[] = {{REG_SZ, list, sizeof(list) - sizeof(wchar_t), true},
                {REG_MULTI_SZ, list, sizeof(list), false},
                {REG_BINARY, list, sizeof(list) - sizeof(wchar_t), false},
                {REG_DWORD, &number, sizeof(number), false}};
    Open();
    for (const auto& row : rows)
    {
        WriteExceptionValue(row.type, row.data, row.size);
        engine.protocols[L"ms_tcpip"].clear();
        const auto path = engine.AddPath(L"ms_tcpip", {first});
        trace.Clear();
        EXPECT_EQ(S_OK, session->DisableBindings(L"", 0));
        EXPECT_EQ(row.excepts, path->enabled) << row.type;
        EXPECT_EQ(row.excepts, trace.Has(L"\tfirst is in the exception list")) << row.type;
        EXPECT_EQ(!row.excepts, trace.Has(L"\tdisabled binding")) << row.type;
    }
}

// --- Both at the same time ---

// One operation stands inside a call of the engine while the other one is called on a thread of its own.
class BindingsExclusionTest : public BindingWalkFailuresTest
{
protected:
    // How long the other operation gets to show that it is not kept out. Only a broken lock ends the wait early.
    static constexpr DWORD TimeToIntrude = 400;

    // Runs `outer` on this thread; inside its first call of `where`, `inner` is started and watched. Both have ended
    // when this returns.
    template <class Outer, class Inner>
    void RunInside(const char* where, Outer&& outer, Inner&& inner)
    {
        const DWORD outerThread = GetCurrentThreadId();
        const Event started(true, false);
        const Event intruded(true, false);
        const auto watch = [&]
        {
            if (GetCurrentThreadId() != outerThread)
            {
                intruded.Set();
            }
        };
        const char* const watched[] = {"INetCfg::FindComponent", "INetCfg::Apply", "INetCfgBindingPath::Enable"};
        for (const char* call : watched)
        {
            engine.OnCall(call, watch);
        }
        std::future<HRESULT> other;
        engine.OnCall(where,
                      [&]
                      {
                          watch();
                          if (GetCurrentThreadId() == outerThread && !other.valid())
                          {
                              other = std::async(std::launch::async,
                                                 [&]
                                                 {
                                                     const ComApartment apartment;
                                                     started.Set();
                                                     return inner();
                                                 });
                              EXPECT_TRUE(RealWait(started, 30000));
                              EXPECT_FALSE(RealWait(intruded, TimeToIntrude)) << "both are inside";
                          }
                      });
        EXPECT_EQ(S_OK, outer());
        ASSERT_TRUE(other.valid());
        EXPECT_EQ(S_OK, other.get());
        EXPECT_EQ(2, engine.Calls("INetCfg::Apply"));
        for (const char* call : watched)
        {
            engine.OnCall(call, nullptr);
        }
    }
    // By the wall: the test's own time stands still.
    static bool RealWait(const Event& event, DWORD milliseconds)
    {
        return WaitForSingleObject(event.Handle(), milliseconds) == WAIT_OBJECT_0;
    }
};

TEST_F(BindingsExclusionTest, RestoreDoesNotBeginWhileADisableIsInside)
{
    LetRecordsBeWritten();
    const auto path = engine.AddPath(L"ms_tcpip", {first});
    Open();
    RunInside(
        "INetCfgBindingPath::Enable", [this] { return session->DisableBindings(L"", 0); },
        [this] { return session->RestoreBindings(); });
    // The restore came behind the whole disable, so it undid it.
    EXPECT_TRUE(path->enabled);
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *first)));
}

TEST_F(BindingsExclusionTest, RestoreDoesNotBeginWhileADisableIsBeingApplied)
{
    Open();
    RunInside(
        "INetCfg::Apply", [this] { return session->DisableBindings(L"", 0); },
        [this] { return session->RestoreBindings(); });
}

TEST_F(BindingsExclusionTest, DisableDoesNotBeginWhileARestoreIsInside)
{
    const auto path = engine.AddPath(L"ms_tcpip", {first}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *first), 1);
    Open();
    RunInside(
        "INetCfgBindingPath::Enable", [this] { return session->RestoreBindings(); },
        [this] { return session->DisableBindings(L"", 0); });
    // The disable came behind the whole restore: its record is there.
    EXPECT_FALSE(path->enabled);
    EXPECT_TRUE(Exists(RecordOf(L"ms_tcpip", *first)));
}

TEST_F(BindingsExclusionTest, DisableDoesNotBeginWhileARestoreIsBeingApplied)
{
    Open();
    RunInside(
        "INetCfg::Apply", [this] { return session->RestoreBindings(); },
        [this] { return session->DisableBindings(L"", 0); });
}
} // namespace
