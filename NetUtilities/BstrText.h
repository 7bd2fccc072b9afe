#pragma once

#include <windows.h>

#include <comdef.h>

// A BSTR with a copy of the text; null for a null text and when there is no memory. The constructors of _bstr_t raise a
// COM error instead, which would end the process on a worker thread and must not leave a COM method.
[[nodiscard]] inline _bstr_t CopyToBstr(const wchar_t* text)
{
    return {SysAllocString(text), false};
}
