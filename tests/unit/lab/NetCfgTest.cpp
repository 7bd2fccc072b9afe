// The network configuration engine: lock, components, binding paths, Apply, and the way of its pointers between
// threads.
#include "tests/unit/lab/LabMachineFixture.h"

#include "lab/netcfg/Objects.h"
#include "lab/state/Text.h"

#include <objbase.h>

#include <thread>

namespace
{

using lab::wmi::Reference;

constexpr char firstGuid[] = "{11111111-AAAA-4BBB-8CCC-000000000001}";
constexpr char secondGuid[] = "{11111111-AAAA-4BBB-8CCC-000000000002}";

class LabNetCfgTest : public LabMachineTest
{
protected:
    void SetUp() override
    {
        LabMachineTest::SetUp();
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        Change(
            [](lab::Json& state)
            {
                state["adapters"] = {
                    {{"name", "eth0"}, {"guid", firstGuid}, {"description", "First"}, {"service", "CARD"}},
                    {{"name", "wan0"}, {"guid", secondGuid}, {"description", "Wan"}, {"service", "NdisWan"}}};
            });
        config = NewEngine();
    }

    void TearDown() override
    {
        config = {};
        EXPECT_EQ(lab::wmi::moduleReferences, 0) << "objects of the engine are left over";
        CoUninitialize();
        LabMachineTest::TearDown();
    }

    void Change(const std::function<void(lab::Json& state)>& change)
    {
        machine.Update([&](lab::Json& state, lab::Events&) { change(state); });
    }

    static Reference<INetCfg> NewEngine() { return Reference<INetCfg>::Take(lab::netcfg::MakeEngine()); }

    static Reference<INetCfgLock> LockOf(const Reference<INetCfg>& engine)
    {
        INetCfgLock* lock = nullptr;
        EXPECT_EQ(engine->QueryInterface(__uuidof(INetCfgLock), reinterpret_cast<void**>(&lock)), S_OK);
        return Reference<INetCfgLock>::Take(lock);
    }

    static HRESULT Acquire(const Reference<INetCfg>& engine, DWORD milliseconds = 0, std::wstring* holder = nullptr)
    {
        wchar_t* name = nullptr;
        const HRESULT result = LockOf(engine)->AcquireWriteLock(milliseconds, L"Test", &name);
        if (holder != nullptr && name != nullptr)
            *holder = name;
        CoTaskMemFree(name);
        return result;
    }

    void OpenWithLock()
    {
        ASSERT_EQ(Acquire(config), S_OK);
        ASSERT_EQ(config->Initialize(nullptr), S_OK);
    }

    static std::wstring Take(wchar_t* text)
    {
        std::wstring copy = text == nullptr ? L"" : text;
        CoTaskMemFree(text);
        return copy;
    }

    Reference<IEnumNetCfgBindingPath> PathsBelow(const wchar_t* id) const
    {
        INetCfgComponent* component = nullptr;
        EXPECT_EQ(config->FindComponent(id, &component), S_OK);
        const auto owner = Reference<INetCfgComponent>::Take(component);
        INetCfgComponentBindings* bindings = nullptr;
        EXPECT_EQ(owner->QueryInterface(__uuidof(INetCfgComponentBindings), reinterpret_cast<void**>(&bindings)), S_OK);
        const auto held = Reference<INetCfgComponentBindings>::Take(bindings);
        IEnumNetCfgBindingPath* paths = nullptr;
        EXPECT_EQ(held->EnumBindingPaths(EBP_BELOW, &paths), S_OK);
        return Reference<IEnumNetCfgBindingPath>::Take(paths);
    }

    static Reference<INetCfgBindingPath> Next(const Reference<IEnumNetCfgBindingPath>& paths)
    {
        INetCfgBindingPath* path = nullptr;
        ULONG fetched = 0;
        paths->Next(1, &path, &fetched);
        return Reference<INetCfgBindingPath>::Take(path);
    }

