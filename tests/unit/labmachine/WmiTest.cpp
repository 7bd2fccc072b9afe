#include "WmiFixture.h"

#include <set>

namespace lab::test
{
namespace
{

class WmiConnection : public WmiTest
{
};

TEST_F(WmiConnection, KnowsTwoNamespacesInAnySpelling)
{
    for (const wchar_t* name : {L"root\\cimv2", L"ROOT\\CIMV2", L"root/wmi", L"\\\\.\\root\\wmi"})
    {
        EXPECT_NE(Connect(name), nullptr) << name;
    }
}

TEST_F(WmiConnection, RefusesOtherNamespacesMachinesAndCredentials)
{
    const auto connect = [](const wchar_t* name, const wchar_t* user)
    {
        IWbemServicesPtr services;
        return Locator()->ConnectServer(_bstr_t{name}, user == nullptr ? nullptr : _bstr_t{user}.copy(), nullptr,
                                        nullptr, 0, nullptr, nullptr, &services);
    };
    EXPECT_EQ(connect(L"root\\nowhere", nullptr), HRESULT{static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE)});
    EXPECT_EQ(connect(L"\\\\elsewhere\\root\\cimv2", nullptr), static_cast<HRESULT>(0x800706BA));
    EXPECT_EQ(connect(L"root\\cimv2", L"somebody"), static_cast<HRESULT>(WBEM_E_LOCAL_CREDENTIALS));
}

TEST_F(WmiConnection, TakesASecurityBlanketOnServicesAndEnumerators)
{
    const IWbemServicesPtr services = Connect();
    EXPECT_EQ(CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
              S_OK);
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(services->CreateInstanceEnum(_bstr_t{L"Win32_NetWorkAdapterConfiguration"}, 48, nullptr, &objects), S_OK);
    EXPECT_EQ(CoSetProxyBlanket(objects, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
              S_OK);
}

TEST_F(WmiConnection, AnswersTheInterfacesThatItHasAndNoOther)
{
    const IWbemServicesPtr services = Connect();
    _com_ptr_t<_com_IIID<IUnknown, &__uuidof(IUnknown)>> unknown;
    EXPECT_EQ(services->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&unknown)), S_OK);
    void* other = &unknown;
    EXPECT_EQ(services->QueryInterface(__uuidof(IWbemLocator), &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
}

TEST_F(WmiConnection, EachCallIsJournalledAndCanFail)
{
    TheMachine().AddFault({"IWbemLocator::ConnectServer", 2, 1, 0x80041003U, 0, 0});
    TheMachine().AddFault({"IWbemServices::ExecQuery", 1, 1, 0x80041001U, 0, 0});
    const IWbemServicesPtr services = Connect();
    IWbemServicesPtr second;
    EXPECT_EQ(Locator()->ConnectServer(_bstr_t{L"root\\wmi"}, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &second),
              static_cast<HRESULT>(0x80041003));
    EXPECT_EQ(second, nullptr);
    IEnumWbemClassObjectPtr objects;
    const _bstr_t text{L"SELECT * FROM Win32_NetworkAdapter"};
    EXPECT_EQ(services->ExecQuery(_bstr_t{L"WQL"}, text, 0, nullptr, &objects), static_cast<HRESULT>(0x80041001));
    EXPECT_EQ(services->ExecQuery(_bstr_t{L"WQL"}, text, 0, nullptr, &objects), S_OK);
    const auto lines = Calls("IWbemServices::ExecQuery");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["result"], "0x80041001");
    EXPECT_EQ(lines[1]["result"], "0x00000000");
    EXPECT_EQ(lines[1]["args"]["query"], "SELECT * FROM Win32_NetworkAdapter");
    EXPECT_EQ(Calls("IWbemLocator::ConnectServer").size(), 2U);
}

class WmiQuery : public WmiTest
{
};

TEST_F(WmiQuery, ErrorsAreWmisOwn)
{
    IEnumWbemClassObjectPtr objects;
    EXPECT_EQ(Query(L"SELECT nonsense", objects), static_cast<HRESULT>(WBEM_E_INVALID_QUERY));
    EXPECT_EQ(Query(L"SELECT * FROM Win32_Nothing", objects), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    EXPECT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter WHERE Nothing=1", objects),
              static_cast<HRESULT>(WBEM_E_INVALID_QUERY));
    EXPECT_EQ(Query(L"", objects), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(
        Connect()->ExecQuery(_bstr_t{L"SQL"}, _bstr_t{L"SELECT * FROM Win32_NetworkAdapter"}, 0, nullptr, &objects),
        static_cast<HRESULT>(WBEM_E_INVALID_QUERY_TYPE));
    EXPECT_EQ(objects, nullptr);
}

TEST_F(WmiQuery, ThatReturnsImmediatelyTellsAnUnknownClassAtNext)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_Nothing", objects, WBEM_FLAG_RETURN_IMMEDIATELY), S_OK);
    IWbemClassObjectPtr object;
    ULONG count = 5;
    EXPECT_EQ(objects->Next(0, 1, &object, &count), static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    EXPECT_EQ(count, 0U);
}

TEST_F(WmiQuery, AdaptersComeInTheMachinesOrderAndConditionsSelect)
{
    EXPECT_EQ(All(L"SELECT * FROM Win32_NetworkAdapter").size(), 3U);
    const auto withMac = All(L"select * from win32_networkadapterconfiguration where MACAddress <> NULL");
    ASSERT_EQ(withMac.size(), 2U);
    EXPECT_EQ(Get(withMac[0], L"Index").lVal, 7);
    EXPECT_EQ(Get(withMac[1], L"Index").lVal, 9);
    EXPECT_EQ(
        All(L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID='{11111111-0000-4000-8000-000000000002}'")
            .size(),
        1U);
    EXPECT_TRUE(All(L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE SettingID='{22222222}'").empty());
}

TEST_F(WmiQuery, ShowsTheMachineAsItIsAtTheMoment)
{
    Set("/adapters/0/inWmi", false);
    EXPECT_EQ(All(L"SELECT * FROM Win32_NetworkAdapter").size(), 2U);
    Set("/adapters/0/inWmi", true);
    EXPECT_EQ(All(L"SELECT * FROM Win32_NetworkAdapter").size(), 3U);
}

class WmiEnumerator : public WmiTest
{
protected:
    static HRESULT NextOne(IEnumWbemClassObject* objects, long& index)
    {
        IWbemClassObjectPtr object;
        ULONG count = 0;
        const HRESULT result = objects->Next(static_cast<long>(WBEM_INFINITE), 1, &object, &count);
        index = object == nullptr ? -1 : Get(object, L"Index").lVal;
        return result;
    }
};

TEST_F(WmiEnumerator, RewindableStartsAgainAfterReset)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter", objects), S_OK);
    long index = 0;
    for (const long expected : {7L, 9L, 2L})
    {
        EXPECT_EQ(NextOne(objects, index), S_OK);
        EXPECT_EQ(index, expected);
    }
    EXPECT_EQ(NextOne(objects, index), S_FALSE);
    EXPECT_EQ(objects->Reset(), S_OK);
    EXPECT_EQ(NextOne(objects, index), S_OK);
    EXPECT_EQ(index, 7);
}

TEST_F(WmiEnumerator, ForwardOnlyRefusesResetAndClone)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter", objects, WBEM_FLAG_FORWARD_ONLY), S_OK);
    EXPECT_EQ(objects->Reset(), static_cast<HRESULT>(WBEM_E_INVALID_OPERATION));
    IEnumWbemClassObjectPtr copy;
    EXPECT_EQ(objects->Clone(&copy), static_cast<HRESULT>(WBEM_E_INVALID_OPERATION));
    long index = 0;
    EXPECT_EQ(NextOne(objects, index), S_OK);
}

TEST_F(WmiEnumerator, CloneGoesOnFromTheSamePlaceByItself)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter", objects), S_OK);
    long index = 0;
    NextOne(objects, index);
    IEnumWbemClassObjectPtr copy;
    ASSERT_EQ(objects->Clone(&copy), S_OK);
    NextOne(objects, index);
    NextOne(copy, index);
    EXPECT_EQ(index, 9);
}

TEST_F(WmiEnumerator, NextGivesWhatThereIsAndSaysFalseWhenItIsLess)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter", objects), S_OK);
    IWbemClassObject* found[5] = {};
    ULONG count = 0;
    EXPECT_EQ(objects->Next(0, 5, found, &count), S_FALSE);
    EXPECT_EQ(count, 3U);
    for (ULONG i = 0; i < count; ++i)
    {
        EXPECT_EQ(found[i]->Release(), 0U);
    }
    EXPECT_EQ(objects->Next(0, 1, nullptr, &count), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
}

TEST_F(WmiEnumerator, WhatOneCallerWritesDoesNotShowInTheNextWalk)
{
    IEnumWbemClassObjectPtr objects;
    ASSERT_EQ(Query(L"SELECT * FROM Win32_NetworkAdapter", objects), S_OK);
    IWbemClassObjectPtr object;
    ULONG count = 0;
    ASSERT_EQ(objects->Next(0, 1, &object, &count), S_OK);
    _variant_t name{L"scribble"};
    ASSERT_EQ(object->Put(L"Name", 0, &name, 0), S_OK);
    objects->Reset();
    object = nullptr;
    ASSERT_EQ(objects->Next(0, 1, &object, &count), S_OK);
    EXPECT_EQ(_bstr_t{Get(object, L"Name")}, _bstr_t{L"Brevik Ethernet"});
}

class WmiObject : public WmiTest
{
};

TEST_F(WmiObject, PropertyTypesAreThoseOfWindows)
{
    const IWbemClassObjectPtr object = Configuration();
    EXPECT_EQ(Get(object, L"Index").vt, VT_I4);
    EXPECT_EQ(Get(object, L"IPEnabled").vt, VT_BOOL);
    EXPECT_EQ(Get(object, L"IPEnabled").boolVal, VARIANT_TRUE);
    EXPECT_EQ(Get(object, L"SettingID").vt, VT_BSTR);
    EXPECT_EQ(Texts(Get(object, L"IPAddress")), (std::vector<std::wstring>{L"192.0.2.7", L"fe80::7"}));
    EXPECT_EQ(Texts(Get(object, L"IPSubnet")), (std::vector<std::wstring>{L"255.255.255.0", L"64"}));
    EXPECT_EQ(Get(object, L"GatewayCostMetric").vt, VT_ARRAY | VT_I4);
    EXPECT_EQ(Get(object, L"WINSPrimaryServer").vt, VT_NULL);
    EXPECT_EQ(_bstr_t{Get(object, L"Caption")}, _bstr_t{L"[00000007] Brevik Ethernet"});
    const auto adapter = All(L"SELECT * FROM Win32_NetworkAdapter WHERE Index=7").front();
    EXPECT_EQ(Get(adapter, L"Speed").vt, VT_BSTR); // 64-bit numbers are texts
    EXPECT_EQ(_bstr_t{Get(adapter, L"PNPDeviceID")}, _bstr_t{L"PCI\\VEN_F1A0\\1"});
    EXPECT_EQ(Get(All(L"SELECT * FROM Win32_NetworkAdapter WHERE Index=9").front(), L"PNPDeviceID").vt, VT_NULL);
}

TEST_F(WmiObject, GetTakesAnyLetterCaseAndTellsTypeAndOrigin)
{
    const IWbemClassObjectPtr object = Configuration();
    _variant_t value;
    CIMTYPE type = 0;
    long flavor = -1;
    EXPECT_EQ(object->Get(L"macaddress", 0, &value, &type, &flavor), S_OK);
    EXPECT_EQ(_bstr_t{value}, _bstr_t{L"02:00:5E:00:53:01"});
    EXPECT_EQ(type, CIM_STRING);
    EXPECT_EQ(object->Get(L"IPAddress", 0, nullptr, &type, nullptr), S_OK);
    EXPECT_EQ(type, CIM_STRING | CIM_FLAG_ARRAY);
}

TEST_F(WmiObject, UnknownAndMissingPropertiesAreNotFound)
{
    const IWbemClassObjectPtr object = Configuration();
    Get(object, L"NoSuchThing", static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(object->Get(nullptr, 0, nullptr, nullptr, nullptr), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    Set("/adapters/0/wmi", {{"ServiceName", {{"missing", true}}}, {"Caption", nullptr}, {"Description", "Other"}});
    const IWbemClassObjectPtr changed = Configuration();
    Get(changed, L"ServiceName", static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(Get(changed, L"Caption").vt, VT_NULL);
    EXPECT_EQ(_bstr_t{Get(changed, L"Description")}, _bstr_t{L"Other"});
}

TEST_F(WmiObject, WithoutMediaItHasAMacAddressAndNoIp)
{
    Set("/adapters/0/media", "disconnected");
    const IWbemClassObjectPtr object = Configuration();
    EXPECT_EQ(Get(object, L"MACAddress").vt, VT_BSTR);
    EXPECT_EQ(Get(object, L"IPEnabled").boolVal, VARIANT_FALSE);
    for (const wchar_t* name :
         {L"IPAddress", L"IPSubnet", L"DefaultIPGateway", L"DNSServerSearchOrder", L"DNSDomainSuffixSearchOrder"})
    {
        EXPECT_EQ(Get(object, name).vt, VT_NULL) << name;
    }
}

TEST_F(WmiObject, OfAnAbsentAdapterLingersWithoutMacAddress)
{
    Set("/adapters/0/present", false);
    EXPECT_EQ(Get(Configuration(), L"MACAddress").vt, VT_NULL);
}

TEST_F(WmiObject, SystemPropertiesTellClassAndPath)
{
    const IWbemClassObjectPtr object = Configuration();
    EXPECT_EQ(_bstr_t{Get(object, L"__CLASS")}, _bstr_t{L"Win32_NetworkAdapterConfiguration"});
    EXPECT_EQ(_bstr_t{Get(object, L"__RELPATH")}, _bstr_t{L"Win32_NetworkAdapterConfiguration.Index=7"});
    EXPECT_EQ(Get(object, L"__GENUS").lVal, WBEM_GENUS_INSTANCE);
    EXPECT_EQ(_bstr_t{Get(object, L"__NAMESPACE")}, _bstr_t{L"ROOT\\CIMV2"});
}

TEST_F(WmiObject, CloneIsACopyOfItsOwn)
{
    const IWbemClassObjectPtr object = Configuration();
    IWbemClassObjectPtr copy;
    ASSERT_EQ(object->Clone(&copy), S_OK);
    EXPECT_EQ(object->CompareTo(0, copy), static_cast<HRESULT>(WBEM_S_SAME));
    _variant_t text{L"changed"};
    ASSERT_EQ(copy->Put(L"Description", 0, &text, 0), S_OK);
    EXPECT_EQ(_bstr_t{Get(object, L"Description")}, _bstr_t{L"Brevik Ethernet"});
    EXPECT_EQ(object->CompareTo(0, copy), static_cast<HRESULT>(WBEM_S_DIFFERENT));
}

TEST_F(WmiObject, TextIsMofWithoutEmptyProperties)
{
    BSTR raw = nullptr;
    ASSERT_EQ(Configuration()->GetObjectText(0, &raw), S_OK);
    const std::wstring text{_bstr_t{raw, false}};
    EXPECT_EQ(text.rfind(L"\ninstance of Win32_NetworkAdapterConfiguration\n{\n", 0), 0U);
    EXPECT_NE(text.find(L"\tIPAddress = {\"192.0.2.7\", \"fe80::7\"};\n"), std::wstring::npos);
    EXPECT_NE(text.find(L"\tIPEnabled = TRUE;\n"), std::wstring::npos);
    EXPECT_EQ(text.find(L"WINSPrimaryServer"), std::wstring::npos);
}

TEST_F(WmiObject, PutChecksTypesAndNames)
{
    const IWbemClassObjectPtr object = Configuration();
    _variant_t text{L"text"};
    _variant_t number{5L};
    _variant_t none;
    none.vt = VT_NULL;
    EXPECT_EQ(object->Put(L"IPAddress", 0, &text, 0), static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(object->Put(L"Description", 0, &number, 0), static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(object->Put(L"NoSuchThing", 0, &text, 0), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(object->Put(L"IPAddress", 0, &none, 0), S_OK);
    EXPECT_EQ(Get(object, L"IPAddress").vt, VT_NULL);
}

TEST_F(WmiObject, WalkGivesEveryPropertyOnce)
{
    const IWbemClassObjectPtr object = Configuration();
    EXPECT_EQ(object->Next(0, nullptr, nullptr, nullptr, nullptr), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    ASSERT_EQ(object->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY), S_OK);
    std::set<std::wstring> names;
    BSTR name = nullptr;
    while (object->Next(0, &name, nullptr, nullptr, nullptr) == S_OK)
    {
        names.insert(static_cast<const wchar_t*>(_bstr_t{name, false}));
        name = nullptr;
    }
    EXPECT_EQ(object->EndEnumeration(), S_OK);
    EXPECT_EQ(names.size(), 61U);
    EXPECT_EQ(names.count(L"SettingID"), 1U);
}

TEST_F(WmiObject, GetFailsByNumberAndByProperty)
{
    const IWbemClassObjectPtr object = Configuration();
    TheMachine().AddFault({"IWbemClassObject::Get(MACAddress)", 1, 1, 0x80041001U, 0, 0});
    Get(object, L"Caption");
    Get(object, L"MACAddress", static_cast<HRESULT>(0x80041001));
    Get(object, L"MACAddress");
}

TEST_F(WmiObject, IsFoundByPathAndSaysWhatIsWrongWithAPath)
{
    const IWbemServicesPtr services = Connect();
    const auto get = [&](const wchar_t* path)
    {
        IWbemClassObjectPtr object;
        return services->GetObject(_bstr_t{path}, 0, nullptr, &object, nullptr);
    };
    EXPECT_EQ(get(L"Win32_NetWorkAdapterConfiguration"), S_OK);
    EXPECT_EQ(get(L"Win32_NetWorkAdapterConfiguration.Index='7'"), S_OK);
    EXPECT_EQ(get(L"win32_networkadapterconfiguration.index=7"), S_OK);
    EXPECT_EQ(get(L"Win32_NetWorkAdapterConfiguration.Index='99'"), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(get(L"Win32_Nothing"), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(get(L"Win32_NetWorkAdapterConfiguration.Caption='x'"), static_cast<HRESULT>(WBEM_E_INVALID_OBJECT_PATH));
    EXPECT_EQ(get(L"not a path"), static_cast<HRESULT>(WBEM_E_INVALID_OBJECT_PATH));
}

TEST(WmiLifetime, TheDllLoadsServesItsClassAndNoOtherAndCanBeUnloaded)
{
    const HMODULE dll = LoadLibraryW(WMI_DLL);
    ASSERT_NE(dll, nullptr) << "error " << GetLastError();
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    using CanUnload = HRESULT(STDAPICALLTYPE*)();
    const auto get =
        reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(dll, "DllGetClassObject")));
    const auto canUnload = reinterpret_cast<CanUnload>(reinterpret_cast<void*>(GetProcAddress(dll, "DllCanUnloadNow")));
    ASSERT_NE(get, nullptr);
    ASSERT_NE(canUnload, nullptr);
    {
        _com_ptr_t<_com_IIID<IClassFactory, &__uuidof(IClassFactory)>> factory;
        ASSERT_EQ(get(wmi::locatorClass, __uuidof(IClassFactory), reinterpret_cast<void**>(&factory)), S_OK);
        IWbemLocatorPtr locator;
        EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IWbemLocator), reinterpret_cast<void**>(&locator)), S_OK);
        EXPECT_EQ(canUnload(), S_FALSE);
        void* other = nullptr;
        EXPECT_EQ(get(__uuidof(IUnknown), __uuidof(IClassFactory), &other), CLASS_E_CLASSNOTAVAILABLE);
    }
    EXPECT_EQ(canUnload(), S_OK);
    EXPECT_TRUE(FreeLibrary(dll));
}

TEST(WmiLifetime, NothingIsLeftWhenTheClientIsDone)
{
    // Notification sinks keep the module for good; this client uses none.
    const long before = wmi::moduleReferences;
    {
        const auto factory = wmi::Reference<IClassFactory>::Take(wmi::MakeFactory());
        IWbemLocatorPtr locator;
        ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(IWbemLocator), reinterpret_cast<void**>(&locator)), S_OK);
        IWbemServicesPtr services;
        ASSERT_EQ(
            locator->ConnectServer(_bstr_t{L"root\\cimv2"}, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services),
            S_OK);
        IEnumWbemClassObjectPtr objects;
        ASSERT_EQ(services->CreateInstanceEnum(_bstr_t{L"Win32_NetworkAdapter"}, 0, nullptr, &objects), S_OK);
        IWbemClassObjectPtr object;
        ULONG count = 0;
        objects->Next(0, 1, &object, &count);
    }
    EXPECT_EQ(wmi::moduleReferences, before);
}

} // namespace
} // namespace lab::test
