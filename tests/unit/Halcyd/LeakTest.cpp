// Each method of the registry, service and settings classes, many times over, early and late bound: what a call
// allocates is freed by the call, or by its caller.

#include <gtest/gtest.h>

#include <comdef.h>

#include <string_view>

#include "Halcyd/DNS.h"
#include "Halcyd/NetRegistry.h"
#include "Halcyd/ServiceControlEx.h"
#include "NetUtilities/Format.h"
#include "lab/state/Machine.h"
#include "lab/state/Text.h"
#include "lab/wmi/Factory.h"
#include "tests/support/StringArrays.h"
#include "tests/unit/Halcyd/AllocationBalance.h"
#include "tests/unit/Halcyd/FakeServices.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
constexpr int Rounds = 40;
constexpr wchar_t Guid[] = L"{6C1C7E07-3B52-4D0F-9E61-0C5D8A2B7E07}";
constexpr wchar_t NoGuid[] = L"{00000000-0000-0000-0000-00000000DEAD}";
constexpr wchar_t OwnSubkey[] = L"SOFTWARE\\QRLS\\Sorvane\\LeakTest";
constexpr wchar_t OwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\LeakTest";
constexpr wchar_t OutsidePath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\LeakTestOutside";

// Late binding needs the type library, under the id that the service gives it. It stays registered in this Windows.
void RegisterTypeLibrary()
{
    ITypeLib* library = nullptr;
    ASSERT_EQ(LoadTypeLibEx(TYPE_LIBRARY, REGKIND_REGISTER, &library), S_OK);
    library->Release();
    CComModule::m_libid = LIBID_HALCYDLib;
}

