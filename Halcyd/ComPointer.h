#pragma once

#include <windows.h>

#include <comdef.h>

template <class Interface>
inline const IID& InterfaceIdOf()
{
    return __uuidof(Interface);
}

// The platform's owning COM pointer for any interface, without a declaration of its own for each: several headers of
// this room need the same interfaces.
template <class Interface>
using ComPointer = _com_ptr_t<_com_IIID_getter<Interface, InterfaceIdOf<Interface>>>;
