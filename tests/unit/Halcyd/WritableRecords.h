#pragma once
// A machine on which the value of a disabled binding's record can be written: the key's handle gets all rights, which
// the service does not ask for.

#include "tests/unit/Halcyd/PlatformHooks.h"

inline void LetRecordsBeWritten()
{
    RegCreateKeyExWHook::Replace(
        [](HKEY root, LPCWSTR name, DWORD reserved, LPWSTR cls, DWORD options, REGSAM, LPSECURITY_ATTRIBUTES security,
           PHKEY key, LPDWORD made)
        { return RegCreateKeyExWHook::Real(root, name, reserved, cls, options, KEY_ALL_ACCESS, security, key, made); });
}