class LeakTest : public testing::Test
{
protected:
    static void SetUpTestSuite() { RegisterTypeLibrary(); }
    struct Call
    {
        std::string_view name;
        std::function<void()> run;
    };
    // A single block lost in a call shows as one for each round. Tables that grow now and then stay far below that.
    static void ExpectNothingLeft(const std::vector<Call>& calls)
    {
        for (const Call& call : calls)
        {
            const LiveBlocks left = BlocksLeftBy(call.run, Rounds);
            EXPECT_EQ(left.task, 0) << call.name;
            EXPECT_LT(left.heap, Rounds / 2) << call.name;
        }
    }
    static HRESULT Invoke(IDispatch* object, DISPID id, std::vector<VARIANT> reversed)
    {
        DISPPARAMS parameters{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        _variant_t result;
        EXCEPINFO exception{};
        const HRESULT status =
            object->Invoke(id, IID_NULL, LOCALE_NEUTRAL, DISPATCH_METHOD, &parameters, &result, &exception, nullptr);
        SysFreeString(exception.bstrSource);
        SysFreeString(exception.bstrDescription);
        SysFreeString(exception.bstrHelpFile);
        return status;
    }
    static VARIANT Reference(VARIANT& variable)
    {
        VARIANT reference{};
        reference.vt = VT_VARIANT | VT_BYREF;
        reference.pvarVal = &variable;
        return reference;
    }
    static VARIANT Reference(BSTR& text)
    {
        VARIANT reference{};
        reference.vt = VT_BSTR | VT_BYREF;
        reference.pbstrVal = &text;
        return reference;
    }

    TraceLines trace;
};

TEST_F(LeakTest, AreFound)
{
    EXPECT_EQ(BlocksLeftBy([] { static_cast<void>(SysAllocString(L"lost")); }, Rounds).task, Rounds);
    EXPECT_EQ(BlocksLeftBy([] { static_cast<void>(CoTaskMemAlloc(16)); }, Rounds).task, Rounds);
    // One block or two, as the platform likes.
    EXPECT_GE(BlocksLeftBy([] { static_cast<void>(SafeArrayCreateVector(VT_I4, 0, 3)); }, Rounds).task, Rounds);
    static std::vector<int*> lost;
    lost.reserve(Rounds + 3);
    EXPECT_EQ(BlocksLeftBy([] { lost.push_back(new int(1)); }, Rounds).heap, Rounds);
    for (const int* const block : lost)
    {
        delete block;
    }
}

TEST_F(LeakTest, NoneInTheRegistryProxy)
{
    const TestObject<CNetRegistry> object = MakeTestObject<CNetRegistry>();
    const _bstr_t own(OwnPath);
    const _bstr_t outside(OutsidePath);
    const _bstr_t name(L"value");
    const auto set = [&](long type, const _variant_t& data)
    { static_cast<void>(object->SetRegistry(name, own, _variant_t(type), data)); };
    const auto query = [&](const _bstr_t& path)
    {
        _variant_t type;
        _variant_t data;
        static_cast<void>(object->QueryRegistry(name, path, &type, &data));
    };
    VARIANT odd{};
    odd.vt = VT_DISPATCH;
    const _variant_t list(L"one,two,three");
    const _variant_t large(0x0102030405060708ULL);
    ExpectNothingLeft({
        {"text",
         [&]
         {
             set(1, list);
             query(own);
         }},
        {"number",
         [&]
         {
             set(4, _variant_t(5L));
             query(own);
         }},
        {"list",
         [&]
         {
             set(7, list);
             query(own);
         }},
        {"large number",
         [&]
         {
             set(11, large);
             query(own);
         }},
        {"unknown type", [&] { set(3, list); }},
        {"odd data", [&] { static_cast<void>(object->SetRegistry(name, own, _variant_t(1L), odd)); }},
        {"odd type", [&] { static_cast<void>(object->SetRegistry(name, own, list, odd)); }},
        {"outside", [&] { static_cast<void>(object->SetRegistry(name, outside, _variant_t(1L), list)); }},
        {"missing key", [&] { query(outside); }},
        {"no path", [&] { query(_bstr_t(L"nowhere")); }},
        {"DeleteRegistry", [&] { static_cast<void>(object->DeleteRegistry(name, own)); }},
        {"DeleteRegistry outside", [&] { static_cast<void>(object->DeleteRegistry(name, outside)); }},
        {"DeleteRegistryNode",
         [&]
         {
             set(4, _variant_t(5L));
             static_cast<void>(object->DeleteRegistryNode(own));
         }},
        {"DeleteRegistryNode outside", [&] { static_cast<void>(object->DeleteRegistryNode(outside)); }},
        {"RefreshDNSCache", [&] { static_cast<void>(object->RefreshDNSCache()); }},
    });
    // Late bound, with variables that hold something already, as a script's do.
    set(1, list);
    IDispatch* const dispatch = object.Get();
    const auto ask = [&](const wchar_t* path, const _variant_t& held)
    {
        _variant_t type(held);
        _variant_t data(held);
        _variant_t pathText(path);
        _variant_t nameText(L"value");
        static_cast<void>(Invoke(dispatch, 1, {Reference(data), Reference(type), pathText, nameText}));
    };
    const _variant_t array = TextArray({L"a", L"b"});
    ExpectNothingLeft({
        {"variables with texts", [&] { ask(OwnPath, list); }},
        {"variables with arrays", [&] { ask(OwnPath, array); }},
        {"variables with numbers", [&] { ask(OwnPath, _variant_t(1L)); }},
        {"variables that are left alone", [&] { ask(OutsidePath, list); }},
    });
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, OwnSubkey);
}

TEST_F(LeakTest, LateBoundOutputsKeepWhatTheyHeldWhenNothingIsWritten)
{
    const TestObject<CNetRegistry> object = MakeTestObject<CNetRegistry>();
    _variant_t type(L"type");
    _variant_t data = TextArray({L"a", L"b"});
    _variant_t path(OutsidePath);
    _variant_t name(L"value");
    EXPECT_EQ(Invoke(object.Get(), 1, {Reference(data), Reference(type), path, name}), S_OK);
    ASSERT_EQ(type.vt, VT_BSTR);
    EXPECT_STREQ(type.bstrVal, L"type");
    ASSERT_EQ(data.vt, VT_ARRAY | VT_BSTR);
    EXPECT_STREQ(static_cast<BSTR*>(data.parray->pvData)[1], L"b");
}

