#include "lab/wmi/Value.h"

#include "lab/state/Text.h"

#include <oleauto.h>

namespace lab::wmi
{

namespace
{

// One-dimensional array of `count` elements whose bytes `fill` writes; null without memory.
template <class Fill>
SAFEARRAY* MakeArray(VARTYPE type, std::size_t count, Fill fill)
{
    SAFEARRAY* array = SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
    void* data = nullptr;
    if (array == nullptr || FAILED(SafeArrayAccessData(array, &data)))
    {
        return array;
    }
    fill(data);
    SafeArrayUnaccessData(array);
    return array;
}

HRESULT StringsFromArray(const VARIANT& source, Strings& strings)
{
    SAFEARRAY* array = source.parray;
    LONG low = 0;
    LONG high = -1;
    if (array == nullptr || SafeArrayGetDim(array) != 1 || FAILED(SafeArrayGetLBound(array, 1, &low)) ||
        FAILED(SafeArrayGetUBound(array, 1, &high)))
    {
        return array == nullptr ? S_OK : Status(WBEM_E_TYPE_MISMATCH);
    }
    BSTR* data = nullptr;
    if (FAILED(SafeArrayAccessData(array, reinterpret_cast<void**>(&data))))
    {
        return E_FAIL;
    }
    for (LONG i = low; i <= high; ++i)
    {
        const BSTR text = data[i - low];
        strings.emplace_back(text == nullptr ? L"" : text, SysStringLen(text));
    }
    SafeArrayUnaccessData(array);
    return S_OK;
}

bool IsNumberType(CIMTYPE type)
{
    return type == CIM_UINT8 || type == CIM_UINT16 || type == CIM_SINT16 || type == CIM_UINT32 || type == CIM_SINT32;
}

std::wstring Quoted(const std::wstring& text)
{
    std::wstring result = L"\"";
    for (const wchar_t c : text)
    {
        if (c == L'"' || c == L'\\')
        {
            result += L'\\';
        }
        result += c;
    }
    return result + L'"';
}

template <class List, class Item>
std::wstring Braced(const List& list, Item item)
{
    std::wstring result = L"{";
    for (const auto& entry : list)
    {
        result += (result.size() > 1 ? L", " : L"") + item(entry);
    }
    return result + L"}";
}

struct VariantWriter
{
    VARIANT* target;

