// Every WMI, registry and service manager call that a method of the adapter settings, of the registry proxy or of the
// service proxy makes fails once, in the shipped service: the method gives the result that is due, the same call
// without the fault gives what it gave before, and nothing is left behind.
//
// Which calls there are, an undisturbed call of the method tells. What each does to the method stands in the tables; a
// call that is in none fails the test.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <functional>
#include <iostream>
#include <sstream>
#include <vector>

#include "Lab/ServiceCalls.h"
#include "Monitor/MonitorMachine.h"
#include "tests/support/RunningService.h"
#include "tests/support/StringArrays.h"

namespace
{
enum class Effect
{
    Code,  // the method returns the failing call's code
    Same,  // it returns what it returns without the fault
    Fixed, // it returns what the row says
};

struct Row
{
    const char* methods; // begins so; "" for all
    const char* call;
    const char* mentioning; // in the arguments; "" for any
    std::uint32_t code;
    Effect effect;
    HRESULT result = S_OK; // for Fixed
    int nth = 0;           // 0 for any
};

struct Method
{
    const char* name;
    std::function<HRESULT(std::wstring& output)> call;
    std::function<void()> prepare = [] {}; // before each call of it
};

struct Outcome
{
    HRESULT result = E_UNEXPECTED;
    std::wstring output;
    bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    out << "0x" << std::hex << static_cast<unsigned long>(outcome.result) << std::dec << " \"";
    for (const wchar_t c : outcome.output)
    {
        out << static_cast<char>(c < 127 ? c : '?');
    }
    return out << '"';
}

const Row* RowFor(const std::vector<Row>& rows, const Method& method, const ServiceCall& call)
{
    for (const Row& row : rows)
    {
        if (std::string_view(method.name).starts_with(row.methods) && call.name == row.call &&
            call.Mentions(row.mentioning) && (row.nth == 0 || row.nth == call.nth))
        {
            return &row;
        }
    }
    return nullptr;
}

class ProxyFaultSweep : public RunningServiceTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(apartment.Initialized());
        Lab(L"load tablet");
        ASSERT_NO_FATAL_FAILURE(RestartWithHooks(service));
    }

    static Outcome Call(const Method& method)
    {
        Outcome outcome;
        outcome.result = method.call(outcome.output);
        return outcome;
    }
    static Outcome Run(const Method& method)
    {
        method.prepare();
        return Call(method);
    }

    void SweepMethod(const Method& method, const std::vector<Row>& rows)
    {
        SCOPED_TRACE(method.name);
        const Outcome usual = Run(method); // what a first call makes and keeps is made
        std::vector<ServiceCall> calls;
        method.prepare();
        {
            CallRecorder recorder;
            ASSERT_EQ(Call(method), usual);
            calls = recorder.Calls();
        }
        EXPECT_FALSE(calls.empty());
        for (const ServiceCall& call : calls)
        {
            const Row* const row = RowFor(rows, method, call);
            if (row == nullptr)
            {
                ADD_FAILURE() << "no row says what becomes of the method when this fails: " << call;
                continue;
            }
            Fail(method, call, *row, usual);
            ++swept;
        }
    }

    void Fail(const Method& method, const ServiceCall& call, const Row& row, const Outcome& usual)
    {
        SCOPED_TRACE(testing::Message() << call);
        method.prepare();
        {
            const ArmedFault fault(call.name, call.nth, row.code);
            const Outcome outcome = Call(method);
            EXPECT_TRUE(fault.Hit()) << "the call was not made";
            const HRESULT expected = row.effect == Effect::Code    ? static_cast<HRESULT>(row.code)
                                     : row.effect == Effect::Fixed ? row.result
                                                                   : usual.result;
            EXPECT_EQ(outcome.result, expected) << outcome;
        }
        EXPECT_EQ(Run(method), usual);
    }

    void Sweep(const std::vector<Method>& methods, const std::vector<Row>& rows)
    {
        for (const Method& method : methods)
        {
            Run(method);
        }
        const DWORD processId = service.ProcessId();
        const Holdings before = HoldingsOf(processId);
        for (const Method& method : methods)
        {
            SweepMethod(method, rows);
        }
        std::cout << swept << " calls failed in turn\n";
        ASSERT_EQ(service.ProcessId(), processId);
        ExpectNoMoreHeld(processId, before);
    }

    int swept = 0;
};

