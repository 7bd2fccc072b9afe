#pragma once
// Reading values of WMI objects. A property that cannot be read, is null, or is of another type has no text; nothing
// here raises for a strange value.

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "NetUtilities/Handles.h"

_COM_SMARTPTR_TYPEDEF(IWbemServices, __uuidof(IWbemServices));
_COM_SMARTPTR_TYPEDEF(IWbemLocator, __uuidof(IWbemLocator));
_COM_SMARTPTR_TYPEDEF(IWbemClassObject, __uuidof(IWbemClassObject));
_COM_SMARTPTR_TYPEDEF(IEnumWbemClassObject, __uuidof(IEnumWbemClassObject));

namespace HandleTraits
{
struct Bstr
{
    using Value = BSTR;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { SysFreeString(value); }
};
} // namespace HandleTraits

using UniqueBstr = UniqueResource<HandleTraits::Bstr>; // SysFreeString

namespace WmiValues
{
// For IEnumWbemClassObject::Next.
inline constexpr long NoTimeLimit = static_cast<long>(WBEM_INFINITE);

// Reads a property; a failure leaves `value` empty and is returned. `object` must not be null.
HRESULT Read(IWbemClassObject* object, const wchar_t* property, _variant_t& value);

// True for a value that WMI calls null and for one that was never read.
[[nodiscard]] inline bool IsNull(const VARIANT& value) noexcept
{
    return value.vt == VT_NULL || value.vt == VT_EMPTY;
}

// The text of a string value; empty for anything that is not text.
[[nodiscard]] std::wstring Text(const VARIANT& value);
// Read and Text in one: empty when there is no text, for whatever reason.
[[nodiscard]] std::wstring ReadText(IWbemClassObject* object, const wchar_t* property);

// The number of a VT_I4 or VT_UI4 value; 0 for anything else.
[[nodiscard]] long Number(const VARIANT& value) noexcept;
[[nodiscard]] bool Truth(const VARIANT& value) noexcept;

// The entries of an array of strings (VT_ARRAY with VT_BSTR); empty for anything else.
[[nodiscard]] std::vector<std::wstring> Strings(const VARIANT& value);
[[nodiscard]] std::wstring Join(const std::vector<std::wstring>& strings, std::wstring_view separator);

// Starts a WQL query. Flags as IWbemServices::ExecQuery takes them.
HRESULT Query(IWbemServices* services, std::wstring_view text, long flags, IEnumWbemClassObjectPtr& results);
} // namespace WmiValues

// The first `limit` entries of an array value (all for 0, or when there are fewer), joined. The empty string, not "no
// string", for anything that is not an array of strings.
[[nodiscard]] std::wstring JoinStrings(const VARIANT& list, std::wstring_view separator, std::size_t limit);
