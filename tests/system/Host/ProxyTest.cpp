// Records across an apartment border, through the registered HalcydPS.dll: the object lives in one apartment of this
// process and is called from another, so every call runs through proxy and stub as between processes.

#include <windows.h>

#include <comdef.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "ComSupport/ComSupport.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "tests/support/AdapterRecords.h"
#include "tests/support/ComPointers.h"

namespace
{
// What registering a type library puts in the place of a proxy DLL.
constexpr CLSID TypeLibraryMarshaler = {0x00020424, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

template <class T>
T* Block()
{
    void* const memory = CoTaskMemAlloc(sizeof(T));
    memset(memory, 0, sizeof(T));
    return static_cast<T*>(memory);
}

_DEVICE_ELEMENT* Element(int index, _ADAPTER_TYPE type)
{
    _DEVICE_ELEMENT* const element = Block<_DEVICE_ELEMENT>();
    element->DeviceIndex = index;
    element->DeviceId = SysAllocString((L"{" + std::to_wstring(index) + L"}").c_str());
    element->AdapterType = type;
    return element;
}

_WIFI_DETAILS* Network(const wchar_t* ssid, _WIFI_DETAILS* next)
{
    _WIFI_DETAILS* const network = Block<_WIFI_DETAILS>();
    wcscpy_s(network->DeviceName, L"device");
    strcpy_s(network->ProfileName, "profile");
    wcscpy_s(network->Ssid, ssid);
    for (BYTE i = 0; i < 6; ++i)
    {
        network->MacAddress[i] = static_cast<BYTE>(0xF0 + i);
    }
    network->SignalStrength = 77;
    network->MaxRate = 0xFFFFFFFF;
    network->pNext = next;
    return network;
}

_DEVICE_ELEMENT* MakeList()
{
    _DEVICE_ELEMENT* const ethernet = Element(1, enumEthernet);
    ethernet->IpInfo.IpAddress = SysAllocString(L"10.0.0.1");
    ethernet->DeviceStatus = -1;
    ethernet->u.pEthernetAdapter = Block<_ETHERNET_ADAPTER>();
    ethernet->u.pEthernetAdapter->AdapterMacAddress = SysAllocString(L"00:11:22:33:44:55");
    ethernet->u.pEthernetAdapter->GatewayMacAddress = SysAllocString(L"66:77:88:99:AA:BB");
    ethernet->u.pEthernetAdapter->LinkSpeed = 100'000'000;

    _DEVICE_ELEMENT* const wifi = Element(2, enumWiFi);
    wifi->u.pWiFiAdapter = Block<_WIFI_ADAPTER>();
    wifi->u.pWiFiAdapter->Ssid = SysAllocString(L"home");
    wifi->u.pWiFiAdapter->pDetails = Network(L"home", Network(L"other", nullptr));
    ethernet->pNext = wifi;

    _DEVICE_ELEMENT* const bare = Element(3, enumEthernet); // the arm is valid and null
    wifi->pNext = bare;
    _DEVICE_ELEMENT* const bluetooth = Element(4, enumBluetooth); // neither arm
    bare->pNext = bluetooth;
    _DEVICE_ELEMENT* const undecided =
        Element(5, static_cast<_ADAPTER_TYPE>(0)); // not even a member of the enumeration
    bluetooth->pNext = undecided;
    return ethernet;
}

// A chain of bare elements.
_DEVICE_ELEMENT* MakeChain(int length)
{
    _DEVICE_ELEMENT* head = nullptr;
    for (int i = length; i > 0; --i)
    {
        _DEVICE_ELEMENT* const element = Element(i, enumUnknown);
        element->pNext = head;
        head = element;
    }
    return head;
}

class CListServer : public CComObjectRootEx<CComMultiThreadModel>, public IDispatchImpl<INetMonSv>
{
public:
    BEGIN_COM_MAP(CListServer)
    COM_INTERFACE_ENTRY(INetMonSv)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    std::function<_DEVICE_ELEMENT*()> make;

    STDMETHOD(Open)() override { return E_NOTIMPL; }
    STDMETHOD(Close)() override { return E_NOTIMPL; }
    STDMETHOD(get_FilterMask)(LONG* value) override
    {
        *value = static_cast<LONG>(GetCurrentThreadId());
        return S_OK;
    }
    STDMETHOD(put_FilterMask)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(GetDeviceInfoList)(_DEVICE_ELEMENT** list) override
    {
        *list = make();
        return S_OK;
    }
    STDMETHOD(StartNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(StopNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(WiFiSurvey)() override { return E_NOTIMPL; }
    STDMETHOD(DisableIpBindings)(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindings)() override { return E_NOTIMPL; }
    STDMETHOD(ChangeMultiHomingPreferenceIfAllowed)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindingsSync)() override { return E_NOTIMPL; }
    STDMETHOD(ResetSsidList)() override { return E_NOTIMPL; }
    STDMETHOD(IsOpen)(VARIANT_BOOL*) override { return E_NOTIMPL; }
};

// Writes the 32-bit value fields only, as the service does.
class CQueryServer : public CComObjectRootEx<CComMultiThreadModel>, public IDispatchImpl<IServiceControlEx>
{
public:
    BEGIN_COM_MAP(CQueryServer)
    COM_INTERFACE_ENTRY(IServiceControlEx)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()
    STDMETHOD(SetServiceMode)(BSTR, LONG, LONG) override { return E_NOTIMPL; }
    STDMETHOD(QueryServiceMode)(BSTR, VARIANT* mode, VARIANT* startup) override
    {
        V_I4(mode) = 4;
        V_I4(startup) = 2;
        return S_OK;
    }
};

// A single-threaded apartment that owns an object and answers calls until the end of its life.
template <class Interface>
class Apartment
{
public:
    explicit Apartment(Interface* object)
    {
        IStream* stream = nullptr;
        const UniqueHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        thread = std::jthread(
            [&, object]
            {
                const ComApartment apartment(COINIT_APARTMENTTHREADED);
                threadId = GetCurrentThreadId();
                MSG message;
                PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);
                marshalled = CoMarshalInterThreadInterfaceInStream(__uuidof(Interface), object, &stream);
                SetEvent(ready.get());
                while (GetMessageW(&message, nullptr, 0, 0) > 0)
                {
                    DispatchMessageW(&message);
                }
                object->Release();
            });
        WaitForSingleObject(ready.get(), INFINITE);
        EXPECT_EQ(marshalled, S_OK);
        EXPECT_EQ(CoGetInterfaceAndReleaseStream(stream, __uuidof(Interface), reinterpret_cast<void**>(&proxy)), S_OK);
    }
    ~Apartment()
    {
        if (proxy != nullptr)
        {
            proxy->Release();
        }
        PostThreadMessageW(threadId, WM_QUIT, 0, 0);
    }
    Apartment(const Apartment&) = delete;
    Apartment& operator=(const Apartment&) = delete;

    Interface* proxy = nullptr;
    std::atomic<DWORD> threadId{0};

private:
    HRESULT marshalled = E_FAIL;
    std::jthread thread;
};

template <class T>
CComObject<T>* Make()
{
    static CComModule module;
    CComObject<T>* object = nullptr;
    EXPECT_EQ(CComCreator<CComObject<T>>::Make(nullptr, &object), S_OK);
    object->AddRef();
    return object;
}
} // namespace

TEST(Proxies, CallsReallyCrossTheBorder)
{
    Apartment<INetMonSv> apartment(Make<CListServer>());
    ASSERT_NE(apartment.proxy, nullptr);
    LONG thread = 0;
    ASSERT_EQ(apartment.proxy->get_FilterMask(&thread), S_OK);
    EXPECT_EQ(static_cast<DWORD>(thread), apartment.threadId);
}

TEST(Proxies, AdapterListCrossesWholeWithBothExtensionsAndWithout)
{
    auto* const server = Make<CListServer>();
    server->make = MakeList;
    Apartment<INetMonSv> apartment(server);
    ASSERT_NE(apartment.proxy, nullptr);
    HRESULT result = E_FAIL;
    const std::vector<AdapterRecord> list = ReadAdapterList(apartment.proxy, &result);
    ASSERT_EQ(result, S_OK);
    ASSERT_EQ(list.size(), 5u);

    EXPECT_EQ(list[0].deviceId, L"{1}");
    EXPECT_EQ(list[0].deviceStatus, -1);
    EXPECT_EQ(list[0].ipAddress, L"10.0.0.1");
    EXPECT_FALSE(list[0].ipGateway.has_value()); // a null string stays null
    EXPECT_TRUE(list[0].hasExtension);
    EXPECT_EQ(list[0].macAddress, L"00:11:22:33:44:55");
    EXPECT_EQ(list[0].gatewayMac, L"66:77:88:99:AA:BB");
    EXPECT_EQ(list[0].linkSpeed, 100'000'000u);

    EXPECT_TRUE(list[1].hasExtension);
    EXPECT_EQ(list[1].ssid, L"home");
    ASSERT_EQ(list[1].networks.size(), 2u);
    EXPECT_EQ(list[1].networks[0].ssid, L"home");
    EXPECT_EQ(list[1].networks[1].ssid, L"other");
    EXPECT_EQ(list[1].networks[1].profileName, "profile");
    EXPECT_EQ(list[1].networks[1].macAddress, L"f0:f1:f2:f3:f4:f5");
    EXPECT_EQ(list[1].networks[1].signalStrength, 77);

    EXPECT_FALSE(list[2].hasExtension);
    EXPECT_FALSE(list[3].hasExtension);
    EXPECT_EQ(list[3].adapterType, static_cast<std::uint32_t>(enumBluetooth));
    EXPECT_EQ(list[4].adapterType, 0u);
    EXPECT_EQ(list[4].deviceId, L"{5}");
}

TEST(Proxies, EmptyListCrossesAsNull)
{
    auto* const server = Make<CListServer>();
    server->make = [] { return nullptr; };
    Apartment<INetMonSv> apartment(server);
    ASSERT_NE(apartment.proxy, nullptr);
    _DEVICE_ELEMENT element{};
    _DEVICE_ELEMENT* list = &element;
    EXPECT_EQ(apartment.proxy->GetDeviceInfoList(&list), S_OK);
    EXPECT_EQ(list, nullptr);
}

TEST(Proxies, ListOf500AdaptersCrossesInOrder)
{
    auto* const server = Make<CListServer>();
    server->make = [] { return MakeChain(500); };
    Apartment<INetMonSv> apartment(server);
    ASSERT_NE(apartment.proxy, nullptr);
    const std::vector<AdapterRecord> list = ReadAdapterList(apartment.proxy);
    ASSERT_EQ(list.size(), 500u);
    for (std::size_t i = 0; i < list.size(); ++i)
    {
        ASSERT_EQ(list[i].deviceIndex, static_cast<std::int32_t>(i + 1));
    }
}

TEST(Proxies, ServiceQueryKeepsTheVariantTypesOfTheCaller)
{
    Apartment<IServiceControlEx> apartment(Make<CQueryServer>());
    ASSERT_NE(apartment.proxy, nullptr);
    VARIANT mode{};
    VARIANT startup{};
    V_VT(&mode) = VT_I4;
    V_VT(&startup) = VT_UI4;
    ASSERT_EQ(apartment.proxy->QueryServiceMode(_bstr_t(L"any"), &mode, &startup), S_OK);
    EXPECT_EQ(V_VT(&mode), VT_I4);
    EXPECT_EQ(V_I4(&mode), 4);
    EXPECT_EQ(V_VT(&startup), VT_UI4);
    EXPECT_EQ(V_UI4(&startup), 2u);
}

TEST(Proxies, EveryInterfaceIsCarriedByTheProxyDll)
{
    for (const IID& iid :
         {IID_IDNS, IID_INetRegistry, IID_IServiceControlEx, IID_IVNIC, IID_INetMonSv, IID_ISimpleSink})
    {
        CLSID carrier{};
        ASSERT_EQ(CoGetPSClsid(iid, &carrier), S_OK);
        IPSFactoryBuffer* factory = nullptr;
        EXPECT_EQ(CoGetClassObject(carrier, CLSCTX_INPROC_SERVER, nullptr, __uuidof(IPSFactoryBuffer),
                                   reinterpret_cast<void**>(&factory)),
                  S_OK);
        ASSERT_NE(factory, nullptr);
        factory->Release();
        EXPECT_NE(GetModuleHandleW(L"HalcydPS.dll"), nullptr);
        EXPECT_FALSE(IsEqualCLSID(carrier, TypeLibraryMarshaler));
    }
}
