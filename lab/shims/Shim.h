// What every shim is made of. A shim is a DLL with the name of a platform DLL, beside the program that it is for; it
// exports all that the built-in DLL exports. The functions written with SHIM_EXPORT are the shim's own, all others are
// thunks into the built-in DLL (make_thunks.py).
#pragma once

#include "lab/state/Machine.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

// SHIM_EXPORT(DWORD, SendARP)(IPAddr destination, ...) { ... }   at the start of a line: the generator looks for it.
// The function itself is called Shim_SendARP, so the platform's own declaration stays usable for its type.
#define SHIM_EXPORT(result, name) extern "C" result WINAPI Shim_##name

namespace lab::shim
{

// The built-in DLL's function of that name, or null. Any thread.
[[nodiscard]] void* OriginalAddress(const char* name) noexcept;

// SHIM_ORIGINAL(SendARP)(a, b, c, d): the same call, answered by the built-in DLL.
#define SHIM_ORIGINAL(name) (reinterpret_cast<decltype(&::name)>(lab::shim::OriginalAddress(#name)))

} // namespace lab::shim
