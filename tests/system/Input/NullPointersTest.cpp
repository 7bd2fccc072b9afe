// Null for every pointer argument of every method of the six interfaces, from another process. A null string is a value
// that crosses the border; a null place for a result, or for a record, does not: the proxy refuses it.

#include "Input/InputMachine.h"

#include <ocidl.h>

#include <thread>

#include "tests/support/StringArrays.h"

namespace
{
constexpr wchar_t kOwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\InputTest";
constexpr HRESULT kAdapterNotFound = static_cast<HRESULT>(0x80041017);
constexpr DWORD kBadFullPath = ERROR_BAD_ARGUMENTS;

using NullPointers = InputTest;

TEST_F(NullPointers, OfAdapterSettings)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    _variant_t servers = TextArray({L"192.0.2.60"});
    BSTR text = nullptr;
    BSTR other = nullptr;
    const _bstr_t empty(L"");
    Check({
        {"ConnectNetCfg", [&] { return dns->ConnectNetCfg(nullptr); }, kAdapterNotFound},
        {"SetDNS guid", [&] { return dns->SetDNS(nullptr, &servers); }, kAdapterNotFound},
        {"SetDNS array", [&] { return dns->SetDNS(ethernet, nullptr); }, kRefusedByProxy},
        {"GetDNS guid", [&] { return dns->GetDNS(nullptr, &servers); }, kAdapterNotFound},
        {"GetDNS array", [&] { return dns->GetDNS(ethernet, nullptr); }, kRefusedByProxy},
        {"SetWINS guid", [&] { return dns->SetWINS(nullptr, empty, empty); }, kAdapterNotFound},
        {"SetWINS primary", [&] { return dns->SetWINS(ethernet, nullptr, empty); }, E_INVALIDARG},
        {"SetWINS secondary", [&] { return dns->SetWINS(ethernet, empty, nullptr); }, E_INVALIDARG},
        {"GetWINS guid", [&] { return dns->GetWINS(nullptr, &text, &other); }, kAdapterNotFound},
        {"GetWINS primary", [&] { return dns->GetWINS(ethernet, nullptr, &other); }, kRefusedByProxy},
        {"GetWINS secondary", [&] { return dns->GetWINS(ethernet, &text, nullptr); }, kRefusedByProxy},
        {"SetDNSSuffixSearchOrder guid", [&] { return dns->SetDNSSuffixSearchOrder(nullptr, &servers); }, S_OK},
        {"SetDNSSuffixSearchOrder array", [&] { return dns->SetDNSSuffixSearchOrder(ethernet, nullptr); },
         kRefusedByProxy},
        {"GetDNSSuffixSearchOrder guid", [&] { return dns->GetDNSSuffixSearchOrder(nullptr, &servers); }, S_OK},
        {"GetDNSSuffixSearchOrder array", [&] { return dns->GetDNSSuffixSearchOrder(ethernet, nullptr); },
         kRefusedByProxy},
        {"SetDNSDomain guid", [&] { return dns->SetDNSDomain(nullptr, empty); }, kAdapterNotFound},
        {"SetDNSDomain domain", [&] { return dns->SetDNSDomain(ethernet, nullptr); }, S_OK},
        {"GetDNSDomain guid", [&] { return dns->GetDNSDomain(nullptr, &text); }, kAdapterNotFound},
        {"GetDNSDomain domain", [&] { return dns->GetDNSDomain(ethernet, nullptr); }, kRefusedByProxy},
        {"EnableDHCP", [&] { return dns->EnableDHCP(nullptr); }, kAdapterNotFound},
        {"SetGateways guid", [&] { return dns->SetGateways(nullptr, &servers, &servers); }, E_UNEXPECTED},
        {"SetGateways gateways", [&] { return dns->SetGateways(ethernet, nullptr, &servers); }, kRefusedByProxy},
        {"SetGateways metrics", [&] { return dns->SetGateways(ethernet, &servers, nullptr); }, kRefusedByProxy},
        {"EnableStatic guid", [&] { return dns->EnableStatic(nullptr, &servers, &servers); }, kAdapterNotFound},
        {"EnableStatic addresses", [&] { return dns->EnableStatic(ethernet, nullptr, &servers); }, kRefusedByProxy},
        {"EnableStatic masks", [&] { return dns->EnableStatic(ethernet, &servers, nullptr); }, kRefusedByProxy},
        {"ReleaseDHCPLease", [&] { return dns->ReleaseDHCPLease(nullptr); }, kAdapterNotFound},
        {"RenewDHCPLease", [&] { return dns->RenewDHCPLease(nullptr); }, kAdapterNotFound},
        {"GetDefaultGateway guid", [&] { return dns->GetDefaultGateway(nullptr, &text); }, kAdapterNotFound},
        {"GetDefaultGateway gateway", [&] { return dns->GetDefaultGateway(ethernet, nullptr); }, kRefusedByProxy},
        {"GetIpAddress guid", [&] { return dns->GetIpAddress(nullptr, &text); }, kAdapterNotFound},
        {"GetIpAddress address", [&] { return dns->GetIpAddress(ethernet, nullptr); }, kRefusedByProxy},
    });
    SysFreeString(text);
    SysFreeString(other);
    // The pointer at which a text is to be replaced may itself hold null.
    BSTR none = nullptr;
    EXPECT_EQ(dns->GetDefaultGateway(ethernet, &none), S_OK);
    EXPECT_STREQ(none, L"192.0.2.1");
    SysFreeString(none);
}

