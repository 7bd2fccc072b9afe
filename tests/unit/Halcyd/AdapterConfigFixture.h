#pragma once
// A session of binding control on an engine of the test's own, in virtual time. The record in the registry is the
// test's: it is gone before and after.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Halcyd/AdapterConfig.h"
#include "Halcyd/BindingRules.h"
#include "NetUtilities/RegistryKey.h"
#include "tests/unit/Halcyd/FakeNetCfg.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TraceLines.h"

class AdapterConfigFixture : public testing::Test
{
protected:
    static constexpr const wchar_t* Us = L"Sorvane Configuration Service";

    AdapterConfigFixture() { RemoveRecords(); }
    ~AdapterConfigFixture() override
    {
        session.reset();
        EXPECT_EQ(0, engine.LivingObjects());
        RemoveRecords();
    }
    static void RemoveRecords()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention");
    }
    static std::wstring GuidText(const GUID& guid)
    {
        wchar_t text[40];
        return StringFromGUID2(guid, text, 40) != 0 ? text : L"";
    }
    static std::wstring RecordOf(const wchar_t* protocol, const FakeComponent& component)
    {
        return BindingRules::RecordKey(protocol, GuidText(component.guid));
    }
    static bool Exists(const std::wstring& subkey)
    {
        RegistryKey key(false);
        return key.Open(HKEY_LOCAL_MACHINE, subkey, KEY_READ) == ERROR_SUCCESS;
    }
    static void WriteRecord(const std::wstring& subkey, std::uint32_t value)
    {
        RegistryKey key(false);
        ASSERT_EQ(0u, key.Create(HKEY_LOCAL_MACHINE, subkey, KEY_ALL_ACCESS));
        ASSERT_EQ(0u, key.WriteDword(L"BindingDisabledByQRL", value));
    }
    static void WriteExceptionList(const wchar_t* list)
    {
        RegistryKey key(false);
        ASSERT_EQ(0u, key.Create(HKEY_LOCAL_MACHINE, std::wstring(BindingRules::RootKey), KEY_ALL_ACCESS));
        ASSERT_EQ(0u, key.WriteString(L"ExceptionList", list));
    }
    HRESULT Open(int lock = 1) { return session->Initialize(lock, Us, holder); }

    HookScope hooks;
    TraceLines trace;
    SleepClock clock;
    FakeNetCfg& engine = FakeNetCfg::Fresh();
    std::unique_ptr<AdapterConfig> session = std::make_unique<AdapterConfig>();
    std::wstring holder;
};