constexpr std::uint32_t Denied = 0x80041003; // WBEM_E_ACCESS_DENIED
constexpr wchar_t Dock[] = L"{4A1C7E0D-3B52-4D0F-9E61-0C5D8A2B700D}";
constexpr wchar_t Nobody[] = L"{00000000-0000-0000-0000-00000000DEAD}";

std::wstring TextOfVariant(const VARIANT& value)
{
    if (value.vt == VT_BSTR)
    {
        return value.bstrVal != nullptr ? value.bstrVal : L"";
    }
    if (value.vt == VT_I4)
    {
        return std::to_wstring(value.lVal);
    }
    if (value.vt == VT_UI8)
    {
        return std::to_wstring(value.ullVal);
    }
    std::wstring joined;
    for (const std::wstring& text : Texts(value))
    {
        joined += (joined.empty() ? L"" : L",") + text;
    }
    return joined;
}

TEST_F(ProxyFaultSweep, EachCallOfTheAdapterSettingsGivesItsResult)
{
    const IDNSPtr dns = ActivateLocal<IDNSPtr>(CLSID_DNS);
    ASSERT_NE(dns, nullptr);
    const _bstr_t guid(Dock);
    const auto connect = [&] { EXPECT_EQ(dns->ConnectNetCfg(guid), S_OK); };
    const auto one = [&](auto method)
    {
        return [&dns, &guid, method](std::wstring& output)
        {
            BSTR text = nullptr;
            const HRESULT result = (dns.GetInterfacePtr()->*method)(guid, &text);
            output = text != nullptr ? text : L"";
            SysFreeString(text);
            return result;
        };
    };
    const auto array = [&](auto method)
    {
        return [&dns, &guid, method](std::wstring& output)
        {
            _variant_t value;
            const HRESULT result = (dns.GetInterfacePtr()->*method)(guid, &value);
            output = TextOfVariant(value);
            return result;
        };
    };
    const auto plain = [&](auto method)
    { return [&dns, &guid, method](std::wstring&) { return (dns.GetInterfacePtr()->*method)(guid); }; };
    const auto servers = [&](const std::vector<std::wstring>& list)
    {
        _variant_t value = TextArray(list);
        return dns->SetDNS(guid, &value);
    };
    const std::vector<Method> methods = {
        {"ConnectNetCfg", plain(&IDNS::ConnectNetCfg)},
        {"ConnectNetCfg, nobody", [&](std::wstring&) { return dns->ConnectNetCfg(_bstr_t(Nobody)); }},
        {"GetIpAddress", one(&IDNS::GetIpAddress), connect},
        {"GetDefaultGateway", one(&IDNS::GetDefaultGateway), connect},
        {"GetDNSDomain", one(&IDNS::GetDNSDomain), connect},
        {"GetDNSSuffixSearchOrder", array(&IDNS::GetDNSSuffixSearchOrder), connect},
        {"GetDNS, from DHCP", array(&IDNS::GetDNS),
         [&]
         {
             connect();
             EXPECT_EQ(servers({}), S_OK);
         }},
        {"GetDNS, static", array(&IDNS::GetDNS),
         [&]
         {
             connect();
             EXPECT_EQ(servers({L"192.0.2.5", L"192.0.2.6"}), S_OK);
         }},
        {"GetWINS",
         [&](std::wstring& output)
         {
             BSTR primary = nullptr;
             BSTR secondary = nullptr;
             const HRESULT result = dns->GetWINS(guid, &primary, &secondary);
             output =
                 std::wstring(primary != nullptr ? primary : L"") + L":" + (secondary != nullptr ? secondary : L"");
             SysFreeString(primary);
             SysFreeString(secondary);
             return result;
         },
         connect},
        {"SetDNS", [&](std::wstring&) { return servers({L"192.0.2.5"}); }, connect},
        {"SetWINS", [&](std::wstring&) { return dns->SetWINS(guid, _bstr_t(L"192.0.2.8"), _bstr_t(L"192.0.2.9")); },
         connect},
        {"SetDNSSuffixSearchOrder",
         [&](std::wstring&)
         {
             _variant_t value = TextArray({L"one.example", L"two.example"});
             return dns->SetDNSSuffixSearchOrder(guid, &value);
         },
         connect},
        {"SetDNSDomain", [&](std::wstring&) { return dns->SetDNSDomain(guid, _bstr_t(L"new.example")); }, connect},
        {"EnableDHCP", plain(&IDNS::EnableDHCP), connect},
        {"ReleaseDHCPLease", plain(&IDNS::ReleaseDHCPLease), connect},
        {"RenewDHCPLease", plain(&IDNS::RenewDHCPLease), connect},
        {"EnableStatic",
         [&](std::wstring&)
         {
             _variant_t addresses = TextArray({L"192.0.2.99"});
             _variant_t masks = TextArray({L"255.255.255.0"});
             return dns->EnableStatic(guid, &addresses, &masks);
         },
         [&]
         {
             connect();
             EXPECT_EQ(dns->EnableDHCP(guid), S_OK);
         }},
    };
    const std::vector<Row> rows = {
        {"ConnectNetCfg", "CoCreateInstance", "", 0x80040154, Effect::Code},
        {"ConnectNetCfg", "WbemLocator::CreateInstance", "", 0x80070005, Effect::Code},
        {"ConnectNetCfg", "IWbemLocator::ConnectServer", "", Denied, Effect::Code},
        {"ConnectNetCfg", "IWbemServices::GetObject", "", Denied, Effect::Code},
        {"ConnectNetCfg", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Fixed, E_OUTOFMEMORY},
        // The search for the adapter: a failing enumerator finds nobody, a failing blanket on it is passed over.
        {"ConnectNetCfg, nobody", "IWbemServices::CreateInstanceEnum", "", Denied, Effect::Same},
        {"ConnectNetCfg, nobody", "IEnumWbemClassObject::Next", "", Denied, Effect::Same},
        {"ConnectNetCfg, nobody", "IWbemClassObject::Get", "", Denied, Effect::Same},
        {"ConnectNetCfg, nobody", "VariantChangeType", "", ERROR_OUTOFMEMORY, Effect::Same},
        {"ConnectNetCfg, nobody", "CoSetProxyBlanket", "", 0x80070057, Effect::Same, S_OK, 2},
        {"ConnectNetCfg, nobody", "IClientSecurity::SetBlanket", "", 0x80070057, Effect::Same, S_OK, 2},
        {"ConnectNetCfg", "CoSetProxyBlanket", "", 0x80070057, Effect::Code},
        {"ConnectNetCfg", "IClientSecurity::SetBlanket", "", 0x80070057, Effect::Code},
        // Getters. That of the suffixes returns 0 whatever happened.
        {"GetDNSSuffixSearchOrder", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Same},
        {"GetDNSSuffixSearchOrder", "IWbemServices::GetObject", "", Denied, Effect::Same},
        {"GetDNSSuffixSearchOrder", "IWbemClassObject::Get", "", Denied, Effect::Same},
        {"Get", "IWbemServices::GetObject", "", Denied, Effect::Code},
        {"Get", "IWbemClassObject::Get", "", Denied, Effect::Code},
        {"Get", "SafeArrayAccessData", "", 0x8002000D, Effect::Code},
        {"Get", "SafeArrayCreateVector", "", ERROR_OUTOFMEMORY, Effect::Fixed, E_OUTOFMEMORY},
        {"Get", "RegOpenKeyExW", "", ERROR_ACCESS_DENIED, Effect::Code},
        {"Get", "RegQueryValueExW", "", ERROR_ACCESS_DENIED, Effect::Code},
        // Without a path WMI finds no instance (WBEM_E_INVALID_OBJECT_PATH).
        {"Get", "SysAllocString", "Win32_NetWorkAdapterConfiguration", ERROR_OUTOFMEMORY, Effect::Fixed,
         static_cast<HRESULT>(0x8004103A)},
        {"Get", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Fixed, E_OUTOFMEMORY},
        // Setters. What the array holds is only shown; an unreadable result of the WMI method is no failure.
        {"", "SafeArrayAccessData", "", 0x8002000D, Effect::Same},
        {"", "IWbemClassObject::Get", "", Denied, Effect::Same},
        {"", "IWbemClassObject::GetMethod", "", Denied, Effect::Code},
        {"", "IWbemClassObject::SpawnInstance", "", Denied, Effect::Code},
        {"", "IWbemClassObject::Put", "", Denied, Effect::Code},
        {"", "IWbemServices::ExecMethod", "", Denied, Effect::Code},
        {"SetDNSSuffixSearchOrder", "SysAllocString", ".Index=", ERROR_OUTOFMEMORY, Effect::Same},
        {"", "SysAllocString", ".Index=", ERROR_OUTOFMEMORY, Effect::Fixed, static_cast<HRESULT>(0x8004103A)},
        {"", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Fixed, E_OUTOFMEMORY},
    };
    Sweep(methods, rows);
    EXPECT_EQ(dns->DisconnectNetCfg(), S_OK);
}