TEST_F(NullPointers, OfTheRegistryProxy)
{
    const _bstr_t own(kOwnPath);
    const _bstr_t name(L"value");
    const _variant_t text(1L);
    _variant_t type;
    _variant_t data;
    Check({
        {"QueryRegistry path", [&] { return registry->QueryRegistry(name, nullptr, &type, &data); }, kBadFullPath},
        {"QueryRegistry type", [&] { return registry->QueryRegistry(name, own, nullptr, &data); }, kRefusedByProxy},
        {"QueryRegistry data", [&] { return registry->QueryRegistry(name, own, &type, nullptr); }, kRefusedByProxy},
        {"SetRegistry path", [&] { return registry->SetRegistry(name, nullptr, text, text); }, ERROR_ACCESS_DENIED},
        {"SetRegistry value name", [&] { return registry->SetRegistry(nullptr, own, text, _variant_t(L"default")); }},
        {"QueryRegistry value name", [&] { return registry->QueryRegistry(nullptr, own, &type, &data); }},
        {"DeleteRegistry path", [&] { return registry->DeleteRegistry(name, nullptr); }, ERROR_ACCESS_DENIED},
        {"DeleteRegistry value name", [&] { return registry->DeleteRegistry(nullptr, own); }, ERROR_ACCESS_DENIED},
        {"DeleteRegistryNode", [&] { return registry->DeleteRegistryNode(nullptr); }, ERROR_ACCESS_DENIED},
    });
    // A null name is the key's default value.
    ASSERT_EQ(data.vt, VT_BSTR);
    EXPECT_STREQ(data.bstrVal, L"default");
    // A variant that says text and has none is the empty text.
    VARIANT nothing{};
    nothing.vt = VT_BSTR;
    EXPECT_EQ(registry->SetRegistry(name, own, text, nothing), S_OK);
    data.Clear();
    EXPECT_EQ(registry->QueryRegistry(name, own, &type, &data), S_OK);
    ASSERT_EQ(data.vt, VT_BSTR);
    EXPECT_EQ(SysStringLen(data.bstrVal), 0u);
    // By reference with nothing behind it the proxy has nothing to carry.
    nothing.vt = VT_BSTR | VT_BYREF;
    EXPECT_NE(registry->SetRegistry(name, own, text, nothing), S_OK);
}

TEST_F(NullPointers, OfTheServiceProxy)
{
    VARIANT number{};
    number.vt = VT_I4;
    const _bstr_t name(kServiceName);
    Check({
        {"SetServiceMode", [&] { return services->SetServiceMode(nullptr, 1, -1); }, ERROR_INVALID_NAME},
        {"QueryServiceMode name", [&] { return services->QueryServiceMode(nullptr, &number, &number); },
         ERROR_INVALID_NAME},
        {"QueryServiceMode state", [&] { return services->QueryServiceMode(name, nullptr, &number); }, kRefusedByProxy},
        {"QueryServiceMode start", [&] { return services->QueryServiceMode(name, &number, nullptr); }, kRefusedByProxy},
    });
}

