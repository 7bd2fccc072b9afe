#pragma once
// Keeps C++ exceptions inside a COM method.

#include <windows.h>

#include <comdef.h>

#include <new>
#include <utility>

// Runs the body of a COM method. Running out of memory becomes E_OUTOFMEMORY, a COM error its own code, anything else
// E_UNEXPECTED; without an exception the body's result is handed on, whatever it is.
template <class Body>
[[nodiscard]] HRESULT GuardMethod(Body&& body) noexcept
{
    try
    {
        return std::forward<Body>(body)();
    }
    catch (const _com_error& error)
    {
        return error.Error();
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    catch (...)
    {
        return E_UNEXPECTED;
    }
}