    HRESULT operator()(std::monostate) const
    {
        target->vt = VT_NULL;
        return S_OK;
    }
    HRESULT operator()(bool value) const
    {
        target->vt = VT_BOOL;
        target->boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT operator()(std::int32_t value) const
    {
        target->vt = VT_I4;
        target->lVal = value;
        return S_OK;
    }
    HRESULT operator()(const std::wstring& value) const
    {
        target->bstrVal = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
        target->vt = target->bstrVal == nullptr ? VT_EMPTY : VT_BSTR;
        return target->bstrVal == nullptr ? E_OUTOFMEMORY : S_OK;
    }
    HRESULT operator()(const Strings& value) const
    {
        target->parray = MakeArray(VT_BSTR, value.size(),
                                   [&](void* data)
                                   {
                                       for (std::size_t i = 0; i < value.size(); ++i)
                                       {
                                           static_cast<BSTR*>(data)[i] =
                                               SysAllocStringLen(value[i].data(), static_cast<UINT>(value[i].size()));
                                       }
                                   });
        target->vt = target->parray == nullptr ? VT_EMPTY : VT_ARRAY | VT_BSTR;
        return target->parray == nullptr ? E_OUTOFMEMORY : S_OK;
    }
    HRESULT operator()(const Numbers& value) const
    {
        target->parray = MakeArray(VT_I4, value.size(), [&](void* data)
                                   { std::copy(value.begin(), value.end(), static_cast<std::int32_t*>(data)); });
        target->vt = target->parray == nullptr ? VT_EMPTY : VT_ARRAY | VT_I4;
        return target->parray == nullptr ? E_OUTOFMEMORY : S_OK;
    }
};

struct JsonWriter
{
    Json operator()(std::monostate) const { return nullptr; }
    Json operator()(bool value) const { return value; }
    Json operator()(std::int32_t value) const { return value; }
    Json operator()(const std::wstring& value) const { return Utf8(value); }
    Json operator()(const Strings& value) const
    {
        Json list = Json::array();
        for (const std::wstring& entry : value)
        {
            list.push_back(Utf8(entry));
        }
        return list;
    }
    Json operator()(const Numbers& value) const { return value; }
};

struct MofWriter
{
    std::wstring operator()(std::monostate) const { return L"NULL"; }
    std::wstring operator()(bool value) const { return value ? L"TRUE" : L"FALSE"; }
    std::wstring operator()(std::int32_t value) const { return std::to_wstring(value); }
    std::wstring operator()(const std::wstring& value) const { return Quoted(value); }
    std::wstring operator()(const Strings& value) const { return Braced(value, Quoted); }
    std::wstring operator()(const Numbers& value) const
    {
        return Braced(value, [](std::int32_t number) { return std::to_wstring(number); });
    }
};

} // namespace

HRESULT ToVariant(const Value& value, VARIANT* target)
{
    VariantInit(target);
    return std::visit(VariantWriter{target}, value);
}

HRESULT FromVariant(const VARIANT& source, CIMTYPE type, Value& target)
{
    if (source.vt == VT_NULL)
    {
        target = std::monostate{};
        return S_OK;
    }
    if (type == (CIM_STRING | CIM_FLAG_ARRAY))
    {
        if (source.vt != (VT_ARRAY | VT_BSTR))
        {
            return Status(WBEM_E_TYPE_MISMATCH);
        }
        Strings strings;
        const HRESULT result = StringsFromArray(source, strings);
        if (SUCCEEDED(result))
        {
            target = std::move(strings);
        }
        return result;
    }
    if (type == CIM_BOOLEAN && source.vt == VT_BOOL)
    {
        target = source.boolVal != VARIANT_FALSE;
        return S_OK;
    }
    if (IsNumberType(type))
    {
        VARIANT number;
        VariantInit(&number);
        VARIANT original = source; // the conversion only reads it, but its declaration does not say so everywhere
        // Numbers in text are taken, as WMI takes them.
        if ((source.vt & VT_ARRAY) != 0 || FAILED(VariantChangeType(&number, &original, 0, VT_I4)))
        {
            return Status(WBEM_E_TYPE_MISMATCH);
        }
        target = std::int32_t{number.lVal};
        return S_OK;
    }
    if ((type & CIM_FLAG_ARRAY) == 0 && !IsNumberType(type) && type != CIM_BOOLEAN && source.vt == VT_BSTR)
    {
        target = std::wstring(source.bstrVal == nullptr ? L"" : source.bstrVal, SysStringLen(source.bstrVal));
        return S_OK;
    }
    return Status(WBEM_E_TYPE_MISMATCH);
}

Value FromJson(const Json& json, CIMTYPE type)
{
    if ((type & CIM_FLAG_ARRAY) != 0)
    {
        if (!json.is_array())
        {
            return {};
        }
        if (IsNumberType(type & ~CIM_FLAG_ARRAY))
        {
            Numbers numbers;
            for (const Json& entry : json)
            {
                numbers.push_back(entry.is_number() ? entry.get<std::int32_t>() : 0);
            }
            return numbers;
        }
        Strings strings;
        for (const Json& entry : json)
        {
            strings.push_back(entry.is_string() ? Wide(entry.get_ref<const std::string&>()) : std::wstring{});
        }
        return strings;
    }
    if (type == CIM_BOOLEAN)
    {
        return json.is_boolean() ? Value{json.get<bool>()} : Value{};
    }
    if (IsNumberType(type))
    {
        return json.is_number() ? Value{static_cast<std::int32_t>(json.get<std::int64_t>())} : Value{};
    }
    if (json.is_string())
    {
        return Wide(json.get_ref<const std::string&>());
    }
    return json.is_number_integer() ? Value{std::to_wstring(json.get<std::int64_t>())} : Value{};
}

Json ToJson(const Value& value)
{
    return std::visit(JsonWriter{}, value);
}

std::wstring ToMof(const Value& value)
{
    return std::visit(MofWriter{}, value);
}

std::wstring_view TypeName(CIMTYPE type)
{
    switch (type & ~CIM_FLAG_ARRAY)
    {
    case CIM_BOOLEAN:
        return L"boolean";
    case CIM_UINT8:
        return L"uint8";
    case CIM_UINT16:
        return L"uint16";
    case CIM_UINT32:
        return L"uint32";
    case CIM_SINT32:
        return L"sint32";
    case CIM_UINT64:
        return L"uint64";
    case CIM_DATETIME:
        return L"datetime";
    default:
        return L"string";
    }
}

} // namespace lab::wmi
