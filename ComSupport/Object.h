#pragma once
// The most derived classes of COM objects: what an object's life does to the module, and how objects are made.

#include "ComSupport/Module.h"
#include "ComSupport/ObjectRoot.h"

#include <new>

// Large enough that what FinalRelease hands out and takes back cannot bring the count to zero again.
inline constexpr LONG kDyingReferences = 0x40000000;

// A free-standing object. It keeps the module alive for as long as it lives.
template <class Base>
class CComObject final : public Base
{
public:
    explicit CComObject(void* = nullptr) { _pModule->Lock(); }
    ~CComObject()
    {
        this->m_references = kDyingReferences;
        this->FinalRelease();
        _pModule->Unlock();
    }

    STDMETHODIMP_(ULONG) AddRef() noexcept override { return this->InternalAddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override
    {
        const ULONG left = this->InternalRelease();
        if (left == 0)
        {
            delete this;
        }
        return left;
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
    {
        return this->InternalQueryInterface(iid, result);
    }
};

// An object that somebody in the module keeps at hand. The keeper's reference, the first one, does not keep the module
// alive; the second reference locks the module and its release unlocks it.
template <class Base>
class CComObjectCached final : public Base
{
public:
    explicit CComObjectCached(void* = nullptr) {}
    ~CComObjectCached()
    {
        this->m_references = kDyingReferences;
        this->FinalRelease();
    }

    STDMETHODIMP_(ULONG) AddRef() noexcept override
    {
        const ULONG now = this->InternalAddRef();
        if (now == 2)
        {
            _pModule->Lock();
        }
        return now;
    }
    STDMETHODIMP_(ULONG) Release() noexcept override
    {
        const ULONG left = this->InternalRelease();
        if (left == 0)
        {
            delete this;
        }
        else if (left == 1)
        {
            _pModule->Unlock();
        }
        return left;
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
    {
        return this->InternalQueryInterface(iid, result);
    }
};

// An object that has no say in the life of the module: class factories of an executable.
template <class Base>
class CComObjectNoLock final : public Base
{
public:
    explicit CComObjectNoLock(void* = nullptr) {}
    ~CComObjectNoLock()
    {
        this->m_references = kDyingReferences;
        this->FinalRelease();
    }

    STDMETHODIMP_(ULONG) AddRef() noexcept override { return this->InternalAddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override
    {
        const ULONG left = this->InternalRelease();
        if (left == 0)
        {
            delete this;
        }
        return left;
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
    {
        return this->InternalQueryInterface(iid, result);
    }
};

// The part of an aggregated object that clients see through the outer object: all three operations go there.
template <class Base>
class CComContainedObject final : public Base
{
public:
    explicit CComContainedObject(void* outer) { this->m_outer = static_cast<IUnknown*>(outer); }

    STDMETHODIMP_(ULONG) AddRef() noexcept override { return this->OuterAddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return this->OuterRelease(); }
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
    {
        return this->OuterQueryInterface(iid, result);
    }
};

// The inner object of an aggregate: its own IUnknown, held by the outer object alone, around the contained part.
template <class Contained>
class CComAggObject final : public IUnknown, public CComObjectRootEx<typename Contained::_ThreadModel>
{
public:
    explicit CComAggObject(void* outer) : m_contained(outer) { _pModule->Lock(); }
    ~CComAggObject()
    {
        this->m_references = kDyingReferences;
        m_contained.FinalRelease();
        _pModule->Unlock();
    }

    HRESULT FinalConstruct() { return m_contained.FinalConstruct(); }

    STDMETHODIMP_(ULONG) AddRef() noexcept override { return this->InternalAddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override
    {
        const ULONG left = this->InternalRelease();
        if (left == 0)
        {
            delete this;
        }
        return left;
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        if (::IsEqualIID(iid, __uuidof(IUnknown)))
        {
            *result = static_cast<IUnknown*>(this);
            this->InternalAddRef();
            return S_OK;
        }
        return m_contained.InternalQueryInterface(iid, result);
    }

private:
    CComContainedObject<Contained> m_contained;
};

// Makes an object of class T and asks it for an interface. Nothing stays behind when a step fails.
// E_OUTOFMEMORY for want of memory, FinalConstruct's code, E_FAIL for any other exception, or the code of the query.
template <class T>
class CComCreator
{
public:
    static HRESULT WINAPI CreateInstance(void* outer, REFIID iid, void** result) noexcept
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        T* object = nullptr;
        HRESULT status = Make(outer, &object);
        if (SUCCEEDED(status))
        {
            status = object->QueryInterface(iid, result);
            if (FAILED(status))
            {
                delete object;
            }
        }
        return status;
    }

    // Makes the object with no reference counted yet.
    static HRESULT Make(void* outer, T** result) noexcept
    {
        *result = nullptr;
        T* object = nullptr;
        HRESULT status = S_OK;
        try
        {
            object = new T(outer);
            object->InternalFinalConstructAddRef();
            status = object->FinalConstruct();
            object->InternalFinalConstructRelease();
        }
        catch (const std::bad_alloc&)
        {
            status = E_OUTOFMEMORY;
        }
        catch (...)
        {
            status = E_FAIL; // such as a thread that an object wants from the start and that cannot be had
        }
        if (FAILED(status))
        {
            delete object;
            return status;
        }
        *result = object;
        return S_OK;
    }
};

// Makes a free-standing object or an aggregated one, as the caller asks.
template <class Plain, class Aggregated>
class CComCreator2
{
public:
    static HRESULT WINAPI CreateInstance(void* outer, REFIID iid, void** result) noexcept
    {
        return outer == nullptr ? Plain::CreateInstance(nullptr, iid, result)
                                : Aggregated::CreateInstance(outer, iid, result);
    }
};

// Refuses with a fixed code.
template <HRESULT Code>
class CComFailCreator
{
public:
    static HRESULT WINAPI CreateInstance(void*, REFIID, void** result) noexcept
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        return Code;
    }
};