TEST_F(NullPointers, OfTheVirtualAdapter)
{
    const _variant_t number(0L);
    BYTE address[16]{};
    _ip_transfer route{};
    Check({
        {"TunvexInitVnicForVista", [&] { return vnic->TunvexInitVnicForVista(number, nullptr, 0); }, kRefusedByProxy},
        {"TunvexGetInterfaceMetric", [&] { return vnic->TunvexGetInterfaceMetric(number, number, nullptr); },
         kRefusedByProxy},
        {"ConfigureVnic", [&] { return vnic->ConfigureVnic(nullptr); }, kRefusedByProxy},
        {"CreateMultipleIPv6RouteEntries list",
         [&] { return vnic->CreateMultipleIPv6RouteEntries(1, nullptr, address, address, 0, 0, nullptr); },
         kRefusedByProxy},
        {"DeleteMultipleIPv6RouteEntries",
         [&] { return vnic->DeleteMultipleIPv6RouteEntries(1, nullptr, nullptr, nullptr); }, kRefusedByProxy},
    });
    // Arrays of a fixed length fail on the way too; not every system's marshaler says it with the same code.
    EXPECT_TRUE(FAILED(vnic->CreateMultipleIPv6RouteEntries(1, &route, nullptr, address, 0, 0, nullptr)));
    EXPECT_TRUE(FAILED(vnic->CreateMultipleIPv6RouteEntries(1, &route, address, nullptr, 0, 0, nullptr)));
}

TEST_F(NullPointers, OfTheMonitorAndItsConnectionPoint)
{
    EventRecorder* const sink = new EventRecorder;
    IConnectionPointContainerPtr container;
    ASSERT_EQ(monitor->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container)), S_OK);
    IConnectionPointPtr point;
    ASSERT_EQ(container->FindConnectionPoint(DIID__INetMonSv, &point), S_OK);
    DWORD cookie = 1;
    Check({
        {"FilterMask", [&] { return monitor->get_FilterMask(nullptr); }, kRefusedByProxy},
        {"GetDeviceInfoList", [&] { return monitor->GetDeviceInfoList(nullptr); }, kRefusedByProxy},
        {"IsOpen", [&] { return monitor->IsOpen(nullptr); }, kRefusedByProxy},
        {"FindConnectionPoint", [&] { return container->FindConnectionPoint(DIID__INetMonSv, nullptr); },
         kRefusedByProxy},
        {"EnumConnectionPoints", [&] { return container->EnumConnectionPoints(nullptr); }, kRefusedByProxy},
        {"GetConnectionInterface", [&] { return point->GetConnectionInterface(nullptr); }, kRefusedByProxy},
        {"GetConnectionPointContainer", [&] { return point->GetConnectionPointContainer(nullptr); }, kRefusedByProxy},
        {"EnumConnections", [&] { return point->EnumConnections(nullptr); }, kRefusedByProxy},
        {"Advise sink", [&] { return point->Advise(nullptr, &cookie); }, E_POINTER},
        {"Advise cookie", [&] { return point->Advise(sink, nullptr); }, kRefusedByProxy},
    });
    EXPECT_EQ(cookie, 0u);
    sink->Release();
    // Null for the adapter to keep is no adapter: all are disabled, which the event tells, and a restore ends the call.
    const EventConnection events(monitor);
    std::jthread disabling(
        [&]
        {
            const ComApartment client;
            EXPECT_EQ(Monitor()->DisableIpBindings(nullptr, 0), S_OK);
        });
    const auto told = events->WaitForEvent(enumEventIpBindingsDisabled);
    ASSERT_TRUE(told.has_value());
    EXPECT_EQ(told->secondType, VT_I4);
    EXPECT_EQ(told->number, S_OK);
    EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
}

TEST_F(NullPointers, OfDispatchOnEveryInterfaceAndOfTheSimpleSink)
{
    const ISimpleSinkPtr simple = ActivateSimpleSink();
    ASSERT_TRUE(simple);
    EXPECT_EQ(simple->Test(nullptr), S_OK);
    IDispatch* const objects[] = {dns, registry, services, vnic, monitor, simple};
    for (IDispatch* const object : objects)
    {
        LPOLESTR none = nullptr;
        wchar_t anything[] = L"NoSuchMember";
        LPOLESTR name = anything;
        DISPID id = 0;
        Check({
            {"GetTypeInfoCount", [&] { return object->GetTypeInfoCount(nullptr); }, kRefusedByProxy},
            {"GetTypeInfo", [&] { return object->GetTypeInfo(0, LOCALE_USER_DEFAULT, nullptr); }, kRefusedByProxy},
            {"GetIDsOfNames names",
             [&] { return object->GetIDsOfNames(IID_NULL, nullptr, 1, LOCALE_USER_DEFAULT, &id); }, kRefusedByProxy},
            {"GetIDsOfNames name", [&] { return object->GetIDsOfNames(IID_NULL, &none, 1, LOCALE_USER_DEFAULT, &id); },
             DISP_E_UNKNOWNNAME},
            {"GetIDsOfNames ids",
             [&] { return object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, nullptr); }, kRefusedByProxy},
        });
    }
}
} // namespace