TEST_F(ProxyFaultSweep, EachCallOfTheRegistryProxyGivesItsResult)
{
    const INetRegistryPtr registry = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry);
    ASSERT_NE(registry, nullptr);
    const _bstr_t path(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\SweepTest");
    const auto set = [&](const wchar_t* value, long type, const _variant_t& data)
    {
        return [&registry, path, value, type, data](std::wstring&)
        { return registry->SetRegistry(_bstr_t(value), path, _variant_t(type), data); };
    };
    const auto query = [&](const wchar_t* value)
    {
        return [&registry, path, value](std::wstring& output)
        {
            _variant_t type;
            _variant_t data;
            const HRESULT result = registry->QueryRegistry(_bstr_t(value), path, &type, &data);
            output = TextOfVariant(type) + L" " + TextOfVariant(data);
            return result;
        };
    };
    const auto makeNode = [&]
    { EXPECT_EQ(0, registry->SetRegistry(_bstr_t(L"a"), path + L"\\Node\\Below", _variant_t(4L), _variant_t(1L))); };
    const std::vector<Method> methods = {
        {"SetRegistry, text", set(L"text", REG_SZ, L"one")},
        {"SetRegistry, number", set(L"number", REG_DWORD, 5L)},
        {"SetRegistry, large", set(L"large", REG_QWORD, _variant_t(7ULL))},
        {"SetRegistry, list", set(L"list", REG_MULTI_SZ, L"one,two")},
        {"QueryRegistry, text", query(L"text")},
        {"QueryRegistry, number", query(L"number")},
        {"QueryRegistry, large", query(L"large")},
        {"QueryRegistry, list", query(L"list")},
        {"DeleteRegistry", [&](std::wstring&) { return registry->DeleteRegistry(_bstr_t(L"text"), path); }},
        {"DeleteRegistryNode", [&](std::wstring&) { return registry->DeleteRegistryNode(path + L"\\Node"); }, makeNode},
    };
    const std::vector<Row> rows = {
        // A write's own failure is told for a list only.
        {"SetRegistry", "RegCreateKeyExW", "", ERROR_ACCESS_DENIED, Effect::Code},
        {"SetRegistry, list", "RegSetValueExW", "", ERROR_DISK_FULL, Effect::Code},
        {"SetRegistry", "RegSetValueExW", "", ERROR_DISK_FULL, Effect::Same},
        {"QueryRegistry", "RegOpenKeyExW", "", ERROR_BADKEY, Effect::Code},
        {"QueryRegistry", "RegQueryValueExW", "", ERROR_BADKEY, Effect::Code},
        {"QueryRegistry, list", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Same},
        {"QueryRegistry", "SysAllocString", "", ERROR_OUTOFMEMORY, Effect::Fixed, E_OUTOFMEMORY},
        {"QueryRegistry", "SafeArrayCreateVector", "", ERROR_OUTOFMEMORY, Effect::Same},
        {"QueryRegistry", "SafeArrayPutElement", "", 0x8007000E, Effect::Same},
        {"DeleteRegistry", "RegOpenKeyExW", "", ERROR_BADKEY, Effect::Code},
        {"DeleteRegistry", "RegDeleteValueW", "", ERROR_BADKEY, Effect::Code},
        {"DeleteRegistryNode", "RegDeleteTreeW", "", ERROR_BADKEY, Effect::Code},
    };
    Sweep(methods, rows);
}

