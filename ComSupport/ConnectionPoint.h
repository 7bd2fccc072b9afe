#pragma once
// Connection points: how an object calls back into its clients.
//
// A class derives from IConnectionPointContainerImpl<T> and from IConnectionPointImpl<T, &iid, List> for each of its
// outgoing interfaces, and names them in a connection point map. The list of sinks is a class of its own, so that an
// object that fires from threads other than its client's can keep them in a form that can travel. List offers, called
// with the object's critical section held:
//     DWORD Add(CComUniqueUnknown&& sink)
//         Takes the reference over and gives the cookie. 0 when there is no room: `sink` then still holds it.
//     CComUniqueUnknown Remove(DWORD cookie)
//         Hands the reference back; null when the cookie names nothing.
//     IUnknown* GetUnknown(DWORD cookie)
//         Without a reference of its own; null when the cookie names nothing.
//     int GetSize()
//         Number of slots, free ones included; cookies run from 1 to it.

#include "ComSupport/Enumerator.h"

#include <memory>
#include <olectl.h>

// One reference, released with its owner.
struct CComReleaseUnknown
{
    void operator()(IUnknown* object) const noexcept { object->Release(); }
};
using CComUniqueUnknown = std::unique_ptr<IUnknown, CComReleaseUnknown>;

// A plain list of sinks: slots that are used again, cookies that count from 1.
class CComDynamicUnkArray
{
public:
    // Puts the sink in the first free slot; 4 slots at first, twice as many when they are full.
    DWORD Add(CComUniqueUnknown&& sink) noexcept;
    // Null if the cookie is 0, beyond the slots, or names a free one.
    [[nodiscard]] CComUniqueUnknown Remove(DWORD cookie) noexcept;
    [[nodiscard]] IUnknown* GetUnknown(DWORD cookie) const noexcept;
    [[nodiscard]] int GetSize() const noexcept { return static_cast<int>(m_slots.size()); }

private:
    [[nodiscard]] bool Grow() noexcept;

    std::vector<CComUniqueUnknown> m_slots; // null when free
};

// One row of a connection point map: the point's interface, and how to get the point from the object (no reference).
struct CComConnectionPointEntry
{
    const IID* iid;
    IConnectionPoint* (*fromObject)(void* object);
};

#define BEGIN_CONNECTION_POINT_MAP(Class)                                                                              \
    using _ConnectionPointMapClass = Class;                                                                            \
    static const CComConnectionPointEntry* GetConnectionPointMap() noexcept                                            \
    {                                                                                                                  \
        static const CComConnectionPointEntry entries[] = {
// Point: the base of the class that implements it.
#define CONNECTION_POINT_ENTRY(Iid, Point)                                                                             \
    {&Iid, [](void* object) -> IConnectionPoint*                                                                       \
     { return static_cast<Point*>(static_cast<_ConnectionPointMapClass*>(object))->GetConnectionPoint(); }},
#define END_CONNECTION_POINT_MAP()                                                                                     \
    {                                                                                                                  \
        nullptr, nullptr                                                                                               \
    }                                                                                                                  \
    }                                                                                                                  \
    ;                                                                                                                  \
    return entries;                                                                                                    \
    }

template <class T>
class IConnectionPointContainerImpl : public IConnectionPointContainer
{
public:
    STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        try
        {
            std::vector<IConnectionPoint*> points;
            for (const CComConnectionPointEntry* entry = T::GetConnectionPointMap(); entry->iid != nullptr; ++entry)
            {
                points.push_back(entry->fromObject(static_cast<T*>(this)));
            }
            return CComEnumConnectionPoints::Make(points, 0, result);
        }
        catch (const std::bad_alloc&)
        {
            return E_OUTOFMEMORY;
        }
    }

    STDMETHODIMP FindConnectionPoint(REFIID iid, IConnectionPoint** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        for (const CComConnectionPointEntry* entry = T::GetConnectionPointMap(); entry->iid != nullptr; ++entry)
        {
            if (::IsEqualIID(iid, *entry->iid))
            {
                *result = entry->fromObject(static_cast<T*>(this));
                (*result)->AddRef();
                return S_OK;
            }
        }
        return CONNECT_E_NOCONNECTION;
    }
};

