#include "clients/halcydctl/Automation.h"

#include <new>

#include "NetUtilities/Handles.h"
#include "clients/halcydctl/Text.h"

namespace Automation
{
_bstr_t String(std::string_view utf8)
{
    return _bstr_t(Text::FromUtf8(utf8).c_str());
}

_variant_t StringArray(const std::vector<std::string>& utf8Items)
{
    UniqueSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(utf8Items.size())));
    if (!array)
    {
        throw std::bad_alloc();
    }
    for (LONG index = 0; index < static_cast<LONG>(utf8Items.size()); ++index)
    {
        _bstr_t item = String(utf8Items[static_cast<std::size_t>(index)]);
        if (FAILED(SafeArrayPutElement(array.get(), &index, item.GetBSTR())))
        {
            throw std::bad_alloc();
        }
    }
    _variant_t value;
    value.vt = VT_ARRAY | VT_BSTR;
    value.parray = array.release();
    return value;
}

std::vector<std::wstring> Strings(const VARIANT& value)
{
    std::vector<std::wstring> items;
    if (value.vt == VT_BSTR)
    {
        items.emplace_back(Text::View(value.bstrVal));
    }
    LONG lowest = 0;
    LONG highest = -1;
    if (value.vt == (VT_ARRAY | VT_BSTR) && value.parray != nullptr && SafeArrayGetDim(value.parray) == 1 &&
        SUCCEEDED(SafeArrayGetLBound(value.parray, 1, &lowest)) &&
        SUCCEEDED(SafeArrayGetUBound(value.parray, 1, &highest)))
    {
        for (LONG index = lowest; index <= highest; ++index)
        {
            BSTR item = nullptr;
            if (SUCCEEDED(SafeArrayGetElement(value.parray, &index, &item)))
            {
                items.emplace_back(Text::View(item));
                SysFreeString(item);
            }
        }
    }
    return items;
}
} // namespace Automation
