#pragma once

#include <windows.h>

#include <comdef.h>

// Releases what `pointer` holds and returns the references that remain, for the trace. 0 for an empty pointer.
template <class Pointer>
[[nodiscard]] ULONG ReleaseAndCount(Pointer& pointer) noexcept
{
    auto* const object = pointer.Detach();
    return object != nullptr ? object->Release() : 0;
}