TEST_F(LeakTest, LateBoundVariablesForValuesAreReadThroughAndLeftAsTheyWere)
{
    const TestObject<CNetRegistry> object = MakeTestObject<CNetRegistry>();
    _variant_t path(OwnPath);
    _variant_t name(L"variable");
    _variant_t kind; // as a script's small numbers are: what stands beside the 16 bits counts too
    kind.lVal = 1;
    kind.vt = VT_I2;
    _variant_t contents(L"from a variable");
    EXPECT_EQ(Invoke(object.Get(), 2, {Reference(contents), Reference(kind), path, name}), S_OK);
    _variant_t type;
    _variant_t data;
    ASSERT_EQ(object->QueryRegistry(name.bstrVal, path.bstrVal, &type, &data), S_OK);
    EXPECT_EQ(type.lVal, 1);
    ASSERT_EQ(data.vt, VT_BSTR);
    EXPECT_STREQ(data.bstrVal, L"from a variable");
    EXPECT_STREQ(contents.bstrVal, L"from a variable");
    EXPECT_EQ(kind.vt, VT_I2);
    // Typed references, as other languages hand them in.
    LONG number = 4;
    LONG value = 77;
    VARIANT numberReference{};
    numberReference.vt = VT_I4 | VT_BYREF;
    numberReference.plVal = &number;
    VARIANT valueReference = numberReference;
    valueReference.plVal = &value;
    EXPECT_EQ(Invoke(object.Get(), 2, {valueReference, numberReference, path, name}), S_OK);
    data.Clear();
    ASSERT_EQ(object->QueryRegistry(name.bstrVal, path.bstrVal, &type, &data), S_OK);
    EXPECT_EQ(data.lVal, 77);
    // A reference to nothing is not followed.
    valueReference.plVal = nullptr;
    static_cast<void>(Invoke(object.Get(), 2, {valueReference, numberReference, path, name}));
    const _variant_t text(L"text");
    ExpectNothingLeft({{"variables for values", [&]
                        {
                            _variant_t held(text);
                            static_cast<void>(Invoke(object.Get(), 2, {Reference(held), Reference(kind), path, name}));
                        }}});
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, OwnSubkey);
}

