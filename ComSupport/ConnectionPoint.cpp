#include "ComSupport/ConnectionPoint.h"

#include <algorithm>
#include <limits>

bool CComDynamicUnkArray::Grow() noexcept
{
    constexpr int firstSlots = 4;
    const int slots = GetSize();
    if (slots > std::numeric_limits<int>::max() / 2)
    {
        return false;
    }
    try
    {
        m_slots.resize(static_cast<std::size_t>(slots == 0 ? firstSlots : slots * 2));
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    return true;
}

DWORD CComDynamicUnkArray::Add(CComUniqueUnknown&& sink) noexcept
{
    const auto slot = static_cast<std::size_t>(std::find(m_slots.begin(), m_slots.end(), nullptr) - m_slots.begin());
    if (slot == m_slots.size() && !Grow())
    {
        return 0;
    }
    m_slots[slot] = std::move(sink);
    return static_cast<DWORD>(slot) + 1;
}

CComUniqueUnknown CComDynamicUnkArray::Remove(DWORD cookie) noexcept
{
    return GetUnknown(cookie) != nullptr ? std::move(m_slots[cookie - 1]) : nullptr;
}

IUnknown* CComDynamicUnkArray::GetUnknown(DWORD cookie) const noexcept
{
    return cookie != 0 && cookie <= m_slots.size() ? m_slots[cookie - 1].get() : nullptr;
}