    // Ids of the lower components of a path's interfaces; "!" and the code where there is none.
    static std::vector<std::wstring> LowerIds(const Reference<INetCfgBindingPath>& path)
    {
        IEnumNetCfgBindingInterface* list = nullptr;
        EXPECT_EQ(path->EnumBindingInterfaces(&list), S_OK);
        const auto interfaces = Reference<IEnumNetCfgBindingInterface>::Take(list);
        std::vector<std::wstring> ids;
        INetCfgBindingInterface* one = nullptr;
        while (interfaces->Next(1, &one, nullptr) == S_OK)
        {
            const auto held = Reference<INetCfgBindingInterface>::Take(one);
            INetCfgComponent* component = nullptr;
            if (FAILED(held->GetLowerComponent(&component)))
            {
                ids.emplace_back(L"!");
                continue;
            }
            const auto lower = Reference<INetCfgComponent>::Take(component);
            wchar_t* id = nullptr;
            lower->GetId(&id);
            ids.push_back(Take(id));
        }
        return ids;
    }

    Reference<INetCfg> config;
};

// ---- lock ----

TEST_F(LabNetCfgTest, AFreeLockIsAcquiredAndNamesItsHolder)
{
    wchar_t* name = nullptr;
    EXPECT_EQ(LockOf(config)->IsWriteLocked(&name), S_FALSE);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(Acquire(config), S_OK);
    EXPECT_EQ(LockOf(config)->IsWriteLocked(&name), S_OK);
    EXPECT_EQ(Take(name), L"Test");
    EXPECT_EQ(LockOf(config)->ReleaseWriteLock(), S_OK);
    EXPECT_EQ(LockOf(config)->IsWriteLocked(nullptr), S_FALSE);
}

TEST_F(LabNetCfgTest, AHeldLockTimesOutWithItsHoldersName)
{
    const auto other = NewEngine();
    ASSERT_EQ(Acquire(other), S_OK);
    std::wstring holder;
    EXPECT_EQ(Acquire(config, 30, &holder), S_FALSE);
    EXPECT_EQ(holder, L"Test");
}

TEST_F(LabNetCfgTest, AWaitEndsWhenTheHolderLetsGo)
{
    const auto other = NewEngine();
    ASSERT_EQ(Acquire(other), S_OK);
    std::jthread waiter{[&]
                        {
                            EXPECT_EQ(Acquire(config, 20000), S_OK);
                            // The lock belongs to this thread; it is given back before the thread ends.
                            EXPECT_EQ(LockOf(config)->ReleaseWriteLock(), S_OK);
                        }};
    EXPECT_EQ(LockOf(other)->ReleaseWriteLock(), S_OK);
}

TEST_F(LabNetCfgTest, TheLockGoesWithTheThreadThatTookIt)
{
    std::jthread{[&] { EXPECT_EQ(Acquire(config), S_OK); }}.join();
    const auto other = NewEngine();
    EXPECT_EQ(Acquire(other, 20000), S_OK);
    EXPECT_EQ(LockOf(config)->ReleaseWriteLock(), NETCFG_E_NO_WRITE_LOCK);
}

TEST_F(LabNetCfgTest, TheLockGoesWithTheEnginesLastReference)
{
    {
        const auto other = NewEngine();
        ASSERT_EQ(Acquire(other), S_OK);
    }
    EXPECT_EQ(Acquire(config), S_OK);
}

TEST_F(LabNetCfgTest, TheLockCannotBeTakenAfterInitialize)
{
    ASSERT_EQ(config->Initialize(nullptr), S_OK);
    EXPECT_EQ(Acquire(config), NETCFG_E_ALREADY_INITIALIZED);
}

TEST_F(LabNetCfgTest, LockCallsFailByRule)
{
    machine.AddFault({.call = "INetCfgLock::AcquireWriteLock", .code = 0x8004A025});
    EXPECT_EQ(Acquire(config), NETCFG_E_NEED_REBOOT);
    EXPECT_EQ(Acquire(config), S_OK);
}

// ---- components and paths ----

TEST_F(LabNetCfgTest, WithoutInitializeNothingIsFound)
{
    INetCfgComponent* component = nullptr;
    EXPECT_EQ(config->FindComponent(L"ms_tcpip", &component), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(config->Apply(), NETCFG_E_NOT_INITIALIZED);
    EXPECT_EQ(config->Uninitialize(), NETCFG_E_NOT_INITIALIZED);
}

TEST_F(LabNetCfgTest, AnUnknownComponentIsSFalseAndNull)
{
    OpenWithLock();
    INetCfgComponent* component = nullptr;
    EXPECT_EQ(config->FindComponent(L"ms_none", &component), S_FALSE);
    EXPECT_EQ(component, nullptr);
}

TEST_F(LabNetCfgTest, TheUsualPathsBindTheProtocolsToTheAdapters)
{
    OpenWithLock();
    auto paths = PathsBelow(L"ms_tcpip6");
    EXPECT_EQ(LowerIds(Next(paths)), std::vector<std::wstring>{L"card"});
    EXPECT_FALSE(Next(paths));
    paths = PathsBelow(L"ms_tcpip");
    EXPECT_EQ(LowerIds(Next(paths)), std::vector<std::wstring>{L"card"});
    EXPECT_EQ(LowerIds(Next(paths)), std::vector<std::wstring>{L"ms_ndiswanip"});
    paths = PathsBelow(L"ms_ndiswan");
    EXPECT_EQ(LowerIds(Next(paths)), std::vector<std::wstring>{L"ms_l2tpminiport"});
}

TEST_F(LabNetCfgTest, PathsWithSeveralWithoutAndWithUnknownLowerComponents)
{
    Change(
        [](lab::Json& state)
        {
            state["netcfg"] = {{"components",
                                {{{"id", "ms_pacer"},
                                  {"displayName", "Scheduler"},
                                  {"guid", "{22222222-AAAA-4BBB-8CCC-000000000001}"}}}},
                               {"paths",
                                {{{"protocol", "ms_tcpip"}, {"lower", {"ms_pacer", "eth0"}}},
                                 {{"protocol", "ms_tcpip"}, {"lower", lab::Json::array()}},
                                 {{"protocol", "ms_tcpip"}, {"lower", {nullptr}}}}}};
        });
    OpenWithLock();
    const auto paths = PathsBelow(L"ms_tcpip");
    EXPECT_EQ(LowerIds(Next(paths)), (std::vector<std::wstring>{L"ms_pacer", L"card"}));
    EXPECT_TRUE(LowerIds(Next(paths)).empty());
    EXPECT_EQ(LowerIds(Next(paths)), std::vector<std::wstring>{L"!"});
    EXPECT_FALSE(Next(paths));
}

TEST_F(LabNetCfgTest, AComponentTellsNameIdAndGuid)
{
    OpenWithLock();
    INetCfgComponent* found = nullptr;
    ASSERT_EQ(config->FindComponent(L"CARD", &found), S_OK);
    const auto component = Reference<INetCfgComponent>::Take(found);
    wchar_t* text = nullptr;
    EXPECT_EQ(component->GetDisplayName(&text), S_OK);
    EXPECT_EQ(Take(text), L"First");
    EXPECT_EQ(component->GetId(&text), S_OK);
    EXPECT_EQ(Take(text), L"card");
    GUID guid{};
    wchar_t printed[40];
    EXPECT_EQ(component->GetInstanceGuid(&guid), S_OK);
    StringFromGUID2(guid, printed, 40);
    EXPECT_EQ(lab::Utf8(printed), firstGuid);
}

// ---- enabling ----

TEST_F(LabNetCfgTest, ADisabledPathReachesTheMachineWithApply)
{
    OpenWithLock();
    const auto path = Next(PathsBelow(L"ms_tcpip"));
    EXPECT_EQ(path->IsEnabled(), S_OK);
    EXPECT_EQ(path->Enable(FALSE), S_OK);
    EXPECT_EQ(path->IsEnabled(), S_FALSE);
    EXPECT_FALSE((*machine.Snapshot()).contains("netcfg"));
    EXPECT_EQ(config->Apply(), S_OK);
    EXPECT_EQ((*machine.Snapshot())["netcfg"]["disabled"], lab::Json::array({std::string("ms_tcpip->") + firstGuid}));
    EXPECT_EQ(path->Enable(TRUE), S_OK);
    EXPECT_EQ(config->Apply(), S_OK);
    EXPECT_TRUE((*machine.Snapshot())["netcfg"]["disabled"].empty());
}

TEST_F(LabNetCfgTest, WithoutApplyOrAfterAFailedOneTheMachineStaysAsItWas)
{
    OpenWithLock();
    EXPECT_EQ(Next(PathsBelow(L"ms_tcpip"))->Enable(FALSE), S_OK);
    machine.AddFault({.call = "INetCfg::Apply", .code = 0x80070005});
    EXPECT_EQ(config->Apply(), E_ACCESSDENIED);
    EXPECT_EQ(config->Uninitialize(), S_OK);
    EXPECT_FALSE((*machine.Snapshot()).contains("netcfg"));
    EXPECT_EQ(config->Initialize(nullptr), S_OK);
    EXPECT_EQ(Next(PathsBelow(L"ms_tcpip"))->IsEnabled(), S_OK);
}

TEST_F(LabNetCfgTest, ASuccessCodeOfApplyComesBackAndTheChangeHolds)
{
    Change([](lab::Json& state) { state["netcfg"] = {{"applyResult", 0x0004A020}}; });
    OpenWithLock();
    EXPECT_EQ(Next(PathsBelow(L"ms_tcpip"))->Enable(FALSE), S_OK);
    EXPECT_EQ(config->Apply(), NETCFG_S_REBOOT);
    EXPECT_EQ((*machine.Snapshot())["netcfg"]["disabled"].size(), 1U);
}

TEST_F(LabNetCfgTest, WithoutTheLockNothingCanBeChanged)
{
    ASSERT_EQ(config->Initialize(nullptr), S_OK);
    EXPECT_EQ(Next(PathsBelow(L"ms_tcpip"))->Enable(FALSE), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(config->Apply(), NETCFG_E_NO_WRITE_LOCK);
}

TEST_F(LabNetCfgTest, ApplyKeepsWhatAnotherProgramChangedMeanwhile)
{
    OpenWithLock();
    Change([](lab::Json& state) { state["netcfg"]["disabled"] = {std::string("ms_tcpip6->") + firstGuid}; });
    EXPECT_EQ(Next(PathsBelow(L"ms_tcpip"))->Enable(FALSE), S_OK);
    EXPECT_EQ(config->Apply(), S_OK);
    EXPECT_EQ((*machine.Snapshot())["netcfg"]["disabled"].size(), 2U);
}

TEST_F(LabNetCfgTest, OnePathFailsByRule)
{
    OpenWithLock();
    machine.AddFault({.call = std::string("INetCfgBindingPath::Enable(ms_tcpip->") + firstGuid + ")",
                      .times = 0,
                      .code = 0x80004005});
    const auto paths = PathsBelow(L"ms_tcpip");
    EXPECT_EQ(Next(paths)->Enable(FALSE), E_FAIL);
    EXPECT_EQ(Next(paths)->Enable(FALSE), S_OK);
}

// ---- threads ----

TEST_F(LabNetCfgTest, TheGlobalInterfaceTableHandsTheEngineToOtherThreadsWithPlainCounts)
{
    IGlobalInterfaceTable* made = nullptr;
    ASSERT_EQ(CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER, IID_IGlobalInterfaceTable,
                               reinterpret_cast<void**>(&made)),
              S_OK);
    const auto table = Reference<IGlobalInterfaceTable>::Take(made);
    DWORD cookie = 0;
    ASSERT_EQ(table->RegisterInterfaceInGlobal(config.get(), __uuidof(INetCfg), &cookie), S_OK);
    std::jthread{
        [&]
        {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            INetCfg* fetched = nullptr;
            EXPECT_EQ(table->GetInterfaceFromGlobal(cookie, __uuidof(INetCfg), reinterpret_cast<void**>(&fetched)),
                      S_OK);
            EXPECT_EQ(fetched, config.get());
            EXPECT_EQ(fetched->Release(), 2U);
            CoUninitialize();
        }}
        .join();
    EXPECT_EQ(table->RevokeInterfaceFromGlobal(cookie), S_OK);
    config->AddRef();
    EXPECT_EQ(config->Release(), 1U);
}

} // namespace
