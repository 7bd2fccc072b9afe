#pragma once
// What all CDNS objects of the process share: the table that remembers which WMI instance an adapter is.

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// From adapter GUIDs to WMI instance paths. Entries are added, never changed or removed, and live as long as the
// table. A path that goes stale, because the adapter was installed anew and got another number, stays: the table is
// a cache for the life of the process, and clients count on a restart of the service to empty it.
//
// Any thread may call any function at any time, without a lock: a reader sees an entry whole or not at all. Two
// threads that add one GUID at the same moment may both get an entry; the older one answers then.
class AdapterPathTable
{
public:
    static constexpr std::uint32_t Capacity = 49;

    enum class AddResult
    {
        Added,
        Known, // the GUID has an entry; nothing was done
        Full,  // counted, not stored
    };

    AdapterPathTable() noexcept = default;
    ~AdapterPathTable();
    AdapterPathTable(const AdapterPathTable&) = delete;
    AdapterPathTable& operator=(const AdapterPathTable&) = delete;

    // The path of `guid`, compared exactly.
    [[nodiscard]] std::optional<std::wstring> Find(std::wstring_view guid) const;

    // Adds a pair. The count goes on rising beyond the capacity, with nothing stored.
    AddResult Add(std::wstring_view guid, std::wstring_view path);

    // Pairs that were to be added, also those that found no room.
    [[nodiscard]] std::uint32_t Count() const noexcept { return count.load(); }

private:
    struct Entry
    {
        std::wstring guid;
        std::wstring path;
    };
    [[nodiscard]] const Entry* Lookup(std::wstring_view guid) const;

    std::array<std::atomic<const Entry*>, Capacity> entries{};
    std::atomic<std::uint32_t> count{0};
};

// The one table of the process.
[[nodiscard]] AdapterPathTable& GlobalDeviceTable();
