#include "TestObjects.h"

#include <gtest/gtest.h>

#include <array>

namespace
{
class CSource : public CComObjectRootEx<CComMultiThreadModel>,
                public IConnectionPointContainerImpl<CSource>,
                public IConnectionPointImpl<CSource, &IID_TestEvents>
{
public:
    BEGIN_COM_MAP(CSource)
    COM_INTERFACE_ENTRY(IConnectionPointContainer)
    END_COM_MAP()
    BEGIN_CONNECTION_POINT_MAP(CSource)
    CONNECTION_POINT_ENTRY(IID_TestEvents, CSource)
    END_CONNECTION_POINT_MAP()

    int Slots() const { return m_vec.GetSize(); }
};

class ConnectionPointTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(CComCreator<CComObject<CSource>>::Make(nullptr, &source), S_OK);
        source->AddRef();
        ASSERT_EQ(source->FindConnectionPoint(IID_TestEvents, &point), S_OK);
    }
    void TearDown() override
    {
        point->Release();
        EXPECT_EQ(source->Release(), 0u);
        EXPECT_EQ(module.GetLockCount(), 0);
    }

    TestModule module;
    CComObject<CSource>* source = nullptr;
    IConnectionPoint* point = nullptr;
};
} // namespace

TEST_F(ConnectionPointTest, TellsItsInterfaceAndItsContainer)
{
    IID iid{};
    EXPECT_EQ(point->GetConnectionInterface(&iid), S_OK);
    EXPECT_TRUE(IsEqualIID(iid, IID_TestEvents));
    EXPECT_EQ(point->GetConnectionInterface(nullptr), E_POINTER);
    IConnectionPointContainer* container = nullptr;
    ASSERT_EQ(point->GetConnectionPointContainer(&container), S_OK);
    EXPECT_EQ(container, static_cast<IConnectionPointContainer*>(source));
    container->Release();
}

