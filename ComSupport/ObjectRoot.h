#pragma once
// Base of every COM object: reference count, lock, interface map, controlling object of an aggregate.

#include "ComSupport/Threading.h"

#include <objbase.h>

// Marks a class that is only ever a base of one of the object classes in Object.h.
#define ATL_NO_VTABLE

// One row of an interface map: the identifier, and how to get that interface from the object.
struct CComInterfaceEntry
{
    const IID* iid;
    IUnknown* (*fromObject)(void* object);
};

// Looks the identifier up in the map. The first row stands for IUnknown, which makes the object's identity.
// E_POINTER for a null result pointer, E_NOINTERFACE (result nulled) for a row that is not there; the result is
// referenced.
[[nodiscard]] HRESULT ComInternalQueryInterface(void* object, const CComInterfaceEntry* entries, REFIID iid,
                                                void** result) noexcept;

// Fields that do not depend on the object model. The count and the controlling object are told apart: a contained
// object of an aggregate forwards to the latter.
class CComObjectRootBase
{
public:
    HRESULT FinalConstruct() { return S_OK; }
    void FinalRelease() {}

    // A reference of the creator's own while FinalConstruct runs: what FinalConstruct hands out and takes back again
    // cannot bring the count to zero.
    void InternalFinalConstructAddRef() noexcept { ++m_references; }
    void InternalFinalConstructRelease() noexcept { --m_references; }

protected:
    CComObjectRootBase() = default;
    ~CComObjectRootBase() = default;
    CComObjectRootBase(const CComObjectRootBase&) = delete;
    CComObjectRootBase& operator=(const CComObjectRootBase&) = delete;

    LONG m_references = 0;
    IUnknown* m_outer = nullptr; // not referenced: the outer object owns the inner one
};

template <class ThreadModel>
class CComObjectRootEx : public CComObjectRootBase
{
public:
    using _ThreadModel = ThreadModel;
    using _CritSec = typename ThreadModel::AutoCriticalSection;
    using ObjectLock = CComCritSecLock<_CritSec>;

    ULONG InternalAddRef() noexcept { return ThreadModel::Increment(&m_references); }
    ULONG InternalRelease() noexcept { return ThreadModel::Decrement(&m_references); }

    ULONG OuterAddRef() noexcept { return m_outer->AddRef(); }
    ULONG OuterRelease() noexcept { return m_outer->Release(); }
    HRESULT OuterQueryInterface(REFIID iid, void** result) noexcept { return m_outer->QueryInterface(iid, result); }

    // The object's critical section. A derived class locks it with ObjectLock.
    _CritSec m_critsec;
};

// The interface map of a class. The first row names the interface that gives the object its identity.
#define BEGIN_COM_MAP(Class)                                                                                           \
public:                                                                                                                \
    using _ComMapClass = Class;                                                                                        \
    IUnknown* GetUnknown() noexcept                                                                                    \
    {                                                                                                                  \
        return GetInterfaceMap()->fromObject(static_cast<void*>(this));                                                \
    }                                                                                                                  \
    HRESULT InternalQueryInterface(REFIID iid, void** result) noexcept                                                 \
    {                                                                                                                  \
        return ComInternalQueryInterface(static_cast<void*>(this), GetInterfaceMap(), iid, result);                    \
    }                                                                                                                  \
    static const CComInterfaceEntry* GetInterfaceMap() noexcept                                                        \
    {                                                                                                                  \
        static const CComInterfaceEntry entries[] = {

#define COM_INTERFACE_ENTRY(Interface)                                                                                 \
    {&__uuidof(Interface),                                                                                             \
     [](void* object) -> IUnknown* { return static_cast<Interface*>(static_cast<_ComMapClass*>(object)); }},

// An interface that several bases offer, taken from the branch named.
#define COM_INTERFACE_ENTRY2(Interface, Branch)                                                                        \
    {&__uuidof(Interface), [](void* object) -> IUnknown*                                                               \
     { return static_cast<Interface*>(static_cast<Branch*>(static_cast<_ComMapClass*>(object))); }},

// An interface under an identifier of its own (dispatch interfaces of events).
#define COM_INTERFACE_ENTRY_IID(Iid, Interface)                                                                        \
    {&Iid, [](void* object) -> IUnknown* { return static_cast<Interface*>(static_cast<_ComMapClass*>(object)); }},

#define END_COM_MAP()                                                                                                  \
    {                                                                                                                  \
        nullptr, nullptr                                                                                               \
    }                                                                                                                  \
    }                                                                                                                  \
    ;                                                                                                                  \
    return entries;                                                                                                    \
    }