// One connection point of the class T, which offers m_critsec and GetUnknown.
template <class T, const IID* OutgoingInterface, class List = CComDynamicUnkArray>
class IConnectionPointImpl
{
public:
    // No reference is counted.
    IConnectionPoint* GetConnectionPoint() noexcept { return &m_point; }

protected:
    IConnectionPointImpl() noexcept : m_point(*this) {}
    ~IConnectionPointImpl() = default;
    IConnectionPointImpl(const IConnectionPointImpl&) = delete;
    IConnectionPointImpl& operator=(const IConnectionPointImpl&) = delete;

    // Sinks, guarded by the object's critical section.
    List m_vec;

private:
    // A connection point is an object with an identity of its own that lives within its owner: it shares the owner's
    // count, and its interfaces lead to nobody else.
    class Point final : public IConnectionPoint
    {
    public:
        explicit Point(IConnectionPointImpl& owner) noexcept : m_owner(owner) {}

        STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
        {
            if (result == nullptr)
            {
                return E_POINTER;
            }
            *result = nullptr;
            if (!::IsEqualIID(iid, __uuidof(IUnknown)) && !::IsEqualIID(iid, __uuidof(IConnectionPoint)))
            {
                return E_NOINTERFACE;
            }
            AddRef();
            *result = static_cast<IConnectionPoint*>(this);
            return S_OK;
        }
        STDMETHODIMP_(ULONG) AddRef() noexcept override { return Object().GetUnknown()->AddRef(); }
        STDMETHODIMP_(ULONG) Release() noexcept override { return Object().GetUnknown()->Release(); }

        STDMETHODIMP GetConnectionInterface(IID* iid) noexcept override
        {
            if (iid == nullptr)
            {
                return E_POINTER;
            }
            *iid = *OutgoingInterface;
            return S_OK;
        }
        STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer** result) noexcept override
        {
            return Object().GetUnknown()->QueryInterface(__uuidof(IConnectionPointContainer),
                                                         reinterpret_cast<void**>(result));
        }
        STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) noexcept override { return m_owner.Advise(sink, cookie); }
        STDMETHODIMP Unadvise(DWORD cookie) noexcept override { return m_owner.Unadvise(cookie); }
        STDMETHODIMP EnumConnections(IEnumConnections** result) noexcept override
        {
            return m_owner.EnumConnections(result);
        }

    private:
        T& Object() noexcept { return static_cast<T&>(m_owner); }
        IConnectionPointImpl& m_owner;
    };

    HRESULT Advise(IUnknown* sink, DWORD* cookie) noexcept
    {
        if (cookie != nullptr)
        {
            *cookie = 0;
        }
        if (sink == nullptr || cookie == nullptr)
        {
            return E_POINTER;
        }
        IUnknown* outgoing = nullptr;
        const HRESULT asked = sink->QueryInterface(*OutgoingInterface, reinterpret_cast<void**>(&outgoing));
        if (FAILED(asked))
        {
            return asked == E_NOINTERFACE ? CONNECT_E_CANNOTCONNECT : asked;
        }
        CComUniqueUnknown owned(outgoing); // released outside the lock if there is no room
        {
            const CComCritSecLock lock(static_cast<T*>(this)->m_critsec);
            *cookie = m_vec.Add(std::move(owned));
        }
        return *cookie == 0 ? CONNECT_E_ADVISELIMIT : S_OK;
    }

    HRESULT Unadvise(DWORD cookie) noexcept
    {
        CComUniqueUnknown sink; // released outside the lock: the last release runs the client's code
        {
            const CComCritSecLock lock(static_cast<T*>(this)->m_critsec);
            sink = m_vec.Remove(cookie);
        }
        return sink != nullptr ? S_OK : CONNECT_E_NOCONNECTION;
    }

    HRESULT EnumConnections(IEnumConnections** result) noexcept
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        *result = nullptr;
        try
        {
            const CComCritSecLock lock(static_cast<T*>(this)->m_critsec);
            std::vector<CONNECTDATA> connections;
            for (int slot = 1; slot <= m_vec.GetSize(); ++slot)
            {
                const DWORD cookie = static_cast<DWORD>(slot);
                if (IUnknown* const sink = m_vec.GetUnknown(cookie))
                {
                    connections.push_back({sink, cookie});
                }
            }
            return CComEnumConnections::Make(connections, 0, result);
        }
        catch (const std::bad_alloc&)
        {
            return E_OUTOFMEMORY;
        }
    }

    Point m_point;
};
