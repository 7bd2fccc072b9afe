#include "TestObjects.h"

#include <gtest/gtest.h>

#include <barrier>
#include <thread>
#include <vector>

namespace
{
template <class Factory>
IClassFactory* MakeFactory(CComCreatorFunction creator)
{
    void* factory = nullptr;
    EXPECT_EQ(CComFactoryCreator<Factory>::CreateInstance(reinterpret_cast<void*>(creator), __uuidof(IClassFactory),
                                                          &factory),
              S_OK);
    return static_cast<IClassFactory*>(factory);
}

class PlainFactory : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CPlainObject::lives.Reset();
        factory = MakeFactory<CComClassFactory>(CPlainObject::_CreatorClass::CreateInstance);
    }
    void TearDown() override { EXPECT_EQ(factory->Release(), 0u); }

    TestModule module;
    IClassFactory* factory = nullptr;
};

class SingletonFactory : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CSharedObject::lives.Reset();
        factory = MakeFactory<CComClassFactorySingleton<CSharedObject>>(CSharedObject::_CreatorClass::CreateInstance);
    }
    void TearDown() override
    {
        if (factory != nullptr)
        {
            factory->Release();
        }
        EXPECT_EQ(CSharedObject::lives.Alive(), 0);
    }

    IPersist* Create(HRESULT expected = S_OK)
    {
        void* object = nullptr;
        EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IPersist), &object), expected);
        return static_cast<IPersist*>(object);
    }

    TestModule module;
    IClassFactory* factory = nullptr;
};
} // namespace

TEST_F(PlainFactory, MakesANewObjectPerCall)
{
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(IPersist), &first), S_OK);
    ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(IPersist), &second), S_OK);
    EXPECT_NE(first, second);
    EXPECT_EQ(CPlainObject::lives.constructed, 2);
    static_cast<IPersist*>(first)->Release();
    static_cast<IPersist*>(second)->Release();
    EXPECT_EQ(CPlainObject::lives.Alive(), 0);
}

TEST_F(PlainFactory, NullResultGivesPointerError)
{
    EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IPersist), nullptr), E_POINTER);
    EXPECT_EQ(CPlainObject::lives.constructed, 0);
}

TEST_F(PlainFactory, AggregationHasToAskForUnknown)
{
    void* object = this;
    IUnknown* const outer = factory;
    EXPECT_EQ(factory->CreateInstance(outer, __uuidof(IPersist), &object), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(object, nullptr);
    ASSERT_EQ(factory->CreateInstance(outer, __uuidof(IUnknown), &object), S_OK);
    EXPECT_EQ(static_cast<IUnknown*>(object)->Release(), 0u);
}

TEST_F(PlainFactory, ReferencesOnTheFactoryDoNotKeepTheModuleAliveButLockServerDoes)
{
    factory->AddRef();
    EXPECT_EQ(module.GetLockCount(), 0);
    factory->Release();
    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    EXPECT_EQ(module.GetLockCount(), 1);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(SingletonFactory, HandsOutOneObjectToAll)
{
    IPersist* const first = Create();
    IPersist* const second = Create();
    EXPECT_EQ(first, second);
    EXPECT_EQ(CSharedObject::lives.constructed, 1);
    second->Release();
    first->Release();
    EXPECT_EQ(CSharedObject::lives.Alive(), 1); // the factory keeps it
}

TEST_F(SingletonFactory, ObjectLocksTheModuleOnlyWhileAClientHoldsIt)
{
    IPersist* const first = Create();
    EXPECT_EQ(module.GetLockCount(), 1);
    IPersist* const second = Create();
    EXPECT_EQ(module.GetLockCount(), 1);
    second->Release();
    EXPECT_EQ(module.GetLockCount(), 1);
    first->Release();
    EXPECT_EQ(module.GetLockCount(), 0);
    Create()->Release();
    EXPECT_EQ(module.GetLockCount(), 0);
}

TEST_F(SingletonFactory, ObjectGoesWithTheFactory)
{
    Create()->Release();
    EXPECT_EQ(factory->Release(), 0u);
    factory = nullptr;
    EXPECT_EQ(CSharedObject::lives.finalReleased, 1);
    EXPECT_EQ(CSharedObject::lives.Alive(), 0);
}

TEST_F(SingletonFactory, RefusesAggregation)
{
    void* object = this;
    EXPECT_EQ(factory->CreateInstance(factory, __uuidof(IUnknown), &object), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(CSharedObject::lives.constructed, 0);
}

TEST_F(SingletonFactory, NullResultGivesPointerErrorAndMakesNothing)
{
    EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IPersist), nullptr), E_POINTER);
    EXPECT_EQ(CSharedObject::lives.constructed, 0);
}

TEST_F(SingletonFactory, FailedCreationIsFinal)
{
    CSharedObject::lives.finalConstructResult = E_ACCESSDENIED;
    EXPECT_EQ(Create(E_ACCESSDENIED), nullptr);
    CSharedObject::lives.finalConstructResult = S_OK;
    EXPECT_EQ(Create(E_ACCESSDENIED), nullptr); // no second attempt
    EXPECT_EQ(CSharedObject::lives.constructed, 1);
    EXPECT_EQ(CSharedObject::lives.Alive(), 0);
}

TEST_F(SingletonFactory, UnknownInterfaceDoesNotSpoilTheObject)
{
    void* object = this;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_TestEvents, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    Create()->Release();
    EXPECT_EQ(CSharedObject::lives.constructed, 1);
}

TEST_F(SingletonFactory, ConcurrentFirstCallsConstructOnce)
{
    constexpr int threadCount = 8;
    std::vector<IPersist*> objects(threadCount);
    {
        std::barrier start(threadCount);
        std::vector<std::jthread> threads;
        for (int i = 0; i < threadCount; ++i)
        {
            threads.emplace_back(
                [&, i]
                {
                    start.arrive_and_wait();
                    factory->CreateInstance(nullptr, __uuidof(IPersist),
                                            reinterpret_cast<void**>(&objects[static_cast<std::size_t>(i)]));
                });
        }
    }
    EXPECT_EQ(CSharedObject::lives.constructed, 1);
    for (IPersist* const object : objects)
    {
        ASSERT_EQ(object, objects.front());
    }
    for (IPersist* const object : objects)
    {
        object->Release();
    }
    EXPECT_EQ(module.GetLockCount(), 0);
}
