#include "lab/shims/ImportTable.h"

#include <windows.h>

#include <cstring>

namespace lab::shim
{

namespace
{

template <class T>
T* At(BYTE* base, DWORD offset) noexcept
{
    return reinterpret_cast<T*>(base + offset);
}

void* Exchange(IMAGE_THUNK_DATA& entry, void* replacement) noexcept
{
    DWORD protection = 0;
    if (!VirtualProtect(&entry, sizeof entry, PAGE_READWRITE, &protection))
        return nullptr;
    void* const previous = reinterpret_cast<void*>(entry.u1.Function);
    entry.u1.Function = reinterpret_cast<ULONGLONG>(replacement);
    VirtualProtect(&entry, sizeof entry, protection, &protection);
    return previous;
}

// Calls `visit(name, entry)` for each function that the program imports by name.
template <class Visit>
void ForEachImport(Visit visit)
{
    BYTE* const base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    const auto* const headers =
        At<IMAGE_NT_HEADERS>(base, static_cast<DWORD>(reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew));
    const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.VirtualAddress == 0)
        return;
    for (auto* dll = At<IMAGE_IMPORT_DESCRIPTOR>(base, directory.VirtualAddress); dll->Name != 0; ++dll)
    {
        auto* name =
            At<IMAGE_THUNK_DATA>(base, dll->OriginalFirstThunk != 0 ? dll->OriginalFirstThunk : dll->FirstThunk);
        auto* entry = At<IMAGE_THUNK_DATA>(base, dll->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++entry)
        {
            if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal))
                continue;
            const auto* const import = At<IMAGE_IMPORT_BY_NAME>(base, static_cast<DWORD>(name->u1.AddressOfData));
            visit(reinterpret_cast<const char*>(import->Name), *entry);
        }
    }
}

} // namespace

void* ReplaceImport(const char* function, void* replacement) noexcept
{
    void* previous = nullptr;
    ForEachImport(
        [&](const char* name, IMAGE_THUNK_DATA& entry)
        {
            if (std::strcmp(name, function) == 0)
                previous = Exchange(entry, replacement);
        });
    return previous;
}

std::vector<std::string> ImportedFunctions()
{
    std::vector<std::string> names;
    ForEachImport([&](const char* name, const IMAGE_THUNK_DATA&) { names.emplace_back(name); });
    return names;
}

} // namespace lab::shim
