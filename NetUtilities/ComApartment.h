#pragma once

#include <windows.h>
#include <objbase.h>

// CoInitializeEx for the life of the object. The call is balanced exactly when it counted (S_OK or S_FALSE),
// on the thread that made the object: keep it a local variable.
class ComApartment
{
public:
    // `model`: COINIT_MULTITHREADED or another COINIT value, passed on as it is.
    explicit ComApartment(DWORD model = COINIT_MULTITHREADED) noexcept : result(CoInitializeEx(nullptr, model)) {}
    ~ComApartment()
    {
        if (Initialized())
        {
            CoUninitialize();
        }
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

    // What CoInitializeEx returned.
    [[nodiscard]] HRESULT Result() const noexcept { return result; }
    [[nodiscard]] bool Initialized() const noexcept { return result == S_OK || result == S_FALSE; }

private:
    HRESULT result;
};
