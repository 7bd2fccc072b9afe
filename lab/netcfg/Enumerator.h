// An enumerator over a fixed number of objects that are made when they are asked for.
#pragma once

#include "lab/wmi/ComBase.h"

#include <algorithm>
#include <functional>

namespace lab::netcfg
{

template <class Interface, class Item>
class Enumerator : public lab::wmi::ComObject<Interface>
{
public:
    using Make = std::function<Item*(std::size_t)>;

    Enumerator(const char* nextName, const char* resetName, std::size_t count, Make make)
        : m_nextName(nextName), m_resetName(resetName), m_count(count), m_make(std::move(make))
    {
    }

    STDMETHODIMP Next(ULONG wanted, Item** items, ULONG* fetched) override
    {
        Call call{m_nextName};
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        if (items == nullptr || (fetched == nullptr && wanted != 1))
        {
            return call.Result(E_POINTER);
        }
        ULONG given = 0;
        for (; given < wanted && m_position < m_count; ++given)
        {
            items[given] = m_make(m_position++);
        }
        if (fetched != nullptr)
        {
            *fetched = given;
        }
        return call.Out("fetched", given).Result(given == wanted ? S_OK : S_FALSE);
    }
    STDMETHODIMP Skip(ULONG count) override
    {
        const std::size_t left = m_count - m_position;
        m_position += std::min<std::size_t>(count, left);
        return count <= left ? S_OK : S_FALSE;
    }
    STDMETHODIMP Reset() override
    {
        Call call{m_resetName};
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        m_position = 0;
        return call.Result(S_OK);
    }
    STDMETHODIMP Clone(Interface** copy) override
    {
        if (copy == nullptr)
        {
            return E_POINTER;
        }
        auto* const other = new Enumerator{m_nextName, m_resetName, m_count, m_make};
        other->m_position = m_position;
        *copy = other;
        return S_OK;
    }

private:
    const char* m_nextName;
    const char* m_resetName;
    std::size_t m_count;
    std::size_t m_position = 0;
    Make m_make;
};

} // namespace lab::netcfg
