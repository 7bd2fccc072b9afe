#pragma once
// Automation values for calls to the service. Everything made here frees itself.

#include <windows.h>
#include <comdef.h>

#include <string>
#include <string_view>
#include <vector>

namespace Automation
{
[[nodiscard]] _bstr_t String(std::string_view utf8);
// An array of strings in a variant, as IDNS wants it; of length 0 for no items.
[[nodiscard]] _variant_t StringArray(const std::vector<std::string>& utf8Items);
// The strings of such a variant; a single string gives one item, anything else none.
[[nodiscard]] std::vector<std::wstring> Strings(const VARIANT& value);
} // namespace Automation