TEST_F(LeakTest, NoneInTheServiceProxy)
{
    SleepClock clock;
    FakeServices services{clock};
    services.Add(L"PolicyAgent").dependents = {L"First"};
    services.Add(L"First");
    services.Add(L"WZCSVC");
    services.Add(L"Other");
    services.journal.reserve(10'000);
    const TestObject<CServiceControlEx> object = MakeTestObject<CServiceControlEx>();
    const auto set = [&](const wchar_t* name, LONG mode, LONG start)
    {
        static_cast<void>(object->SetServiceMode(_bstr_t(name), mode, start));
        services.journal.clear();
    };
    const auto query = [&](const wchar_t* name, VARTYPE type)
    {
        VARIANT mode{};
        VARIANT start{};
        mode.vt = start.vt = type;
        static_cast<void>(object->QueryServiceMode(_bstr_t(name), &mode, &start));
        services.journal.clear();
    };
    ExpectNothingLeft({
        {"stop and start with dependents",
         [&]
         {
             set(L"PolicyAgent", 1, -1);
             set(L"PolicyAgent", 4, -1);
         }},
        {"stop and start WZC",
         [&]
         {
             set(L"WZCSVC", 1, -1);
             set(L"WZCSVC", 16, -1);
         }},
        {"pause", [&] { set(L"Other", 2, -1); }},
        {"continue", [&] { set(L"Other", 3, -1); }},
        {"stop outside", [&] { set(L"Other", 1, 3); }},
        {"start outside", [&] { set(L"Other", 4, 3); }},
        {"unknown mode", [&] { set(L"Other", 99, 3); }},
        {"start type 0", [&] { set(L"PolicyAgent", 1, 0); }},
        {"unknown service", [&] { set(L"NoSuchService", 1, -1); }},
        {"query", [&] { query(L"PolicyAgent", VT_I4); }},
        {"query of an unknown service", [&] { query(L"NoSuchService", VT_I4); }},
        {"query into pointers", [&] { query(L"PolicyAgent", VT_DISPATCH); }},
    });
    IDispatch* const dispatch = object.Get();
    const auto ask = [&](const _variant_t& held)
    {
        _variant_t mode(held);
        _variant_t start(held);
        _variant_t name(L"PolicyAgent");
        static_cast<void>(Invoke(dispatch, 2, {Reference(start), Reference(mode), name}));
        services.journal.clear();
    };
    ExpectNothingLeft({
        {"late-bound query", [&] { ask(_variant_t(0L)); }},
        {"late-bound query into texts", [&] { ask(_variant_t(L"text")); }},
        {"late-bound query into arrays", [&] { ask(TextArray({L"a"})); }},
    });
}

class SettingsLeakTest : public LeakTest
{
protected:
    SettingsLeakTest() : object(MakeTestObject<CDNS>())
    {
        static DWORD cookie = 0;
        if (cookie == 0)
        {
            EXPECT_EQ(CoRegisterClassObject(lab::wmi::locatorClass, lab::wmi::MakeFactory(), CLSCTX_INPROC_SERVER,
                                            REGCLS_MULTIPLEUSE, &cookie),
                      S_OK);
        }
        machine.ClearFaults();
        machine.Update(
            [](lab::Json& state, lab::Events&)
            {
                state = {
                    {"suffixSearchOrder", {"a.example"}},
                    {"adapters",
                     lab::Json::array({{{"name", "eth0"},
                                        {"guid", lab::Utf8(Guid)},
                                        {"index", 77},
                                        {"media", "connected"},
                                        {"ipEnabled", true},
                                        {"dhcp", {{"enabled", true}, {"lease", {{"addresses", lab::Json::array()}}}}},
                                        {"addresses", {{{"address", "192.0.2.7"}, {"prefix", 24}}}},
                                        {"gateways", {"192.0.2.1"}},
                                        {"dnsStatic", lab::Json::array()},
                                        {"dnsDomain", "office.example"},
                                        {"wins", {{"primary", "192.0.2.8"}, {"secondary", "192.0.2.9"}}}}})}};
            });
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str(), L"NameServer", REG_SZ, L"", 2);
    }
    ~SettingsLeakTest() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, InterfaceKey().c_str()); }
    static std::wstring InterfaceKey()
    {
        return FormatText(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\{}", Guid);
    }
    // A getter that replaces a text.
    template <class Getter>
    static void Replace(const Getter& getter, const wchar_t* old)
    {
        BSTR text = old != nullptr ? SysAllocString(old) : nullptr;
        static_cast<void>(getter(&text));
        SysFreeString(text);
    }

    lab::Machine& machine = lab::Machine::Attach();
    TestObject<CDNS> object;
    const _bstr_t guid{Guid};
    const _bstr_t unknown{NoGuid};
};

TEST_F(SettingsLeakTest, NoneInTheSession)
{
    ExpectNothingLeft({
        {"without a session", [&] { static_cast<void>(object->EnableDHCP(guid)); }},
        {"connect and disconnect",
         [&]
         {
             EXPECT_EQ(object->ConnectNetCfg(guid), S_OK);
             EXPECT_EQ(object->DisconnectNetCfg(), S_OK);
         }},
        {"connect to an unknown adapter", [&] { static_cast<void>(object->ConnectNetCfg(unknown)); }},
        {"connect twice",
         [&]
         {
             static_cast<void>(object->ConnectNetCfg(guid));
             static_cast<void>(object->ConnectNetCfg(guid));
         }},
        {"an object's life with an open session",
         [&]
         {
             const auto other = MakeTestObject<CDNS>();
             EXPECT_EQ(other->ConnectNetCfg(guid), S_OK);
         }},
    });
}

