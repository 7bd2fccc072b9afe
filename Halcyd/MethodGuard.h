#pragma once
// Keeps C++ exceptions inside a COM method: what called it knows nothing of them.

#include <windows.h>

#include <comdef.h>

#include <new>
#include <source_location>
#include <utility>

// Runs the body of a COM method. Running out of memory becomes E_OUTOFMEMORY, a COM error its own code, anything else
// E_UNEXPECTED; without an exception the body's result is handed on, whatever it is.
//
// The body is given the method's location (leave `method` to its default) for its scope trace: the trace belongs in the
// body, since opening it can fail too, but the body's own location would name the lambda.
template <class Body>
[[nodiscard]] HRESULT GuardMethod(Body&& body, std::source_location method = std::source_location::current()) noexcept
{
    try
    {
        return std::forward<Body>(body)(method);
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
