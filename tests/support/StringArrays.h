// Arrays of strings as they cross the product's interfaces: one dimension, VT_ARRAY with VT_BSTR.
#pragma once

#include <windows.h>

#include <comdef.h>

#include <string>
#include <vector>

// A new array, its lower bound 0.
[[nodiscard]] inline _variant_t TextArray(const std::vector<std::wstring>& texts)
{
    _variant_t array;
    array.parray = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    array.vt = VT_ARRAY | VT_BSTR;
    LONG index = 0;
    for (const std::wstring& text : texts)
    {
        SafeArrayPutElement(array.parray, &index, _bstr_t(text.c_str()).GetBSTR());
        ++index;
    }
    return array;
}

// The entries of such an array, a null one as an empty text; nothing for any other value.
[[nodiscard]] inline std::vector<std::wstring> Texts(const VARIANT& value)
{
    std::vector<std::wstring> texts;
    if (value.vt == (VT_ARRAY | VT_BSTR) && value.parray != nullptr)
    {
        for (ULONG index = 0; index < value.parray->rgsabound[0].cElements; ++index)
        {
            const BSTR entry = static_cast<BSTR*>(value.parray->pvData)[index];
            texts.emplace_back(entry != nullptr ? entry : L"");
        }
    }
    return texts;
}
