#include "Halcyd/WmiValues.h"

#include "NetUtilities/BstrText.h"

#include <algorithm>

namespace WmiValues
{
HRESULT Read(IWbemClassObject* object, const wchar_t* property, _variant_t& value)
{
    value.Clear();
    const HRESULT result = object->Get(property, 0, &value, nullptr, nullptr);
    if (FAILED(result))
    {
        value.Clear();
    }
    return result;
}

std::wstring Text(const VARIANT& value)
{
    if (value.vt != VT_BSTR || value.bstrVal == nullptr)
    {
        return {};
    }
    return {value.bstrVal, SysStringLen(value.bstrVal)};
}

std::wstring ReadText(IWbemClassObject* object, const wchar_t* property)
{
    _variant_t value;
    Read(object, property, value);
    return Text(value);
}

long Number(const VARIANT& value) noexcept
{
    return value.vt == VT_I4 || value.vt == VT_UI4 ? value.lVal : 0;
}

bool Truth(const VARIANT& value) noexcept
{
    return value.vt == VT_BOOL && value.boolVal != VARIANT_FALSE;
}

std::vector<std::wstring> Strings(const VARIANT& value)
{
    std::vector<std::wstring> strings;
    if (value.vt != (VT_ARRAY | VT_BSTR) || value.parray == nullptr || SafeArrayGetDim(value.parray) != 1)
    {
        return strings;
    }
    BSTR* entries = nullptr;
    if (FAILED(SafeArrayAccessData(value.parray, reinterpret_cast<void**>(&entries))))
    {
        return strings;
    }
    const ULONG count = value.parray->rgsabound[0].cElements;
    strings.reserve(count);
    for (ULONG index = 0; index < count; ++index)
    {
        strings.emplace_back(entries[index] != nullptr ? entries[index] : L"", SysStringLen(entries[index]));
    }
    SafeArrayUnaccessData(value.parray);
    return strings;
}

std::wstring Join(const std::vector<std::wstring>& strings, std::wstring_view separator)
{
    std::wstring text;
    for (std::size_t index = 0; index < strings.size(); ++index)
    {
        if (index > 0)
        {
            text += separator;
        }
        text += strings[index];
    }
    return text;
}

HRESULT Query(IWbemServices* services, std::wstring_view text, long flags, IEnumWbemClassObjectPtr& results)
{
    if (services == nullptr)
    {
        return E_POINTER; // the connection was taken down
    }
    const _bstr_t language = CopyToBstr(L"WQL");
    const _bstr_t query = CopyToBstr(std::wstring(text).c_str());
    if (language.length() == 0 || query.length() == 0)
    {
        return E_OUTOFMEMORY;
    }
    return services->ExecQuery(language, query, flags, nullptr, &results);
}
} // namespace WmiValues

std::wstring JoinStrings(const VARIANT& list, std::wstring_view separator, std::size_t limit)
{
    std::vector<std::wstring> strings = WmiValues::Strings(list);
    if (limit > 0 && limit < strings.size())
    {
        strings.resize(limit);
    }
    return WmiValues::Join(strings, separator);
}
