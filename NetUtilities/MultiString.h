#pragma once
// Text rules of the registry room that need no platform: compiled natively too.

#include <cstddef>
#include <list>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

// The strings of a REG_MULTI_SZ buffer of `characters`: each runs to the next NUL (or the end of the buffer), the
// list ends at the first empty one.
[[nodiscard]] std::list<std::wstring> ParseMultiString(std::wstring_view characters);

// The same for a buffer of bytes as the registry gives it; an odd byte at the end is left out.
[[nodiscard]] std::list<std::wstring> ParseMultiString(std::span<const std::byte> bytes);

// The opposite: each string with a NUL behind it, and one more NUL at the end. Empty strings are left out, since
// the first of them would end the list.
[[nodiscard]] std::wstring JoinMultiString(const std::list<std::wstring>& strings);

// Splits at the last backslash: what stands before it goes to `key`, what stands behind it is returned. Without a
// backslash both stay empty.
[[nodiscard]] std::wstring SplitValuePath(std::wstring_view path, std::wstring& key);

// The two parts of a full path at its first backslash. `valid` is false without a backslash.
struct FullPathParts
{
    std::wstring_view hive;
    std::wstring_view subkey;
    bool valid = false;
};
[[nodiscard]] FullPathParts SplitFullPath(std::wstring_view path) noexcept;
