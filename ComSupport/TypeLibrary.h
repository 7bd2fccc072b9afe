#pragma once
// The module's type library: registration, and the type information that late binding needs.

#include "ComSupport/Threading.h"

#include <oaidl.h>

// Registers the library in the module's TYPELIB resource under the module's path, with its folder as the help folder.
// Every interface of the library is thereby claimed for the generic marshaler: a proxy DLL has to be registered again.
[[nodiscard]] HRESULT RegisterModuleTypeLibrary(HINSTANCE instance) noexcept;
[[nodiscard]] HRESULT UnregisterModuleTypeLibrary(HINSTANCE instance) noexcept;

// The type information of one interface, loaded on first use and kept for the life of the process. It comes from the
// registered library, or from the module's own resource when none is registered. Any thread may use it.
class CComTypeInfoHolder
{
public:
    CComTypeInfoHolder(const IID& iid, const GUID& library, WORD major, WORD minor) noexcept
        : m_iid(iid), m_library(library), m_major(major), m_minor(minor)
    {
    }

    [[nodiscard]] HRESULT GetTypeInfo(UINT index, LCID locale, ITypeInfo** result) noexcept;
    [[nodiscard]] HRESULT GetIDsOfNames(LCID locale, LPOLESTR* names, UINT count, DISPID* ids) noexcept;
    [[nodiscard]] HRESULT Invoke(IDispatch* object, DISPID id, LCID locale, WORD flags, DISPPARAMS* arguments,
                                 VARIANT* result, EXCEPINFO* exception, UINT* argumentError) noexcept;

private:
    HRESULT EnsureLoaded(LCID locale) noexcept;
    HRESULT Load(LCID locale, ITypeInfo** result) const noexcept;

    const IID& m_iid;
    const GUID& m_library;
    const WORD m_major;
    const WORD m_minor;
    ITypeInfo* m_info = nullptr; // set once; never released, since objects may outlive every tear-down
};
