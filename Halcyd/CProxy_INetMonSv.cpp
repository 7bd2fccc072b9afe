#include "Halcyd/CProxy_INetMonSv.h"

#include <oleauto.h>

namespace
{
constexpr DISPID adapterChangeId = 2;
constexpr LCID eventLocale = 1024;

// A null string stays null: clients tell it from an empty one.
void SetBstr(VARIANT& variant, BSTR text)
{
    variant.vt = VT_BSTR;
    variant.bstrVal = text != nullptr ? SysAllocStringLen(text, SysStringLen(text)) : nullptr;
}

void SetEvent(VARIANT& variant, _NOTIFICATION_EVENT event)
{
    variant.vt = VT_INT; // not VT_I4
    variant.intVal = static_cast<INT>(event);
}
} // namespace

AdapterChangeArguments::AdapterChangeArguments(BSTR deviceId, BSTR adjacentMac, _NOTIFICATION_EVENT event)
{
    SetBstr(arguments[2], deviceId);
    SetBstr(arguments[1], adjacentMac);
    SetEvent(arguments[0], event);
}

AdapterChangeArguments::AdapterChangeArguments(BSTR deviceId, HRESULT result, _NOTIFICATION_EVENT event)
{
    SetBstr(arguments[2], deviceId);
    arguments[1].vt = VT_I4;
    arguments[1].lVal = result;
    SetEvent(arguments[0], event);
}

HRESULT AdapterChangeArguments::Invoke(IDispatch* sink, _variant_t& result)
{
    // Not by the wrapper, which raises for a type that a sink has made up.
    static_cast<void>(VariantClear(&result));
    VariantInit(&result);
    result.scode = 0; // neither touches the old value's bits
    DISPPARAMS parameters{arguments, nullptr, 3, 0};
    return sink->Invoke(adapterChangeId, IID_NULL, eventLocale, DISPATCH_METHOD, &parameters, &result, nullptr,
                        nullptr);
}
