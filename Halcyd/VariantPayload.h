#pragma once
// Reads of a VARIANT that a client handed in, which can be of any type and hold anything.

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <optional>
#include <string>

// A BSTR as the text that the registry and the service manager will see: up to its first NUL, and empty when it is
// null. A check must look at this text and at no other, or what is checked and what is used would differ.
[[nodiscard]] inline std::wstring TextOf(const wchar_t* text)
{
    return text != nullptr ? std::wstring(text) : std::wstring();
}

// The variant's 32-bit and 64-bit values, read without a look at its type: required, since script engines hand in
// numbers of several types. Types that hold something else give whatever bits lie there; that is not dereferenced.
[[nodiscard]] inline std::int32_t NumberOf(const VARIANT& variant) noexcept
{
    return variant.lVal;
}
[[nodiscard]] inline std::uint64_t LongNumberOf(const VARIANT& variant) noexcept
{
    return variant.ullVal;
}

// The variant's BSTR, where it has one: VT_BSTR, or VT_BSTR by reference with a place behind it. Nothing for any other
// type, because the bits of another type are no pointer that may be followed.
[[nodiscard]] inline std::optional<std::wstring> StringOf(const VARIANT& variant)
{
    if (variant.vt == VT_BSTR)
    {
        return TextOf(variant.bstrVal);
    }
    if (variant.vt == (VT_BSTR | VT_BYREF) && variant.pbstrVal != nullptr)
    {
        return TextOf(*variant.pbstrVal);
    }
    return std::nullopt;
}

// Whether a number may be written over the payload without orphaning what it owns or leaving a pointer that is none:
// true for numbers, dates and the empty types.
[[nodiscard]] inline bool HoldsPlainBits(const VARIANT& variant) noexcept
{
    switch (variant.vt)
    {
    case VT_EMPTY:
    case VT_NULL:
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_I8:
    case VT_UI8:
    case VT_R4:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_BOOL:
    case VT_ERROR:
    case VT_DECIMAL:
        return true;
    default:
        return false;
    }
}
