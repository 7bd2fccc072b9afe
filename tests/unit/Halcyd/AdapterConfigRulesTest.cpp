// The tables of binding control row by row on an engine of the test's own: what becomes of a path, which row wins, what
// each lock result says; and the walks over the record when the registry does not play along.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/Halcyd/AdapterConfigFixture.h"
#include "tests/unit/Halcyd/HostHooks.h"
#include "tests/unit/Halcyd/TestModule.h"

namespace
{
constexpr const wchar_t* Kept = L"{00000001-ABCD-1111-0102-030405060708}";
constexpr std::uint32_t Other = 2; // the component number of an adapter that is not kept

class AdapterConfigRulesTest : public AdapterConfigFixture
{
};

// --- The path rule ---

// Everything that a row of the rule can be about. A path takes the first row that fits.
struct PathRow
{
    const wchar_t* what;
    bool noComponent = false;
    bool disabled = false;
    bool kept = false;
    bool isatap = false;
    bool wanIp = false;
    bool excepted = false;
    const wchar_t* line = nullptr; // of the action; null for none
    bool enabledAfterwards = true;
};

const PathRow PathRule[] = {
    {.what = L"no lower component", .noComponent = true},
    {.what = L"already disabled", .disabled = true, .line = L"\talready disabled", .enabledAfterwards = false},
    {.what = L"the kept adapter", .kept = true, .line = L"\tthis is the component that we should not unbind"},
    {.what = L"its tunnel interface",
     .isatap = true,
     .line = L"\tthis is the component that we should not unbind: isatap.{00000001-ABCD-1111-0102-030405060708}"},
    {.what = L"NDISWAN's IP component of a PPP device",
     .wanIp = true,
     .line = L"\tdon't disable 'ms_ndiswanip' since this is a PPP connection"},
    {.what = L"excepted",
     .excepted = true,
     .line = L"\tlisted is in the exception list...it's binding will not be disabled"},
    {.what = L"otherwise", .line = L"\tdisabled binding", .enabledAfterwards = false},
};

class PathRuleTest : public AdapterConfigRulesTest
{
protected:
    // A path to which all of `rows` apply, walked by a disable for a PPP device. Its state afterwards is returned.
    bool Walk(std::initializer_list<const PathRow*> rows)
    {
        PathRow all{.what = L""};
        for (const PathRow* row : rows)
        {
            all.noComponent |= row->noComponent;
            all.disabled |= row->disabled;
            all.kept |= row->kept;
            all.isatap |= row->isatap;
            all.wanIp |= row->wanIp;
            all.excepted |= row->excepted;
        }
        const wchar_t* const id = all.wanIp ? L"ms_ndiswanip" : all.excepted ? L"listed" : L"card";
        WriteExceptionList(L"listed,ms_ndiswanip");
        if (!all.excepted)
        {
            WriteExceptionList(L"nothing");
        }
        const auto component =
            engine.AddComponent(id, all.kept ? 1 : Other, all.isatap ? std::wstring(L"isatap.") + Kept : L"An adapter");
        engine.protocols[L"ms_tcpip"].clear();
        const auto path = engine.AddPath(L"ms_tcpip", {all.noComponent ? nullptr : component}, !all.disabled);
        trace.Clear();
        EXPECT_EQ(S_OK, Open());
        EXPECT_EQ(S_OK, session->DisableBindings(Kept, 2));
        session->Close();
        EXPECT_EQ(all.noComponent ? 0 : 1, trace.Count(L"Component Info: "));
        return path->enabled;
    }
    static int ActionLines()
    {
        int lines = 0;
        for (const PathRow& row : PathRule)
        {
            lines += row.line != nullptr && std::ranges::count(TraceLines::All(), std::wstring(row.line)) > 0 ? 1 : 0;
        }
        return lines;
    }
};

TEST_F(PathRuleTest, EachRowHasItsActionAndItsLineAlone)
{
    for (const PathRow& row : PathRule)
    {
        SCOPED_TRACE(testing::Message() << row.what);
        EXPECT_EQ(row.enabledAfterwards, Walk({&row}));
        EXPECT_EQ(row.line != nullptr ? 1 : 0, ActionLines());
        if (row.line != nullptr)
        {
            EXPECT_EQ(1, std::ranges::count(TraceLines::All(), std::wstring(row.line)));
        }
    }
}

TEST_F(PathRuleTest, OfTwoRowsThatFitTheEarlierOneDecides)
{
    for (const PathRow* first = std::begin(PathRule); first != std::end(PathRule); ++first)
    {
        for (const PathRow* second = first + 1; second != std::end(PathRule); ++second)
        {
            // A path cannot be without a component and be disabled or kept as one: the first row leaves it as it is.
            if (first->noComponent && second->disabled)
            {
                continue;
            }
            SCOPED_TRACE(testing::Message() << first->what << L" with " << second->what);
            EXPECT_EQ(first->enabledAfterwards, Walk({first, second}));
            if (first->line != nullptr && !(first->wanIp && second->excepted))
            {
                EXPECT_EQ(1, std::ranges::count(TraceLines::All(), std::wstring(first->line)));
            }
            EXPECT_EQ(first->line != nullptr ? 1 : 0, ActionLines());
        }
    }
}

TEST_F(PathRuleTest, ExceptionListIsReadAnewForEachPath)
{
    const auto first = engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"first", 2)});
    const auto second = engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"second", 3)});
    engine.OnCall("INetCfgBindingPath::Enable", [] { WriteExceptionList(L"second"); });
    Open();
    session->DisableBindings(Kept, 0);
    EXPECT_FALSE(first->enabled);
    EXPECT_TRUE(second->enabled);
}

