#pragma once
// Owner of a device information set. Apart from Handles.h because setupapi.h is large.

#include <windows.h>
#include <setupapi.h>

#include "NetUtilities/Handles.h"

namespace HandleTraits
{
struct DeviceInfoSet
{
    using Value = HDEVINFO;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr && value != INVALID_HANDLE_VALUE; }
    static void Close(Value value) noexcept { SetupDiDestroyDeviceInfoList(value); }
};
} // namespace HandleTraits

using UniqueDeviceInfoSet = UniqueResource<HandleTraits::DeviceInfoSet>; // SetupDiDestroyDeviceInfoList
