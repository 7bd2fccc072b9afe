#include "TestObjects.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{
class ObjectTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CPlainObject::lives.Reset();
        CSharedObject::lives.Reset();
    }

    template <class T>
    T* Create(REFIID iid = __uuidof(T), void* outer = nullptr)
    {
        void* result = nullptr;
        lastResult = CPlainObject::_CreatorClass::CreateInstance(outer, iid, &result);
        return static_cast<T*>(result);
    }

    TestModule module;
    HRESULT lastResult = S_OK;
};

// An outer object that offers nothing of its own but the inner object's interfaces.
class OuterObject final : public IUnknown
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** result) override
    {
        if (IsEqualIID(iid, __uuidof(IUnknown)))
        {
            *result = this;
            AddRef();
            return S_OK;
        }
        return inner->QueryInterface(iid, result);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
    STDMETHODIMP_(ULONG) Release() override { return --references; }

    IUnknown* inner = nullptr;
    ULONG references = 1;
};
} // namespace

TEST_F(ObjectTest, EveryInterfaceLeadsToTheSameIdentity)
{
    IPersist* const persist = Create<IPersist>();
    ASSERT_NE(persist, nullptr);
    IServiceProvider* provider = nullptr;
    ASSERT_EQ(persist->QueryInterface(__uuidof(IServiceProvider), reinterpret_cast<void**>(&provider)), S_OK);
    IUnknown* fromPersist = nullptr;
    IUnknown* fromProvider = nullptr;
    ASSERT_EQ(persist->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&fromPersist)), S_OK);
    ASSERT_EQ(provider->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&fromProvider)), S_OK);
    EXPECT_EQ(fromPersist, fromProvider);

    EXPECT_EQ(fromPersist->Release(), 3u);
    EXPECT_EQ(fromProvider->Release(), 2u);
    EXPECT_EQ(provider->Release(), 1u);
    EXPECT_EQ(persist->Release(), 0u);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
}

TEST_F(ObjectTest, UnknownInterfaceGivesNoInterfaceAndNullsTheResult)
{
    IPersist* const persist = Create<IPersist>();
    void* result = this;
    EXPECT_EQ(persist->QueryInterface(IID_TestEvents, &result), E_NOINTERFACE);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(persist->Release(), 0u);
}

TEST_F(ObjectTest, QueryWithNullResultGivesPointerError)
{
    IPersist* const persist = Create<IPersist>();
    EXPECT_EQ(persist->QueryInterface(__uuidof(IPersist), nullptr), E_POINTER);
    EXPECT_EQ(persist->Release(), 0u);
}

TEST_F(ObjectTest, ObjectKeepsTheModuleAliveForItsLife)
{
    EXPECT_EQ(module.GetLockCount(), 0);
    IPersist* const first = Create<IPersist>();
    IPersist* const second = Create<IPersist>();
    EXPECT_NE(first, second);
    EXPECT_EQ(module.GetLockCount(), 2);
    first->Release();
    EXPECT_EQ(module.GetLockCount(), 1);
    second->Release();
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(ObjectTest, HandingOneselfOutInFinalConstructDoesNotEndTheObject)
{
    IPersist* const persist = Create<IPersist>(); // its FinalConstruct does just that
    ASSERT_NE(persist, nullptr);
    EXPECT_EQ(CPlainObject::lives.Alive(), 1);
    EXPECT_EQ(persist->Release(), 0u);
    EXPECT_EQ(CPlainObject::lives.finalReleased, 1);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
}

TEST_F(ObjectTest, FailedFinalConstructLeavesNothingBehind)
{
    CPlainObject::lives.finalConstructResult = E_ACCESSDENIED;
    EXPECT_EQ(Create<IPersist>(), nullptr);
    EXPECT_EQ(lastResult, E_ACCESSDENIED);
    EXPECT_EQ(CPlainObject::lives.constructed, 1);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(ObjectTest, ExceptionOfAConstructionIsAFailedCreation)
{
    CPlainObject::lives.constructorRaises = true;
    EXPECT_EQ(Create<IPersist>(), nullptr);
    EXPECT_EQ(lastResult, E_FAIL);
    CPlainObject::lives.constructorRaises = false;
    CPlainObject::lives.finalConstructRaises = true;
    EXPECT_EQ(Create<IPersist>(), nullptr);
    EXPECT_EQ(lastResult, E_FAIL);
    EXPECT_EQ(CPlainObject::lives.constructed, 1);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(ObjectTest, CreationForAnInterfaceThatIsNotThereLeavesNothingBehind)
{
    EXPECT_EQ(Create<IUnknown>(IID_TestEvents), nullptr);
    EXPECT_EQ(lastResult, E_NOINTERFACE);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(ObjectTest, AggregatedObjectShowsTheOuterIdentityAndIsHeldByItsOwnUnknown)
{
    OuterObject outer;
    IUnknown* const inner = Create<IUnknown>(__uuidof(IUnknown), static_cast<IUnknown*>(&outer));
    ASSERT_NE(inner, nullptr);
    outer.inner = inner;
    EXPECT_EQ(module.GetLockCount(), 1);

    IPersist* persist = nullptr;
    ASSERT_EQ(outer.QueryInterface(__uuidof(IPersist), reinterpret_cast<void**>(&persist)), S_OK);
    EXPECT_EQ(outer.references, 2u); // the interface counts on the outer object
    IUnknown* identity = nullptr;
    ASSERT_EQ(persist->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&identity)), S_OK);
    EXPECT_EQ(identity, static_cast<IUnknown*>(&outer));
    EXPECT_NE(inner, static_cast<IUnknown*>(&outer));
    identity->Release();
    persist->Release();
    EXPECT_EQ(outer.references, 1u);

    EXPECT_EQ(inner->Release(), 0u);
    EXPECT_EQ(CPlainObject::lives.finalReleased, 1);
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(ObjectTest, MultithreadedModelCountsExactlyUnderManyThreads)
{
    void* made = nullptr;
    ASSERT_EQ(CSharedObject::_CreatorClass::CreateInstance(nullptr, __uuidof(IPersist), &made), S_OK);
    IPersist* const persist = static_cast<IPersist*>(made);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
        {
            threads.emplace_back(
                [persist]
                {
                    for (int n = 0; n < 50'000; ++n)
                    {
                        persist->AddRef();
                        persist->Release();
                    }
                });
        }
    }
    EXPECT_EQ(persist->Release(), 0u);
    EXPECT_EQ(CSharedObject::lives.Alive(), 0);
}

TEST(ThreadModel, SingleThreadedModelHasNoLockAndPlainCount)
{
    static_assert(std::is_same_v<CComSingleThreadModel::AutoCriticalSection, CComFakeCriticalSection>);
    LONG count = 1;
    EXPECT_EQ(CComSingleThreadModel::Increment(&count), 2u);
    EXPECT_EQ(CComSingleThreadModel::Decrement(&count), 1u);
}
