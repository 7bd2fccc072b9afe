#include "tests/support/HandleCount.h"

#include <winternl.h>

#include <bit>
#include <cstdint>
#include <set>
#include <span>
#include <vector>

#include "NetUtilities/Handles.h"

namespace
{
// SystemExtendedHandleInformation: every handle of every process.
constexpr ULONG kExtendedHandleInformation = 64;
constexpr NTSTATUS kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004);

struct HandleEntry
{
    void* object;
    ULONG_PTR processId;
    ULONG_PTR handle;
    ULONG access;
    USHORT backTraceIndex;
    USHORT typeIndex;
    ULONG attributes;
    ULONG reserved;
};

struct HandleTable
{
    ULONG_PTR count;
    ULONG_PTR reserved;
    HandleEntry entries[1];
};

// The header's declaration takes an enumeration that does not reach as far.
NTSTATUS QuerySystem(ULONG what, void* answer, ULONG size)
{
    using Query = NTSTATUS(NTAPI*)(ULONG, void*, ULONG, ULONG*);
    static const Query query =
        std::bit_cast<Query>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
    return query(what, answer, size, nullptr);
}

// All handles there are.
class Table
{
public:
    Table()
    {
        NTSTATUS status = kInfoLengthMismatch;
        while (status == kInfoLengthMismatch)
        {
            buffer.resize(buffer.size() * 2);
            status = QuerySystem(kExtendedHandleInformation, buffer.data(),
                                 static_cast<ULONG>(buffer.size() * sizeof buffer[0]));
        }
        if (status >= 0)
        {
            const auto* const table = reinterpret_cast<const HandleTable*>(buffer.data());
            entries = std::span(table->entries, table->count);
        }
    }

    std::span<const HandleEntry> Entries() const { return entries; }

    // Number of the type of a handle of this process.
    USHORT TypeOf(HANDLE handle) const
    {
        for (const HandleEntry& entry : entries)
        {
            if (entry.processId == GetCurrentProcessId() && entry.handle == reinterpret_cast<ULONG_PTR>(handle))
            {
                return entry.typeIndex;
            }
        }
        return 0;
    }

private:
    std::vector<std::uint64_t> buffer = std::vector<std::uint64_t>(0x8000);
    std::span<const HandleEntry> entries;
};
} // namespace

HandleCounts CountHandles(DWORD processId)
{
    const UniqueHandle event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const UniqueHandle semaphore{CreateSemaphoreW(nullptr, 0, 1, nullptr)};
    const UniqueHandle thread{OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId())};
    const Table table;
    const std::set<USHORT> passing{table.TypeOf(event.get()), table.TypeOf(semaphore.get()),
                                   table.TypeOf(thread.get())};
    HandleCounts counts;
    for (const HandleEntry& entry : table.Entries())
    {
        if (entry.processId == processId)
        {
            ++counts.all;
            if (!passing.contains(entry.typeIndex))
            {
                ++counts.lasting;
            }
        }
    }
    if (processId == GetCurrentProcessId())
    {
        counts.all -= 3; // those of this function
    }
    return counts;
}
