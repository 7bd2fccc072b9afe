#pragma once
// What texts of the device tree mean, without a platform: compiled natively too.

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>

namespace DeviceText
{
// USB identity from hardware ids: the first id that holds "vid_" and "pid_" (in any case) wins. Both come out in lower
// case with their prefix. False, with both untouched, if there is none.
[[nodiscard]] bool FindUsbIdentity(const std::list<std::wstring>& hardwareIds, std::wstring& vid, std::wstring& pid);

// The text of a REG_SZ in bytes, up to its NUL or its end.
[[nodiscard]] std::wstring StringOf(std::span<const std::byte> bytes);
// The number of a REG_DWORD, if there are four bytes.
[[nodiscard]] std::optional<std::uint32_t> NumberOf(std::span<const std::byte> bytes);

// The strings of a device property by its registry type: REG_SZ, REG_DWORD (in decimal) or REG_MULTI_SZ. Nothing for
// another type.
[[nodiscard]] std::optional<std::list<std::wstring>> PropertyStrings(std::uint32_t type,
                                                                     std::span<const std::byte> bytes);
} // namespace DeviceText
