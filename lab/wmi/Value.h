// Property values as CIM has them, and their VARIANT form: 32-bit and 16-bit numbers as VT_I4, 64-bit numbers, date
// and time as text, arrays as VT_ARRAY of VT_BSTR or VT_I4, nothing as VT_NULL.
#pragma once

#include "lab/state/Machine.h"

#include <wbemidl.h>

#include <string>
#include <variant>
#include <vector>

namespace lab::wmi
{

using Strings = std::vector<std::wstring>;
using Numbers = std::vector<std::int32_t>;
using Value = std::variant<std::monostate, bool, std::int32_t, std::wstring, Strings, Numbers>;

// WMI's results are an enumeration without sign; methods return an HRESULT.
[[nodiscard]] constexpr HRESULT Status(WBEMSTATUS status) noexcept
{
    return static_cast<HRESULT>(status);
}

struct PropertyType
{
    std::wstring name;
    CIMTYPE type = CIM_STRING;
    bool key = false;
};

// Fills `target`, which counts as uninitialised. E_OUTOFMEMORY when there is no memory.
[[nodiscard]] HRESULT ToVariant(const Value& value, VARIANT* target);
// What a Put of `source` into a property of `type` stores. WBEM_E_TYPE_MISMATCH if the two do not go together.
[[nodiscard]] HRESULT FromVariant(const VARIANT& source, CIMTYPE type, Value& target);
// From the machine's document; what does not fit the type becomes nothing.
[[nodiscard]] Value FromJson(const Json& json, CIMTYPE type);
[[nodiscard]] Json ToJson(const Value& value);
// As MOF writes it: "text", TRUE, 5, {"a", "b"}, NULL.
[[nodiscard]] std::wstring ToMof(const Value& value);
[[nodiscard]] std::wstring_view TypeName(CIMTYPE type);

} // namespace lab::wmi
