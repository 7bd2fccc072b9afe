#include "Halcyd/WmiAdapterSession.h"

#include <algorithm>

AdapterPathTable::~AdapterPathTable()
{
    for (std::atomic<const Entry*>& slot : entries)
    {
        const std::unique_ptr<const Entry> entry(slot.exchange(nullptr));
    }
}

std::optional<std::wstring> AdapterPathTable::Find(std::wstring_view guid) const
{
    const Entry* entry = Lookup(guid);
    return entry != nullptr ? std::optional<std::wstring>(entry->path) : std::nullopt;
}

AdapterPathTable::AddResult AdapterPathTable::Add(std::wstring_view guid, std::wstring_view path)
{
    if (Lookup(guid) != nullptr)
    {
        return AddResult::Known;
    }
    auto entry = std::make_unique<const Entry>(Entry{std::wstring(guid), std::wstring(path)});
    const std::uint32_t index = count.fetch_add(1);
    if (index >= Capacity)
    {
        return AddResult::Full;
    }
    entries[index].store(entry.release(), std::memory_order_release);
    return AddResult::Added;
}

const AdapterPathTable::Entry* AdapterPathTable::Lookup(std::wstring_view guid) const
{
    const std::uint32_t used = std::min(count.load(), Capacity);
    for (std::uint32_t index = 0; index < used; ++index)
    {
        const Entry* entry = entries[index].load(std::memory_order_acquire);
        if (entry != nullptr && entry->guid == guid)
        {
            return entry;
        }
    }
    return nullptr;
}

AdapterPathTable& GlobalDeviceTable()
{
    static AdapterPathTable table;
    return table;
}
