// The stand-in beside Wine's own WMI, where Wine has the real thing: the same questions to both, and the same answers
// wanted, apart from the deviations that are named here with their reason. Wine lists the host's own adapters; so types
// and results are compared, not values.
#include "WmiFixture.h"

#include <map>
#include <set>

namespace lab::test
{
namespace
{

// Names of properties compare without letter case, as WMI compares them: Wine writes "DeviceId".
struct LessWithoutCase
{
    bool operator()(const std::wstring& a, const std::wstring& b) const { return _wcsicmp(a.c_str(), b.c_str()) < 0; }
};

struct Property
{
    CIMTYPE type;
    std::set<VARTYPE> seen; // of values that are there
};
using PropertyMap = std::map<std::wstring, Property, LessWithoutCase>;

class BesideWine : public WmiTest
{
protected:
    void SetUp() override
    {
        WmiTest::SetUp();
        if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr)
        {
            GTEST_SKIP() << "this is Windows: there is no WMI of Wine to compare with";
        }
        // By its path, because the class id may lead to the stand-in in this prefix.
        const HMODULE wine = LoadLibraryW(L"C:\\windows\\system32\\wbem\\wbemprox.dll");
        ASSERT_NE(wine, nullptr);
        using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
        const auto get =
            reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(wine, "DllGetClassObject")));
        ASSERT_NE(get, nullptr);
        _com_ptr_t<_com_IIID<IClassFactory, &__uuidof(IClassFactory)>> factory;
        ASSERT_EQ(get(wmi::locatorClass, __uuidof(IClassFactory), reinterpret_cast<void**>(&factory)), S_OK);
        ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(IWbemLocator), reinterpret_cast<void**>(&m_wineLocator)),
                  S_OK);
        ASSERT_EQ(ConnectTo(m_wineLocator, L"root\\cimv2", m_wine), S_OK);
        m_ours = Connect();
    }

    static HRESULT ConnectTo(IWbemLocator* locator, const wchar_t* name, IWbemServicesPtr& services)
    {
        return locator->ConnectServer(_bstr_t{name}, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services);
    }
    static HRESULT Ask(IWbemServices* services, const wchar_t* query, IEnumWbemClassObjectPtr& objects, long flags = 0)
    {
        objects = nullptr;
        return services->ExecQuery(_bstr_t{L"WQL"}, _bstr_t{query}, flags, nullptr, &objects);
    }
    static IWbemClassObjectPtr First(IWbemServices* services, const wchar_t* className)
    {
        IEnumWbemClassObjectPtr objects;
        EXPECT_EQ(Ask(services, (std::wstring{L"SELECT * FROM "} + className).c_str(), objects), S_OK);
        IWbemClassObjectPtr object;
        ULONG count = 0;
        objects->Next(static_cast<long>(WBEM_INFINITE), 1, &object, &count);
        return object;
    }
    // Every property of the class, with the variant types of all objects' values.
    static PropertyMap Properties(IWbemServices* services, const wchar_t* className)
    {
        PropertyMap properties;
        IEnumWbemClassObjectPtr objects;
        EXPECT_EQ(Ask(services, (std::wstring{L"SELECT * FROM "} + className).c_str(), objects), S_OK);
        IWbemClassObjectPtr object;
        ULONG count = 0;
        while (objects->Next(static_cast<long>(WBEM_INFINITE), 1, &object, &count) == S_OK)
        {
            SAFEARRAY* names = nullptr;
            EXPECT_EQ(object->GetNames(nullptr, WBEM_FLAG_NONSYSTEM_ONLY, nullptr, &names), S_OK);
            BSTR* data = nullptr;
            SafeArrayAccessData(names, reinterpret_cast<void**>(&data));
            for (ULONG i = 0; i < names->rgsabound[0].cElements; ++i)
            {
                _variant_t value;
                Property& property = properties[data[i]];
                EXPECT_EQ(object->Get(data[i], 0, &value, &property.type, nullptr), S_OK) << data[i];
                if (value.vt != VT_NULL)
                {
                    property.seen.insert(value.vt);
                }
            }
            SafeArrayUnaccessData(names);
            SafeArrayDestroy(names);
            object = nullptr;
        }
        return properties;
    }

    IWbemLocatorPtr m_wineLocator;
    IWbemServicesPtr m_wine;
    IWbemServicesPtr m_ours;
};

