#include "ComSupport/ConnectionPoint.h"

#include <algorithm>
#include <limits>

CComDynamicUnkArray::~CComDynamicUnkArray()
{
    for (int i = 0; i < m_size; ++i)
    {
        if (m_slots[i] != nullptr)
        {
            m_slots[i]->Release();
        }
    }
    delete[] m_slots;
}

DWORD CComDynamicUnkArray::Add(IUnknown* sink) noexcept
{
    IUnknown** const end = m_slots + m_size;
    IUnknown** const free = std::find(m_slots, end, nullptr);
    if (free != end)
    {
        *free = sink;
        return static_cast<DWORD>(free - m_slots) + 1;
    }
    if (m_size > std::numeric_limits<int>::max() / 2)
    {
        return 0;
    }
    const int size = m_size == 0 ? kFirstSlots : m_size * 2;
    IUnknown** const slots = new (std::nothrow) IUnknown*[static_cast<std::size_t>(size)]();
    if (slots == nullptr)
    {
        return 0;
    }
    std::copy(m_slots, end, slots);
    delete[] m_slots;
    const int slot = m_size;
    m_slots = slots;
    m_size = size;
    m_slots[slot] = sink;
    return static_cast<DWORD>(slot) + 1;
}

BOOL CComDynamicUnkArray::Remove(DWORD cookie) noexcept
{
    if (GetUnknown(cookie) == nullptr)
    {
        return FALSE;
    }
    m_slots[cookie - 1] = nullptr;
    return TRUE;
}

IUnknown* CComDynamicUnkArray::GetUnknown(DWORD cookie) const noexcept
{
    if (cookie == 0 || cookie > static_cast<DWORD>(m_size))
    {
        return nullptr;
    }
    return m_slots[cookie - 1];
}
