#pragma once
// Class factories: the plain one makes an object per call, the singleton one hands out one object.

#include "ComSupport/Object.h"

#include <atomic>

class CComClassFactory : public IClassFactory, public CComObjectRootEx<CComMultiThreadModel>
{
public:
    BEGIN_COM_MAP(CComClassFactory)
    COM_INTERFACE_ENTRY(IClassFactory)
    END_COM_MAP()

    // The creator of the class; set once, right after construction.
    void SetVoid(void* creator) noexcept { m_creator = reinterpret_cast<CComCreatorFunction>(creator); }

    // E_POINTER for a null result; with an outer object only IUnknown may be asked for (CLASS_E_NOAGGREGATION).
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        if (outer != nullptr && !::IsEqualIID(iid, __uuidof(IUnknown)))
        {
            return CLASS_E_NOAGGREGATION;
        }
        return m_creator(outer, iid, result);
    }

    STDMETHODIMP LockServer(BOOL lock) noexcept override
    {
        if (lock)
        {
            _pModule->Lock();
        }
        else
        {
            _pModule->Unlock();
        }
        return S_OK;
    }

protected:
    CComCreatorFunction m_creator = nullptr;
};

// One object for all: made by the first successful call and kept until the factory goes. A failed creation is final for
// the life of the factory: the code is kept and later calls get it without a new attempt.
template <class T>
class CComClassFactorySingleton : public CComClassFactory
{
public:
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        if (outer != nullptr)
        {
            return CLASS_E_NOAGGREGATION;
        }
        if (IsUntried())
        {
            const ObjectLock lock(m_critsec);
            if (IsUntried())
            {
                MakeInstance();
            }
        }
        const HRESULT created = m_created.load(std::memory_order_acquire);
        return SUCCEEDED(created) ? m_instance.load(std::memory_order_acquire)->QueryInterface(iid, result) : created;
    }

    // Called by the object that the factory is when it goes: the one instance goes with it.
    void FinalRelease()
    {
        if (IUnknown* const instance = m_instance.exchange(nullptr))
        {
            instance->Release();
        }
    }

private:
    bool IsUntried() const noexcept
    {
        return m_created.load(std::memory_order_acquire) == S_OK &&
               m_instance.load(std::memory_order_acquire) == nullptr;
    }

    void MakeInstance() noexcept
    {
        CComObjectCached<T>* object = nullptr;
        HRESULT created = CComCreator<CComObjectCached<T>>::Make(nullptr, &object);
        if (SUCCEEDED(created))
        {
            IUnknown* instance = nullptr;
            created = object->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&instance));
            if (FAILED(created))
            {
                delete object;
            }
            else
            {
                m_instance.store(instance, std::memory_order_release);
            }
        }
        m_created.store(created, std::memory_order_release);
    }

    std::atomic<HRESULT> m_created{S_OK};       // what the one creation gave
    std::atomic<IUnknown*> m_instance{nullptr}; // the factory's own reference to the instance
};

// Makes a class factory and hands it the creator of its objects, which arrives as the context.
template <class Factory>
class CComFactoryCreator
{
public:
    static HRESULT WINAPI CreateInstance(void* creator, REFIID iid, void** result) noexcept
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        CComObjectNoLock<Factory>* factory = nullptr;
        HRESULT status = CComCreator<CComObjectNoLock<Factory>>::Make(nullptr, &factory);
        if (FAILED(status))
        {
            return status;
        }
        factory->SetVoid(creator);
        status = factory->QueryInterface(iid, result);
        if (FAILED(status))
        {
            delete factory;
        }
        return status;
    }
};

// Which factory a class has. The factories of an executable do not keep it alive: their references are COM's own.
#define DECLARE_CLASSFACTORY_EX(Factory) using _ClassFactoryCreatorClass = CComFactoryCreator<Factory>;
#define DECLARE_CLASSFACTORY() DECLARE_CLASSFACTORY_EX(CComClassFactory)
#define DECLARE_CLASSFACTORY_SINGLETON(Class) DECLARE_CLASSFACTORY_EX(CComClassFactorySingleton<Class>)

// Whether a class can be the inner object of an aggregate.
#define DECLARE_AGGREGATABLE(Class)                                                                                    \
    using _CreatorClass = CComCreator2<CComCreator<CComObject<Class>>, CComCreator<CComAggObject<Class>>>;
#define DECLARE_NOT_AGGREGATABLE(Class)                                                                                \
    using _CreatorClass = CComCreator2<CComCreator<CComObject<Class>>, CComFailCreator<CLASS_E_NOAGGREGATION>>;

// The script of a class.
#define DECLARE_REGISTRY_RESOURCEID(Id)                                                                                \
    static HRESULT WINAPI UpdateRegistry(BOOL registering) noexcept                                                    \
    {                                                                                                                  \
        return _pModule->UpdateRegistryFromResource(Id, registering);                                                  \
    }

// Base of a class that clients can create by its id: with the plain factory and fit for aggregation, unless the class
// says otherwise with the macros above.
template <class T, const CLSID* ClassId>
class CComCoClass
{
public:
    DECLARE_CLASSFACTORY()
    DECLARE_AGGREGATABLE(T)

    static const CLSID& GetObjectCLSID() noexcept { return *ClassId; }
    static const wchar_t* WINAPI GetObjectDescription() noexcept { return nullptr; }
    static const CComCategoryEntry* WINAPI GetCategoryMap() noexcept { return nullptr; }
    static void WINAPI ObjectMain(bool) noexcept {}
};
