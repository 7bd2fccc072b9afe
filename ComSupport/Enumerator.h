#pragma once
// Enumerators of COM over a list that is fixed when the enumerator is made.

#include "ComSupport/Object.h"

#include <new>
#include <ocidl.h>
#include <utility>
#include <vector>

// How one kind of item is copied out and given back.
struct CComCopyConnectionPoint
{
    using Item = IConnectionPoint*;
    static void Copy(Item& to, const Item& from) noexcept
    {
        to = from;
        to->AddRef();
    }
    static void Destroy(Item& item) noexcept { item->Release(); }
};
struct CComCopyConnectData
{
    using Item = CONNECTDATA;
    static void Copy(Item& to, const Item& from) noexcept
    {
        to = from;
        to.pUnk->AddRef();
    }
    static void Destroy(Item& item) noexcept { item.pUnk->Release(); }
};

template <class Interface, class Policy>
class CComEnum : public Interface, public CComObjectRootEx<CComMultiThreadModel>
{
public:
    using Item = typename Policy::Item;

    BEGIN_COM_MAP(CComEnum)
    COM_INTERFACE_ENTRY(Interface)
    END_COM_MAP()

    ~CComEnum()
    {
        for (Item& item : m_items)
        {
            Policy::Destroy(item);
        }
    }

    // Takes over the items with their references.
    void Adopt(std::vector<Item>&& items) noexcept { m_items = std::move(items); }

    STDMETHODIMP Next(ULONG count, Item* items, ULONG* fetched) noexcept override
    {
        if (items == nullptr || (count != 1 && fetched == nullptr))
        {
            return E_POINTER;
        }
        const ObjectLock lock(m_critsec);
        ULONG given = 0;
        while (given < count && m_next < m_items.size())
        {
            Policy::Copy(items[given++], m_items[m_next++]);
        }
        if (fetched != nullptr)
        {
            *fetched = given;
        }
        return given == count ? S_OK : S_FALSE;
    }

    STDMETHODIMP Skip(ULONG count) noexcept override
    {
        const ObjectLock lock(m_critsec);
        const std::size_t left = m_items.size() - m_next;
        m_next += count < left ? count : left;
        return count <= left ? S_OK : S_FALSE;
    }

    STDMETHODIMP Reset() noexcept override
    {
        const ObjectLock lock(m_critsec);
        m_next = 0;
        return S_OK;
    }

    STDMETHODIMP Clone(Interface** result) noexcept override
    {
        if (result == nullptr)
        {
            return E_POINTER;
        }
        const ObjectLock lock(m_critsec);
        return Make(m_items, m_next, result);
    }

    // Makes an enumerator over copies of the items. E_OUTOFMEMORY for want of memory.
    static HRESULT Make(const std::vector<Item>& items, std::size_t next, Interface** result) noexcept
    {
        *result = nullptr;
        CComObject<CComEnum>* object = nullptr;
        const HRESULT status = CComCreator<CComObject<CComEnum>>::Make(nullptr, &object);
        if (FAILED(status))
        {
            return status;
        }
        try
        {
            object->m_items.resize(items.size());
        }
        catch (const std::bad_alloc&)
        {
            delete object;
            return E_OUTOFMEMORY;
        }
        for (std::size_t i = 0; i < items.size(); ++i)
        {
            Policy::Copy(object->m_items[i], items[i]);
        }
        object->m_next = next;
        object->AddRef();
        *result = object;
        return S_OK;
    }

private:
    std::vector<Item> m_items;
    std::size_t m_next = 0;
};

using CComEnumConnectionPoints = CComEnum<IEnumConnectionPoints, CComCopyConnectionPoint>;
using CComEnumConnections = CComEnum<IEnumConnections, CComCopyConnectData>;
