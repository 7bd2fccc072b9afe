#pragma once
// CDNS on the lab's WMI, within the test's process: two adapters, faults by rule, and a journal of the calls.

#include <gtest/gtest.h>

#include <comdef.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Halcyd/DNS.h"
#include "Halcyd/WmiAdapterSession.h"
#include "NetUtilities/Format.h"
#include "lab/state/Machine.h"
#include "lab/state/Text.h"
#include "lab/wmi/Factory.h"
#include "tests/unit/Halcyd/FakeWmi.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace DNSTests
{
inline constexpr HRESULT NotFound = static_cast<HRESULT>(0x80041017);
inline constexpr HRESULT Unexpected = static_cast<HRESULT>(0x8000FFFF);
inline constexpr const wchar_t* NoGuid = L"{00000000-0000-0000-0000-00000000DEAD}";

// Before anything asks for the machine: one of this process's own.
inline const bool ownMachine = []
{
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    return SetEnvironmentVariableW(L"HALCYD_LAB",
                                   (std::wstring(folder) + L"unit" + std::to_wstring(GetCurrentProcessId())).c_str());
}();

// The lab's WMI under WbemLocator's class id, for this process.
inline void RegisterLabWmi()
{
    static DWORD cookie = 0;
    if (cookie == 0)
    {
        ASSERT_EQ(S_OK, CoRegisterClassObject(lab::wmi::locatorClass, lab::wmi::MakeFactory(), CLSCTX_INPROC_SERVER,
                                              REGCLS_MULTIPLEUSE, &cookie));
    }
}

class DNSFixture : public testing::Test
{
protected:
    DNSFixture() : object(MakeTestObject<CDNS>())
    {
        RegisterLabWmi();
        // Paths are kept for the life of the process: each test begins with the table of a new one.
        std::destroy_at(&GlobalDeviceTable());
        std::construct_at(&GlobalDeviceTable());
        static int number = 0;
        guid = FormatText(L"{{4A1C7E07-3B52-4D0F-9E61-{:012X}}}", ++number);
        otherGuid = FormatText(L"{{5B1C7E07-3B52-4D0F-9E61-{:012X}}}", number);
        machine.ClearFaults();
        machine.Update(
            [this](lab::Json& state, lab::Events&)
            {
                state = {{"adapters", {Adapter(guid, 7), Adapter(otherGuid, 9)}}, {"suffixSearchOrder", {"a.example"}}};
            });
        machine.ClearJournal();
    }
    ~DNSFixture() override
    {
        machine.ClearFaults();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str());
    }

    static lab::Json Adapter(const std::wstring& id, int index)
    {
        return {{"name", "eth" + std::to_string(index)},
                {"guid", lab::Utf8(id)},
                {"index", index},
                {"media", "connected"},
                {"ipEnabled", true},
                {"dhcp", {{"enabled", true}, {"lease", {{"addresses", lab::Json::array()}}}}},
                {"addresses", {{{"address", "192.0.2.7"}, {"prefix", 24}}}},
                {"gateways", {"192.0.2.1"}},
                {"dns", {"192.0.2.53"}},
                {"dnsStatic", lab::Json::array()},
                {"dnsDomain", "office.example"},
                {"wins", {{"primary", "192.0.2.8"}, {"secondary", nullptr}}}};
    }
    void Change(const std::function<void(lab::Json& adapter, lab::Json& state)>& change)
    {
        machine.Update([&](lab::Json& state, lab::Events&) { change(state["adapters"][0], state); });
    }
    // The lease methods want an adapter that uses DHCP, whatever ran before.
    void UseDhcp()
    {
        Change([](lab::Json& adapter, lab::Json&) { adapter["dhcp"]["enabled"] = true; });
    }
    // A WMI property of the first adapter, in the place of the derived one.
    void Property(const char* name, const lab::Json& value)
    {
        Change([&](lab::Json& adapter, lab::Json&) { adapter["wmi"][name] = value; });
    }
    lab::Json First() { return (*machine.Snapshot())["adapters"][0]; }

    void Fail(const std::string& call, std::uint32_t nth = 1, std::uint32_t code = 0x80041001)
    {
        machine.ClearFaults();
        lab::FaultRule rule;
        rule.call = call;
        rule.nth = nth;
        rule.code = code;
        machine.AddFault(rule);
    }
    std::vector<lab::Json> Journalled(const std::string& call)
    {
        lab::JournalPosition position;
        std::vector<lab::Json> lines;
        for (lab::Json& line : machine.ReadJournal(position))
        {
            if (line.value("call", "") == call)
            {
                lines.push_back(std::move(line));
            }
        }
        return lines;
    }
    std::wstring InterfaceKey() const
    {
        return L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\" + guid;
    }
    void SetNameServer(const wchar_t* text) const
    {
        ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"NameServer", REG_SZ, text,
                                     static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t))));
    }
    void Connect() { ASSERT_EQ(S_OK, object->ConnectNetCfg(_bstr_t(guid.c_str()))); }
    [[nodiscard]] _bstr_t Guid() const { return guid.c_str(); }

    HookScope hooks;
    TraceLines trace;
    lab::Machine& machine = lab::Machine::Attach();
    TestObject<CDNS> object;
    std::wstring guid;
    std::wstring otherGuid;
};
} // namespace DNSTests