// Every property that Wine has is there too, with the same CIM type and, where both have values, the same variant type.
void CompareProperties(const PropertyMap& wine, const PropertyMap& ours)
{
    EXPECT_GT(wine.size(), 5U);
    for (const auto& [name, theirs] : wine)
    {
        const auto found = ours.find(name);
        ASSERT_NE(found, ours.end()) << name;
        EXPECT_EQ(found->second.type, theirs.type) << name;
        if (!found->second.seen.empty() && !theirs.seen.empty())
        {
            EXPECT_EQ(found->second.seen, theirs.seen) << name;
        }
    }
}

TEST_F(BesideWine, AdapterPropertiesHaveTheSameTypes)
{
    CompareProperties(Properties(m_wine, L"Win32_NetworkAdapter"), Properties(m_ours, L"Win32_NetworkAdapter"));
}

TEST_F(BesideWine, ConfigurationPropertiesHaveTheSameTypes)
{
    CompareProperties(Properties(m_wine, L"Win32_NetworkAdapterConfiguration"),
                      Properties(m_ours, L"Win32_NetworkAdapterConfiguration"));
}

TEST_F(BesideWine, QueriesThatFailFailAlike)
{
    IEnumWbemClassObjectPtr objects;
    for (const wchar_t* query : {L"SELECT nonsense", L"SELECT * FROM", L"SELECT * FROM Win32_NetworkAdapter WHERE"})
    {
        const HRESULT theirs = Ask(m_wine, query, objects);
        EXPECT_EQ(Ask(m_ours, query, objects), theirs) << query;
    }
}

TEST_F(BesideWine, NamespaceThatIsNotThereIsRefusedAlike)
{
    IWbemServicesPtr services;
    EXPECT_EQ(ConnectTo(Locator(), L"root\\nowhere", services), ConnectTo(m_wineLocator, L"root\\nowhere", services));
}

TEST_F(BesideWine, UnknownPropertyIsNotFoundAlikeAndLetterCaseDoesNotMatter)
{
    for (const wchar_t* name : {L"NoSuchThing", L"__NoSuchThing", L"macaddress", L"__CLASS", L"__GENUS"})
    {
        VARIANT theirValue;
        VARIANT ourValue;
        VariantInit(&theirValue);
        VariantInit(&ourValue);
        EXPECT_EQ(First(m_ours, L"Win32_NetworkAdapter")->Get(name, 0, &ourValue, nullptr, nullptr),
                  First(m_wine, L"Win32_NetworkAdapter")->Get(name, 0, &theirValue, nullptr, nullptr))
            << name;
        VariantClear(&theirValue);
        VariantClear(&ourValue);
    }
}

TEST_F(BesideWine, EndOfTheListAndResetAreTheSame)
{
    for (IWbemServices* services : {m_wine.GetInterfacePtr(), m_ours.GetInterfacePtr()})
    {
        IEnumWbemClassObjectPtr objects;
        ASSERT_EQ(Ask(services, L"SELECT * FROM Win32_NetworkAdapter WHERE Index=4711", objects), S_OK);
        IWbemClassObjectPtr object;
        ULONG count = 7;
        EXPECT_EQ(objects->Next(0, 1, &object, &count), S_FALSE);
        EXPECT_EQ(count, 0U);
        EXPECT_EQ(objects->Reset(), S_OK);
    }
}

TEST_F(BesideWine, ConditionsSelectAlike)
{
    // Every adapter of Wine has a MAC address or none; the two halves make the whole, as they do here.
    const auto count = [](IWbemServices* services, const wchar_t* query)
    {
        IEnumWbemClassObjectPtr objects;
        EXPECT_EQ(Ask(services, query, objects), S_OK) << query;
        std::size_t found = 0;
        IWbemClassObjectPtr object;
        ULONG returned = 0;
        while (objects != nullptr && objects->Next(static_cast<long>(WBEM_INFINITE), 1, &object, &returned) == S_OK)
        {
            ++found;
            object = nullptr;
        }
        return found;
    };
    for (IWbemServices* services : {m_wine.GetInterfacePtr(), m_ours.GetInterfacePtr()})
    {
        EXPECT_EQ(count(services, L"SELECT * FROM Win32_NetworkAdapter WHERE MACAddress <> NULL") +
                      count(services, L"SELECT * FROM Win32_NetworkAdapter WHERE MACAddress IS NULL"),
                  count(services, L"select * from win32_networkadapter"));
    }
}

} // namespace
} // namespace lab::test