TEST_F(SettingsLeakTest, NoneInTheSetters)
{
    ASSERT_EQ(object->ConnectNetCfg(guid), S_OK);
    _variant_t servers = TextArray({L"192.0.2.60", L"192.0.2.61"});
    _variant_t masks = TextArray({L"255.255.255.0", L"255.255.255.0"});
    _variant_t number(1L);
    const _bstr_t text(L"text.example");
    const _bstr_t empty(L"");
    for (const _bstr_t& who : {guid, unknown})
    {
        ExpectNothingLeft({
            {"SetDNS", [&] { static_cast<void>(object->SetDNS(who, &servers)); }},
            {"SetDNS of a number", [&] { static_cast<void>(object->SetDNS(who, &number)); }},
            {"SetWINS", [&] { static_cast<void>(object->SetWINS(who, _bstr_t(L"192.0.2.8"), empty)); }},
            {"SetWINS of null", [&] { static_cast<void>(object->SetWINS(who, nullptr, empty)); }},
            {"SetDNSSuffixSearchOrder", [&] { static_cast<void>(object->SetDNSSuffixSearchOrder(who, &servers)); }},
            {"SetDNSDomain", [&] { static_cast<void>(object->SetDNSDomain(who, text)); }},
            {"SetDNSDomain of null", [&] { static_cast<void>(object->SetDNSDomain(who, nullptr)); }},
            {"EnableStatic", [&] { static_cast<void>(object->EnableStatic(who, &servers, &masks)); }},
            {"EnableDHCP", [&] { static_cast<void>(object->EnableDHCP(who)); }},
            {"ReleaseDHCPLease", [&] { static_cast<void>(object->ReleaseDHCPLease(who)); }},
            {"RenewDHCPLease", [&] { static_cast<void>(object->RenewDHCPLease(who)); }},
            {"SetGateways", [&] { static_cast<void>(object->SetGateways(who, &servers, &masks)); }},
        });
    }
}

TEST_F(SettingsLeakTest, NoneInTheGetters)
{
    ASSERT_EQ(object->ConnectNetCfg(guid), S_OK);
    const _variant_t old = TextArray({L"old"});
    for (const _bstr_t& who : {guid, unknown})
    {
        for (const wchar_t* const held : {static_cast<const wchar_t*>(nullptr), L"", L"old"})
        {
            ExpectNothingLeft({
                {"GetDNSDomain", [&] { Replace([&](BSTR* at) { return object->GetDNSDomain(who, at); }, held); }},
                {"GetDefaultGateway",
                 [&] { Replace([&](BSTR* at) { return object->GetDefaultGateway(who, at); }, held); }},
                {"GetWINS primary",
                 [&] { Replace([&](BSTR* at) { return object->GetWINS(who, at, nullptr); }, held); }},
                {"GetWINS secondary",
                 [&] { Replace([&](BSTR* at) { return object->GetWINS(who, nullptr, at); }, held); }},
            });
        }
        ExpectNothingLeft({
            // An output only: nothing stands there when it is called.
            {"GetIpAddress", [&] { Replace([&](BSTR* at) { return object->GetIpAddress(who, at); }, nullptr); }},
            {"GetDNS",
             [&]
             {
                 _variant_t array(old);
                 static_cast<void>(object->GetDNS(who, &array));
             }},
            {"GetDNSSuffixSearchOrder",
             [&]
             {
                 _variant_t array(old);
                 static_cast<void>(object->GetDNSSuffixSearchOrder(who, &array));
             }},
        });
    }
}

TEST_F(SettingsLeakTest, NoneInLateBoundGetters)
{
    ASSERT_EQ(object->ConnectNetCfg(guid), S_OK);
    IDispatch* const dispatch = object.Get();
    constexpr DISPID getIpAddress = 0x13;
    constexpr DISPID getDefaultGateway = 0x11;
    constexpr DISPID getDns = 0x5;
    const auto text = [&](DISPID id)
    {
        _variant_t who(Guid);
        BSTR held = SysAllocString(L"held");
        EXPECT_EQ(Invoke(dispatch, id, {Reference(held), who}), S_OK);
        EXPECT_STRNE(held, L"held");
        SysFreeString(held);
    };
    ExpectNothingLeft({
        {"GetIpAddress", [&] { text(getIpAddress); }},
        {"GetDefaultGateway", [&] { text(getDefaultGateway); }},
        {"GetDNS",
         [&]
         {
             _variant_t who(Guid);
             _variant_t array = TextArray({L"old"});
             EXPECT_EQ(Invoke(dispatch, getDns, {Reference(array), who}), S_OK);
         }},
    });
}
} // namespace
