#pragma once
// What the words "RegServer" and "UnregServer" do. Both need an administrator.

#include <windows.h>

namespace Registration
{
// Writes the class, its AppID and the proxies of TraceStorePS.dll beside the executable, and makes the folder and the
// settings key with the rights that the trace service needs. Going on where it can, it returns the first failure.
[[nodiscard]] HRESULT Register();

// Takes the class, its AppID and the proxies away again. Trace files and settings stay.
[[nodiscard]] HRESULT Unregister();
} // namespace Registration
