// A client of the WMI stand-in, in process: the factory is asked as COM would ask it.
#pragma once

#include "LabFixture.h"

#include "lab/wmi/Factory.h"
#include "tests/support/StringArrays.h"

#include <comdef.h>
#include <wbemidl.h>

_COM_SMARTPTR_TYPEDEF(IWbemLocator, __uuidof(IWbemLocator));
_COM_SMARTPTR_TYPEDEF(IWbemServices, __uuidof(IWbemServices));
_COM_SMARTPTR_TYPEDEF(IEnumWbemClassObject, __uuidof(IEnumWbemClassObject));
_COM_SMARTPTR_TYPEDEF(IWbemClassObject, __uuidof(IWbemClassObject));

namespace lab::test
{

constexpr char firstSettingId[] = "{11111111-0000-4000-8000-000000000001}";

class WmiTest : public LabTest
{
protected:
    static IWbemLocatorPtr Locator()
    {
        const auto factory = wmi::Reference<IClassFactory>::Take(wmi::MakeFactory());
        IWbemLocatorPtr locator;
        EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IWbemLocator), reinterpret_cast<void**>(&locator)), S_OK);
        return locator;
    }
    static IWbemServicesPtr Connect(const wchar_t* space = L"root\\cimv2")
    {
        IWbemServicesPtr services;
        EXPECT_EQ(Locator()->ConnectServer(_bstr_t{space}, nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services),
                  S_OK);
        return services;
    }
    static HRESULT Query(const wchar_t* text, IEnumWbemClassObjectPtr& objects, long flags = 0)
    {
        return Connect()->ExecQuery(_bstr_t{L"WQL"}, _bstr_t{text}, flags, nullptr, &objects);
    }
    // The objects of a query.
    static std::vector<IWbemClassObjectPtr> All(const wchar_t* text)
    {
        IEnumWbemClassObjectPtr objects;
        EXPECT_EQ(Query(text, objects, WBEM_FLAG_FORWARD_ONLY), S_OK);
        std::vector<IWbemClassObjectPtr> result;
        IWbemClassObjectPtr object;
        ULONG count = 0;
        while (objects != nullptr && objects->Next(static_cast<long>(WBEM_INFINITE), 1, &object, &count) == S_OK)
        {
            result.push_back(object);
            object = nullptr;
        }
        return result;
    }
    static _variant_t Get(IWbemClassObject* object, const wchar_t* name, HRESULT expected = S_OK)
    {
        VARIANT value;
        VariantInit(&value);
        EXPECT_EQ(object->Get(name, 0, &value, nullptr, nullptr), expected) << name;
        return _variant_t{value, false};
    }
    static IWbemClassObjectPtr Configuration(const wchar_t* condition = L"Index=7")
    {
        const auto objects =
            All((std::wstring{L"SELECT * FROM Win32_NetworkAdapterConfiguration WHERE "} + condition).c_str());
        EXPECT_EQ(objects.size(), 1U) << condition;
        return objects.empty() ? IWbemClassObjectPtr{} : objects.front();
    }
};

} // namespace lab::test
