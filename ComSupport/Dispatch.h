#pragma once
// IDispatch of a dual interface, answered from the type library.

#include "ComSupport/Module.h"
#include "ComSupport/TypeLibrary.h"

// The library is the module's own unless a class names another.
template <class Interface, const IID* InterfaceId = &__uuidof(Interface), const GUID* LibraryId = &CComModule::m_libid,
          WORD Major = 1, WORD Minor = 0>
class IDispatchImpl : public Interface
{
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) noexcept override
    {
        if (count == nullptr)
        {
            return E_POINTER;
        }
        *count = 1;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** result) noexcept override
    {
        return Holder().GetTypeInfo(index, locale, result);
    }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) noexcept override
    {
        return Holder().GetIDsOfNames(locale, names, count, ids);
    }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID locale, WORD flags, DISPPARAMS* arguments, VARIANT* result,
                        EXCEPINFO* exception, UINT* argumentError) noexcept override
    {
        return Holder().Invoke(static_cast<Interface*>(this), id, locale, flags, arguments, result, exception,
                               argumentError);
    }

private:
    static CComTypeInfoHolder& Holder() noexcept
    {
        static CComTypeInfoHolder holder(*InterfaceId, *LibraryId, Major, Minor);
        return holder;
    }
};
