#pragma once

#include <windows.h>
#include <oleauto.h>

#include <span>

// The entries of an array of strings, held in place for as long as this object lives. An entry may be null, which is
// an empty string. The array stays its owner's and must be one-dimensional, with BSTRs in it.
class StringArrayAccess
{
public:
    explicit StringArrayAccess(SAFEARRAY* from) noexcept
        : array(from), result(SafeArrayAccessData(from, reinterpret_cast<void**>(&data)))
    {
    }
    StringArrayAccess(const StringArrayAccess&) = delete;
    StringArrayAccess& operator=(const StringArrayAccess&) = delete;
    ~StringArrayAccess()
    {
        if (SUCCEEDED(result))
        {
            static_cast<void>(SafeArrayUnaccessData(array));
        }
    }

    // What the platform said to the access; with a failure there are no entries.
    [[nodiscard]] HRESULT Result() const noexcept { return result; }
    [[nodiscard]] std::span<const BSTR> Entries() const noexcept
    {
        return SUCCEEDED(result) ? std::span<const BSTR>(data, array->rgsabound[0].cElements) : std::span<const BSTR>();
    }

private:
    SAFEARRAY* array;
    BSTR* data = nullptr;
    HRESULT result; // behind `data`, which its initialiser fills
};