// --- The session ---

TEST_F(AdapterConfigRulesTest, LockResultThatHasNoLineOfItsOwnWritesNone)
{
    engine.FailCall("INetCfgLock::AcquireWriteLock", E_OUTOFMEMORY);
    EXPECT_EQ(E_OUTOFMEMORY, Open());
    EXPECT_TRUE(trace.Has(L"Acquire INetCfgLock WriteLock failed"));
    EXPECT_EQ(0, std::ranges::count(TraceLines::All(), std::wstring()));
}

TEST_F(AdapterConfigRulesTest, ModuleKeepsOneReferenceToTheInterfaceTable)
{
    EnsureTestModule();
    int made = 0;
    CoCreateInstanceHook::Replace(
        [&made](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* object)
        {
            made += IsEqualCLSID(classId, CLSID_StdGlobalInterfaceTable) ? 1 : 0;
            return CoCreateInstanceHook::Real(classId, outer, context, iid, object);
        });
    for (int round = 0; round < 3; ++round)
    {
        EXPECT_EQ(S_OK, Open());
        EXPECT_EQ(S_OK, session->DisableBindings(Kept, 0));
        EXPECT_EQ(S_OK, session->Close());
    }
    EXPECT_LE(made, 1); // none if an earlier test had it made
}

// --- The record ---

// The system refuses to write through a handle with read access. That the service asks for no more is required: a
// binding's key then stands without its value, and a restore passes it over.
TEST_F(AdapterConfigRulesTest, RequiredMaskOfARecordIsReadOnlyForItsKeyAndForNoOther)
{
    engine.AddPath(L"ms_tcpip", {engine.AddComponent(L"card", Other)});
    std::vector<REGSAM> created;
    std::vector<REGSAM> opened;
    RegCreateKeyExWHook::Replace(
        [&](HKEY root, LPCWSTR name, DWORD reserved, LPWSTR cls, DWORD options, REGSAM wanted,
            LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD madeNew)
        {
            created.push_back(wanted);
            return RegCreateKeyExWHook::Real(root, name, reserved, cls, options, wanted, security, key, madeNew);
        });
    RegOpenKeyExWHook::Replace(
        [&](HKEY root, LPCWSTR name, DWORD options, REGSAM wanted, PHKEY key)
        {
            opened.push_back(wanted);
            return RegOpenKeyExWHook::Real(root, name, options, wanted, key);
        });
    Open();
    EXPECT_EQ(S_OK, session->DisableBindings(Kept, 0));
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_EQ(std::vector<REGSAM>{0x20019}, created);
    EXPECT_TRUE(std::ranges::all_of(opened, [](REGSAM wanted) { return wanted == 0x20019; }));
    EXPECT_FALSE(opened.empty());
}

TEST_F(AdapterConfigRulesTest, SubkeyThatCannotBeNamedCostsItsOwnBindingOnly)
{
    const auto first = engine.AddComponent(L"first", 2);
    const auto second = engine.AddComponent(L"second", 3);
    const auto firstPath = engine.AddPath(L"ms_tcpip", {first}, false);
    const auto secondPath = engine.AddPath(L"ms_tcpip", {second}, false);
    WriteRecord(RecordOf(L"ms_tcpip", *first), 1);
    WriteRecord(RecordOf(L"ms_tcpip", *second), 1);
    Open();
    PlatformHooks::FailCall("RegEnumKeyExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(S_OK, session->RestoreBindings());
    EXPECT_FALSE(firstPath->enabled);
    EXPECT_TRUE(secondPath->enabled);
    EXPECT_TRUE(trace.Has(L"no more bindings to restore"));
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *first)));
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *second)));
}

TEST_F(AdapterConfigRulesTest, RemovalGoesOnBehindAnEnumerationThatFailed)
{
    const auto card = engine.AddComponent(L"card", Other);
    WriteRecord(RecordOf(L"ms_tcpip", *card), 1);
    PlatformHooks::FailCall("RegEnumKeyExW", 1, ERROR_ACCESS_DENIED);
    session->DeleteOldBindingInfo();
    EXPECT_FALSE(Exists(RecordOf(L"ms_tcpip", *card)));
}
} // namespace
