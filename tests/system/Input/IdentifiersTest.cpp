// Identifiers that nobody here knows, where a client may name one.

#include "Input/InputMachine.h"

#include <ocidl.h>

#include <iterator>
#include <memory>

namespace
{
constexpr GUID kNobodys = {0x0BADF00D, 0x1234, 0x4321, {1, 2, 3, 4, 5, 6, 7, 8}};

// A sink for some other object's events.
class ForeignSink final : public IUnknown
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** out) override
    {
        *out = IsEqualIID(iid, IID_IUnknown) ? this : nullptr;
        if (*out == nullptr)
        {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references)); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(InterlockedDecrement(&references)); }

    LONG references = 1;
};

using Identifiers = InputTest;

TEST_F(Identifiers, UnknownInterfacesAreNotOfferedByAnyObject)
{
    const ISimpleSinkPtr simple = ActivateSimpleSink();
    ASSERT_TRUE(simple);
    IUnknown* const objects[] = {dns, registry, services, vnic, monitor, simple};
    const IID own[] = {IID_IDNS, IID_INetRegistry, IID_IServiceControlEx, IID_IVNIC, IID_INetMonSv, IID_ISimpleSink};
    for (std::size_t object = 0; object < std::size(objects); ++object)
    {
        for (const IID& iid : {kNobodys, IID_NULL, own[(object + 1) % std::size(own)]})
        {
            void* found = this;
            EXPECT_EQ(objects[object]->QueryInterface(iid, &found), E_NOINTERFACE) << object;
            EXPECT_EQ(found, nullptr);
        }
    }
}

TEST_F(Identifiers, ActivationWithAnUnknownInterfaceFailsAndWithAnUnknownClassIsNotRegistered)
{
    for (const CLSID& classId : {CLSID_DNS, CLSID_NetRegistry, CLSID_ServiceControlEx, CLSID_VNIC, CLSID_NetMonSv})
    {
        void* found = this;
        EXPECT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_LOCAL_SERVER, kNobodys, &found), E_NOINTERFACE);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &found), REGDB_E_CLASSNOTREG);
        EXPECT_TRUE(FAILED(CoGetClassObject(classId, CLSCTX_LOCAL_SERVER, nullptr, kNobodys, &found)));
    }
    void* found = this;
    EXPECT_EQ(CoCreateInstance(kNobodys, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &found), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(CoCreateInstance(IID_NULL, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &found), REGDB_E_CLASSNOTREG);
}

TEST_F(Identifiers, ConnectionPointOfAnotherInterfaceIsNotFoundAndAForeignSinkCannotConnect)
{
    IConnectionPointContainerPtr container;
    ASSERT_EQ(monitor->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container)), S_OK);
    IConnectionPointPtr point;
    for (const IID& iid : {kNobodys, IID_NULL, IID_IDispatch, IID_INetMonSv})
    {
        EXPECT_EQ(container->FindConnectionPoint(iid, &point), CONNECT_E_NOCONNECTION);
        EXPECT_FALSE(point);
    }
    ASSERT_EQ(container->FindConnectionPoint(DIID__INetMonSv, &point), S_OK);
    ForeignSink foreign;
    DWORD cookie = 4711;
    EXPECT_EQ(point->Advise(&foreign, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(cookie, 0u);
}

TEST_F(Identifiers, CookiesThatNameNothingAreNoConnection)
{
    EventConnection connection(monitor);
    ASSERT_EQ(connection.Result(), S_OK);
    IConnectionPointContainerPtr container;
    ASSERT_EQ(monitor->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container)), S_OK);
    IConnectionPointPtr point;
    ASSERT_EQ(container->FindConnectionPoint(DIID__INetMonSv, &point), S_OK);
    for (const DWORD cookie : {0UL, connection.Cookie() + 1, 5UL, 261UL, 0x7FFFFFFFUL, 0x80000000UL, 0xFFFFFFFFUL})
    {
        EXPECT_EQ(point->Unadvise(cookie), CONNECT_E_NOCONNECTION) << cookie;
    }
    const DWORD cookie = connection.Cookie();
    EXPECT_EQ(connection.Disconnect(), S_OK);
    EXPECT_EQ(point->Unadvise(cookie), CONNECT_E_NOCONNECTION);
    EventConnection again(monitor);
    EXPECT_EQ(again.Cookie(), cookie); // the slot is used again
}

TEST_F(Identifiers, MoreSinksThanTheEventTableHoldsConnectWithoutEventsAndHarmNobody)
{
    constexpr std::size_t kServed = 260;
    std::vector<std::unique_ptr<EventConnection>> connections;
    for (std::size_t count = 0; count < kServed + 4; ++count)
    {
        connections.push_back(std::make_unique<EventConnection>(monitor));
        ASSERT_EQ(connections.back()->Result(), S_OK);
        ASSERT_EQ(connections.back()->Cookie(), count + 1);
    }
    ASSERT_EQ(monitor->Open(), S_OK); // fires an add event for each adapter
    EXPECT_TRUE(connections.front()->Recorder().WaitForEvent(enumEventAdapterAdd).has_value());
    EXPECT_TRUE(connections[kServed - 1]->Recorder().WaitForEvent(enumEventAdapterAdd).has_value());
    EXPECT_EQ(monitor->Close(), S_OK); // all events of the discovery were fired before Open returned
    EXPECT_TRUE(connections[kServed]->Recorder().Events().empty());
    EXPECT_TRUE(connections.back()->Recorder().Events().empty());
}
} // namespace