// The restart of a service polls for seconds.
class Fast10_ServiceFaultSweep : public ProxyFaultSweep
{
};

TEST_F(Fast10_ServiceFaultSweep, EachCallOfTheServiceProxyGivesItsResult)
{
    ASSERT_EQ(0u, InstallService(L"PolicyAgent"));
    const IServiceControlExPtr services = ActivateLocal<IServiceControlExPtr>(CLSID_ServiceControlEx);
    ASSERT_NE(services, nullptr);
    const auto set = [&](const wchar_t* name, long mode, long startType)
    {
        return [&services, name, mode, startType](std::wstring&)
        { return services->SetServiceMode(_bstr_t(name), mode, startType); };
    };
    const std::vector<Method> methods = {
        {"QueryServiceMode",
         [&](std::wstring& output)
         {
             _variant_t mode(0L);
             _variant_t startType(0L);
             const HRESULT result = services->QueryServiceMode(_bstr_t(L"Halcyd"), &mode, &startType);
             output = TextOfVariant(mode) + L" " + TextOfVariant(startType);
             return result;
         }},
        {"SetServiceMode, start type 0", set(L"PolicyAgent", 1, 0)},
        {"SetServiceMode, start type", set(L"PolicyAgent", 5, SERVICE_DEMAND_START)},
        {"SetServiceMode, stop", set(L"PolicyAgent", 1, -1)},
        {"SetServiceMode, start", set(L"PolicyAgent", 4, -1)},
    };
    const std::vector<Row> rows = {
        {"", "OpenSCManagerW", "", ERROR_NOT_ENOUGH_MEMORY, Effect::Code},
        {"", "OpenServiceW", "", ERROR_SERVICE_DOES_NOT_EXIST, Effect::Code},
        {"", "QueryServiceStatusEx", "", ERROR_ACCESS_DENIED, Effect::Code},
        {"", "QueryServiceConfigW", "", ERROR_ACCESS_DENIED, Effect::Code},
        {"", "GetServiceKeyNameW", "", ERROR_INVALID_NAME, Effect::Code},
        {"", "ChangeServiceConfigW", "", ERROR_ACCESS_DENIED, Effect::Code},
        {"", "EnumDependentServicesW", "", ERROR_ACCESS_DENIED, Effect::Code},
        // A stop that is refused, a state that is not told, a start that is refused: the call goes on.
        {"SetServiceMode, stop", "ControlService", "", ERROR_INVALID_SERVICE_CONTROL, Effect::Same},
        {"SetServiceMode, stop", "QueryServiceStatus", "", ERROR_ACCESS_DENIED, Effect::Same},
        {"SetServiceMode, start", "StartServiceW", "", ERROR_ACCESS_DENIED, Effect::Same},
        {"SetServiceMode, start", "QueryServiceStatus", "", ERROR_ACCESS_DENIED, Effect::Same},
    };
    Sweep(methods, rows);
}
} // namespace