TEST_F(ConnectionPointTest, HasAnIdentityOfItsOwn)
{
    IUnknown* identity = nullptr;
    ASSERT_EQ(point->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&identity)), S_OK);
    EXPECT_NE(identity, source->GetUnknown());
    identity->Release();
    void* other = this;
    EXPECT_EQ(point->QueryInterface(__uuidof(IConnectionPointContainer), &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
}

TEST_F(ConnectionPointTest, AdviseRefusesNullAndZeroesTheCookie)
{
    DWORD cookie = 7;
    EXPECT_EQ(point->Advise(nullptr, &cookie), E_POINTER);
    EXPECT_EQ(cookie, 0u);
    TestSink sink;
    EXPECT_EQ(point->Advise(&sink, nullptr), E_POINTER);
    EXPECT_EQ(sink.references, 0u);
}

TEST_F(ConnectionPointTest, AdviseRefusesASinkWithoutTheInterface)
{
    TestSink sink(E_NOINTERFACE);
    DWORD cookie = 7;
    EXPECT_EQ(point->Advise(&sink, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(cookie, 0u);
    TestSink broken(E_UNEXPECTED);
    EXPECT_EQ(point->Advise(&broken, &cookie), E_UNEXPECTED);
}

TEST_F(ConnectionPointTest, FifthSinkGrowsTheListToEightAndGetsCookieFive)
{
    std::array<TestSink, 5> sinks;
    DWORD cookie = 0;
    for (DWORD expected = 1; expected <= sinks.size(); ++expected)
    {
        ASSERT_EQ(point->Advise(&sinks[expected - 1], &cookie), S_OK);
        EXPECT_EQ(cookie, expected);
        EXPECT_EQ(source->Slots(), expected <= 4 ? 4 : 8);
    }
    for (DWORD i = 1; i <= sinks.size(); ++i)
    {
        EXPECT_EQ(point->Unadvise(i), S_OK);
        EXPECT_EQ(sinks[i - 1].references, 0u);
    }
}

TEST_F(ConnectionPointTest, SecondUnadviseFailsAndTheSlotIsUsedAgain)
{
    TestSink first;
    TestSink second;
    DWORD cookie = 0;
    ASSERT_EQ(point->Advise(&first, &cookie), S_OK);
    EXPECT_EQ(point->Unadvise(cookie), S_OK);
    EXPECT_EQ(point->Unadvise(cookie), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(point->Unadvise(0), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(point->Unadvise(99), CONNECT_E_NOCONNECTION);
    DWORD again = 0;
    ASSERT_EQ(point->Advise(&second, &again), S_OK);
    EXPECT_EQ(again, cookie);
    EXPECT_EQ(point->Unadvise(again), S_OK);
}

TEST_F(ConnectionPointTest, EnumeratorHoldsItsOwnReferencesAndSkipsFreeSlots)
{
    std::array<TestSink, 3> sinks;
    DWORD cookie = 0;
    for (TestSink& sink : sinks)
    {
        ASSERT_EQ(point->Advise(&sink, &cookie), S_OK);
    }
    ASSERT_EQ(point->Unadvise(2), S_OK);

    IEnumConnections* connections = nullptr;
    ASSERT_EQ(point->EnumConnections(&connections), S_OK);
    EXPECT_EQ(sinks[0].references, 2u);
    CONNECTDATA data[3]{};
    ULONG fetched = 0;
    EXPECT_EQ(connections->Next(3, data, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(data[0].dwCookie, 1u);
    EXPECT_EQ(data[1].dwCookie, 3u);
    EXPECT_EQ(data[1].pUnk, static_cast<IUnknown*>(&sinks[2]));
    data[0].pUnk->Release();
    data[1].pUnk->Release();

    EXPECT_EQ(connections->Reset(), S_OK);
    EXPECT_EQ(connections->Skip(1), S_OK);
    IEnumConnections* clone = nullptr;
    ASSERT_EQ(connections->Clone(&clone), S_OK);
    EXPECT_EQ(clone->Next(1, data, nullptr), S_OK);
    EXPECT_EQ(data[0].dwCookie, 3u);
    data[0].pUnk->Release();
    EXPECT_EQ(clone->Skip(1), S_FALSE);
    EXPECT_EQ(clone->Release(), 0u);
    EXPECT_EQ(connections->Release(), 0u);
    EXPECT_EQ(point->Unadvise(1), S_OK);
    EXPECT_EQ(point->Unadvise(3), S_OK);
    EXPECT_EQ(sinks[0].references, 0u);
    EXPECT_EQ(point->EnumConnections(nullptr), E_POINTER);
}

TEST_F(ConnectionPointTest, SinksStillConnectedAreReleasedWithTheObject)
{
    CComObject<CSource>* other = nullptr;
    ASSERT_EQ(CComCreator<CComObject<CSource>>::Make(nullptr, &other), S_OK);
    other->AddRef();
    IConnectionPoint* otherPoint = nullptr;
    ASSERT_EQ(other->FindConnectionPoint(IID_TestEvents, &otherPoint), S_OK);
    TestSink sink;
    DWORD cookie = 0;
    ASSERT_EQ(otherPoint->Advise(&sink, &cookie), S_OK);
    otherPoint->Release();
    EXPECT_EQ(other->Release(), 0u);
    EXPECT_EQ(sink.references, 0u);
}

TEST_F(ConnectionPointTest, ContainerFindsAndListsItsPoints)
{
    IConnectionPoint* found = nullptr;
    EXPECT_EQ(source->FindConnectionPoint(__uuidof(IDispatch), &found), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(source->FindConnectionPoint(IID_TestEvents, nullptr), E_POINTER);
    EXPECT_EQ(source->EnumConnectionPoints(nullptr), E_POINTER);

    IEnumConnectionPoints* points = nullptr;
    ASSERT_EQ(source->EnumConnectionPoints(&points), S_OK);
    ULONG fetched = 0;
    ASSERT_EQ(points->Next(1, &found, &fetched), S_OK);
    EXPECT_EQ(found, point);
    found->Release();
    EXPECT_EQ(points->Next(1, &found, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    IConnectionPoint* two[2]{};
    EXPECT_EQ(points->Next(2, two, nullptr), E_POINTER);
    EXPECT_EQ(points->Release(), 0u);
}
