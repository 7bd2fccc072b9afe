#pragma once

#include <windows.h>

extern "C" IMAGE_DOS_HEADER __ImageBase; // the linker's: the start of the module that this code was linked into

// The module that holds this code: the executable, or the DLL it was linked into.
[[nodiscard]] inline HMODULE ThisModule() noexcept
{
    return reinterpret_cast<HMODULE>(&__ImageBase);
}
